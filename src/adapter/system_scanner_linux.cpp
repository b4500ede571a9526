#include "adapter/port_selection.h"
#include "adapter/sysfs_scanner.h"

namespace palimbo {

// The vendor library reports no COM numbers here; the kernel's own list of USB serial ports
// holds the same descriptions.
std::unique_ptr<AdapterScanner> MakeSystemAdapterScanner() {
  return std::make_unique<SysfsAdapterScanner>();
}

}  // namespace palimbo
