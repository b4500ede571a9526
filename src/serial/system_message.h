#pragma once

#include <cstdint>
#include <string>

namespace palimbo {

/// The system's text for a Windows error code, without its closing full stop and line break,
/// which a front end adds itself; "system error N" for a code without a text.
std::string SystemMessage(uint32_t Code);

}  // namespace palimbo
