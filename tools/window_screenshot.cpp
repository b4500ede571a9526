// Renders the window halfway through an upload of the example firmware to a simulated module
// and saves it as a PNG, for the documentation:  window_screenshot docs/window.png

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <cstdio>

#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "image/hex_file.h"
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

}  // namespace

int main(int argc, char* argv[]) {
  QApplication App(argc, argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: window_screenshot OUTPUT.png\n");
    return 2;
  }
  const QString Output = QFileInfo(QString::fromLocal8Bit(argv[1])).absoluteFilePath();

  // The picture shows the file by its name alone, not a path of the machine it was made on.
  QTemporaryDir Store;
  const QString FirmwareFile = QStringLiteral("example.hex");
  QFile::copy(QStringLiteral(PALIMBO_EXAMPLE_HEX), Store.filePath(FirmwareFile));
  QDir::setCurrent(Store.path());
  QSettings Settings(Store.filePath("store.ini"), QSettings::IniFormat);
  bool Encrypted = false;
  const std::string Image = palimbo::ReadHexFile(PALIMBO_EXAMPLE_HEX, Encrypted).FirmwareString;
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
    // The tick the operator would see once a second during the upload.
    Window.TimerRefreshPort_Timer();
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
