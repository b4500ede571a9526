#pragma once

#include <cstdint>
#include <string>

namespace palimbo {

/// Upper-case hexadecimal without leading zeros, as the log lines show addresses ("1F80").
std::string HexText(uint32_t Value);

/// Four upper-case hexadecimal digits with leading zeros, as the log lines show CRCs ("00FF").
std::string Hex4(uint32_t Value);

}  // namespace palimbo
