#include "fake_d2xx.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

// A vendor library keeps its devices in process-wide state, and so does its stand-in.
std::vector<FakeAdapter> adapters;
std::string calls;
bool set_by_test = false;
std::vector<std::string> env_descriptions;  // the texts the adapters from the environment point at

// A library that no test has set up, such as one beside the program, takes its adapters from
// PALIMBO_FAKE_D2XX: "DESCRIPTION=COM;DESCRIPTION=COM".
void AdaptersFromEnvironment() {
  const char* text = std::getenv("PALIMBO_FAKE_D2XX");
  if (set_by_test || text == nullptr) return;
  adapters.clear();
  env_descriptions.clear();
  std::vector<long> numbers;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view entry = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
    const size_t equals = entry.rfind('=');
    if (equals == std::string_view::npos) continue;
    env_descriptions.emplace_back(entry.substr(0, equals));
    numbers.push_back(std::strtol(std::string(entry.substr(equals + 1)).c_str(), nullptr, 10));
  }
  for (size_t i = 0; i < numbers.size(); ++i) {
    adapters.push_back({env_descriptions[i].c_str(), numbers[i], ""});
  }
}

// Handles are index + 1, so that a null handle is never valid.
uintptr_t IndexOf(void* Handle) {
  return reinterpret_cast<uintptr_t>(Handle) - 1;
}

unsigned long Call(char What, uintptr_t Index) {
  if (Index >= adapters.size()) return calls += "! ", 1;
  calls += What + std::to_string(Index) + ' ';
  return std::strchr(adapters[Index].Fails, What) == nullptr ? 0 : 3;
}

}  // namespace

void fake_d2xx_set(const FakeAdapter* Adapters, int Count) {
  adapters.assign(Adapters, Adapters + Count);
  calls.clear();
  set_by_test = true;
}

const char* fake_d2xx_calls() {
  return calls.c_str();
}

extern "C" {

unsigned long FT_ListDevices(void* Arg1, void* Arg2, unsigned long Flags) {
  const auto index = reinterpret_cast<uintptr_t>(Arg1);
  if (Flags == 0x80000000UL && Arg2 == nullptr) {
    AdaptersFromEnvironment();
    *static_cast<unsigned long*>(Arg1) = adapters.size();
    return 0;
  }
  if (Flags != 0x40000002UL || index >= adapters.size()) return calls += "! ", 6;
  std::strcpy(static_cast<char*>(Arg2), adapters[index].Description);
  return 0;
}

unsigned long FT_OpenEx(void* Arg1, unsigned long Flags, void** Handle) {
  const std::string_view description = static_cast<const char*>(Arg1);
  uintptr_t index = 0;
  while (index < adapters.size() && adapters[index].Description != description) ++index;
  *Handle = reinterpret_cast<void*>(index + 1);
  return Flags == 0x2UL ? Call('e', index) : Call('!', adapters.size());
}

unsigned long FT_Open(int DeviceNumber, void** Handle) {
  *Handle = reinterpret_cast<void*>(static_cast<uintptr_t>(DeviceNumber) + 1);
  return Call('o', static_cast<uintptr_t>(DeviceNumber));
}

unsigned long FT_GetComPortNumber(void* Handle, long* ComPortNumber) {
  const unsigned long status = Call('q', IndexOf(Handle));
  if (status == 0) *ComPortNumber = adapters[IndexOf(Handle)].ComNumber;
  return status;
}

#ifndef FAKE_D2XX_WITHOUT_CLOSE
unsigned long FT_Close(void* Handle) {
  return Call('c', IndexOf(Handle));
}
#endif
}
