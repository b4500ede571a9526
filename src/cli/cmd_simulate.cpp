#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>

#include "cli/args.h"
#include "cli/commands.h"
#include "sim/ideal_time.h"
#include "sim/pty_host.h"
#include "sim/simulated_module.h"

namespace palimbo::cli {

namespace {

constexpr const char* kUsage =
    "Usage: palimbo-cli simulate [OPTIONS]\n"
    "Serves a simulated module on a pseudo-terminal. Prints the device path on the first\n"
    "line, then answers the tool until SIGINT or SIGTERM.\n\n"
    "Options:\n"
    "  --protocol direct|ccb  bootloader protocol (default direct)\n"
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
    "  --refuse-block K       never answer the CCB block at address K * 128\n"
    "  --wire                 carry both directions at 57600 baud, 8N1, with the latency of a\n"
    "                         USB adapter towards the tool; on exit, print the ideal time of\n"
    "                         the upload on such a line\n"
    "  --latency-ms N         the adapter's latency timer with --wire (default 16; 1 is the\n"
    "                         low-latency mode, 0 hands on each byte as it arrives)\n"
    "  --pace                 the same as --wire --latency-ms 0\n"
    "  --dump FILE            write the flash, up to the highest written byte, on exit\n"
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

sim::ModuleSettings SettingsFrom(const ParsedArgs& Parsed) {
  sim::ModuleSettings s;
  const std::string protocol = Parsed.Value("--protocol", "direct");
  if (protocol == "ccb") {
    s.Protocol = sim::BootProtocol::Ccb;
  } else if (protocol != "direct") {
    throw UsageError("--protocol wants direct or ccb, not '" + protocol + "'");
  }
  s.PageSize = static_cast<int32_t>(Parsed.IntValue("--page-size", 256, 1, 0xFFFFFF));
  s.EchoPoll = Parsed.Has("--echo");
  s.SupportsCrc = !Parsed.Has("--no-crc");
  s.Silent = Parsed.Has("--silent");
  s.AnswerAfterPolls = static_cast<int>(Parsed.IntValue("--answer-after", 0, 0, 100000));
  s.StrayBytes = ParseHexBytes(Parsed.Value("--stray"));
  s.AnswerPieces = static_cast<int>(Parsed.IntValue("--pieces", 1, 1, 4));
  s.TurnaroundMicros = Parsed.IntValue("--turnaround-ms", 10, 0, 60000) * 1000;
  s.FlashWriteMicros = Parsed.IntValue("--flash-ms", 4, 0, 60000) * 1000;
  s.AnswerReboot = !Parsed.Has("--no-reboot-answer");
  s.CheckBytes = static_cast<int>(Parsed.IntValue("--check-bytes", 2, 2, 4));
  s.RefuseBlock = static_cast<int>(Parsed.IntValue("--refuse-block", -1, 0, 100000));
  if (s.CheckBytes == 3) throw UsageError("--check-bytes wants 2 or 4, not '3'");
  return s;
}

std::optional<sim::WireSettings> WireFrom(const ParsedArgs& Parsed) {
  const bool pace = Parsed.Has("--pace");
  if (!Parsed.Has("--wire") && !pace) {
    if (Parsed.Has("--latency-ms")) throw UsageError("--latency-ms needs --wire");
    return std::nullopt;
  }
  if (pace && Parsed.Has("--latency-ms")) throw UsageError("--pace has no latency; use --wire");
  sim::WireSettings wire;
  wire.LatencyMicros = pace ? 0 : Parsed.IntValue("--latency-ms", 16, 0, 1000) * 1000;
  return wire;
}

double Seconds(int64_t Micros) {
  return static_cast<double>(Micros) / 1e6;
}

// What a real line would have needed for the upload the module took part in.
void PrintIdealTime(const sim::SimulatedModule& Module, const sim::WireSettings& Wire,
                    const sim::PtyHostStats& Stats) {
  const sim::IdealTime ideal = sim::IdealUploadTime(Module, Wire);
  char text[400];
  std::snprintf(
      text, sizeof text,
      "simulate: ideal time %.3f s: to the module %.3f s, to the tool %.3f s, module "
      "%.3f s, adapter %.3f s, the tool's waits %.3f s\n"
      "simulate: %lld answers handed on, late by %.1f us on average, %lld us at most\n",
      Seconds(ideal.TotalMicros), Seconds(ideal.ToModuleMicros), Seconds(ideal.ToToolMicros),
      Seconds(ideal.ModuleMicros), Seconds(ideal.AdapterMicros), Seconds(ideal.ToolWaitMicros),
      static_cast<long long>(Stats.Handovers),
      Stats.Handovers > 0 ? static_cast<double>(Stats.LateMicrosTotal) / Stats.Handovers : 0.0,
      static_cast<long long>(Stats.LateMicrosMax));
  std::cerr << text;
}

}  // namespace

int RunSimulate(const std::vector<std::string>& Args) {
  const ParsedArgs parsed = ParseArgs(Args, {{"--protocol", true},
                                             {"--page-size", true},
                                             {"--echo", false},
                                             {"--no-crc", false},
                                             {"--silent", false},
                                             {"--answer-after", true},
                                             {"--stray", true},
                                             {"--pieces", true},
                                             {"--turnaround-ms", true},
                                             {"--flash-ms", true},
                                             {"--no-reboot-answer", false},
                                             {"--check-bytes", true},
                                             {"--refuse-block", true},
                                             {"--pace", false},
                                             {"--wire", false},
                                             {"--latency-ms", true},
                                             {"--dump", true},
                                             {"--help", false}});
  if (parsed.Has("--help")) {
    std::cout << kUsage;
    return kExitOk;
  }
  ExpectPositional(parsed, 0, "nothing");
  sim::SimulatedModule module(SettingsFrom(parsed));
  const std::optional<sim::WireSettings> wire = WireFrom(parsed);

  // The host's thread inherits this mask, so the signals reach sigwait below and nowhere else.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string error;
  auto host = sim::PtyHost::Open(module, error, {wire});
  if (!host) {
    std::cerr << "palimbo-cli simulate: cannot open a pseudo-terminal: " << error << '\n';
    return kExitFailed;
  }
  std::cout << host->SlavePath() << std::endl;

  int received = 0;
  sigwait(&stopSignals, &received);
  host->Stop();

  std::cerr << "simulate: " << module.PollCount() << " polls, " << module.Commands().size()
            << " commands heard\n";
  if (wire) PrintIdealTime(module, *wire, host->Stats());
  if (parsed.Has("--dump")) {
    const std::string path = parsed.Value("--dump");
    std::ofstream file(path, std::ios::binary);
    file.write(module.Flash().data(), static_cast<std::streamsize>(module.FlashUsed()));
    if (!file) {
      std::cerr << "palimbo-cli simulate: cannot write " << path << '\n';
      return kExitFailed;
    }
  }
  return kExitOk;
}

}  // namespace palimbo::cli
