// The time from START to the first module's entry into its bootloader, in the window's
// production station and on the command line, for a whole-process pairing of the two:
//   palimbo_station_entry window|cli PALIMBO_CLI
// Both modes do the same set-up (a simulated module of palimbo-cli simulate on a pseudo-terminal,
// a profile for it, the application and the window in production mode); then `window` clicks
// START, `cli` runs `palimbo-cli flash --profile` instead, and either ends at the log line of the
// entry. The milliseconds from START to that line go to stderr.

#include <signal.h>
#include <sys/wait.h>
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

namespace {

constexpr char kEntered[] = "Entered bootloader mode successfully.";

// Starts `Args` with its stdout on a pipe; gives the read end and sets `Child`.
FILE* Spawn(const std::vector<std::string>& Args, pid_t& Child) {
  int out[2];
  if (pipe(out) != 0) return nullptr;
  Child = fork();
  if (Child == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    std::vector<char*> argv;
    for (const auto& a : Args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  return fdopen(out[0], "r");
}

// Reads lines of `From` until one holds `Text`; false at its end.
bool ReadUntil(FILE* From, const char* Text, std::string* Line = nullptr) {
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, From) != nullptr) {
    if (std::string(buffer).find(Text) == std::string::npos) continue;
    if (Line != nullptr) *Line = buffer;
    return true;
  }
  return false;
}

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
  pid_t module = 0;
  FILE* modulePort = Spawn({cli, "simulate"}, module);
  std::string port;
  if (modulePort == nullptr || !ReadUntil(modulePort, "/dev/", &port)) return 1;
  port.erase(port.find_last_not_of("\r\n") + 1);

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
    kill(module, SIGKILL);
    waitpid(module, nullptr, 0);
  };
  if (!window) {
    pid_t flash = 0;
    FILE* log = Spawn({cli, "flash", "--profile", Profile.toStdString()}, flash);
    const bool entered = log != nullptr && ReadUntil(log, kEntered);
    report();
    kill(flash, SIGKILL);
    waitpid(flash, nullptr, 0);
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
