// The real window on the offscreen platform, its surroundings replaced by doubles a test can
// script: an adapter scanner, message boxes, and a module on a virtual-time line; once the real
// serial layer with the module behind a pseudo-terminal.

#include <gtest/gtest.h>

#include <QtWidgets>

#include "../support/temp_file.h"
#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "console/progress_surface.h"
#include "serial/serial_backend.h"
#include "sim/pty_host.h"
#include "sim/sim_line.h"
#include "sim/simulated_module.h"
#include "sim/virtual_clock.h"

// Lets failure messages show the toolkit's texts as text.
inline void PrintTo(const QString& Text, std::ostream* Out) {
  *Out << '"' << Text.toStdString() << '"';
}

namespace palimbo::testing {
namespace {

constexpr QRgb kWhite = 0xFFFFFFFF, kBlack = 0xFF000000, kRed = 0xFFFF0000, kBlue = 0xFF0000FF;
constexpr char kSuccess[] = "UPLOAD SUCCESSFULLY COMPLETED.";
constexpr char kCancelled[] = "Operation cancelled.";

struct FakeScanner final : AdapterScanner {
  AdapterScanResult Result;
  AdapterScanResult ScanForAdapter() override { return Result; }
};

// Message boxes answered from a script; each box is recorded as its title, a newline, its text.
struct ScriptedBoxes final : MessageBoxes {
  QStringList Shown;
  bool Answer = false;
  bool AskYesNo(QWidget* Owner, const QString& Title, const QString& Text) override {
    Show(Owner, Title, Text, BoxIcon::None);
    return Answer;
  }
  void Show(QWidget*, const QString& Title, const QString& Text, BoxIcon) override {
    Shown << Title + '\n' + Text;
  }
};

class WindowTest : public ::testing::Test {
 protected:
  WindowTest() : Settings(Dir.filePath("store.ini"), QSettings::IniFormat) {
    for (size_t I = 0; I < Image.size(); ++I) Image[I] = static_cast<char>(I * 7 + 3);
  }
  void Open() { OpenWith(Line, Time, Boxes); }
  void OpenWith(SerialBackend& Port, Clock& Clock, MessageBoxes& Shown) {
    Window = std::make_unique<frmPalimbo>(ConsoleServices{Scanner, Port, Clock, Settings, Shown});
    Window->show();
  }
  template <typename T = QWidget>
  T* Find(const char* Name) {
    return Window->findChild<T*>(Name);
  }
  QPushButton* Button(const char* Name) { return Find<QPushButton>(Name); }
  QString Stored(const char* Key) { return Settings.value(QString("Settings/") + Key).toString(); }
  QStringList LogTexts() {  // the status lines without their time stamps
    QStringList Texts;
    auto* List = Find<QListWidget>("lstStatus");
    for (int Row = 0; Row < List->count(); ++Row) Texts << List->item(Row)->text().section('\t', 1);
    return Texts;
  }
  // Manual mode with `Port` typed in, and a HEX file of `Image` as the firmware file.
  void PrepareUpload(const QString& Port = "SIM") {
    Find<QRadioButton>("optSelectManually")->click();
    Find<QComboBox>("cmbComPort")->setEditText(Port);
    QFile File(Dir.filePath("firmware.hex"));
    ASSERT_TRUE(File.open(QIODevice::WriteOnly));
    File.write(QByteArray::fromStdString(HexOf(Image)));
    Find<QLineEdit>("txtFirmwareFile")->setText(File.fileName());
  }
  // Runs `Action` once, at the first event pump at which `Condition` holds.
  void AtPump(std::function<bool()> Condition, std::function<void()> Action) {
    auto* Poll = new QTimer(Window.get());
    QObject::connect(Poll, &QTimer::timeout, [=] {
      if (!Condition()) return;
      Poll->stop();
      Poll->deleteLater();
      Action();
    });
    Poll->start(0);
  }
  // Answers the next modal box or dialog of type `T` once it stands open.
  template <typename T>
  void AnswerNextModal(std::function<void(T*)> Answer) {
    auto Modal = [] { return qobject_cast<T*>(QApplication::activeModalWidget()); };
    AtPump([=] { return Modal() != nullptr && Modal()->isVisible(); }, [=] { Answer(Modal()); });
  }
  bool BarIsBlank() {
    QImage Blank = Find<ProgressSurface>("pctProgress")->Picture();
    Blank.fill(Qt::white);
    return Blank == Find<ProgressSurface>("pctProgress")->Picture();
  }
  // Clicks `Name` and gives the colours the bar's left end took meanwhile.
  std::set<QRgb> ClickWatchingBar(const char* Name) {
    std::set<QRgb> Seen;
    QTimer Watch;
    QObject::connect(&Watch, &QTimer::timeout, [&] {
      Seen.insert(Find<ProgressSurface>("pctProgress")->Picture().pixel(1, 5) | kBlack);
    });
    Watch.start(0);
    Button(Name)->click();
    return Seen;
  }

  QTemporaryDir Dir;
  QSettings Settings;
  std::string Image = std::string(1000, '\0');
  FakeScanner Scanner;
  ScriptedBoxes Boxes;
  QtMessageBoxes RealBoxes;
  sim::VirtualClock Time;
  sim::SimulatedModule Module;
  sim::SimLine Line{Time, Module, "SIM"};
  const std::unique_ptr<SerialBackend> System = MakeSystemSerialBackend();
  SteadyClock Wall;
  std::unique_ptr<frmPalimbo> Window;
};

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
  EXPECT_EQ(QString::fromUtf8(Store.readAll()), "[Settings]\nFile=a\nPort=COM7\n");
}

TEST_F(WindowTest, TimerTickShowsTheAdapterAndTakesItsPortOnlyWhenIdleAndAutomatic) {
  const std::tuple<const char*, const char*, const char*, const char*> kRows[] = {
      {"START", "optSelectManually", "(Manual selection)", "COM1"},
      {"CANCEL", "optAutomatic", "(Update in progress..)", "COM1"},
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

TEST_F(WindowTest, BrowseCancelledKeepsTheFileAndChosenGivesItsFullPath) {
  Open();
  auto* File = Find<QLineEdit>("txtFirmwareFile");
  File->setText("kept.hex");
  QStringList Seen;
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    Seen << Dialog->windowTitle() << Dialog->nameFilters() << Dialog->selectedNameFilter();
    Dialog->reject();
  });
  Button("cmdBrowse")->click();
  EXPECT_EQ(Seen, QStringList({"Select HEX file", "Intel HEX files (*.hex)", "All files (*.*)",
                               "Intel HEX files (*.hex)"}));
  EXPECT_EQ(File->text(), "kept.hex");
  const QString Chosen = Dir.filePath("module.txt");  // shown under "All files" only
  ASSERT_TRUE(QFile(Chosen).open(QIODevice::WriteOnly));
  AnswerNextModal<QFileDialog>([&](QFileDialog* Dialog) {
    Dialog->selectNameFilter("All files (*.*)");
    Dialog->selectFile(Chosen);
    static_cast<QDialog*>(Dialog)->accept();
  });
  Button("cmdBrowse")->click();
  EXPECT_EQ(File->text(), QDir::toNativeSeparators(Chosen));
}

TEST_F(WindowTest, ManualsShowTheirTextsInBoxesOneAfterTheOther) {
  std::vector<std::tuple<QString, QString, QMessageBox::Icon>> Seen;
  const decltype(Seen) kBoxes = {
      {"English manual",
       "Please connect the module being updated to your Kestrolar (normal, Mini- or PC) and make "
       "sure the Kestrolar itself is connected to your USB port. On the Kestrolar or "
       "Mini-Kestrolar, enter USB mode (Kestrolar: last button in main menu, Mini-Kestrolar: entry "
       "called \"USB-Mode\" in main menu). Now, select the appropriate connection within this "
       "program using either automatic detection or manual select feature. Pick the right firmware "
       "file in the field below (2).\r\nMake sure the device to be updated is turned off "
       "completely. Hold the ON switch (usually magnetic) on the module and wait for at least 5 "
       "seconds. Without releasing the switch, press the START button in this tool. The update "
       "process will begin. As soon as the process is running (progress bar has turned RED)you can "
       "release the magnetic switch.\r\n\r\nPlease never interrupt the update process as this can "
       "render the module useless!",
       QMessageBox::Information},
      {"Deutsche Anleitung",
       "Verbinden Sie das zu aktualisierende Modul mit Ihrem Kestrolar, Mini-Kestrolar oder "
       "PC-Kestrolar und verbinden Sie diesen per USB mit Ihrem Computer. Beim Kestrolar oder "
       "Mini-Kestrolar bringen Sie diesen in den USB-Modus (Kestrolar: unterster Knopf im "
       "Hauptmenü, beim Mini-Kestrolar Eintrag \"USB-Modus\" im Hauptmenü. Wählen Sie nun die "
       "entsprechenden Anschluss indem Sie entweder die automatische Erkennung benutzen oder den "
       "COM-Port manuell einstellen. Wählen Sie außerdem die korrekte Firmware-Datei für das Gerät "
       "im Feld (2) aus.\r\nStellen Sie sicher, dass das zu aktualisierende Gerät komplett aus "
       "geschaltet ist. Halten Sie dann den Einschalter (Magnetschalter) am Modul gedrückt und "
       "warten Sie für mindestens 5 Sekunden. Ohne den Einschalter los zu lassen drücken Sie in "
       "diesem Programm auf den \"START\"-Knopf. Das Update beginnt nun. Sobald der Prozess läuft, "
       "und sich der Fortschrittsbalken unter (4) ROT verfärbt hat, können Sie den Einschalter des "
       "Geräts los lassen.",
       QMessageBox::Information},
      {"Sicherheitshinweis",
       "ACHTUNG: Bitte unterbrechen Sie niemals den Update-Prozess, sobald sich der Balken rot "
       "verfärbt hat. Das Gerät könnte eventuell nur durch Unterbrechen der Betriebsspannung "
       "wiederhergestellt werden!",
       QMessageBox::Critical}};
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

class UploadTest : public WindowTest {
 protected:
  void SetUp() override {
    Open();
    PrepareUpload();
  }
  bool Programming() const { return Module.CountOf(sim::kCmdFill) > 0; }
};

TEST_F(UploadTest, StartWithEmptyFileNameStopsAfterTheReadAndStoresTheTexts) {
  Find<QLineEdit>("txtFirmwareFile")->clear();
  Settings.clear();
  Button("cmdStart")->click();
  EXPECT_EQ(LogTexts().value(0), "Firmware read from file. Length 0 Bytes.");
  EXPECT_EQ(Line.OpenCount(), 0);
  EXPECT_EQ(Stored("Port"), "SIM");
  EXPECT_TRUE(Settings.contains("Settings/File"));
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

TEST_F(WindowTest, UploadThroughPseudoTerminalCompletes) {
  sim::SimulatedModule Device;
  std::string Error;
  const std::unique_ptr<sim::PtyHost> Host = sim::PtyHost::Open(Device, Error);
  ASSERT_NE(Host, nullptr) << Error;
  OpenWith(*System, Wall, Boxes);
  const QString Path = QString::fromStdString(Host->SlavePath());
  PrepareUpload(Path);
  const std::set<QRgb> Bar = ClickWatchingBar("cmdStart");
  Host->Stop();
  EXPECT_EQ(LogTexts().value(1), Path + " opened.");
  EXPECT_EQ(LogTexts().last(), kSuccess);
  EXPECT_EQ(Device.Flash().substr(0, Image.size()), Image);
  EXPECT_TRUE(Bar.count(kRed) && Bar.count(kBlue));
  EXPECT_EQ(Window->Job().PortHandle, -1);
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
