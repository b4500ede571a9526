#pragma once

#include <string>
#include <string_view>

namespace palimbo {

/// The SHA-256 of `Bytes` as `sha256sum` prints it: 64 lower-case hexadecimal digits.
std::string Sha256Hex(std::string_view Bytes);

}  // namespace palimbo
