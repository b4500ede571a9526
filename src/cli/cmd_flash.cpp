#include <iostream>

#include "adapter/port_selection.h"
#include "cli/args.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "cli/flash_run.h"
#include "production/profile.h"
#include "serial/serial_remote.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli flash [--port NAME]... [--all] [OPTIONS] FILE\n"
    "       palimbo-cli flash --profile PROFILE [--json]\n"
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
    "  --forward URL      with --record, send each record line also into the table\n"
    "                     palimbo_uploads of the PostgreSQL database at URL (a libpq URI),\n"
    "                     from a thread of its own: a database that is away holds up nothing,\n"
    "                     its lines wait in the record and go, once each, when it answers;\n"
    "                     a URI, password, database or right that cannot work is exit 2\n"
    "  --skip-same        ask each module's checksum first; one that holds the image already\n"
    "                     is only rebooted (\"already current\", exit status 0)\n"
    "  --station          production station: after each module wait for the next one on the\n"
    "                     same port and flash it, until Ctrl-C; a line and a running count\n"
    "                     per module; a port that goes away is waited for, and counts no\n"
    "                     module; exit status 0 only when every module was verified\n"
    "  --count N          with --station, stop after N modules\n"
    "  --unit TEXT        the unit's own identity (its serial number or label) for the record\n"
    "                     and the result; names the one module of a run\n"
    "  --ask-unit         with --station and one port, read a line from standard input before\n"
    "                     each module (a barcode scanner types the label and Enter): a module\n"
    "                     is flashed only once its unit is known; the end of input ends the\n"
    "                     station\n"
    "  --unit-pattern RE  refuse a unit that does not match the regular expression RE as a\n"
    "                     whole (ECMAScript syntax): a refused line is said, nothing is recorded\n"
    "                     for it, and the next line is asked for\n"
    "  --profile PROFILE  run the station that the JSON object in PROFILE describes, one key\n"
    "                     a long option: file, port (a name or a list), record, trace,\n"
    "                     expect-sha256, skip-same, verify (a checking station), count,\n"
    "                     give-up-after; paths are taken from PROFILE's folder\n"
    "  --spin             poll the port without waiting on it (for measurements)\n\n"
    "FILE is read once: every module of the run gets that image, whatever happens to the file.\n"
    "The log goes to stdout, with several modules each line after its port; the progress bar\n"
    "or table goes to stderr on a terminal, and a summary table ends a run of several modules.\n"
    "Ctrl-C cancels every job as CANCEL does; a second Ctrl-C closes the ports and quits.\n"
    "Exit status: 0 written and verified (every module), 1 failed, cancelled or given up (any\n"
    "module), 2 bad arguments or firmware file, 3 written but not verified.\n";

const char* const kVerifyUsage =
    "Usage: palimbo-cli verify [--port NAME]... [--all] [OPTIONS] FILE\n"
    "       palimbo-cli verify --profile PROFILE [--json]\n"
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
    "  --unit TEXT        the unit's own identity for the record and the result\n"
    "  --unit-pattern RE  refuse a --unit that does not match RE\n"
    "  --profile PROFILE  check module after module as the station of PROFILE, as for flash\n"
    "  --spin             poll the port without waiting on it (for measurements)\n\n"
    "Exit status: 0 the module holds the image (every module), 4 it holds another image,\n"
    "3 its bootloader cannot tell, 1 no module, a lost port, given up or cancelled (any\n"
    "module), 2 bad arguments or firmware file.\n";

// What flash and verify share: the ports, the file, the record, the display; `Verify` makes
// the run a check without writing.
// Runs the station a profile describes; `Verify` makes it a checking station. Only the way
// the run is shown may stand beside the profile: the profile is the whole of the station.
int RunProfile(const CLI::App& App, const std::string& Profile, bool Json, bool Verify) {
  for (const CLI::Option* option : App.get_options()) {
    const std::string name = option->get_name();
    if (option->count() > 0 && name != "--profile" && name != "--json") {
      throw UsageError(name + " beside --profile: a profile is the whole of a station (only " +
                       "--json may stand beside it)");
    }
  }
  std::string error;
  RunRequest request = ReadProfile(Profile, error);
  if (!error.empty()) throw UsageError(error);
  if (Verify && request.Mode == WriteMode::UnlessSame) {
    throw UsageError("profile " + Profile + ": 'skip-same' writes modules, and verify writes none");
  }
  if (Verify) request.Mode = WriteMode::Never;
  return FlashModules(request, Json, [] { return MakeSystemSerialBackend(); }).ExitStatus;
}

// What flash and verify share: the ports, the file, the record, the display; `Verify` makes
// the run a check without writing.
int RunModules(const std::vector<std::string>& Args, bool Verify) {
  RunRequest request;
  std::string profile;
  bool json = false;
  bool all = false;
  bool spin = false;
  bool skipSame = false;
  CLI::App app;
  app.add_option("--profile", profile);
  app.add_option("--port", request.Ports)->allow_extra_args(false);
  app.add_flag("--all", all);
  app.add_option("--give-up-after", request.GiveUpAfterSeconds)
      ->check(CLI::Range(0, kLargestGiveUpSeconds));
  app.add_flag("--json", json);
  app.add_option("--trace", request.TraceFile);
  app.add_flag("--spin", spin);
  app.add_option("--record", request.RecordFile);
  app.add_option("--expect-sha256", request.ExpectSha256);
  app.add_option("--unit", request.Unit);
  app.add_option("--forward", request.ForwardUrl);
  app.add_option("--unit-pattern", request.UnitPattern);
  if (!Verify) {
    app.add_flag("--yes", request.AssumeYes);
    app.add_flag("--skip-same", skipSame);
    auto* station = app.add_flag("--station", request.Station);
    app.add_option("--count", request.StationCount)
        ->check(CLI::Range(1, kLargestCount))
        ->needs(station);
    app.add_flag("--ask-unit", request.AskUnit)->needs(station);
  }
  app.add_option("FILE", request.File);
  if (ParseCommand(app, Args)) {
    std::cout << (Verify ? kVerifyUsage : kUsage);
    return kExitOk;
  }
  if (!profile.empty()) return RunProfile(app, profile, json, Verify);
  if (request.File.empty()) throw UsageError("FILE is required");
  request.Mode = Verify ? WriteMode::Never : skipSame ? WriteMode::UnlessSame : WriteMode::Always;
  request.IdleWait = !spin;
  if (all && !request.Ports.empty()) throw UsageError("--all and --port exclude each other");
  if (const std::string problem = RequestProblem(request, "--"); !problem.empty()) {
    throw UsageError(problem);
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
  return FlashModules(request, json, [] { return MakeSystemSerialBackend(); }).ExitStatus;
}

}  // namespace

int RunFlash(const std::vector<std::string>& Args) {
  return RunModules(Args, false);
}

int RunVerify(const std::vector<std::string>& Args) {
  return RunModules(Args, true);
}

}  // namespace palimbo::cli
