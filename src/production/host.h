#pragma once

#include <ctime>
#include <string>

namespace palimbo {

/// The universal time as "YYYY-MM-DDTHH:MM:SSZ", for records read on other machines.
std::string UtcTimestamp(std::time_t When);
/// This machine's name on the network, empty where the system does not tell it.
std::string HostName();

}  // namespace palimbo
