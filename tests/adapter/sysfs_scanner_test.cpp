#include "adapter/sysfs_scanner.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;

const std::string kUsb1 = "pci0000:00/0000:00:14.0/usb1/1-1";
const std::string kUsb2 = "pci0000:00/0000:00:14.0/usb1/1-2";

struct UsbDevice {
  std::string Dir;  // below devices/
  std::string Product;
};

struct Tty {
  std::string Name;
  std::string DeviceDir;  // below devices/; empty for a tty without a device
};

// Lays out a tty as the kernel does: class/tty/NAME links to the tty's own folder below its
// device, whose "device" link leads back up to that device.
void AddTty(const fs::path& Root, const Tty& T) {
  const fs::path ttyDir =
      fs::path("devices") / (T.DeviceDir.empty() ? "virtual" : T.DeviceDir) / "tty" / T.Name;
  fs::create_directories(Root / ttyDir);
  if (!T.DeviceDir.empty()) fs::create_directory_symlink("../..", Root / ttyDir / "device");
  fs::create_directories(Root / "class" / "tty");
  fs::create_directory_symlink(fs::path("../..") / ttyDir, Root / "class" / "tty" / T.Name);
}

void BuildTree(const fs::path& Root, const std::vector<UsbDevice>& Usb,
               const std::vector<Tty>& Ttys) {
  for (const auto& device : Usb) {
    fs::create_directories(Root / "devices" / device.Dir);
    std::ofstream(Root / "devices" / device.Dir / "product") << device.Product << '\n';
  }
  for (const auto& tty : Ttys) AddTty(Root, tty);
}

struct SysfsCase {
  const char* Name;
  std::vector<UsbDevice> Usb;
  std::vector<Tty> Ttys;
  std::string DevicePath;
  std::string Description;
};

const std::string kPort1 = kUsb1 + "/1-1:1.0/ttyUSB";
const std::string kPort2 = kUsb2 + "/1-2:1.0/ttyUSB";

// clang-format off
const SysfsCase kSysfsCases[] = {
    {"OneAdapter", {{kUsb1, "KV Kestrolar 12"}}, {{"tty0", ""}, {"ttyUSB0", kPort1 + "0"}},
     "/dev/ttyUSB0", "KV Kestrolar 12"},
    {"TwoAdaptersLastTtyWins", {{kUsb1, "KV Mini-Kestrolar 1"}, {kUsb2, "KV PC-KESTROLAR 2"}},
     {{"ttyUSB1", kPort1 + "1"}, {"ttyUSB0", kPort2 + "0"}}, "/dev/ttyUSB1", "KV Mini-Kestrolar 1"},
    {"AcmOnInterface", {{kUsb2, "kv kestrolar 3"}}, {{"ttyACM0", kUsb2 + "/1-2:1.0"}},
     "/dev/ttyACM0", "kv kestrolar 3"},
    {"NoTtys", {}, {}, "", ""},
    {"NonUsbTtys", {}, {{"ttyS0", "platform/serial8250"}, {"tty0", ""}}, "", ""},
    {"ForeignAndUnfinishedProducts", {{kUsb1, "FT232R USB UART"}, {kUsb2, "KV KESTROLAR"}},
     {{"ttyUSB0", kPort1 + "0"}, {"ttyUSB1", kPort2 + "1"}}, "", ""},
};
// clang-format on

class SysfsScannerTest : public ::testing::TestWithParam<SysfsCase> {};

TEST_P(SysfsScannerTest, FindsDevicePathAndDescription) {
  const SysfsCase& c = GetParam();
  TempDir root;
  BuildTree(root.Path(), c.Usb, c.Ttys);
  SysfsAdapterScanner scanner(root.Path());

  const AdapterScanResult scan = scanner.ScanForAdapter();
  EXPECT_EQ(scan.DevicePath, c.DevicePath);
  EXPECT_EQ(scan.AdapterDescription, c.Description);
  EXPECT_EQ(scan.ComNumber, 0);
  EXPECT_FALSE(scan.FtdiLibraryMissing);
}

INSTANTIATE_TEST_SUITE_P(Trees, SysfsScannerTest, ::testing::ValuesIn(kSysfsCases),
                         [](const auto& Info) { return std::string(Info.param.Name); });

TEST(SysfsScannerLifetimeTest, DescriptionOutlivesUnpluggedAdapter) {
  TempDir root;
  BuildTree(root.Path(), {{kUsb1, "KV Kestrolar 5"}}, {{"ttyUSB0", kPort1 + "0"}});
  SysfsAdapterScanner scanner(root.Path());
  EXPECT_EQ(scanner.ScanForAdapter().DevicePath, "/dev/ttyUSB0");

  fs::remove(root.Path() / "class" / "tty" / "ttyUSB0");
  const AdapterScanResult scan = scanner.ScanForAdapter();
  EXPECT_EQ(scan.DevicePath, "");
  EXPECT_EQ(scan.AdapterDescription, "KV Kestrolar 5");

  SysfsAdapterScanner nowhere(root.Path() / "absent");
  EXPECT_EQ(nowhere.ScanForAdapter().DevicePath, "");
}

}  // namespace
}  // namespace palimbo
