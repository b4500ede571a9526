#include <iostream>

#include "adapter/port_selection.h"
#include "cli/args.h"
#include "cli/commands.h"
#include "cli/terminal_job.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli flash [--port NAME] [--yes] [--trace FILE] FILE\n"
    "Writes the Intel HEX file FILE into the module behind the serial port, the same job as\n"
    "the window's START.\n\n"
    "  --port NAME   serial port (/dev/ttyUSB0, COM5); without it the controller's USB\n"
    "                adapter is looked for\n"
    "  --yes         go on when the bootloader does not answer (else asked on a terminal,\n"
    "                else No)\n"
    "  --trace FILE  write every chunk to and from the port: ms, > or <, the bytes in hex\n"
    "  --spin        poll the port without waiting on it (for measurements)\n\n"
    "The log goes to stdout, the progress bar to stderr. Ctrl-C cancels as CANCEL does; a\n"
    "second Ctrl-C closes the port and quits at once.\n"
    "Exit status: 0 written and verified, 1 failed or cancelled, 2 bad arguments or firmware\n"
    "file, 3 written but not verified.\n";

}  // namespace

int RunFlash(const std::vector<std::string>& Args) {
  const ParsedArgs parsed =
      ParseArgs(Args, {{"--port", true}, {"--yes"}, {"--trace", true}, {"--spin"}, {"--help"}});
  if (parsed.Has("--help")) {
    std::cout << kUsage;
    return kExitOk;
  }
  ExpectPositional(parsed, 1, "firmware FILE");

  TerminalUpload upload;
  upload.File = parsed.Positional[0];
  upload.AssumeYes = parsed.Has("--yes");
  upload.TraceFile = parsed.Value("--trace");
  upload.IdleWait = !parsed.Has("--spin");
  upload.Port = parsed.Value("--port");
  if (upload.Port.empty()) {
    const auto scanner = MakeSystemAdapterScanner();
    std::string label;
    const auto found = FindAdapterPort(*scanner, &label);
    if (!found) {
      std::cerr << "palimbo-cli flash: no controller adapter found " << label
                << "; name the port with --port" << std::endl;
      return kExitUsage;
    }
    upload.Port = *found;
    std::cerr << "Using " << label << std::endl;
  }
  const auto port = MakeSystemSerialBackend();
  return RunTerminalUpload(upload, *port).ExitStatus;
}

}  // namespace palimbo::cli
