#include "cli/command_line.h"

#include <algorithm>

#include "cli/args.h"

namespace palimbo::cli {

bool ParseCommand(CLI::App& App, const std::vector<std::string>& Args) {
  const auto endOfOptions = std::find(Args.begin(), Args.end(), "--");
  if (std::find(Args.begin(), endOfOptions, "--help") != endOfOptions ||
      std::find(Args.begin(), endOfOptions, "-h") != endOfOptions) {
    return true;
  }
  App.set_help_flag();
  App.allow_windows_style_options(false);
  // CLI11 takes the words last first.
  std::vector<std::string> reversed(Args.rbegin(), Args.rend());
  try {
    App.parse(reversed);
  } catch (const CLI::ParseError& e) {
    throw UsageError(e.what());
  }
  // An unset variable in a station's script ("--record \"$RECORD\"") must not turn a guard off.
  for (const CLI::Option* option : App.get_options()) {
    const auto& given = option->results();
    if (std::find(given.begin(), given.end(), "") != given.end()) {
      throw UsageError(option->get_name() + ": empty value (is a variable unset?)");
    }
  }
  return false;
}

}  // namespace palimbo::cli
