#include "adapter/controller_family.h"

namespace palimbo {

bool IsFamilyDescription(const std::string& Description) {
  // ASCII only: no other byte turns into a letter of the family strings.
  std::string upper = Description;
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  for (const char* family : kFamilyStrings) {
    if (upper.find(family) != std::string::npos) return true;
  }
  return false;
}

}  // namespace palimbo
