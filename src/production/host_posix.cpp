#include <unistd.h>

#include <ctime>

#include "production/host.h"

namespace palimbo {

std::string UtcTimestamp(std::time_t When) {
  std::tm utc{};
  gmtime_r(&When, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

}  // namespace palimbo
