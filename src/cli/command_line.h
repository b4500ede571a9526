#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace palimbo::cli {

/// Parses the arguments of one command with `App`, whose options the command has added.
/// Each command prints its own help text, so CLI11's is switched off: the result is true when
/// --help (or -h) stands anywhere, and nothing else is looked at then. Bad arguments throw
/// UsageError (args.h) with CLI11's message, such as "--page-size: Value 0 not in range
/// [1 - 16777215]"; so does an empty value of any option or argument, such as --record "".
bool ParseCommand(CLI::App& App, const std::vector<std::string>& Args);

}  // namespace palimbo::cli
