// START, CANCEL, START IN 10 SEC and the close box, with the upload running inside the window
// against a simulated module on virtual time.

#include <QMessageBox>

#include "console_fixture.h"

namespace palimbo::testing {
namespace {

constexpr char kCancelQuestion[] =
    "Do you really want to cancel the upload? The device may be unusable after this!";
constexpr char kSuccess[] = "UPLOAD SUCCESSFULLY COMPLETED.";

class CommandTest : public WindowTest {
 protected:
  void SetUp() override {
    Open();
    PrepareUpload(PatternImage(1000));
  }
  bool Programming() const { return Module.CountOf(sim::kCmdFill) > 0; }
  bool BarIsBlank() {
    const QImage& Bar = Find<ProgressSurface>("pctProgress")->Picture();
    for (int X = 0; X < Bar.width(); ++X)
      if (QColor(Bar.pixel(X, Bar.height() / 2)) != QColor(Qt::white)) return false;
    return true;
  }
  int CountLog(const QString& Text) { return static_cast<int>(LogTexts().count(Text)); }
};

TEST_F(CommandTest, StartWithEmptyFileNameEndsAfterTheReadAndStoresTheTexts) {
  Find<QLineEdit>("txtFirmwareFile")->clear();
  Settings.clear();
  Button("cmdStart")->click();
  ASSERT_FALSE(LogTexts().isEmpty());
  EXPECT_EQ(LogTexts().first(), QStringLiteral("Firmware read from file. Length 0 Bytes."));
  EXPECT_EQ(Line.OpenCount(), 0);
  EXPECT_EQ(Button("cmdStart")->text(), QStringLiteral("START"));
  EXPECT_EQ(Stored("Port"), QStringLiteral("SIM"));
  EXPECT_TRUE(IsStored("File"));
  EXPECT_FALSE(Window().UploadRunning());
}

TEST_F(CommandTest, FullUploadShowsBlueThenRedAndEndsWithBlankBar) {
  std::vector<QRgb> BarColours;
  QTimer Watch;
  Watch.setInterval(0);
  QObject::connect(&Watch, &QTimer::timeout, [&] {
    const QRgb At = Find<ProgressSurface>("pctProgress")->Picture().pixel(1, 5) | 0xFF000000;
    if (BarColours.empty() || BarColours.back() != At) BarColours.push_back(At);
  });
  Watch.start();
  QString CaptionDuringJob;
  PumpHook Hook([] { return true; }, [&] { CaptionDuringJob = Button("cmdStart")->text(); });
  Button("cmdStart")->click();
  Watch.stop();
  EXPECT_EQ(CaptionDuringJob, QStringLiteral("CANCEL"));
  EXPECT_EQ(LogTexts().last(), QString::fromLatin1(kSuccess));
  EXPECT_EQ(Module.Flash().substr(0, 1000), PatternImage(1000));
  EXPECT_EQ(Button("cmdStart")->text(), QStringLiteral("START"));
  EXPECT_TRUE(BarIsBlank());
  EXPECT_FALSE(Line.IsOpen());
  // Blank, red while the module is changed, blue while it reboots, blank at the end.
  const std::vector<QRgb> Expected = {0xFFFFFFFF, 0xFFFF0000, 0xFF0000FF, 0xFFFFFFFF};
  auto Next = BarColours.begin();
  for (const QRgb Colour : Expected) {
    Next = std::find(Next, BarColours.end(), Colour);
    EXPECT_NE(Next, BarColours.end()) << std::hex << Colour;
  }
}

struct QuestionRow {
  const char* Name;
  bool ByClose;
  bool Answer;
  const char* CaptionAfter;  // right after the answer, with the job still running
  bool CancelAfter;
  const char* LastLine;
  bool StaysOpen;
};

void PrintTo(const QuestionRow& Row, std::ostream* Out) {
  *Out << Row.Name;
}

class CancelQuestionTest : public CommandTest, public ::testing::WithParamInterface<QuestionRow> {};

// CANCEL or the close box in the middle of the programming, answered No or Yes.
TEST_P(CancelQuestionTest, DuringUpload) {
  const QuestionRow& Row = GetParam();
  Boxes.Answer = Row.Answer;
  QString Caption;
  bool Cancel = false, Refused = false, Blank = false;
  PumpHook Hook([this] { return Programming(); },
                [&] {
                  if (Row.ByClose) {
                    Refused = !Window().close();
                  } else {
                    Button("cmdStart")->click();
                    Blank = BarIsBlank();
                  }
                  Caption = Button("cmdStart")->text();
                  Cancel = Window().Job().Cancel;
                });
  Button("cmdStart")->click();
  ASSERT_EQ(Boxes.Shown.size(), 1u);
  EXPECT_EQ(Boxes.Shown[0].Title, QStringLiteral("Palimbo v1"));
  EXPECT_EQ(Boxes.Shown[0].Text, QString::fromLatin1(kCancelQuestion));
  EXPECT_TRUE(Boxes.Shown[0].Question);
  EXPECT_EQ(Caption, QString::fromLatin1(Row.CaptionAfter));
  EXPECT_EQ(Cancel, Row.CancelAfter);
  EXPECT_EQ(Refused, Row.ByClose);
  EXPECT_EQ(Blank, !Row.ByClose);
  EXPECT_EQ(LogTexts().last(), QString::fromLatin1(Row.LastLine));
  EXPECT_EQ(Button("cmdStart")->text(), QStringLiteral("START"));
  // The close that ends the program sets the flag again, as any close does.
  EXPECT_EQ(Window().Job().Cancel, !Row.StaysOpen);
  EXPECT_FALSE(Line.IsOpen());
  EXPECT_EQ(Window().isVisible(), Row.StaysOpen);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, CancelQuestionTest,
    ::testing::Values(
        QuestionRow{"CancelNo", false, false, "CANCEL", false, kSuccess, true},
        QuestionRow{"CancelYes", false, true, "START", true, "Operation cancelled.", true},
        QuestionRow{"CloseNo", true, false, "CANCEL", false, kSuccess, true},
        QuestionRow{"CloseYes", true, true, "CANCEL", true, "Operation cancelled.", false}),
    [](const ::testing::TestParamInfo<QuestionRow>& Info) { return Info.param.Name; });

TEST_F(CommandTest, StartIn10CountsDownThenStarts) {
  QStringList Captions;
  JobClock.OnSleep = [&](int32_t Milliseconds) {
    if (Milliseconds == 1000) Captions << Button("cmdStartIn10")->text();
  };
  const int64_t Pressed = Virtual.NowMicros();
  Button("cmdStartIn10")->click();
  ASSERT_GE(Captions.size(), 10);
  EXPECT_EQ(Captions.first(), QStringLiteral("Starting in 10 sec"));
  EXPECT_EQ(Captions[9], QStringLiteral("Starting in 1 sec"));
  ASSERT_FALSE(Line.Written().empty());
  EXPECT_GE(Line.Written().front().AtMicros - Pressed, 10'000'000);
  EXPECT_EQ(LogTexts().last(), QString::fromLatin1(kSuccess));
  EXPECT_EQ(Button("cmdStartIn10")->text(), QStringLiteral("START IN 10 SEC"));
}

TEST_F(CommandTest, StartIn10DuringUploadStandsStillAndStartsNoSecondJob) {
  int64_t Stood = 0;
  PumpHook Hook([this] { return Programming(); },
                [&] {
                  const int64_t Before = Virtual.NowMicros();
                  Button("cmdStartIn10")->click();
                  Stood = Virtual.NowMicros() - Before;
                });
  Button("cmdStart")->click();
  EXPECT_GE(Stood, 10'000'000);
  EXPECT_EQ(CountLog("Firmware read from file. Length 1000 Bytes."), 1);
  EXPECT_EQ(Line.OpenCount(), 1);
  EXPECT_EQ(Button("cmdStartIn10")->text(), QStringLiteral("START IN 10 SEC"));
  EXPECT_EQ(Button("cmdStart")->text(), QStringLiteral("START"));
}

// After a confirmed cancel the caption reads START before the job has returned: presses then
// start nothing, and a close waits for the job.
TEST_F(CommandTest, AfterConfirmedCancelNoSecondJobAndCloseWaits) {
  Boxes.Answer = true;
  bool Closed = true;
  int64_t Stood = -1;
  PumpHook Hook([this] { return Programming(); },
                [&] {
                  Button("cmdStart")->click();
                  ASSERT_EQ(Button("cmdStart")->text(), QStringLiteral("START"));
                  ASSERT_TRUE(Window().UploadRunning());
                  Button("cmdStart")->click();
                  const int64_t Before = Virtual.NowMicros();
                  Button("cmdStartIn10")->click();
                  Stood = Virtual.NowMicros() - Before;
                  Closed = Window().close();
                });
  Button("cmdStart")->click();
  EXPECT_EQ(Stood, 0);
  EXPECT_FALSE(Closed);
  EXPECT_EQ(Boxes.Shown.size(), 1u);
  EXPECT_EQ(CountLog("Firmware read from file. Length 1000 Bytes."), 1);
  EXPECT_EQ(CountLog("Operation cancelled."), 1);
  EXPECT_FALSE(Window().isVisible());
}

TEST_F(CommandTest, CloseWithoutUploadAsksNothingAndClosesThePortIfOpen) {
  Window().Job().PortHandle = Line.Open(kSimPort, "57600,N,8,1");
  ASSERT_TRUE(Line.IsOpen());
  EXPECT_TRUE(Window().close());
  EXPECT_TRUE(Boxes.Shown.empty());
  EXPECT_FALSE(Line.IsOpen());
  EXPECT_EQ(Window().Job().PortHandle, -1);
  EXPECT_TRUE(Window().Job().QUnload);
}

// The real cancel question, answered through the toolkit's own box.
TEST_F(WindowTest, RealCancelQuestionHasNoIconAndNoAsDefault) {
  Open(&RealBoxes);
  PrepareUpload(PatternImage(600));
  QString Title, Text;
  QMessageBox::Icon Icon = QMessageBox::Information;
  QMessageBox::StandardButtons Buttons;
  bool NoIsDefault = false;
  PumpHook Hook([this] { return Module.CountOf(sim::kCmdFill) > 0; },
                [&] {
                  AnswerNextModal<QMessageBox>([&](QMessageBox* Box) {
                    Title = Box->windowTitle();
                    Text = Box->text();
                    Icon = Box->icon();
                    Buttons = Box->standardButtons();
                    NoIsDefault = Box->defaultButton() == Box->button(QMessageBox::No);
                    Box->button(QMessageBox::Yes)->click();
                  });
                  Button("cmdStart")->click();
                });
  Button("cmdStart")->click();
  EXPECT_EQ(Title, QStringLiteral("Palimbo v1"));
  EXPECT_EQ(Text, QString::fromLatin1(kCancelQuestion));
  EXPECT_EQ(Icon, QMessageBox::NoIcon);
  EXPECT_EQ(Buttons, QMessageBox::Yes | QMessageBox::No);
  EXPECT_TRUE(NoIsDefault);
  EXPECT_EQ(LogTexts().last(), QStringLiteral("Operation cancelled."));
}

}  // namespace
}  // namespace palimbo::testing
