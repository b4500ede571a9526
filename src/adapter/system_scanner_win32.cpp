#include "adapter/modFTDI.h"
#include "adapter/port_selection.h"

namespace palimbo {

std::unique_ptr<AdapterScanner> MakeSystemAdapterScanner() {
  return std::make_unique<D2xxAdapterScanner>(d2xx::kLibraryName);
}

}  // namespace palimbo
