#include <cstdio>
#include <iostream>
#include <memory>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/flash_run.h"
#include "image/hex_file.h"
#include "sim/ideal_time.h"
#include "sim/pty_host.h"
#include "sim/simulated_module.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli demo [--protocol direct|ccb] [--modules N] [--file FILE]\n"
    "Starts simulated modules on pseudo-terminals inside this process and flashes the bundled\n"
    "example firmware (or FILE) into them through the real serial layer, on the time of a\n"
    "real line and USB adapter.\n\n"
    "  --protocol direct|ccb  bootloader protocol of every module (default: direct, and with\n"
    "                         several modules direct and CCB by turns)\n"
    "  --modules N            flash N modules at once, as a production line does (default 1)\n"
    "  --file FILE            another firmware file\n";

}  // namespace

int RunDemo(const std::vector<std::string>& Args) {
  std::string protocol;
  int count = 1;
  RunRequest request;
  request.File = PALIMBO_EXAMPLE_HEX;
  CLI::App app;
  app.add_option("--protocol", protocol)->check(CLI::IsMember({"direct", "ccb"}));
  app.add_option("--modules", count)->check(CLI::Range(1, 16));
  app.add_option("--file", request.File);
  if (ParseCommand(app, Args)) {
    std::cout << kUsage;
    return kExitOk;
  }

  // Bytes take the time of a real line and adapter, so the figures below look like a real
  // upload; a module needs a few milliseconds to write a page.
  const sim::WireSettings wire;
  std::vector<std::unique_ptr<sim::SimulatedModule>> modules;
  std::vector<std::unique_ptr<sim::PtyHost>> hosts;
  for (int i = 0; i < count; ++i) {
    sim::ModuleSettings settings;
    const bool ccb = protocol.empty() ? i % 2 == 1 : protocol == "ccb";
    settings.Protocol = ccb ? sim::BootProtocol::Ccb : sim::BootProtocol::Direct;
    settings.FlashWriteMicros = 4'000;
    modules.push_back(std::make_unique<sim::SimulatedModule>(settings));
    std::string error;
    hosts.push_back(sim::PtyHost::Open(*modules.back(), error, {wire}));
    if (!hosts.back()) {
      std::cerr << "palimbo-cli demo: cannot start a simulated module: " << error << std::endl;
      return kExitFailed;
    }
    std::cout << "Simulated module (" << (ccb ? "ccb" : "direct") << " protocol) on "
              << hosts.back()->SlavePath() << std::endl;
    request.Ports.push_back(hosts.back()->SlavePath());
  }

  const FlashReport report = FlashModules(request, false, [] { return MakeSystemSerialBackend(); });
  for (auto& host : hosts) host->Stop();
  if (report.Modules.empty()) return report.ExitStatus;

  bool encrypted = false;
  const std::string image = ReadHexFile(request.File, encrypted).FirmwareString;
  for (size_t i = 0; i < modules.size(); ++i) {
    const ModuleResult& result = report.Modules[i];
    const bool same = !image.empty() && modules[i]->Flash().compare(0, image.size(), image) == 0;
    const double ideal =
        static_cast<double>(sim::IdealUploadTime(*modules[i], wire).TotalMicros) / 1e6;
    char summary[300];
    std::snprintf(summary, sizeof summary,
                  "Demo%s%s: %zu bytes in %.1f s (%.0f bytes/s; the line allows %.1f s), %s; "
                  "module flash %s the image.",
                  modules.size() > 1 ? " " : "", modules.size() > 1 ? result.Port.c_str() : "",
                  image.size(), result.Seconds,
                  result.Seconds > 0 ? image.size() / result.Seconds : 0.0, ideal,
                  result.Result.Outcome == UploadOutcome::Verified     ? "verified"
                  : result.Result.Outcome == UploadOutcome::Unverified ? "not verified"
                                                                       : "FAILED",
                  same ? "equals" : "differs from");
    std::cout << summary << std::endl;
  }
  return report.ExitStatus;
}

}  // namespace palimbo::cli
