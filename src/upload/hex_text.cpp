#include "upload/hex_text.h"

#include <cstdio>

namespace palimbo {

std::string HexText(uint32_t Value) {
  char text[9];
  std::snprintf(text, sizeof text, "%X", static_cast<unsigned>(Value));
  return text;
}

std::string Hex4(uint32_t Value) {
  char text[9];
  std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(Value));
  return text;
}

}  // namespace palimbo
