#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "adapter/port_selection.h"

namespace palimbo {

/// The product string of the USB device that the tty at `TtyEntry` (a folder of
/// `<sysfs>/class/tty`) sits on, or nothing for a tty not on USB. The walk up from the device
/// stops at `Top`, the sysfs root.
std::optional<std::string> UsbProductOf(const std::filesystem::path& Top,
                                        const std::filesystem::path& TtyEntry);

/// Finds a controller's adapter among the serial ports the system lists in sysfs.
///
/// Where the vendor library gives no COM numbers, each USB serial port of
/// `<root>/class/tty/tty*` stands for one adapter, in the order of the tty names, and its
/// description is the product string of the USB device behind it. Matching and precedence
/// are those of modFTDI; the port found is the device path, such as /dev/ttyUSB0.
class SysfsAdapterScanner final : public AdapterScanner {
 public:
  explicit SysfsAdapterScanner(std::string SysfsRoot = "/sys") : root_(std::move(SysfsRoot)) {}
  AdapterScanResult ScanForAdapter() override;

 private:
  std::string root_;
  std::string adapterDescription_;
};

}  // namespace palimbo
