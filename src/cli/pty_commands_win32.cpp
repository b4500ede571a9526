#include <iostream>

#include "cli/commands.h"

namespace palimbo::cli {

namespace {

int NeedsPseudoTerminal(const char* Command) {
  std::cerr << "palimbo-cli " << Command
            << ": needs a pseudo-terminal, which Windows lacks; run it on Linux and point this "
               "program at it (for instance under Wine, COMn linked to the terminal)\n";
  return kExitFailed;
}

}  // namespace

int RunSimulate(const std::vector<std::string>&) {
  return NeedsPseudoTerminal("simulate");
}

int RunDemo(const std::vector<std::string>&) {
  return NeedsPseudoTerminal("demo");
}

}  // namespace palimbo::cli
