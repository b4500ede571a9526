#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "adapter/modFTDI.h"
#include "adapter/port_selection.h"
#include "adapter/sysfs_scanner.h"
#include "fake_d2xx.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;

// A fresh folder under the system's temporary folder, removed with everything in it.
struct TempDir {
  std::string Path = fs::temp_directory_path() / "palimbo-adapter-XXXXXX";
  TempDir() { EXPECT_NE(mkdtemp(Path.data()), nullptr); }
  ~TempDir() { fs::remove_all(Path); }
};

struct ScanCase {
  const char* Name;
  std::vector<FakeAdapter> Adapters;
  int Accepted;  // the index whose number and description the scan gives, -1 for none
  const char* Calls;
};

// clang-format off
const ScanCase kScanCases[] = {
    {"LowerCase", {{"kv kestrolar a1", 5}}, 0, "e0 q0 c0 "},
    {"FamilyInTheMiddle", {{"Cable KV Mini-Kestrolar 2", 6}}, 0, "e0 q0 c0 "},
    {"NoClosingBlank", {{"KV KESTROLAR", 5}, {"KV PC-KESTROLAR[2]", 6}}, -1, ""},
    {"ForeignNeverOpened", {{"KV KESTROLAR 1", 5}, {"FT232R USB UART", 7}}, 0, "e0 q0 c0 "},
    {"LastWins", {{"KV MINI-KESTROLAR 1", 11}, {"KV PC-Kestrolar 3", 3}}, 1, "e0 q0 c0 e1 q1 c1 "},
    {"CannotBeOpened", {{"KV KESTROLAR 1", 3}, {"KV KESTROLAR 2", 7, "eo"}}, 0, "e0 q0 c0 e1 o1 "},
    // Eight adapters without a description come first.
    {"NoOpenByNumberFromNine", {{}, {}, {}, {}, {}, {}, {}, {}, {"KV KESTROLAR 8", 8, "e"},
     {"KV KESTROLAR 9", 9, "e"}}, 8, "e8 o8 q8 c8 e9 "},
    {"QueryFails", {{"KV KESTROLAR 1", 4}, {"KV KESTROLAR 2", 9, "q"}}, 0, "e0 q0 c0 e1 q1 c1 "},
    {"NegativeNumber", {{"KV KESTROLAR 1", 4}, {"KV KESTROLAR 2", -1}}, 1, "e0 q0 c0 e1 q1 c1 "},
};
// clang-format on

TEST(D2xxAdapterScanner, AcceptsOpensAndClosesAdapters) {
  for (const ScanCase& c : kScanCases) {
    SCOPED_TRACE(c.Name);
    fake_d2xx_set(c.Adapters.data(), static_cast<int>(c.Adapters.size()));
    const AdapterScanResult scan = D2xxAdapterScanner(FAKE_D2XX_PATH).ScanForAdapter();
    const FakeAdapter none, &accepted = c.Accepted < 0 ? none : c.Adapters[c.Accepted];
    EXPECT_EQ(scan.ComNumber, accepted.ComNumber);
    EXPECT_EQ(scan.AdapterDescription, accepted.Description);
    EXPECT_FALSE(scan.FtdiLibraryMissing);
    EXPECT_STREQ(fake_d2xx_calls(), c.Calls);
  }
}

TEST(D2xxAdapterScanner, LibraryMissingLackingAnEntryOrAppearingLater) {
  TempDir dir;
  for (const std::string& path : {dir.Path + "/absent.so", std::string(FAKE_D2XX_PARTIAL_PATH)}) {
    EXPECT_TRUE(D2xxAdapterScanner(path).ScanForAdapter().FtdiLibraryMissing) << path;
  }
  D2xxAdapterScanner scanner(dir.Path + "/libftd2xx.so");
  EXPECT_TRUE(scanner.ScanForAdapter().FtdiLibraryMissing);
  fs::create_symlink(FAKE_D2XX_PATH, dir.Path + "/libftd2xx.so");
  const FakeAdapter adapter = {"KV Kestrolar 7", 7};
  fake_d2xx_set(&adapter, 1);
  const AdapterScanResult scan = scanner.ScanForAdapter();
  EXPECT_EQ(scan.ComNumber, 7);
  EXPECT_FALSE(scan.FtdiLibraryMissing);
}

struct Tty {
  std::string Name;
  std::string Device;   // below devices/; empty for a tty without one
  std::string Product;  // of that device; empty where it is not on USB
};

// The tty's "device" link leads to its port, one folder below the device with the product.
void AddTty(const fs::path& Root, const Tty& T) {
  fs::create_directories(Root / "class/tty" / T.Name);
  if (T.Device.empty()) return;
  fs::create_directories(Root / "devices" / T.Device / "port");
  fs::create_directory_symlink("../../../devices/" + T.Device + "/port",
                               Root / "class/tty" / T.Name / "device");
  if (!T.Product.empty()) std::ofstream(Root / "devices" / T.Device / "product") << T.Product;
}

struct SysfsCase {
  const char* Name;
  std::vector<Tty> Ttys;
  std::string DevicePath;
  std::string Description;
};

// clang-format off
const SysfsCase kSysfsCases[] = {
    {"OneAdapter", {{"tty0", "", ""}, {"ttyUSB0", "usb1/1-1", "KV Kestrolar 12\n"}},
     "/dev/ttyUSB0", "KV Kestrolar 12"},
    {"LastWins", {{"ttyUSB1", "usb1/1-1", "KV Mini-Kestrolar 1"},
     {"ttyUSB0", "usb1/1-2", "KV PC-KESTROLAR 2"}}, "/dev/ttyUSB1", "KV Mini-Kestrolar 1"},
    {"NoTtys", {}, "", ""},
    {"NotOnUsbOrForeign", {{"ttyS0", "platform/serial8250", ""}, {"tty0", "", ""},
     {"ttyUSB0", "usb1/1-1", "FT232R USB UART"}}, "", ""},
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
  }
}

struct ScriptedScanner final : AdapterScanner {
  explicit ScriptedScanner(AdapterScanResult Scan) : Result(std::move(Scan)) {}
  AdapterScanResult ScanForAdapter() override { return ++Scans, Result; }
  AdapterScanResult Result;
  int Scans = 0;
};

struct TickCase {
  std::string Caption;
  bool Automatic;
  AdapterScanResult Scan;
  std::string Label;
  std::optional<std::string> PortText;
};

// clang-format off
const TickCase kTickCases[] = {
    // Only the exact caption START means no upload runs, and it counts before the mode.
    {"Start", false, {5, "", "KV A", false}, "(Update in progress..)", std::nullopt},
    {"START", false, {5, "", "KV A", false}, "(Manual selection)", std::nullopt},
    {"START", true, {5, "", "KV A", true}, "KV A (COM5)", "COM5"},
    {"START", true, {0, "", "KV", true}, "(Error: FTD2XX.DLL not found)", std::nullopt},
    {"START", true, {-1, "", "KV A", false}, "(No device found)", std::nullopt},
    {"START", true, {0, "/dev/ttyACM1", "KV B", true}, "KV B (/dev/ttyACM1)", "/dev/ttyACM1"},
};
// clang-format on

TEST(TimerRefreshPort, CaptionThenModeThenScan) {
  for (const TickCase& c : kTickCases) {
    SCOPED_TRACE(c.Caption + (c.Automatic ? " automatic " : " manual ") + c.Label);
    ScriptedScanner scanner(c.Scan);
    const PortRefresh refresh = TimerRefreshPort_Timer(c.Caption, c.Automatic, scanner);
    EXPECT_EQ(refresh.Label, c.Label);
    EXPECT_EQ(refresh.PortText, c.PortText);
    EXPECT_EQ(scanner.Scans, c.Caption == "START" && c.Automatic ? 1 : 0);
  }
}

}  // namespace
}  // namespace palimbo
