#include <cctype>
#include <filesystem>
#include <iostream>

#include "adapter/port_selection.h"
#include "cli/args.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/flash_run.h"
#include "serial/serial_remote.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli flash [--port NAME]... [--all] [OPTIONS] FILE\n"
    "Writes the Intel HEX file FILE into the module behind the serial port, the same job as\n"
    "the window's START. With several ports every module is written at once.\n\n"
    "  --port NAME        serial port (/dev/ttyUSB0, COM5, rfc2217://HOST:PORT for a network\n"
    "                     serial server, socket://HOST:PORT for a raw TCP one; rfc2217+tls://\n"
    "                     and socket+tls:// secure them, with ?ca=FILE&cert=FILE&key=FILE);\n"
    "                     give it again for more modules; without it the controller's USB\n"
    "                     adapter is looked for\n"
    "  --all              every controller adapter the scan accepts\n"
    "  --yes              go on when the bootloader does not answer (else asked on a terminal\n"
    "                     with one module, else No)\n"
    "  --give-up-after S  give up on a module that has not answered for S seconds (default\n"
    "                     60, at least 36: a module without CRC checks may let the CRC probe\n"
    "                     and both erases run out their tries; 0 never); a port that goes\n"
    "                     away is given up at once\n"
    "  --json             JSON Lines on stdout: log lines, progress steps, one result a module\n"
    "  --trace FILE       write every chunk to and from the port: ms, > or <, the bytes in hex\n"
    "                     (FILE.1, FILE.2, ... with several modules); a trace that cannot be\n"
    "                     written fails the run\n"
    "  --record FILE      append one JSON line per upload to FILE: time, host, version, port,\n"
    "                     file with its image's length and CRC and its SHA-256, protocol,\n"
    "                     outcome, reason, seconds, a secured server's certificate SHA-256;\n"
    "                     a line that cannot be written fails the run (and stops a station)\n"
    "  --expect-sha256 HEX  refuse FILE unless its SHA-256 (as sha256sum prints it) is HEX\n"
    "  --skip-same        ask each module's checksum first; one that holds the image already\n"
    "                     is only rebooted (\"already current\", exit status 0)\n"
    "  --station          production station: after each module wait for the next one on the\n"
    "                     same port and flash it, until Ctrl-C; a line and a running count\n"
    "                     per module; a port that goes away is waited for, and counts no\n"
    "                     module; exit status 0 only when every module was verified\n"
    "  --count N          with --station, stop after N modules\n"
    "  --spin             poll the port without waiting on it (for measurements)\n\n"
    "FILE is read once: every module of the run gets that image, whatever happens to the file.\n"
    "The log goes to stdout, with several modules each line after its port; the progress bar\n"
    "or table goes to stderr on a terminal, and a summary table ends a run of several modules.\n"
    "Ctrl-C cancels every job as CANCEL does; a second Ctrl-C closes the ports and quits.\n"
    "Exit status: 0 written and verified (every module), 1 failed, cancelled or given up (any\n"
    "module), 2 bad arguments or firmware file, 3 written but not verified.\n";

const char* const kVerifyUsage =
    "Usage: palimbo-cli verify [--port NAME]... [--all] [OPTIONS] FILE\n"
    "Checks whether the module behind the port holds the image of the Intel HEX file FILE,\n"
    "without writing it: the entry handshake as for an upload, the module's checksum over the\n"
    "image's length against the image's own, then the reboot, so that the module runs its\n"
    "application again. Nothing is erased or written, and a CCB bootloader is never entered.\n"
    "With several ports every module is checked at once.\n\n"
    "  --port NAME        serial port or network port, as for flash; give it again for more\n"
    "  --all              every controller adapter the scan accepts\n"
    "  --give-up-after S  give up on a module that has not answered for S seconds (default\n"
    "                     60, at least 22: a module without CRC checks may let the check run\n"
    "                     out its tries; 0 never); a port that goes away is given up at once\n"
    "  --json             JSON Lines on stdout; each result carries image_crc and module_crc\n"
    "  --trace FILE       write every chunk to and from the port\n"
    "  --record FILE      append one JSON line per module to FILE, as flash does\n"
    "  --expect-sha256 HEX  refuse FILE unless its SHA-256 is HEX\n"
    "  --spin             poll the port without waiting on it (for measurements)\n\n"
    "Exit status: 0 the module holds the image (every module), 4 it holds another image,\n"
    "3 its bootloader cannot tell, 1 no module, a lost port, given up or cancelled (any\n"
    "module), 2 bad arguments or firmware file.\n";

// A SHA-256 as sha256sum prints it, in either case; lower case for comparing.
std::string Sha256Argument(const std::string& Text) {
  std::string digest;
  for (const char c : Text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) break;
    digest += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (digest.size() != 64 || Text.size() != 64) {
    throw UsageError("--expect-sha256 '" + Text +
                     "' is no SHA-256: 64 hexadecimal digits, as sha256sum prints them");
  }
  return digest;
}

// A network port's URL, and a secured port's files, are arguments like any other: a wrong one
// is told before anything opens.
void CheckPortArgument(const std::string& Port) {
  if (const std::string problem = PortNameProblem(Port); !problem.empty()) {
    throw UsageError(problem);
  }
}

// Two jobs on one port would fight over it, and the second open fails only after the first
// module was written: the same port named twice, also by another of its names, is refused.
void CheckPortGivenOnce(const std::vector<std::string>& Ports, size_t Index) {
  const auto device = [](const std::string& Name) {
    std::error_code error;
    const auto path = std::filesystem::canonical(Name, error);
    return error ? Name : path.string();
  };
  for (size_t i = 0; i < Index; ++i) {
    if (device(Ports[i]) != device(Ports[Index])) continue;
    throw UsageError("--port " + Ports[Index] +
                     (Ports[i] == Ports[Index] ? " is given twice"
                                               : " names the same port as --port " + Ports[i]) +
                     ": one module a port");
  }
}

// What flash and verify share: the ports, the file, the record, the display; `Verify` makes
// the run a check without writing.
int RunModules(const std::vector<std::string>& Args, bool Verify) {
  FlashRequest request;
  bool all = false;
  bool spin = false;
  bool skipSame = false;
  CLI::App app;
  app.add_option("--port", request.Ports);
  app.add_flag("--all", all);
  app.add_option("--give-up-after", request.GiveUpAfterSeconds)->check(CLI::Range(0, 86400));
  app.add_flag("--json", request.Json);
  app.add_option("--trace", request.TraceFile);
  app.add_flag("--spin", spin);
  app.add_option("--record", request.RecordFile);
  app.add_option("--expect-sha256", request.ExpectSha256);
  if (!Verify) {
    app.add_flag("--yes", request.AssumeYes);
    app.add_flag("--skip-same", skipSame);
    auto* station = app.add_flag("--station", request.Station);
    app.add_option("--count", request.StationCount)->check(CLI::Range(1, 1000000))->needs(station);
  }
  app.add_option("FILE", request.File)->required();
  if (ParseCommand(app, Args)) {
    std::cout << (Verify ? kVerifyUsage : kUsage);
    return kExitOk;
  }
  request.Mode = Verify ? WriteMode::Never : skipSame ? WriteMode::UnlessSame : WriteMode::Always;
  request.IdleWait = !spin;
  const int32_t giveUp = request.GiveUpAfterSeconds;
  const int32_t shortest =
      Verify ? kLongestHealthyCheckSilenceSeconds : kLongestHealthySilenceSeconds;
  if (giveUp > 0 && giveUp < shortest) {
    throw UsageError("--give-up-after " + std::to_string(giveUp) +
                     " is shorter than a healthy module may stay silent (" +
                     std::to_string(shortest) +
                     " s: " + (Verify ? "the check" : "the CRC probe and two erases") +
                     "); give at least that, or 0 for never");
  }
  if (all && !request.Ports.empty()) throw UsageError("--all and --port exclude each other");
  if (!request.ExpectSha256.empty()) request.ExpectSha256 = Sha256Argument(request.ExpectSha256);
  for (size_t i = 0; i < request.Ports.size(); ++i) {
    CheckPortArgument(request.Ports[i]);
    CheckPortGivenOnce(request.Ports, i);
  }

  if (request.Ports.empty()) {
    const auto scanner = MakeSystemAdapterScanner();
    if (all) {
      for (const AcceptedAdapter& adapter : FindAllAdapterPorts(*scanner)) {
        request.Ports.push_back(adapter.Port);
        std::cerr << "Using " << adapter.Description << " (" << adapter.Port << ")" << std::endl;
      }
    } else {
      std::string label;
      if (const auto found = FindAdapterPort(*scanner, &label)) {
        request.Ports.push_back(*found);
        std::cerr << "Using " << label << std::endl;
      }
    }
    if (request.Ports.empty()) {
      // As `ports` says it: nothing is wrong with the arguments, the adapter is missing.
      std::cerr << "palimbo-cli " << (Verify ? "verify" : "flash")
                << ": no controller adapter found; name the port with --port" << std::endl;
      return kExitFailed;
    }
  }
  return FlashModules(request, [] { return MakeSystemSerialBackend(); }).ExitStatus;
}

}  // namespace

int RunFlash(const std::vector<std::string>& Args) {
  return RunModules(Args, false);
}

int RunVerify(const std::vector<std::string>& Args) {
  return RunModules(Args, true);
}

}  // namespace palimbo::cli
