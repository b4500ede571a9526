#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace palimbo {

/// One serial port of the machine, with what keeps an operator from using it.
struct SerialPortReport {
  std::string Port;            ///< the name the tool opens: /dev/ttyUSB0, COM5
  std::string UsbDescription;  ///< product string of the USB device behind it; empty if none
  bool Controller = false;     ///< the description names the controller family
  bool MayOpen = false;        ///< this user may open it for reading and writing
  std::string Fix;             ///< how to get access, when `MayOpen` is false
  std::optional<int32_t> LatencyTimerMs;  ///< the USB adapter's latency timer, where told
  std::vector<std::string> HeldBy;        ///< programs that have it open: "minicom (pid 812)"
};

/// Where the system tells about its ports. Tests point it at trees of their own.
struct PortSystemView {
  std::string Sysfs = "/sys";
  std::string Dev = "/dev";
  std::string Proc = "/proc";
};

/// Every serial port that stands for real hardware, in name order.
std::vector<SerialPortReport> ReportSerialPorts(const PortSystemView& View = {});

/// Who may open a device file, in the terms of its owner, group and mode bits.
struct DeviceAccess {
  uint32_t Mode = 0;  ///< permission bits, 0777 and below
  int64_t Owner = 0;
  int64_t Group = 0;
};

/// True when a process of `Uid` in the groups `Gids` may read and write the device; user 0
/// may always.
bool MayReadAndWrite(const DeviceAccess& Device, int64_t Uid, const std::vector<int64_t>& Gids);

/// What gives this user access to a port it may not open: the udev rule for a controller's
/// adapter, or else the group that owns the device (`GroupName`, "dialout" on most systems).
std::string AccessFix(bool Controller, const std::string& GroupName);

}  // namespace palimbo
