// The window as it stands: its controls, its start state, its store and its timer.

#include <QClipboard>
#include <QDropEvent>
#include <QGroupBox>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QUrl>
#include <set>

#include "console_fixture.h"

namespace palimbo::testing {
namespace {

struct ControlRow {
  const char* Name;
  const char* Kind;
  const char* Caption;           // nullptr: not a fixed caption
  int Left, Top, Width, Height;  // twips; Width 0: the control sizes itself to its text
  bool InFrame;
};

// The controls in tab order, with their place and caption.
const ControlRow kControls[] = {
    {"Frame1", "QGroupBox", "Flash module", 120, 120, 9615, 4515, false},
    {"Label1", "QLabel", "Port:", 840, 240, 0, 0, true},
    {"cmbComPort", "QComboBox", nullptr, 3600, 780, 975, 315, true},
    {"Label2", "QLabel", "1)", 120, 240, 255, 255, true},
    {"Label3", "QLabel", "2)", 120, 1260, 255, 255, true},
    {"Label4", "QLabel", "Firmware file:", 840, 1260, 0, 0, true},
    {"txtFirmwareFile", "QLineEdit", nullptr, 1920, 1260, 7215, 285, true},
    {"cmdBrowse", "QPushButton", "..", 9240, 1260, 285, 285, true},
    {"Label5", "QLabel", "3)", 120, 1740, 255, 255, true},
    {"cmdStart", "QPushButton", "START", 1920, 1740, 975, 255, true},
    {"Label6", "QLabel", "4)", 120, 2220, 255, 255, true},
    {"Label7", "QLabel", "Status:", 840, 2220, 0, 0, true},
    {"lstStatus", "QListWidget", nullptr, 1920, 2220, 7575, 1815, true},
    {"pctProgress", "palimbo::ProgressSurface", nullptr, 1920, 4140, 7575, 255, true},
    {"cmdStartIn10", "QPushButton", "START IN 10 SEC", 3000, 1740, 1875, 255, true},
    {"optSelectManually", "QRadioButton", "Specify manually:", 1920, 780, 2535, 255, true},
    {"optAutomatic", "QRadioButton", "Autodetect:", 1920, 180, 1635, 255, true},
    {"lblDetectedDevice", "QLabel", "(No device found)", 3600, 180, 3555, 255, true},
    {"Label8", "QLabel",
     "Make sure, device is routing through traffic (not required for PC-kestrolar)", 3600, 480,
     5895, 255, true},
    {"Label9", "QLabel", "Hold magnet switch from 5 sec before starting until update is running",
     5040, 1680, 4455, 435, true},
    {"cmdEnglishManual", "QPushButton", "ENGLISH MANUAL", 2040, 4740, 2295, 375, false},
    {"cmdGermanManual", "QPushButton", "DEUTSCHE ANLEITUNG", 4440, 4740, 2295, 375, false},
};

TEST_F(WindowTest, EveryControlHasItsNameKindCaptionAndPlace) {
  Open();
  EXPECT_EQ(Window().windowTitle(), QStringLiteral("Module programmer"));
  EXPECT_EQ(Window().size(), QSize(657, 345));
  EXPECT_EQ(Window().minimumSize(), Window().maximumSize());
  QWidget* Frame1 = Find<QWidget>("Frame1");
  for (const ControlRow& Row : kControls) {
    SCOPED_TRACE(Row.Name);
    QWidget* Control = Find<QWidget>(Row.Name);
    ASSERT_NE(Control, nullptr);
    EXPECT_TRUE(Control->inherits(Row.Kind));
    EXPECT_EQ(Control->parentWidget(), Row.InFrame ? Frame1 : &Window());
    EXPECT_EQ(Control->pos(), QPoint(Row.Left / 15, Row.Top / 15));
    if (Row.Width != 0) {
      EXPECT_EQ(Control->size(), QSize(Row.Width / 15, Row.Height / 15));
    }
    if (Row.Caption == nullptr) continue;
    const char* Property = Control->inherits("QGroupBox") ? "title" : "text";
    EXPECT_EQ(Control->property(Property).toString(), QString::fromLatin1(Row.Caption));
  }
  // Tab order: the focusable controls in the order of the table.
  std::vector<QString> Expected;
  for (const ControlRow& Row : kControls) {
    QWidget* Control = Find<QWidget>(Row.Name);
    if (Control->focusPolicy() & Qt::TabFocus) Expected.push_back(Row.Name);
  }
  std::vector<QString> Chain;
  for (QWidget* At = Find<QWidget>("cmbComPort"); Chain.size() < Expected.size();
       At = At->nextInFocusChain()) {
    if (!At->objectName().isEmpty() && At->focusPolicy() & Qt::TabFocus &&
        std::find(Chain.begin(), Chain.end(), At->objectName()) == Chain.end())
      Chain.push_back(At->objectName());
  }
  EXPECT_EQ(Chain, Expected);
}

TEST_F(WindowTest, LinesFontsColoursIconAndTimerAreAsDrawn) {
  Open();
  for (auto [Name, Y] : {std::pair{"Line1", 1140}, {"Line2", 1620}, {"Line3", 2100}}) {
    QWidget* Line = Find<QWidget>(Name);
    EXPECT_EQ(Line->geometry().topLeft(), QPoint(0, Y / 15)) << Name;
    EXPECT_EQ(Line->width(), 9600 / 15) << Name;
  }
  for (const char* Name : {"Label2", "Label3", "Label5", "Label6"}) {
    const QFont Font = Find<QWidget>(Name)->font();
    EXPECT_EQ(Font.family(), QStringLiteral("MS Sans Serif")) << Name;
    EXPECT_EQ(Font.weight(), QFont::Bold) << Name;
    EXPECT_DOUBLE_EQ(Font.pointSizeF(), 9.75) << Name;
  }
  for (const char* Name : {"Label8", "Label9"})
    EXPECT_EQ(Find<QWidget>(Name)->palette().color(QPalette::WindowText), QColor(255, 0, 0));
  for (const char* Name : {"cmdEnglishManual", "cmdGermanManual"}) {
    const QImage Face = Button(Name)->grab().toImage();
    EXPECT_EQ(QColor(Face.pixel(6, Face.height() / 2)), QColor(0, 192, 192)) << Name;
  }
  // The icon holds both sizes, each a picture of at most 16 colours.
  for (const int Size : {16, 32}) {
    const QImage Image = Window().windowIcon().pixmap(Size).toImage();
    ASSERT_EQ(Image.size(), QSize(Size, Size));
    std::set<QRgb> Colours;
    for (int Y = 0; Y < Size; ++Y)
      for (int X = 0; X < Size; ++X)
        if (qAlpha(Image.pixel(X, Y)) != 0) Colours.insert(Image.pixel(X, Y));
    EXPECT_GE(Colours.size(), 4u) << Size;
    EXPECT_LE(Colours.size(), 16u) << Size;
  }
  auto* Timer = Find<QTimer>("TimerRefreshPort");
  EXPECT_TRUE(Timer->isActive());
  EXPECT_EQ(Timer->interval(), 1000);
}

TEST_F(WindowTest, FirstStartShowsDefaultsAndStoresThePort) {
  Open();
  auto* Port = Find<QComboBox>("cmbComPort");
  EXPECT_EQ(Port->currentText(), QStringLiteral("COM1"));
  EXPECT_FALSE(Port->isEnabled());
  EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(), QString());
  EXPECT_TRUE(Find<QRadioButton>("optAutomatic")->isChecked());
  EXPECT_FALSE(Find<QRadioButton>("optSelectManually")->isChecked());
  EXPECT_EQ(Find<QListWidget>("lstStatus")->count(), 0);
  EXPECT_EQ(Stored("Port"), QStringLiteral("COM1"));
  EXPECT_FALSE(IsStored("File"));
  EXPECT_EQ(Window().Job().PortHandle, -1);
  EXPECT_FALSE(Window().Job().Cancel || Window().Job().QUnload || Window().Job().IsEncrypted);
  // The bar is blank: one colour all over.
  const QImage Bar = Find<ProgressSurface>("pctProgress")->Picture();
  EXPECT_EQ(Bar.pixel(0, 0), Bar.pixel(Bar.width() - 1, Bar.height() - 1));
  EXPECT_EQ(QColor(Bar.pixel(Bar.width() / 2, Bar.height() / 2)), QColor(Qt::white));
}

TEST_F(WindowTest, StoredPortBeyondTheListAndStoredFileAreShown) {
  Settings.setValue("Settings/Port", "COM12");
  Settings.setValue("Settings/File", "C:\\fw\\module.hex");
  Open();
  EXPECT_EQ(Find<QComboBox>("cmbComPort")->currentText(), QStringLiteral("COM12"));
  EXPECT_EQ(Find<QComboBox>("cmbComPort")->findText("COM12"), -1);
  EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(), QStringLiteral("C:\\fw\\module.hex"));
}

TEST_F(WindowTest, EveryTextChangeIsStoredAtOnce) {
  Open();
  auto* Port = Find<QComboBox>("cmbComPort");
  auto* File = Find<QLineEdit>("txtFirmwareFile");
  // Typed keys: each one is a write of its own.
  for (const QString& Typed : {QStringLiteral("a"), QStringLiteral("b"), QStringLiteral(".")}) {
    File->insert(Typed);
    EXPECT_EQ(Stored("File"), File->text());
  }
  // The program may change the port while the box is disabled.
  Port->setEditText("COM7");
  EXPECT_EQ(Stored("Port"), QStringLiteral("COM7"));
  // The same text again writes nothing.
  Settings.remove("Settings/Port");
  Port->setEditText("COM7");
  EXPECT_FALSE(IsStored("Port"));
  // A list item picked by the operator.
  Find<QRadioButton>("optSelectManually")->click();
  Port->addItem("PICKED");
  Port->setCurrentIndex(Port->count() - 1);
  emit Port->activated(Port->count() - 1);
  EXPECT_EQ(Stored("Port"), QStringLiteral("PICKED"));
}

TEST_F(WindowTest, OptionsSwitchOnlyTheEnabledStateOfThePortBox) {
  Open();
  auto* Port = Find<QComboBox>("cmbComPort");
  auto* Label = Find<QLabel>("lblDetectedDevice");
  Find<QRadioButton>("optSelectManually")->click();
  EXPECT_TRUE(Port->isEnabled());
  Find<QRadioButton>("optAutomatic")->click();
  EXPECT_FALSE(Port->isEnabled());
  EXPECT_EQ(Label->text(), QStringLiteral("(No device found)"));
  EXPECT_EQ(Scanner.Scans, 0);
}

struct TickRow {
  const char* Caption;
  bool Automatic;
  AdapterScanResult Scan;
  const char* Label;
  const char* Port;  // text of cmbComPort after the tick
  int Scans;
};

const TickRow kTicks[] = {
    {"START", true, {5, "", "Kestrolar USB", false}, "Kestrolar USB (COM5)", "COM5", 1},
    {"START",
     true,
     {0, "/dev/ttyUSB0", "Kestrolar USB", false},
     "Kestrolar USB (/dev/ttyUSB0)",
     "/dev/ttyUSB0",
     1},
    {"START", true, {0, "", "", true}, "(Error: FTD2XX.DLL not found)", "COM1", 1},
    {"START", false, {5, "", "Kestrolar USB", false}, "(Manual selection)", "COM1", 0},
    {"CANCEL", true, {5, "", "Kestrolar USB", false}, "(Update in progress..)", "COM1", 0},
};

TEST_F(WindowTest, TimerTickSetsLabelAndPort) {
  Open();
  for (const TickRow& Row : kTicks) {
    SCOPED_TRACE(std::string(Row.Caption) + " " + Row.Label);
    Find<QComboBox>("cmbComPort")->setEditText("COM1");
    (Row.Automatic ? Find<QRadioButton>("optAutomatic") : Find<QRadioButton>("optSelectManually"))
        ->click();
    Button("cmdStart")->setText(Row.Caption);
    Scanner.Result = Row.Scan;
    Scanner.Scans = 0;
    Window().TimerRefreshPort_Timer();
    EXPECT_EQ(Find<QLabel>("lblDetectedDevice")->text(), QString::fromLatin1(Row.Label));
    EXPECT_EQ(Find<QComboBox>("cmbComPort")->currentText(), QString::fromLatin1(Row.Port));
    EXPECT_EQ(Stored("Port"), QString::fromLatin1(Row.Port));
    EXPECT_EQ(Scanner.Scans, Row.Scans);
  }
}

TEST_F(WindowTest, DroppedFileBecomesTheFirmwareFile) {
  Open();
  QMimeData Data;
  const QString Path = Dir.filePath("dropped.hex");
  Data.setUrls({QUrl::fromLocalFile(Path)});
  QDragEnterEvent Enter(QPoint(10, 10), Qt::CopyAction, &Data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&Window(), &Enter);
  EXPECT_TRUE(Enter.isAccepted());
  QDropEvent Drop(QPointF(10, 10), Qt::CopyAction, &Data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&Window(), &Drop);
  EXPECT_EQ(Find<QLineEdit>("txtFirmwareFile")->text(), Path);
  EXPECT_EQ(Stored("File"), Path);
}

TEST_F(WindowTest, StatusMenuCopiesTheWholeLog) {
  Open();
  Window().Log("first");
  Window().Log("second");
  auto* Copy = Find<QAction>("mnuCopyLog");
  EXPECT_EQ(Copy->text(), QStringLiteral("Copy log"));
  EXPECT_TRUE(Find<QAction>("mnuSaveLog")->text().startsWith("Save log as"));
  Copy->trigger();
  const QStringList Lines = QApplication::clipboard()->text().split('\n');
  ASSERT_EQ(Lines.size(), 2);
  EXPECT_TRUE(Lines[0].endsWith("\tfirst"));
  EXPECT_TRUE(Lines[1].endsWith("\tsecond"));
}

}  // namespace
}  // namespace palimbo::testing
