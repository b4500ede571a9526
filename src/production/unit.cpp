#include "production/unit.h"

#include <random>

namespace palimbo {

std::string NewRecordId() {
  // The system's source itself, not a generator seeded from it: ids of stations started in the
  // same instant must not meet.
  std::random_device system;
  unsigned char bytes[16];
  for (size_t i = 0; i < sizeof bytes; i += 4) {
    const uint32_t word = system();
    for (size_t j = 0; j < 4; ++j) bytes[i + j] = static_cast<unsigned char>(word >> (8 * j));
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // the RFC 4122 variant
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string id;
  for (size_t i = 0; i < sizeof bytes; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) id += '-';
    id += kDigits[bytes[i] >> 4];
    id += kDigits[bytes[i] & 0x0F];
  }
  return id;
}

std::optional<UnitRule> UnitRule::Make(const std::string& Pattern, std::string& Error) {
  UnitRule rule;
  rule.pattern_ = Pattern;
  if (Pattern.empty()) return rule;
  try {
    rule.regex_ = std::make_shared<const std::regex>(Pattern, std::regex::ECMAScript);
  } catch (const std::regex_error& Failure) {
    Error = "'" + Pattern + "' is no regular expression: " + Failure.what();
    return std::nullopt;
  }
  return rule;
}

std::optional<std::string> UnitRule::Take(const std::string& Line, std::string& Why) const {
  const char* const blanks = " \t\r\n";
  const size_t first = Line.find_first_not_of(blanks);
  if (first == std::string::npos) {
    Why = "an empty line names no unit";
    return std::nullopt;
  }
  std::string unit = Line.substr(first, Line.find_last_not_of(blanks) - first + 1);
  if (regex_ && !std::regex_match(unit, *regex_)) {
    Why = "unit '" + unit + "' does not match the pattern " + pattern_;
    return std::nullopt;
  }
  return unit;
}

}  // namespace palimbo
