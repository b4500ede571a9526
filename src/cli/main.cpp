// palimbo-cli: the command-line front end over the same library as the window.
#include <iostream>
#include <string>
#include <vector>

#include "cli/args.h"
#include "cli/commands.h"

namespace {

using palimbo::cli::UsageError;

struct Subcommand {
  const char* Name;
  const char* Summary;
  int (*Run)(const std::vector<std::string>&);
};

constexpr Subcommand kSubcommands[] = {
    {"flash", "write a firmware file into a module through its bootloader", palimbo::cli::RunFlash},
    {"verify", "check whether a module holds a firmware file, without writing",
     palimbo::cli::RunVerify},
    {"demo", "flash the bundled example into a simulated module", palimbo::cli::RunDemo},
    {"info", "show length, CRC and marker of a firmware file", palimbo::cli::RunInfo},
    {"hex2bin", "write the flat image of a firmware file", palimbo::cli::RunHex2Bin},
    {"ports", "look for the USB adapter of a controller", palimbo::cli::RunPorts},
    {"simulate", "serve a simulated module on a pseudo-terminal", palimbo::cli::RunSimulate},
    {"records", "send a record to the plant's database, or tell a shift's yield",
     palimbo::cli::RunRecords},
};

void PrintHelp(std::ostream& out) {
  out << "Usage: palimbo-cli COMMAND [OPTIONS] [ARGS]\n"
         "Writes firmware into a module through its serial bootloader.\n\n"
         "Commands:\n";
  for (const auto& sub : kSubcommands) {
    out << "  " << sub.Name << std::string(10 - std::string(sub.Name).size(), ' ') << sub.Summary
        << '\n';
  }
  out << "\nRun 'palimbo-cli COMMAND --help' for the options of a command.\n"
         "Exit status: 0 done (upload verified), 1 failed or cancelled, 2 bad arguments or\n"
         "firmware file, 3 firmware written but not verified (verify: the bootloader cannot\n"
         "tell), 4 (verify) the module holds another image.\n";
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    PrintHelp(std::cerr);
    return palimbo::kExitUsage;
  }
  const std::string& command = args[0];
  if (command == "--help" || command == "-h" || command == "help") {
    PrintHelp(std::cout);
    return palimbo::kExitOk;
  }
  if (command == "--version") {
    std::cout << "palimbo-cli " << PALIMBO_VERSION << '\n';
    return palimbo::kExitOk;
  }
  for (const auto& sub : kSubcommands) {
    if (command != sub.Name) continue;
    try {
      return sub.Run(std::vector<std::string>(args.begin() + 1, args.end()));
    } catch (const UsageError& e) {
      std::cerr << "palimbo-cli " << command << ": " << e.what() << "\n"
                << "Try 'palimbo-cli " << command << " --help'.\n";
      return palimbo::kExitUsage;
    }
  }
  std::cerr << "palimbo-cli: unknown command '" << command << "'\n";
  PrintHelp(std::cerr);
  return palimbo::kExitUsage;
}
