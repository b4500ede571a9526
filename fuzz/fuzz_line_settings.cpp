// ParseLineSettings on any text: no crash, letters in either case mean the same, and what it
// gives reads back the same when written out again.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz_check.h"
#include "serial/line_settings.h"

using namespace palimbo;

namespace {

std::string Cased(std::string Text, bool Upper) {
  for (char& c : Text) {
    const auto byte = static_cast<unsigned char>(c);
    c = static_cast<char>(Upper ? std::toupper(byte) : std::tolower(byte));
  }
  return Text;
}

std::string BaudText(int32_t Baud) {
  // Two digits alone are the mode command's short forms (96 is 9600), so a leading zero
  // keeps such a rate what it is.
  const std::string digits = std::to_string(Baud);
  return digits.size() == 2 ? "0" + digits : digits;
}

char ParityLetter(ParityKind Parity) {
  switch (Parity) {
    case ParityKind::None:
      return 'N';
    case ParityKind::Even:
      return 'E';
    case ParityKind::Odd:
      return 'O';
    case ParityKind::Mark:
      return 'M';
    case ParityKind::Space:
      break;
  }
  return 'S';
}

const char* StopText(StopKind Stop) {
  switch (Stop) {
    case StopKind::One:
      return "1";
    case StopKind::OneAndHalf:
      return "1.5";
    case StopKind::Two:
      break;
  }
  return "2";
}

// The keyword form of `Settings`; a switch key stands in when no field is set.
std::string KeywordForm(const LineSettings& Settings) {
  std::string text = "xon=off";
  if (Settings.Baud) text += " baud=" + BaudText(*Settings.Baud);
  if (Settings.Parity) text += std::string(" parity=") + ParityLetter(*Settings.Parity);
  if (Settings.DataBits) text += " data=" + std::to_string(*Settings.DataBits);
  if (Settings.StopBits) text += std::string(" stop=") + StopText(*Settings.StopBits);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  const std::string text(reinterpret_cast<const char*>(Data), Size);
  const std::optional<LineSettings> parsed = ParseLineSettings(text);
  fuzz::Require(ParseLineSettings(Cased(text, true)) == parsed, "upper case differs");
  fuzz::Require(ParseLineSettings(Cased(text, false)) == parsed, "lower case differs");
  if (!parsed) return 0;

  const LineSettings& s = *parsed;
  fuzz::Require(!s.Baud || *s.Baud > 0, "a baud rate of 0 or less");
  fuzz::Require(!s.DataBits || (*s.DataBits >= 5 && *s.DataBits <= 8), "data bits beyond 5-8");
  fuzz::Require(ParseLineSettings(KeywordForm(s)) == parsed, "keyword form reads back otherwise");
  if (s.Baud && s.Parity && s.DataBits && s.StopBits) {
    const std::string shortForm = BaudText(*s.Baud) + "," + ParityLetter(*s.Parity) + "," +
                                  std::to_string(*s.DataBits) + "," + StopText(*s.StopBits);
    fuzz::Require(ParseLineSettings(shortForm) == parsed, "short form reads back otherwise");
  }
  return 0;
}
