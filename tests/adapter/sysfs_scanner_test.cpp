#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "adapter/sysfs_scanner.h"

#include "support/temp_file.h"
#include "sysfs_tree.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;

using testing::AddTty;
using testing::TempDir;
using testing::Tty;

struct SysfsCase {
  const char* Name;
  std::vector<Tty> Ttys;
  std::string DevicePath;
  std::string Description;
  size_t Accepted;  // adapters of the family in the walk; the last of them is the result
};

// clang-format off
const SysfsCase kSysfsCases[] = {
    {"OneAdapter", {{"tty0", "", ""}, {"ttyUSB0", "usb1/1-1", "KV Kestrolar 12\n"}},
     "/dev/ttyUSB0", "KV Kestrolar 12", 1},
    {"LastWins", {{"ttyUSB1", "usb1/1-1", "KV Mini-Kestrolar 1"},
     {"ttyUSB0", "usb1/1-2", "KV PC-KESTROLAR 2"}}, "/dev/ttyUSB1", "KV Mini-Kestrolar 1", 2},
    {"NoTtys", {}, "", "", 0},
    {"NotOnUsbOrForeign", {{"ttyS0", "platform/serial8250", ""}, {"tty0", "", ""},
     {"ttyUSB0", "usb1/1-1", "FT232R USB UART"}}, "", "", 0},
};
// clang-format on

TEST(SysfsAdapterScanner, FindsDevicePathAndDescription) {
  for (const SysfsCase& c : kSysfsCases) {
    SCOPED_TRACE(c.Name);
    TempDir root;
    for (const Tty& tty : c.Ttys) AddTty(root.Path, tty);
    const AdapterScanResult scan = SysfsAdapterScanner(root.Path).ScanForAdapter();
    EXPECT_EQ(scan.DevicePath, c.DevicePath);
    EXPECT_EQ(scan.AdapterDescription, c.Description);
    ASSERT_EQ(scan.Accepted.size(), c.Accepted);
    if (c.Accepted > 0) {
      EXPECT_EQ(scan.Accepted.back(), (AcceptedAdapter{c.DevicePath, c.Description}));
    }
  }
}

}  // namespace
}  // namespace palimbo
