// The real window, its surroundings replaced by doubles a test can script: an adapter scanner,
// message boxes, and a module on a virtual-time line.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <set>

#include <QtWidgets>

#include "../support/firmware_file.h"
#include "../support/temp_file.h"
#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "console/progress_surface.h"
#include "serial/serial_backend.h"
#include "sim/sim_line.h"
#include "sim/simulated_module.h"
#include "sim/virtual_clock.h"

// Lets failure messages show the toolkit's texts as text.
inline void PrintTo(const QString& Text, std::ostream* Out) {
  *Out << '"' << Text.toStdString() << '"';
}

namespace palimbo::testing {

inline constexpr QRgb kWhite = 0xFFFFFFFF, kBlack = 0xFF000000, kRed = 0xFFFF0000,
                      kBlue = 0xFF0000FF;
inline constexpr char kSuccess[] = "UPLOAD SUCCESSFULLY COMPLETED.";
inline constexpr char kCancelled[] = "Operation cancelled.";

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
  WindowTest() : Settings(Dir.filePath("store.ini"), QSettings::IniFormat) {}
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
  std::string Image = TestImage(1000);
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

class UploadTest : public WindowTest {
 protected:
  void SetUp() override {
    Open();
    PrepareUpload();
  }
  bool Programming() const { return Module.CountOf(sim::kCmdFill) > 0; }
};

}  // namespace palimbo::testing
