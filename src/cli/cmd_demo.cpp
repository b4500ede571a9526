#include <chrono>
#include <cstdio>
#include <iostream>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/terminal_job.h"
#include "image/hex_file.h"
#include "sim/ideal_time.h"
#include "sim/pty_host.h"
#include "sim/simulated_module.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli demo [--protocol direct|ccb] [--file FILE]\n"
    "Starts a simulated module on a pseudo-terminal inside this process and flashes the\n"
    "bundled example firmware (or FILE) into it through the real serial layer.\n";

}  // namespace

int RunDemo(const std::vector<std::string>& Args) {
  const ParsedArgs parsed = ParseArgs(Args, {{"--protocol", true}, {"--file", true}, {"--help"}});
  if (parsed.Has("--help")) {
    std::cout << kUsage;
    return kExitOk;
  }
  ExpectPositional(parsed, 0, "");
  const std::string protocol = parsed.Value("--protocol", "direct");
  if (protocol != "direct" && protocol != "ccb") {
    throw UsageError("--protocol is direct or ccb, not '" + protocol + "'");
  }

  sim::ModuleSettings settings;
  settings.Protocol = protocol == "ccb" ? sim::BootProtocol::Ccb : sim::BootProtocol::Direct;
  // Bytes take the time of a real line and adapter, so the figures below look like a real
  // upload; a module needs a few milliseconds to write a page.
  settings.FlashWriteMicros = 4'000;
  const sim::WireSettings wire;
  sim::SimulatedModule module(settings);
  std::string error;
  auto host = sim::PtyHost::Open(module, error, {wire});
  if (!host) {
    std::cerr << "palimbo-cli demo: cannot start the simulated module: " << error << std::endl;
    return kExitFailed;
  }
  std::cout << "Simulated module (" << protocol << " protocol) on " << host->SlavePath()
            << std::endl;

  TerminalUpload upload;
  upload.File = parsed.Value("--file", PALIMBO_EXAMPLE_HEX);
  upload.Port = host->SlavePath();
  const auto started = std::chrono::steady_clock::now();
  const auto port = MakeSystemSerialBackend();
  const TerminalResult result = RunTerminalUpload(upload, *port);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  host->Stop();

  bool encrypted = false;
  const std::string image = ReadHexFile(upload.File, encrypted).FirmwareString;
  const bool same = !image.empty() && module.Flash().compare(0, image.size(), image) == 0;
  const char* verdict = result.Outcome == UploadOutcome::Verified     ? "verified"
                        : result.Outcome == UploadOutcome::Unverified ? "not verified"
                                                                      : "FAILED";
  const double ideal = static_cast<double>(sim::IdealUploadTime(module, wire).TotalMicros) / 1e6;
  char summary[300];
  std::snprintf(summary, sizeof summary,
                "Demo: %zu bytes in %.1f s (%.0f bytes/s; the line allows %.1f s), %s; module "
                "flash %s the image.",
                image.size(), seconds, seconds > 0 ? image.size() / seconds : 0.0, ideal, verdict,
                same ? "equals" : "differs from");
  std::cout << summary << std::endl;
  return result.ExitStatus;
}

}  // namespace palimbo::cli
