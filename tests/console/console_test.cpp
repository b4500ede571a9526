// The window's settings, displays, manuals, START, START IN 10 and cancel, on any platform: on
// Linux offscreen, on Windows with the system's own platform under Wine.

#include "window_fixture.h"

#include "console/manuals.h"

namespace palimbo::testing {
namespace {

TEST_F(WindowTest, LoadShowsTheStoreOrItsDefaults) {
  const std::tuple<const char*, const char*, const char*> kRows[] = {
      {nullptr, nullptr, "COM1"}, {"COM12", "C:\\fw\\module.hex", "COM12"}};
  for (const auto& [Port, File, ShownPort] : kRows) {
    Settings.clear();
    if (Port) Settings.setValue("Settings/Port", Port);
    if (File) Settings.setValue("Settings/File", File);
    Open();
    EXPECT_EQ(Find<QComboBox>("cmbComPort")->currentText(), ShownPort);
    EXPECT_EQ(Stored("Port"), ShownPort);
    EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(), QString(File));
    EXPECT_EQ(Settings.contains("Settings/File"), File != nullptr);
    EXPECT_FALSE(Find("cmbComPort")->isEnabled());
    EXPECT_TRUE(Find<QRadioButton>("optAutomatic")->isChecked());
    EXPECT_TRUE(Find<QTimer>("TimerRefreshPort")->isActive());
  }
}

TEST_F(WindowTest, EveryChangeIsWrittenToTheStoreAtOnce) {
  Open();
  Find<QLineEdit>("txtFirmwareFile")->insert("a");
  Find<QComboBox>("cmbComPort")->setEditText("COM7");  // by the program, with the box disabled
  // Read with the window still open: nothing waits for the program's end.
  QFile Store(Settings.fileName());
  ASSERT_TRUE(Store.open(QIODevice::ReadOnly));
  // Line ends and the order of the keys are the platform's own.
  QStringList Lines =
      QString::fromUtf8(Store.readAll()).remove('\r').split('\n', Qt::SkipEmptyParts);
  Lines.sort();
  EXPECT_EQ(Lines, QStringList({"File=a", "Port=COM7", "[Settings]"}));
}

TEST_F(WindowTest, TimerTickShowsTheAdapterAndTakesItsPortOnlyWhenIdleAndAutomatic) {
  const std::tuple<const char*, const char*, const char*, const char*> kRows[] = {
      {"START", "optSelectManually", "(Manual selection)", "COM1"},
      {"CANCEL", "optAutomatic", "(Update in progress..)", "COM1"},
      {"Start", "optAutomatic", "(Update in progress..)", "COM1"},  // only START, exactly
      {"START", "optAutomatic", "Kestrolar USB (COM5)", "COM5"}};
  Scanner.Result = {5, "", "Kestrolar USB", false};
  Open();
  for (const auto& [Caption, Option, Label, Port] : kRows) {
    Find<QRadioButton>(Option)->click();
    Button("cmdStart")->setText(Caption);
    Window->TimerRefreshPort_Timer();
    EXPECT_EQ(Find<QLabel>("lblDetectedDevice")->text(), Label);
    EXPECT_EQ(Stored("Port"), Port) << Label;
  }
}

TEST_F(WindowTest, LogLineIsStampTabTextAndSelectionFollowsFromTheLastLineOrNowhere) {
  EXPECT_EQ(LogTimeFormat(QLocale("en_US")), "h:mm:ss AP");  // without the time zone
  Open();
  auto* List = Find<QListWidget>("lstStatus");
  // The row the operator selects first (-2: none picked), then the selected row after a Log.
  const std::pair<int, int> kSteps[] = {{-2, 0}, {-2, 1}, {0, 0}, {-2, 0}, {3, 4}, {-1, 5}};
  for (const auto& [Select, After] : kSteps) {
    if (Select != -2) List->setCurrentRow(Select);
    Window->Log("COM3 opened.");
    EXPECT_EQ(List->currentRow(), After) << List->count() << " lines";
  }
  EXPECT_EQ(LogTexts().value(0), "COM3 opened.");
  const QString Stamp = List->item(0)->text().section('\t', 0, 0);
  const QTime Logged = QLocale::system().toTime(Stamp, LogTimeFormat(QLocale::system()));
  ASSERT_TRUE(Logged.isValid()) << Stamp.toStdString();
  // The time of day, read just now; across midnight the two are a day apart less a moment.
  const int apart = std::abs(Logged.secsTo(QTime::currentTime()));
  EXPECT_LE(std::min(apart, 86400 - apart), 5);
}

// The bar's pixels are NOT (pen XOR old pixel): red over the white, cyan over the black text.
// 50 of 100 on 501 pixels is 250.5, which rounds to the even 250.
TEST_F(WindowTest, ProgressBarLaysItsColourOverTheTextWithTheNotXorPen) {
  const QRgb W = kWhite, K = kBlack, R = kRed, C = 0xFF00FFFF;
  // Per row: Val of 100, colour value, text, the colours of the left and of the right half.
  const std::tuple<int, uint32_t, const char*, std::set<QRgb>, std::set<QRgb>> kRows[] = {
      {0, kColorRed, "MMMMMMMM", {W, K}, {W, K}},
      {50, kColorRed, "MMMMMMMM", {R, C}, {W, K}},
      {100, kColorRed, "", {R}, {R}},
      {0, kColorRed, "", {W}, {W}}};
  Open();
  const QImage& Bar = Find<ProgressSurface>("pctProgress")->Picture();
  ASSERT_EQ(Bar.width(), 501);
  auto Colours = [&](int From, int To) {
    std::set<QRgb> Seen;
    for (int Y = 0; Y < Bar.height(); ++Y)
      for (int X = From; X < To; ++X) Seen.insert(Bar.pixel(X, Y) | kBlack);
    return Seen;
  };
  for (const auto& [Val, Color, Text, Left, Right] : kRows) {
    Window->SetProgress(Val, 100, Color, Text);
    EXPECT_EQ(Colours(0, 250), Left) << Val << " " << Color;
    EXPECT_EQ(Colours(250, 501), Right) << Val << " " << Color;
  }
  Window->SetProgress(7, 26, kColorRed, "");  // 134.9 pixels
  EXPECT_EQ(Colours(134, 135), std::set<QRgb>{R});
  EXPECT_EQ(Colours(135, 136), std::set<QRgb>{W});
}

// Each button opens its boxes as real modal boxes, one after the other, with the right icon.
TEST_F(WindowTest, ManualsOpenTheirBoxesOneAfterTheOther) {
  std::vector<std::tuple<QString, QString, QMessageBox::Icon>> Seen;
  const decltype(Seen) kBoxes = {
      {"English manual", EnglishManualText(), QMessageBox::Information},
      {"Deutsche Anleitung", GermanManualText(), QMessageBox::Information},
      {"Sicherheitshinweis", GermanSafetyNote(), QMessageBox::Critical}};
  OpenWith(Line, Time, RealBoxes);
  std::function<void(QMessageBox*)> Answer = [&](QMessageBox* Shown) {
    Seen.push_back({Shown->windowTitle(), Shown->text(), Shown->icon()});
    if (Seen.size() < kBoxes.size()) AnswerNextModal(Answer);
    Shown->button(QMessageBox::Ok)->click();
  };
  AnswerNextModal(Answer);
  Button("cmdEnglishManual")->click();
  Button("cmdGermanManual")->click();
  EXPECT_EQ(Seen, kBoxes);
}

TEST_F(WindowTest, DroppedFileCopiedLogAndTheRealCancelQuestion) {
  Open();
  QMimeData Dropped;
  Dropped.setUrls({QUrl::fromLocalFile(Dir.filePath("dropped.hex"))});
  QDragEnterEvent Enter(QPoint(20, 20), Qt::CopyAction, &Dropped, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(Window.get(), &Enter);
  QDropEvent Drop(QPointF(20, 20), Qt::CopyAction, &Dropped, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(Window.get(), &Drop);
  EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(),
            QDir::toNativeSeparators(Dir.filePath("dropped.hex")));
  Window->Log("first");
  Window->Log("second");
  Window->CopyLog();
  const QStringList Copied = QApplication::clipboard()->text().split('\n');
  ASSERT_EQ(Copied.size(), 2);
  EXPECT_TRUE(Copied[0].endsWith("\tfirst") && Copied[1].endsWith("\tsecond"))
      << Copied.join('|').toStdString();
  // The real question: no icon, and No is what Enter gives.
  AnswerNextModal<QMessageBox>([](QMessageBox* Box) {
    EXPECT_EQ(Box->icon(), QMessageBox::NoIcon);
    EXPECT_EQ(Box->windowTitle(), "Palimbo v1");
    EXPECT_EQ(Box->defaultButton(), Box->button(QMessageBox::No));
    Box->defaultButton()->click();
  });
  EXPECT_FALSE(RealBoxes.AskYesNo(Window.get(), "Palimbo v1", "Stop?"));
}

TEST_F(UploadTest, StartWithEmptyFileNameStopsAfterTheReadAndStoresTheTexts) {
  Find<QLineEdit>("txtFirmwareFile")->clear();
  Settings.clear();
  Button("cmdStart")->click();
  EXPECT_EQ(LogTexts().value(0), "Firmware read from file. Length 0 Bytes.");
  EXPECT_EQ(Line.OpenCount(), 0);
  EXPECT_EQ(Stored("Port"), "SIM");
  EXPECT_TRUE(Settings.contains("Settings/File"));
}

TEST_F(UploadTest, StartWithAMistypedNetworkPortSaysWhyAndStartsNoJob) {
  Find<QComboBox>("cmbComPort")->setEditText("rfc2217://rack7");
  Button("cmdStart")->click();
  EXPECT_EQ(LogTexts(), QStringList{"'rfc2217://rack7' has no port: write rfc2217://HOST:PORT, "
                                    "as in rfc2217://192.168.1.20:3001"});
  EXPECT_EQ(Line.OpenCount(), 0);
  EXPECT_EQ(Button("cmdStart")->text(), "START");
}

TEST_F(UploadTest, StartIn10CountsDownThenUploadsUnderRedAndBlueBars) {
  QStringList Captions;  // at the job's first pump: the last count, and the job's own caption
  AtPump([] { return true; },
         [&] { Captions << Button("cmdStartIn10")->text() << Button("cmdStart")->text(); });
  const std::set<QRgb> Bar = ClickWatchingBar("cmdStartIn10");
  EXPECT_EQ(Captions, QStringList({"Starting in 1 sec", "CANCEL"}));
  EXPECT_TRUE(Bar.count(kRed) && Bar.count(kBlue));
  EXPECT_TRUE(BarIsBlank());
  EXPECT_EQ(LogTexts().last(), kSuccess);
  EXPECT_EQ(Module.Flash().substr(0, Image.size()), Image);
  EXPECT_EQ(Button("cmdStartIn10")->text(), "START IN 10 SEC");
}

struct QuestionRow {
  const char* Name;
  bool ByClose, Answer;
  const char* CaptionAfter;  // right after the answer, with the job still running
  const char* LastLine;
  bool Visible;  // at the end
};

class CancelQuestionTest : public UploadTest, public ::testing::WithParamInterface<QuestionRow> {};

// CANCEL or the close box in the middle of the programming, answered No or Yes. After a
// confirmed CANCEL the caption reads START before the job has returned: START and START IN 10
// then start nothing, and a close waits for the job.
TEST_P(CancelQuestionTest, DuringUpload) {
  const QuestionRow& Row = GetParam();
  Boxes.Answer = Row.Answer;
  QString Caption;
  bool Cancel = false, Blank = false;
  AtPump([this] { return Programming(); },
         [&] {
           if (Row.ByClose) {
             EXPECT_FALSE(Window->close());
           } else {
             Button("cmdStart")->click();
           }
           Blank = BarIsBlank();
           Caption = Button("cmdStart")->text();
           Cancel = Window->Job().Cancel;
           if (Caption != "START") return;
           const int64_t Before = Time.NowMicros();
           Button("cmdStart")->click();
           Button("cmdStartIn10")->click();
           EXPECT_EQ(Time.NowMicros(), Before);
           EXPECT_FALSE(Window->close());
         });
  Button("cmdStart")->click();
  EXPECT_EQ(Boxes.Shown, QStringList("Palimbo v1\nDo you really want to cancel the upload? The "
                                     "device may be unusable after this!"));
  EXPECT_EQ(Caption, Row.CaptionAfter);
  EXPECT_EQ(Cancel, Row.Answer);
  EXPECT_EQ(Blank, !Row.ByClose);  // CANCEL blanks the bar whatever the answer
  EXPECT_EQ(LogTexts().count("Firmware read from file. Length 1000 Bytes."), 1);
  EXPECT_EQ(LogTexts().last(), Row.LastLine);
  EXPECT_EQ(Button("cmdStart")->text(), "START");
  EXPECT_FALSE(Line.IsOpen());
  EXPECT_EQ(Window->isVisible(), Row.Visible);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, CancelQuestionTest,
    ::testing::Values(QuestionRow{"CancelNo", false, false, "CANCEL", kSuccess, true},
                      QuestionRow{"CancelYes", false, true, "START", kCancelled, false},
                      QuestionRow{"CloseNo", true, false, "CANCEL", kSuccess, true},
                      QuestionRow{"CloseYes", true, true, "CANCEL", kCancelled, false}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST_F(UploadTest, StartIn10DuringUploadStandsStillAndStartsNoSecondJob) {
  int64_t Stood = 0;
  AtPump([this] { return Programming(); },
         [&] {
           const int64_t Before = Time.NowMicros();
           Button("cmdStartIn10")->click();
           Stood = Time.NowMicros() - Before;
         });
  Button("cmdStart")->click();
  EXPECT_GE(Stood, 10'000'000);
  EXPECT_EQ(Line.OpenCount(), 1);
  EXPECT_EQ(LogTexts().last(), kSuccess);
}

}  // namespace
}  // namespace palimbo::testing

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests needs no display; running them needs the application object.
  std::unique_ptr<QApplication> App;
  if (!GTEST_FLAG_GET(list_tests)) App = std::make_unique<QApplication>(argc, argv);
  return RUN_ALL_TESTS();
}
