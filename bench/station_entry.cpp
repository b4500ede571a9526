// The time from START to the first module's entry into its bootloader, in the window's
// production station and on the command line, for a whole-process pairing of the two:
//   palimbo_station_entry window|cli PALIMBO_CLI
// Both modes do the same set-up (a simulated module of palimbo-cli simulate on a pseudo-terminal,
// a profile for it, the application and the window in production mode); then `window` clicks
// START, `cli` runs `palimbo-cli flash --profile` instead, and either ends at the log line of the
// entry. The milliseconds from START to that line go to stderr.

#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <string>

#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "serial/clock.h"
#include "serial/serial_backend.h"
#include "support/process.h"

namespace {

constexpr char kEntered[] = "Entered bootloader mode successfully.";

class DemoScanner final : public palimbo::AdapterScanner {
 public:
  palimbo::AdapterScanResult ScanForAdapter() override { return {}; }
};

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3 || (std::string(argv[1]) != "window" && std::string(argv[1]) != "cli")) {
    std::fprintf(stderr, "usage: palimbo_station_entry window|cli PALIMBO_CLI\n");
    return 2;
  }
  const bool window = std::string(argv[1]) == "window";
  const std::string cli = argv[2];
  palimbo::testing::Process module({cli, "simulate"}, "/dev/null");
  const std::string port = module.FirstLine(10000);
  if (port.empty()) return 1;

  QApplication App(argc, argv);
  QTemporaryDir Line;
  QFile::copy(QStringLiteral(PALIMBO_EXAMPLE_HEX), Line.filePath("firmware.hex"));
  const QString Profile = Line.filePath("station.json");
  QFile Written(Profile);
  Written.open(QIODevice::WriteOnly);
  Written.write(QStringLiteral(R"({"file": "firmware.hex", "port": "%1", "count": 1})")
                    .arg(QString::fromStdString(port))
                    .toUtf8());
  Written.close();
  QSettings Settings(Line.filePath("store.ini"), QSettings::IniFormat);
  DemoScanner Scanner;
  const auto Port = palimbo::MakeSystemSerialBackend();
  palimbo::SteadyClock Clock;
  palimbo::QtMessageBoxes Boxes;
  palimbo::frmPalimbo Window({Scanner, *Port, Clock, Settings, Boxes, Profile});
  Window.show();
  QCoreApplication::processEvents();

  const auto start = std::chrono::steady_clock::now();
  const auto report = [&] {
    std::fprintf(stderr, "%s: %.1f ms from START to the entry\n", argv[1],
                 std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                     .count());
    module.Signal(SIGKILL);
  };
  if (!window) {
    palimbo::testing::Process flash({cli, "flash", "--profile", Profile.toStdString()},
                                    "/dev/null");
    const bool entered = flash.WaitForText(kEntered, 60000);
    report();
    return entered ? 0 : 1;
  }
  // The window's list is looked at from its own event pump, which the job runs at its waits.
  QTimer Watch;
  QObject::connect(&Watch, &QTimer::timeout, [&] {
    if (!Window.LogText().contains(QLatin1String(kEntered))) return;
    report();
    // The job stands inside START; the process ends here, and the system closes the port.
    std::fflush(stderr);
    _exit(0);
  });
  Watch.start(0);
  Window.cmdStart_Click();
  report();
  return 1;
}
