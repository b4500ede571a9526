#include <windows.h>

#include <ctime>

#include "production/host.h"

namespace palimbo {

std::string UtcTimestamp(std::time_t When) {
  std::tm utc{};
  gmtime_s(&utc, &When);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string HostName() {
  char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD length = sizeof name;
  if (!::GetComputerNameA(name, &length)) return {};
  return std::string(name, length);
}

}  // namespace palimbo
