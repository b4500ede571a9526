#include "adapter/port_selection.h"

namespace palimbo {

PortRefresh TimerRefreshPort_Timer(bool UploadRunning, bool AutomaticSelected,
                                   AdapterScanner& Scanner) {
  // A scan during an upload could take the adapter from it.
  if (UploadRunning) return {"(Update in progress..)", std::nullopt};
  if (!AutomaticSelected) return {"(Manual selection)", std::nullopt};

  const AdapterScanResult scan = Scanner.ScanForAdapter();
  if (scan.ComNumber > 0) {
    const std::string port = "COM" + std::to_string(scan.ComNumber);
    return {scan.AdapterDescription + " (" + port + ")", port};
  }
  if (!scan.DevicePath.empty()) {
    return {scan.AdapterDescription + " (" + scan.DevicePath + ")", scan.DevicePath};
  }
  if (scan.FtdiLibraryMissing) return {"(Error: FTD2XX.DLL not found)", std::nullopt};
  return {"(No device found)", std::nullopt};
}

std::vector<AcceptedAdapter> FindAllAdapterPorts(AdapterScanner& Scanner) {
  return Scanner.ScanForAdapter().Accepted;
}

std::optional<std::string> FindAdapterPort(AdapterScanner& Scanner, std::string* Label) {
  PortRefresh refresh = TimerRefreshPort_Timer(false, true, Scanner);
  if (Label != nullptr) *Label = refresh.Label;
  return refresh.PortText;
}

}  // namespace palimbo
