#include <windows.h>

#include <algorithm>

#include "adapter/port_report.h"

namespace palimbo {

namespace {

// The COM ports the system knows, from its list of device names.
std::vector<std::string> ComPortNames() {
  std::vector<char> names(65536);
  const DWORD length = ::QueryDosDeviceA(nullptr, names.data(), static_cast<DWORD>(names.size()));
  std::vector<std::string> ports;
  for (DWORD at = 0; at < length && names[at] != '\0';) {
    const std::string name(&names[at]);
    at += static_cast<DWORD>(name.size()) + 1;
    if (name.size() > 3 && name.compare(0, 3, "COM") == 0 &&
        name.find_first_not_of("0123456789", 3) == std::string::npos) {
      ports.push_back(name);
    }
  }
  return ports;
}

}  // namespace

std::vector<SerialPortReport> ReportSerialPorts(const PortSystemView&) {
  std::vector<SerialPortReport> ports;
  for (const std::string& name : ComPortNames()) {
    SerialPortReport port;
    port.Port = name;
    const std::string path = "\\\\.\\" + name;
    // Share mode 0, as the upload opens it: a port another program holds is refused.
    HANDLE handle = ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
    if (handle != INVALID_HANDLE_VALUE) {
      port.MayOpen = true;
      ::CloseHandle(handle);
    } else if (::GetLastError() == ERROR_ACCESS_DENIED) {
      port.HeldBy.push_back("another program");
    }
    ports.push_back(std::move(port));
  }
  std::sort(ports.begin(), ports.end(), [](const SerialPortReport& a, const SerialPortReport& b) {
    return a.Port.size() != b.Port.size() ? a.Port.size() < b.Port.size() : a.Port < b.Port;
  });
  return ports;
}

}  // namespace palimbo
