#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include "cli/args.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "image/file_read.h"
#include "image/hex_file.h"
#include "sim/ideal_time.h"
#include "sim/pty_host.h"
#include "sim/simulated_module.h"

namespace palimbo::cli {

namespace {

constexpr const char* kUsage =
    "Usage: palimbo-cli simulate [OPTIONS]\n"
    "Serves simulated modules on pseudo-terminals. Prints each one's device path on a line of\n"
    "its own, then answers the tool until SIGINT or SIGTERM.\n\n"
    "Options:\n"
    "  --count N              serve N independent modules (default 1)\n"
    "  --protocol LIST        bootloader protocol, direct or ccb (default direct); a list such\n"
    "                         as direct,ccb gives one a module, its last one for the rest\n"
    "  --page-size N          page size told in the \"O\" answer (default 256)\n"
    "  --echo                 echo each \"i\" poll before the answer\n"
    "  --no-crc               answer the \"C\" command negatively\n"
    "  --silent               never answer anything\n"
    "  --answer-after N       ignore the first N polls\n"
    "  --stray HEX            bytes sent once in front of the first answer, e.g. 00FF\n"
    "  --pieces N             spread the entry answer over N polls (1 to 4)\n"
    "  --turnaround-ms N      delay before each answer (default 10)\n"
    "  --flash-ms N           writing a page or block delays its answer N ms more (default 4)\n"
    "  --no-reboot-answer     do not answer the reboot command\n"
    "  --check-bytes 2|4      number bytes in the CCB check answer (default 2)\n"
    "  --check-when-entered   answer the CCB check only after the bootloader was entered\n"
    "  --flash-from FILE      the flash holds this firmware (Intel HEX, or a flat image when\n"
    "                         it does not start with ':') when a module comes to the line\n"
    "  --flash-from-every N   with --replace-after-ms, only every N-th module holds it, from\n"
    "                         the first on; the others come blank (default 1)\n"
    "  --refuse-block LIST    never answer the CCB block at address K * 128; a list gives one K\n"
    "                         a module, -1 for none (default -1)\n"
    "  --wire                 carry both directions at 57600 baud, 8N1, with the latency of a\n"
    "                         USB adapter towards the tool; on exit, print the ideal time of\n"
    "                         the upload on such a line\n"
    "  --latency-ms N         the adapter's latency timer with --wire (default 16; 1 is the\n"
    "                         low-latency mode, 0 hands on each byte as it arrives)\n"
    "  --pace                 the same as --wire --latency-ms 0\n"
    "  --replace-after-ms N   N ms after each reboot a fresh module in its bootloader takes the\n"
    "                         module's place on the line, as at a production station\n"
    "  --dump FILE            write the flash, up to the highest written byte, on exit\n"
    "                         (FILE.1, FILE.2, ... with several modules)\n"
    "  --help                 show this help\n";

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string ParseHexBytes(const std::string& Text) {
  std::string digits;
  for (const char c : Text) {
    if (c == ' ' || c == ':') continue;
    if (HexDigit(c) < 0) throw UsageError("--stray wants hexadecimal digits, not '" + Text + "'");
    digits += c;
  }
  if (digits.size() % 2 != 0) throw UsageError("--stray wants whole bytes, not '" + Text + "'");
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(HexDigit(digits[i]) * 16 + HexDigit(digits[i + 1]));
  }
  return bytes;
}

// The value of a per-module list for module `Index`: its own, or the list's last.
const std::string& ForModule(const std::vector<std::string>& List, size_t Index) {
  return List[std::min(Index, List.size() - 1)];
}

struct SimulateOptions {
  int Count = 1;
  std::vector<std::string> Protocols = {"direct"};
  std::vector<int> RefuseBlocks = {-1};
  sim::ModuleSettings Common;
  std::string Stray;
  bool Wire = false;
  bool Pace = false;
  int LatencyMs = 16;
  std::string Dump;
};

sim::ModuleSettings SettingsFor(const SimulateOptions& O, size_t Index) {
  sim::ModuleSettings s = O.Common;
  s.Protocol =
      ForModule(O.Protocols, Index) == "ccb" ? sim::BootProtocol::Ccb : sim::BootProtocol::Direct;
  s.RefuseBlock = O.RefuseBlocks[std::min(Index, O.RefuseBlocks.size() - 1)];
  s.StrayBytes = ParseHexBytes(O.Stray);
  return s;
}

// The firmware a simulated module holds from the start: a HEX file's image, or a flat one.
std::string FlashContent(const std::string& File) {
  const FileBytes file = ReadRegularFile(File, kHexFileMaxBytes);
  if (file.Problem != FileProblem::None) {
    throw UsageError("--flash-from " + File + ": cannot read it" +
                     (file.Detail.empty() ? std::string() : ": " + file.Detail));
  }
  if (file.Bytes.empty() || file.Bytes.front() != ':') return file.Bytes;
  bool encrypted = false;
  const HexReadResult image = ReadHexText(file.Bytes, encrypted);
  if (!image.Ok()) throw UsageError("--flash-from " + File + ": " + image.Reason);
  return image.FirmwareString;
}

double Seconds(int64_t Micros) {
  return static_cast<double>(Micros) / 1e6;
}

// What a real line would have needed for the upload the module took part in.
void PrintIdealTime(const std::string& Prefix, const sim::SimulatedModule& Module,
                    const sim::WireSettings& Wire, const sim::PtyHostStats& Stats) {
  const sim::IdealTime ideal = sim::IdealUploadTime(Module, Wire);
  char text[400];
  std::snprintf(
      text, sizeof text,
      "%sideal time %.3f s: to the module %.3f s, to the tool %.3f s, module "
      "%.3f s, adapter %.3f s, the tool's waits %.3f s\n"
      "%s%lld answers handed on, late by %.1f us on average, %lld us at most\n",
      Prefix.c_str(), Seconds(ideal.TotalMicros), Seconds(ideal.ToModuleMicros),
      Seconds(ideal.ToToolMicros), Seconds(ideal.ModuleMicros), Seconds(ideal.AdapterMicros),
      Seconds(ideal.ToolWaitMicros), Prefix.c_str(), static_cast<long long>(Stats.Handovers),
      Stats.Handovers > 0 ? static_cast<double>(Stats.LateMicrosTotal) / Stats.Handovers : 0.0,
      static_cast<long long>(Stats.LateMicrosMax));
  std::cerr << text;
}

}  // namespace

int RunSimulate(const std::vector<std::string>& Args) {
  SimulateOptions o;
  sim::ModuleSettings& s = o.Common;
  int64_t turnaroundMs = 10, flashMs = 4;
  bool noCrc = false, noRebootAnswer = false;
  CLI::App app;
  app.add_option("--count", o.Count)->check(CLI::Range(1, 64));
  app.add_option("--protocol", o.Protocols)
      ->delimiter(',')
      ->check(CLI::IsMember({"direct", "ccb"}));
  app.add_option("--page-size", s.PageSize)->check(CLI::Range(1, 0xFFFFFF));
  app.add_flag("--echo", s.EchoPoll);
  app.add_flag("--no-crc", noCrc);
  app.add_flag("--silent", s.Silent);
  app.add_option("--answer-after", s.AnswerAfterPolls)->check(CLI::Range(0, 100000));
  app.add_option("--stray", o.Stray);
  app.add_option("--pieces", s.AnswerPieces)->check(CLI::Range(1, 4));
  app.add_option("--turnaround-ms", turnaroundMs)->check(CLI::Range(0, 60000));
  app.add_option("--flash-ms", flashMs)->check(CLI::Range(0, 60000));
  app.add_flag("--no-reboot-answer", noRebootAnswer);
  app.add_option("--check-bytes", s.CheckBytes)->check(CLI::IsMember({2, 4}));
  app.add_option("--refuse-block", o.RefuseBlocks)->delimiter(',')->check(CLI::Range(-1, 100000));
  auto* wire = app.add_flag("--wire", o.Wire);
  auto* pace = app.add_flag("--pace", o.Pace)->excludes(wire);
  app.add_option("--latency-ms", o.LatencyMs)
      ->check(CLI::Range(0, 1000))
      ->needs(wire)
      ->excludes(pace);
  app.add_option("--dump", o.Dump);
  app.add_flag("--check-when-entered", s.CheckOnlyWhenEntered);
  std::string flashFrom;
  app.add_option("--flash-from", flashFrom);
  app.add_option("--flash-from-every", s.InitialFlashEvery)->check(CLI::Range(1, 1000000));
  int64_t replaceMs = -1;
  app.add_option("--replace-after-ms", replaceMs)->check(CLI::Range(0, 3600000));
  if (ParseCommand(app, Args)) {
    std::cout << kUsage;
    return kExitOk;
  }
  if (!flashFrom.empty()) s.InitialFlash = FlashContent(flashFrom);
  s.SupportsCrc = !noCrc;
  s.AnswerReboot = !noRebootAnswer;
  s.TurnaroundMicros = turnaroundMs * 1000;
  s.FlashWriteMicros = flashMs * 1000;
  s.ReplaceAfterRebootMicros = replaceMs >= 0 ? replaceMs * 1000 : -1;
  std::optional<sim::WireSettings> line;
  if (o.Wire || o.Pace) {
    line.emplace();
    line->LatencyMicros = o.Pace ? 0 : int64_t{o.LatencyMs} * 1000;
  }

  std::vector<std::unique_ptr<sim::SimulatedModule>> modules;
  for (int i = 0; i < o.Count; ++i) {
    modules.push_back(std::make_unique<sim::SimulatedModule>(SettingsFor(o, i)));
  }

  // The hosts' threads inherit this mask, so the signals reach sigwait below and nowhere else.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::vector<std::unique_ptr<sim::PtyHost>> hosts;
  for (auto& module : modules) {
    std::string error;
    hosts.push_back(sim::PtyHost::Open(*module, error, {line}));
    if (!hosts.back()) {
      std::cerr << "palimbo-cli simulate: cannot open a pseudo-terminal: " << error << '\n';
      return kExitFailed;
    }
    std::cout << hosts.back()->SlavePath() << '\n';
  }
  std::cout << std::flush;

  int received = 0;
  sigwait(&stopSignals, &received);
  for (auto& host : hosts) host->Stop();

  int status = kExitOk;
  for (size_t i = 0; i < modules.size(); ++i) {
    const sim::SimulatedModule& module = *modules[i];
    const std::string prefix =
        "simulate: " + (modules.size() > 1 ? hosts[i]->SlavePath() + ": " : std::string());
    std::cerr << prefix << module.PollCount() << " polls, " << module.Commands().size()
              << " commands heard\n";
    if (module.ReplacedCount() > 0) {
      std::cerr << prefix << module.ReplacedCount() << " modules took a rebooted one's place\n";
    }
    if (line) PrintIdealTime(prefix, module, *line, hosts[i]->Stats());
    if (o.Dump.empty()) continue;
    const std::string path = modules.size() == 1 ? o.Dump : o.Dump + "." + std::to_string(i + 1);
    std::ofstream file(path, std::ios::binary);
    file.write(module.Flash().data(), static_cast<std::streamsize>(module.FlashUsed()));
    if (!file) {
      std::cerr << "palimbo-cli simulate: cannot write " << path << '\n';
      status = kExitFailed;
    }
  }
  return status;
}

}  // namespace palimbo::cli
