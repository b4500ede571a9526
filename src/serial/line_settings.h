#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace palimbo {

/// Parity of a character on the line, as the letters N, E, O, M and S of a mode text name it.
enum class ParityKind { None, Even, Odd, Mark, Space };

/// Stop bits of a character on the line: 1, 1.5 or 2.
enum class StopKind { One, OneAndHalf, Two };

/// The line settings a mode text asks for. A field the text leaves out stays empty, and the
/// port keeps its present value for it.
struct LineSettings {
  std::optional<int32_t> Baud;
  std::optional<ParityKind> Parity;
  std::optional<int32_t> DataBits;  ///< 5 to 8
  std::optional<StopKind> StopBits;

  bool operator==(const LineSettings&) const = default;
};

/// Parses the text behind the ":" of a setting string, in either form that the Windows mode
/// text knows: "57600,N,8,1" (trailing fields may be left out, "57600" alone is good) or
/// "baud=57600 parity=N data=8 stop=1" (keys in any order; xon, to, odsr, octs, dtr, rts and
/// idsr are accepted with on or off and otherwise ignored). Letters and keys are
/// case-insensitive; the two-digit baud abbreviations of the mode command (96 = 9600) count.
/// Returns nothing when the text is bad, as `BuildCommDCBA` returns zero.
std::optional<LineSettings> ParseLineSettings(std::string_view Text);

}  // namespace palimbo
