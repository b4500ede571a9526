#include <iostream>

#include "cli/commands.h"

namespace palimbo::cli {

int RunDemo(const std::vector<std::string>&) {
  std::cerr << "not built yet\n";
  return kExitFailed;
}

}  // namespace palimbo::cli
