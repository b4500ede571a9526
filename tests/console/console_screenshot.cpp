// Renders the window halfway through an upload to a simulated module and saves it as a PNG:
//   console_screenshot docs/window.png

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <cstdio>

#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "sim/sim_line.h"
#include "sim/simulated_module.h"
#include "sim/virtual_clock.h"

namespace {

// The controller as the automatic mode would find it.
class DemoScanner final : public palimbo::AdapterScanner {
 public:
  palimbo::AdapterScanResult ScanForAdapter() override {
    return {3, "", "Kestrolar USB Interface", false};
  }
};

std::string HexOf(const std::string& Image) {
  std::string Text;
  char Record[64];
  for (size_t At = 0; At < Image.size(); At += 16) {
    int Sum = 16 + static_cast<int>((At >> 8) & 255) + static_cast<int>(At & 255);
    std::snprintf(Record, sizeof Record, ":10%04X00", static_cast<unsigned>(At));
    Text += Record;
    for (size_t I = At; I < At + 16; ++I) {
      const int Byte = static_cast<unsigned char>(Image[I]);
      Sum += Byte;
      std::snprintf(Record, sizeof Record, "%02X", Byte);
      Text += Record;
    }
    std::snprintf(Record, sizeof Record, "%02X\r\n", (256 - (Sum & 255)) & 255);
    Text += Record;
  }
  return Text + ":00000001FF\r\n";
}

}  // namespace

int main(int argc, char* argv[]) {
  QApplication App(argc, argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: console_screenshot OUTPUT.png\n");
    return 2;
  }
  const QString Output = QString::fromLocal8Bit(argv[1]);

  QTemporaryDir Store;
  QSettings Settings(Store.filePath("store.ini"), QSettings::IniFormat);
  const QString Folder = QDir::temp().filePath("palimbo-demo");
  QDir().mkpath(Folder);
  const QString FirmwareFile = QDir(Folder).filePath("module_v2_4.hex");
  std::string Image(8192, '\0');
  for (size_t I = 0; I < Image.size(); ++I) Image[I] = static_cast<char>(I * 13 + 5);
  QFile File(FirmwareFile);
  File.open(QIODevice::WriteOnly);
  File.write(QByteArray::fromStdString(HexOf(Image)));
  File.close();
  Settings.setValue("Settings/File", FirmwareFile);

  DemoScanner Scanner;
  palimbo::sim::VirtualClock Clock;
  palimbo::sim::SimulatedModule Module;
  palimbo::sim::SimLine Line(Clock, Module, "COM3");
  palimbo::QtMessageBoxes Boxes;
  palimbo::frmPalimbo Window({Scanner, Line, Clock, Settings, Boxes});
  Window.show();
  Window.TimerRefreshPort_Timer();

  // Halfway through the pages the window is grabbed; the upload then runs to its end.
  const int HalfPages = static_cast<int>(Image.size() / 256 / 2);
  bool Saved = false;
  QTimer Watch;
  Watch.setInterval(0);
  QObject::connect(&Watch, &QTimer::timeout, [&] {
    if (Saved || Module.CountOf(palimbo::sim::kCmdPage) < HalfPages) return;
    Saved = Window.grab().save(Output);
    Watch.stop();
  });
  Watch.start();
  Window.cmdStart_Click();
  if (!Saved) {
    std::fprintf(stderr, "could not write %s\n", argv[1]);
    return 1;
  }
  return 0;
}
