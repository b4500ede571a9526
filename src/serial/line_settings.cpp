#include "serial/line_settings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <vector>

namespace palimbo {
namespace {

bool IsBlank(char C) {
  return C == ' ' || C == '\t';
}

std::string_view Trim(std::string_view Text) {
  while (!Text.empty() && IsBlank(Text.front())) Text.remove_prefix(1);
  while (!Text.empty() && IsBlank(Text.back())) Text.remove_suffix(1);
  return Text;
}

std::string_view::size_type FindBlank(std::string_view Text) {
  const auto at = std::find_if(Text.begin(), Text.end(), IsBlank);
  return at == Text.end() ? std::string_view::npos
                          : static_cast<std::string_view::size_type>(at - Text.begin());
}

bool EqualsNoCase(std::string_view A, std::string_view B) {
  return A.size() == B.size() && std::equal(A.begin(), A.end(), B.begin(), [](char X, char Y) {
           return std::tolower(static_cast<unsigned char>(X)) ==
                  std::tolower(static_cast<unsigned char>(Y));
         });
}

std::optional<int32_t> ParseBaud(std::string_view Text) {
  if (Text.empty() || Text.size() > 10) return std::nullopt;
  int64_t value = 0;
  for (const char c : Text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  // The mode command's short forms name the classic rates by their first two digits.
  static constexpr std::array<std::pair<int32_t, int32_t>, 9> kShortForms{{{11, 110},
                                                                           {15, 150},
                                                                           {30, 300},
                                                                           {60, 600},
                                                                           {12, 1200},
                                                                           {24, 2400},
                                                                           {48, 4800},
                                                                           {96, 9600},
                                                                           {19, 19200}}};
  for (const auto& [shortForm, rate] : kShortForms) {
    if (Text.size() == 2 && value == shortForm) return rate;
  }
  if (value <= 0 || value > std::numeric_limits<int32_t>::max()) return std::nullopt;
  return static_cast<int32_t>(value);
}

std::optional<ParityKind> ParseParity(std::string_view Text) {
  if (Text.size() != 1) return std::nullopt;
  switch (std::toupper(static_cast<unsigned char>(Text[0]))) {
    case 'N':
      return ParityKind::None;
    case 'E':
      return ParityKind::Even;
    case 'O':
      return ParityKind::Odd;
    case 'M':
      return ParityKind::Mark;
    case 'S':
      return ParityKind::Space;
    default:
      return std::nullopt;
  }
}

std::optional<int32_t> ParseDataBits(std::string_view Text) {
  if (Text.size() != 1 || Text[0] < '5' || Text[0] > '8') return std::nullopt;
  return Text[0] - '0';
}

std::optional<StopKind> ParseStopBits(std::string_view Text) {
  if (Text == "1") return StopKind::One;
  if (Text == "1.5") return StopKind::OneAndHalf;
  if (Text == "2") return StopKind::Two;
  return std::nullopt;
}

// "baud,parity,data bits,stop bits"; fields may be left out from the back.
std::optional<LineSettings> ParseShortForm(std::string_view Text) {
  std::vector<std::string_view> fields;
  for (;;) {
    const auto comma = Text.find(',');
    fields.push_back(Trim(Text.substr(0, comma)));
    if (comma == std::string_view::npos) break;
    Text.remove_prefix(comma + 1);
  }
  if (fields.size() > 4) return std::nullopt;

  LineSettings result;
  if (!(result.Baud = ParseBaud(fields[0]))) return std::nullopt;
  if (fields.size() > 1 && !(result.Parity = ParseParity(fields[1]))) return std::nullopt;
  if (fields.size() > 2 && !(result.DataBits = ParseDataBits(fields[2]))) return std::nullopt;
  if (fields.size() > 3 && !(result.StopBits = ParseStopBits(fields[3]))) return std::nullopt;
  return result;
}

// "baud=57600 parity=N data=8 stop=1", keys in any order, separated by blanks.
std::optional<LineSettings> ParseKeywordForm(std::string_view Text) {
  static constexpr std::array<std::string_view, 7> kSwitchKeys{"xon", "to",  "odsr", "octs",
                                                               "dtr", "rts", "idsr"};
  LineSettings result;
  Text = Trim(Text);
  while (!Text.empty()) {
    const auto end = FindBlank(Text);
    const std::string_view word = Text.substr(0, end);
    Text = Trim(end == std::string_view::npos ? std::string_view{} : Text.substr(end));

    const auto equals = word.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string_view key = word.substr(0, equals);
    const std::string_view value = word.substr(equals + 1);

    if (EqualsNoCase(key, "baud")) {
      if (!(result.Baud = ParseBaud(value))) return std::nullopt;
    } else if (EqualsNoCase(key, "parity")) {
      if (!(result.Parity = ParseParity(value))) return std::nullopt;
    } else if (EqualsNoCase(key, "data")) {
      if (!(result.DataBits = ParseDataBits(value))) return std::nullopt;
    } else if (EqualsNoCase(key, "stop")) {
      if (!(result.StopBits = ParseStopBits(value))) return std::nullopt;
    } else if (std::any_of(kSwitchKeys.begin(), kSwitchKeys.end(),
                           [&](std::string_view k) { return EqualsNoCase(key, k); })) {
      // Handshake modes (hs, tg) would need flow control, which this port never uses.
      if (!EqualsNoCase(value, "on") && !EqualsNoCase(value, "off")) return std::nullopt;
    } else {
      return std::nullopt;
    }
  }
  return result;
}

}  // namespace

std::optional<LineSettings> ParseLineSettings(std::string_view Text) {
  if (Trim(Text).empty()) return std::nullopt;
  if (Text.find('=') != std::string_view::npos) return ParseKeywordForm(Text);
  return ParseShortForm(Text);
}

}  // namespace palimbo
