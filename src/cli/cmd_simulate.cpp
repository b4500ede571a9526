#include <pthread.h>
#include <signal.h>

#include <fstream>
#include <iostream>

#include "cli/args.h"
#include "cli/commands.h"
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
    "  --no-reboot-answer     do not answer the reboot command\n"
    "  --check-bytes 2|4      number bytes in the CCB check answer (default 2)\n"
    "  --pace                 send answers at the wire speed of 57600 baud\n"
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
  s.AnswerReboot = !Parsed.Has("--no-reboot-answer");
  s.CheckBytes = static_cast<int>(Parsed.IntValue("--check-bytes", 2, 2, 4));
  if (s.CheckBytes == 3) throw UsageError("--check-bytes wants 2 or 4, not '3'");
  return s;
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
                                             {"--no-reboot-answer", false},
                                             {"--check-bytes", true},
                                             {"--pace", false},
                                             {"--dump", true},
                                             {"--help", false}});
  if (parsed.Has("--help")) {
    std::cout << kUsage;
    return kExitOk;
  }
  ExpectPositional(parsed, 0, "nothing");
  sim::SimulatedModule module(SettingsFrom(parsed));

  // The host's thread inherits this mask, so the signals reach sigwait below and nowhere else.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  std::string error;
  sim::PtyHostOptions options;
  if (parsed.Has("--pace")) options.PaceBaud = 57600;
  auto host = sim::PtyHost::Open(module, error, options);
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
