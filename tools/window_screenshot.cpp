// Renders the window halfway through an upload of the example firmware to a simulated module
// and saves it as a PNG, for the documentation:  window_screenshot docs/window.png
// With --station, the window of a production station, halfway through its third module:
// window_screenshot --station docs/window-station.png

#include <QApplication>
#include <QCryptographicHash>
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
  const bool Station = argc == 3 && QByteArray(argv[1]) == "--station";
  if (argc != 2 && !Station) {
    std::fprintf(stderr, "usage: window_screenshot [--station] OUTPUT.png\n");
    return 2;
  }
  const QString Output = QFileInfo(QString::fromLocal8Bit(argv[argc - 1])).absoluteFilePath();

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
  palimbo::sim::ModuleSettings Modules;
  // At a station a fresh module takes the place of each rebooted one.
  Modules.ReplaceAfterRebootMicros = Station ? 2'000'000 : -1;
  palimbo::sim::SimulatedModule Module(Modules);
  palimbo::sim::SimLine Line(Clock, Module, "COM3");
  palimbo::QtMessageBoxes Boxes;
  QString Profile;
  if (Station) {
    QFile File(PALIMBO_EXAMPLE_HEX);
    File.open(QIODevice::ReadOnly);
    const QByteArray Sha = QCryptographicHash::hash(File.readAll(), QCryptographicHash::Sha256);
    Profile = QStringLiteral("station.json");
    QFile Written(Store.filePath(Profile));
    Written.open(QIODevice::WriteOnly);
    Written.write(R"({"file": "example.hex", "port": "COM3", "record": "shift.jsonl", "count": 3,)"
                  R"( "expect-sha256": ")" +
                  Sha.toHex() + "\"}");
  }
  palimbo::frmPalimbo Window({Scanner, Line, Clock, Settings, Boxes, Profile});
  Window.show();
  Window.TimerRefreshPort_Timer();

  // Halfway through the pages (of the last module at a station) the window is grabbed; the
  // upload then runs to its end.
  const int HalfPages = static_cast<int>(Image.size() / 256 / 2);
  const int Earlier = Station ? 2 : 0;
  int Before = -1;  // pages of the modules before the one in the picture
  bool Saved = false;
  QTimer Watch;
  Watch.setInterval(0);
  QObject::connect(&Watch, &QTimer::timeout, [&] {
    if (Module.ReplacedCount() < Earlier) return;
    if (Before < 0) Before = Module.CountOf(palimbo::sim::kCmdPage);
    if (Saved || Module.CountOf(palimbo::sim::kCmdPage) - Before < HalfPages) return;
    // The tick the operator would see once a second during the upload.
    Window.TimerRefreshPort_Timer();
    Saved = Window.grab().save(Output);
    Watch.stop();
  });
  Watch.start();
  Window.cmdStart_Click();
  if (!Saved) {
    std::fprintf(stderr, "could not write %s\n", argv[argc - 1]);
    return 1;
  }
  return 0;
}
