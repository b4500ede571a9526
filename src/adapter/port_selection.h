#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace palimbo {

/// One adapter that a scan accepted: the port the tool opens ("COM5", "/dev/ttyUSB0") and the
/// adapter's description.
struct AcceptedAdapter {
  std::string Port;
  std::string Description;
  bool operator==(const AcceptedAdapter&) const = default;
};

/// What one scan found: the result of ScanForAdapter and the two module members read after it.
struct AdapterScanResult {
  int32_t ComNumber = 0;  ///< COM number from the vendor library, 0 when none (may be negative)
  std::string
      DevicePath;  ///< where the system gives a device path instead (/dev/ttyUSB0), else empty
  std::string AdapterDescription;
  bool FtdiLibraryMissing = false;
  /// Every adapter this scan accepted, in the order of the walk; the last one is the result.
  /// Adapters whose number names no port (0 or below) are left out.
  std::vector<AcceptedAdapter> Accepted = {};
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

/// The decisions of one tick of TimerRefreshPort, in their order: a running upload first, then
/// the mode, then the scan.
PortRefresh TimerRefreshPort_Timer(bool UploadRunning, bool AutomaticSelected,
                                   AdapterScanner& Scanner);

/// The scanner of this platform: the vendor library with COM numbers on Windows, the sysfs walk
/// elsewhere.
std::unique_ptr<AdapterScanner> MakeSystemAdapterScanner();

/// Every controller adapter that one scan accepts, from the same walk as the tick's.
std::vector<AcceptedAdapter> FindAllAdapterPorts(AdapterScanner& Scanner);

/// Runs one scan as an automatic tick would and returns the port it found, if any.
/// `Label`, when given, receives what the window's label would show.
std::optional<std::string> FindAdapterPort(AdapterScanner& Scanner, std::string* Label);

}  // namespace palimbo
