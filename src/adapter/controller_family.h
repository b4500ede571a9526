#pragma once

#include <string>

namespace palimbo {

/// The three strings that name the controller family; the closing blank belongs to each.
inline constexpr const char* kFamilyStrings[] = {"KV PC-KESTROLAR ", "KV MINI-KESTROLAR ",
                                                 "KV KESTROLAR "};

/// True when `Description`, taken in upper case, holds one of the family strings anywhere.
bool IsFamilyDescription(const std::string& Description);

}  // namespace palimbo
