#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace palimbo {

/// What one scan found: the result of ScanForAdapter and the two module members read after it.
struct AdapterScanResult {
  int32_t ComNumber = 0;  ///< COM number from the vendor library, 0 when none (may be negative)
  std::string
      DevicePath;  ///< where the system gives a device path instead (/dev/ttyUSB0), else empty
  std::string AdapterDescription;
  bool FtdiLibraryMissing = false;
};

/// One way of finding the controller's adapter; keeps the scan's lasting state.
class AdapterScanner {
 public:
  virtual ~AdapterScanner() = default;
  virtual AdapterScanResult ScanForAdapter() = 0;
};

/// What one timer tick shows: the label text, and the port text when a port was found.
struct PortRefresh {
  std::string Label;
  std::optional<std::string>
      PortText;  ///< "COM5" or "/dev/ttyUSB0"; empty optional leaves cmbComPort alone
};

/// The decisions of one tick of TimerRefreshPort, in their order: caption first, then mode, then
/// the scan.
PortRefresh TimerRefreshPort_Timer(const std::string& StartCaption, bool AutomaticSelected,
                                   AdapterScanner& Scanner);

/// The scanner of this platform: the vendor library with COM numbers on Windows, the sysfs walk
/// elsewhere.
std::unique_ptr<AdapterScanner> MakeSystemAdapterScanner();

/// Runs one scan as an automatic tick would and returns the port it found, if any.
/// `Label`, when given, receives what the window's label would show.
std::optional<std::string> FindAdapterPort(AdapterScanner& Scanner, std::string* Label);

}  // namespace palimbo
