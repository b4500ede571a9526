#include <iostream>
#include <memory>

#include "adapter/modFTDI.h"
#include "adapter/port_selection.h"
#include "adapter/sysfs_scanner.h"
#include "cli/args.h"
#include "cli/commands.h"

namespace palimbo::cli {

namespace {

void PrintPortsHelp(std::ostream& Out) {
  Out << "Usage: palimbo-cli ports [--sysfs DIR] [--ftdi-library PATH]\n"
         "Looks once for the USB adapter of a controller, as the window's automatic port\n"
         "selection does, and prints the label it would show and the port it found.\n\n"
         "Options:\n"
         "  --sysfs DIR           walk the serial ports listed under DIR instead of /sys\n"
         "  --ftdi-library PATH   ask the adapter vendor's D2XX library at PATH instead\n"
         "                        (such as "
      << d2xx::kLibraryName
      << ")\n"
         "  --help                show this help\n\n"
         "Exit status: 0 a port was found, 1 none was found, 2 bad arguments.\n";
}

}  // namespace

int RunPorts(const std::vector<std::string>& Args) {
  const ParsedArgs parsed =
      ParseArgs(Args, {{"--sysfs", true}, {"--ftdi-library", true}, {"--help", false}});
  if (parsed.Has("--help")) {
    PrintPortsHelp(std::cout);
    return kExitOk;
  }
  ExpectPositional(parsed, 0, "");
  if (parsed.Has("--sysfs") && parsed.Has("--ftdi-library")) {
    throw UsageError("--sysfs and --ftdi-library exclude each other");
  }

  std::unique_ptr<AdapterScanner> scanner;
  if (parsed.Has("--ftdi-library")) {
    scanner = std::make_unique<D2xxAdapterScanner>(parsed.Value("--ftdi-library"));
  } else if (parsed.Has("--sysfs")) {
    scanner = std::make_unique<SysfsAdapterScanner>(parsed.Value("--sysfs"));
  } else {
    scanner = MakeSystemAdapterScanner();
  }

  std::string label;
  const std::optional<std::string> port = FindAdapterPort(*scanner, &label);
  std::cout << "label: " << label << "\n"
            << "port: " << port.value_or("(none)") << "\n";
  return port ? kExitOk : kExitFailed;
}

}  // namespace palimbo::cli
