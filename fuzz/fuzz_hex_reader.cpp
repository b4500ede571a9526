// ReadHexText on any bytes: an image or a reason, never more than the buffer, and always the
// same answer as a plain reading of the rules.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "image/hex_file.h"

namespace {

using palimbo::HexReadResult;

using palimbo::fuzz::Require;

int Digit(char C) {
  if (C >= '0' && C <= '9') return C - '0';
  if (C >= 'A' && C <= 'F') return C - 'A' + 10;
  if (C >= 'a' && C <= 'f') return C - 'a' + 10;
  return -1;
}

// Digit pairs to bytes: half the length, a half rounded to the even neighbour; a pair is read
// up to its first non-digit.
std::string PlainMakeBin(std::string_view Hex) {
  size_t count = Hex.size() / 2;
  if (Hex.size() % 4 == 3) ++count;
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    int value = 0;
    for (size_t k = 2 * i; k < 2 * i + 2 && k < Hex.size() && Digit(Hex[k]) >= 0; ++k) {
      value = value * 16 + Digit(Hex[k]);
    }
    out += static_cast<char>(value);
  }
  return out;
}

// The reader's rules, one line at a time, every separator searched for afresh in what is left.
HexReadResult PlainRead(std::string_view Text, bool& IsEncrypted) {
  // One buffer for the whole run: a fresh one each time costs more than the reading.
  static std::string image;
  image.assign(palimbo::kImageMaxIndex + 1, '\0');
  int64_t base = 0;
  int64_t length = 0;
  int number = 0;
  const auto failed = [&number](const char* What) {
    HexReadResult result;
    result.Reason = "line " + std::to_string(number) + ": " + What;
    return result;
  };
  for (size_t pos = 0; pos < Text.size();) {
    size_t at = Text.find("\r\n", pos);
    size_t cut = 2;
    if (at == std::string_view::npos) {
      at = Text.find('\r', pos);
      if (at == std::string_view::npos) at = Text.find('\n', pos);
      cut = 1;
    }
    if (at == std::string_view::npos) at = Text.size();
    const std::string_view line = Text.substr(pos, at - pos);
    pos = at + cut;
    ++number;
    if (line.find_first_not_of(' ') == std::string_view::npos) continue;
    const std::string record = PlainMakeBin(line.substr(1));
    const size_t n = record.size();
    if (n < 4) return failed("record shorter than 4 bytes");
    const auto at8 = [&record](size_t i) { return static_cast<uint8_t>(record[i]); };
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < n; ++i) sum = static_cast<uint8_t>(sum + at8(i));
    if (static_cast<uint8_t>(-sum) != at8(n - 1)) return failed("checksum mismatch");
    const int64_t address = at8(1) * 256 + at8(2);
    const std::string data = n > 5 ? record.substr(4, n - 5) : std::string();
    if (at8(3) == 0) {
      int64_t index = base + address;
      for (const char byte : data) {
        if (index > palimbo::kImageMaxIndex) return failed("data beyond address 100000");
        image[static_cast<size_t>(index++)] = byte;
      }
      if (index > palimbo::kImageMaxIndex + 1) return failed("data beyond address 100000");
      if (index > length) length = index;
    } else if (at8(3) == 2) {
      base = at8(0) == 2 && address == 0 && data.size() == 2
                 ? (static_cast<uint8_t>(data[0]) * 256 + static_cast<uint8_t>(data[1])) * 16
                 : 0;
    } else if (at8(3) == 255) {
      IsEncrypted = true;
    }
  }
  HexReadResult result;
  result.FirmwareString = image.substr(0, static_cast<size_t>(length));
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  const std::string text(reinterpret_cast<const char*>(Data), Size);

  bool encrypted = false;
  const HexReadResult result = palimbo::ReadHexText(text, encrypted);
  Require(result.FirmwareString.size() <= palimbo::kImageMaxIndex + 1, "image beyond the buffer");
  Require(result.Ok() || result.FirmwareString.empty(), "a failed read gives an image");
  Require(result.Ok() || result.Reason.rfind("line ", 0) == 0, "a text failure names no line");

  bool plainEncrypted = false;
  const HexReadResult plain = PlainRead(text, plainEncrypted);
  Require(result.Reason == plain.Reason, "reason differs from the plain reading");
  Require(result.FirmwareString == plain.FirmwareString, "image differs from the plain reading");
  Require(encrypted == plainEncrypted, "marker differs from the plain reading");

  Require(palimbo::MakeBin(text) == PlainMakeBin(text), "MakeBin differs from the plain reading");
  Require(palimbo::MakeBin(palimbo::MakeHex(text)) == text, "MakeHex does not invert MakeBin");
  return 0;
}
