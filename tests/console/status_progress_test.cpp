// The status list and the progress bar: the two ways the job talks to the operator.

#include <QTime>

#include "console_fixture.h"

namespace palimbo::testing {
namespace {

TEST(LogTimeFormat, KeepsSecondsAndDropsTheTimeZone) {
  const struct {
    const char* Locale;
    const char* Format;
  } kRows[] = {{"C", "HH:mm:ss"},
               {"de_DE", "HH:mm:ss"},
               {"en_US", "h:mm:ss AP"},
               {"ja_JP", "H\u6642mm\u5206ss\u79d2"}};
  for (const auto& Row : kRows)
    EXPECT_EQ(LogTimeFormat(QLocale(Row.Locale)), QString::fromUtf8(Row.Format)) << Row.Locale;
}

TEST_F(WindowTest, LogLineIsTimeTabText) {
  Open();
  const QTime Before = QTime::currentTime();
  Window().Log("COM3 opened.");
  const QString Line = Find<QListWidget>("lstStatus")->item(0)->text();
  const QString Stamp = Line.section('\t', 0, 0);
  EXPECT_EQ(Line.section('\t', 1), QStringLiteral("COM3 opened."));
  const QTime Logged = QLocale::system().toTime(Stamp, LogTimeFormat(QLocale::system()));
  ASSERT_TRUE(Logged.isValid()) << Stamp.toStdString();
  EXPECT_LE(std::abs(Before.secsTo(Logged)), 2);
}

TEST_F(WindowTest, SelectionFollowsOnlyFromTheLastLineOrNowhere) {
  Open();
  auto* List = Find<QListWidget>("lstStatus");
  // Each step: the row the operator selects first (-2: leave it), then the row after one Log.
  const struct {
    int Select;
    int After;
  } kSteps[] = {
      {-2, 0},  // the first line ever gets selected
      {-2, 1},  // standing on the last line, the selection follows
      {0, 0},   // an older line stays selected
      {-2, 0},  //   ... also at the next line
      {3, 4},   // the operator selects the last line: following again
      {-1, 5},  // no selection: the new line gets selected
  };
  for (const auto& Step : kSteps) {
    if (Step.Select != -2) List->setCurrentRow(Step.Select);
    Window().Log("line");
    EXPECT_EQ(List->currentRow(), Step.After) << List->count() << " lines";
  }
}

TEST(BarWidth, RoundsHalfToEven) {
  const struct {
    int32_t Val, Max, Scale, Width;
  } kRows[] = {{0, 26, 501, 0},  {25, 26, 501, 482}, {1, 2, 5, 2},       {1, 2, 7, 4},
               {1, 2, 501, 250}, {3, 2, 3, 4},       {13, 26, 500, 250}, {1, 1, 501, 501},
               {5, 4, 100, 125}, {1, 3, 100, 33},    {2, 3, 100, 67},    {1, 0, 100, 0},
               {-1, 4, 100, -25}};
  for (const auto& Row : kRows)
    EXPECT_EQ(BarWidth(Row.Val, Row.Max, Row.Scale), Row.Width)
        << Row.Val << "/" << Row.Max << " of " << Row.Scale;
}

TEST(FromColorValue, ReadsBlueGreenRed) {
  EXPECT_EQ(FromColorValue(255), QColor(255, 0, 0));
  EXPECT_EQ(FromColorValue(0xFF0000), QColor(0, 0, 255));
  EXPECT_EQ(FromColorValue(0x00FF00), QColor(0, 255, 0));
  EXPECT_EQ(FromColorValue(0x123456), QColor(0x56, 0x34, 0x12));
}

// The bar's pixel for a pen over an old pixel: NOT (pen XOR old), channel by channel.
QColor NotXor(QColor Pen, QColor Old) {
  return QColor(255 - (Pen.red() ^ Old.red()), 255 - (Pen.green() ^ Old.green()),
                255 - (Pen.blue() ^ Old.blue()));
}

// Counts the colours of the columns [From, To) of a grabbed surface.
std::map<QRgb, int> Colours(const QImage& Image, int From, int To) {
  std::map<QRgb, int> Count;
  for (int Y = 0; Y < Image.height(); ++Y)
    for (int X = std::max(0, From); X < std::min(To, Image.width()); ++X)
      ++Count[Image.pixel(X, Y) | 0xFF000000];
  return Count;
}

TEST_F(WindowTest, ProgressBarPaintsBarAndTextWithTheNotXorPen) {
  Open();
  auto* Surface = Find<ProgressSurface>("pctProgress");
  const struct {
    QColor Back, Fore;
    uint32_t Color;
  } kRows[] = {{Qt::white, Qt::black, kColorRed},
               {Qt::white, Qt::black, kColorBlue},
               {QColor(200, 100, 50), QColor(10, 20, 30), 0x4080C0}};
  for (const auto& Row : kRows) {
    SCOPED_TRACE(Row.Color);
    Surface->SetColors(Row.Back, Row.Fore);
    const int Width = Surface->ScaleWidth();
    const QColor Bar = NotXor(FromColorValue(Row.Color), Row.Back);
    const QColor TextInBar = NotXor(FromColorValue(Row.Color), Row.Fore);
    auto Grab = [&] { return Surface->grab(Surface->contentsRect()).toImage(); };

    // Half a bar under a centred text: the text is half inside the bar, half outside.
    Window().SetProgress(50, 100, Row.Color, "MMMMMMMM");
    QImage Image = Grab();
    ASSERT_EQ(Image.width(), Width);
    const auto Left = Colours(Image, 0, Width / 2);
    const auto Right = Colours(Image, Width / 2, Width);
    EXPECT_EQ(Left.size(), 2u);
    EXPECT_GT(Left.at(Bar.rgb()), 0);
    EXPECT_GT(Left.at(TextInBar.rgb()), 0);
    EXPECT_EQ(Right.size(), 2u);
    EXPECT_GT(Right.at(Row.Back.rgb()), 0);
    EXPECT_GT(Right.at(Row.Fore.rgb()), 0);

    // A full bar with no text, and a bar beyond the whole width, are the bar colour alone.
    for (const int32_t Val : {100, 250}) {
      Window().SetProgress(Val, 100, Row.Color, "");
      const auto All = Colours(Grab(), 0, Width);
      ASSERT_EQ(All.size(), 1u);
      EXPECT_EQ(All.begin()->first, Bar.rgb());
    }
    // An empty bar: text on the background only; no text at all blanks the surface.
    Window().SetProgress(0, 26, Row.Color, "Entering");
    const auto Empty = Colours(Grab(), 0, Width);
    EXPECT_EQ(Empty.size(), 2u);
    EXPECT_GT(Empty.at(Row.Fore.rgb()), 0);
    Window().SetProgress(0, 1, Row.Color, "");
    EXPECT_EQ(Colours(Grab(), 0, Width),
              (std::map<QRgb, int>{{Row.Back.rgb(), Width * Surface->ScaleHeight()}}));
  }
}

TEST_F(WindowTest, ProgressBarEndsAtItsRoundedWidthAndPumpsEvents) {
  Open();
  auto* Surface = Find<ProgressSurface>("pctProgress");
  const int Width = Surface->ScaleWidth();
  bool Delivered = false;
  QTimer::singleShot(0, [&] { Delivered = true; });
  Window().SetProgress(7, 26, kColorRed, "");
  EXPECT_TRUE(Delivered);
  const QImage Image = Surface->grab(Surface->contentsRect()).toImage();
  const int Edge = BarWidth(7, 26, Width);
  EXPECT_EQ(QColor(Image.pixel(Edge - 1, 3)), QColor(255, 0, 0));
  EXPECT_EQ(QColor(Image.pixel(Edge, 3)), QColor(Qt::white));
}

}  // namespace
}  // namespace palimbo::testing
