#include "cli/args.h"

#include <charconv>

namespace palimbo::cli {

std::string ParsedArgs::Value(const std::string& Name, const std::string& Default) const {
  const auto it = Options.find(Name);
  return it == Options.end() ? Default : it->second;
}

long ParsedArgs::IntValue(const std::string& Name, long Default, long Min, long Max) const {
  const auto it = Options.find(Name);
  if (it == Options.end()) return Default;
  const std::string& text = it->second;
  long value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < Min || value > Max) {
    throw UsageError(Name + " wants a whole number from " + std::to_string(Min) + " to " +
                     std::to_string(Max) + ", not '" + text + "'");
  }
  return value;
}

ParsedArgs ParseArgs(const std::vector<std::string>& Args, const std::vector<OptionInfo>& Known) {
  ParsedArgs parsed;
  bool optionsEnded = false;
  for (size_t i = 0; i < Args.size(); ++i) {
    const std::string& arg = Args[i];
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      parsed.Positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    const auto eq = arg.find('=');
    const std::string name = arg.substr(0, eq);
    const OptionInfo* info = nullptr;
    for (const auto& known : Known) {
      if (known.Name == name) info = &known;
    }
    if (info == nullptr) throw UsageError("unknown option " + name);
    if (!info->TakesValue) {
      if (eq != std::string::npos) throw UsageError(name + " takes no value");
      parsed.Options[name] = "";
    } else if (eq != std::string::npos) {
      parsed.Options[name] = arg.substr(eq + 1);
    } else if (i + 1 < Args.size()) {
      parsed.Options[name] = Args[++i];
    } else {
      throw UsageError(name + " needs a value");
    }
  }
  return parsed;
}

void ExpectPositional(const ParsedArgs& Parsed, size_t Count, const std::string& What) {
  if (Parsed.Positional.size() < Count) throw UsageError("missing " + What);
  if (Parsed.Positional.size() > Count) {
    throw UsageError("unexpected argument '" + Parsed.Positional[Count] + "'");
  }
}

}  // namespace palimbo::cli
