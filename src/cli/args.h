#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace palimbo::cli {

/// Bad arguments on the command line; main prints it and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An option a subcommand knows: "--port" with a value, or "--yes" alone.
struct OptionInfo {
  std::string Name;
  bool TakesValue = false;
};

/// Arguments split into options and positional words.
struct ParsedArgs {
  std::vector<std::string> Positional;
  std::map<std::string, std::string> Options;  ///< option name to its value ("" for a flag)

  bool Has(const std::string& Name) const { return Options.count(Name) != 0; }
  std::string Value(const std::string& Name, const std::string& Default = "") const;
  /// The option's value as a whole number in [Min, Max]; UsageError otherwise.
  long IntValue(const std::string& Name, long Default, long Min, long Max) const;
};

/// Splits `Args` by the options in `Known`; accepts "--name value" and "--name=value", and
/// "--" ends the options. Throws UsageError for an unknown option or a missing value.
ParsedArgs ParseArgs(const std::vector<std::string>& Args, const std::vector<OptionInfo>& Known);

/// Throws UsageError unless exactly `Count` positional words were given.
void ExpectPositional(const ParsedArgs& Parsed, size_t Count, const std::string& What);

}  // namespace palimbo::cli
