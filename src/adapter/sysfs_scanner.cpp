#include "adapter/sysfs_scanner.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

#include "adapter/controller_family.h"

namespace palimbo {

namespace fs = std::filesystem;

std::optional<std::string> UsbProductOf(const fs::path& Top, const fs::path& TtyEntry) {
  std::error_code ec;
  fs::path dir = fs::canonical(TtyEntry / "device", ec);
  if (ec) return std::nullopt;
  // The tty's device is a port or an interface; the USB device with the product string is
  // one of its parents.
  while (dir != Top && dir.has_relative_path()) {
    std::ifstream product(dir / "product", std::ios::binary);
    if (product) {
      std::string text;
      std::getline(product, text);
      return text;
    }
    dir = dir.parent_path();
  }
  return std::nullopt;
}

AdapterScanResult SysfsAdapterScanner::ScanForAdapter() {
  AdapterScanResult scan;
  std::vector<std::string> ttys;
  std::error_code ec;
  const fs::path classDir = fs::path(root_) / "class" / "tty";
  for (fs::directory_iterator it(classDir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.rfind("tty", 0) == 0) ttys.push_back(name);
  }
  std::sort(ttys.begin(), ttys.end());
  // The walk up from a device stops at the root, so a tree built elsewhere stays on its own.
  const fs::path top = fs::weakly_canonical(root_, ec);

  for (const std::string& name : ttys) {
    const std::optional<std::string> product = UsbProductOf(top, classDir / name);
    if (!product || !IsFamilyDescription(*product)) continue;
    scan.DevicePath = "/dev/" + name;
    adapterDescription_ = *product;
    scan.Accepted.push_back({scan.DevicePath, *product});
  }
  scan.AdapterDescription = adapterDescription_;
  return scan;
}

}  // namespace palimbo
