#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "adapter/d2xx_library.h"
#include "adapter/modFTDI.h"
#include "adapter/port_selection.h"
#include "fake_d2xx.h"

#include "support/temp_file.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;

using testing::TempDir;

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

// The command line writes into every accepted adapter; the walk gives them all, and the tick
// still shows the last one.
TEST(D2xxAdapterScanner, AllAcceptedAdaptersFromOneWalk) {
  const std::vector<FakeAdapter> adapters = {{"KV MINI-KESTROLAR 1", 11},
                                             {"FT232R USB UART", 2},
                                             {"KV KESTROLAR 2", 9, "q"},
                                             {"KV KESTROLAR 3", -1},
                                             {"KV PC-Kestrolar 4", 3}};
  fake_d2xx_set(adapters.data(), static_cast<int>(adapters.size()));
  D2xxAdapterScanner scanner(FAKE_D2XX_PATH);
  const std::vector<AcceptedAdapter> all = FindAllAdapterPorts(scanner);
  const std::vector<AcceptedAdapter> expected = {{"COM11", "KV MINI-KESTROLAR 1"},
                                                 {"COM3", "KV PC-Kestrolar 4"}};
  EXPECT_EQ(all, expected);
  std::string label;
  EXPECT_EQ(FindAdapterPort(scanner, &label), "COM3");
  EXPECT_EQ(label, "KV PC-Kestrolar 4 (COM3)");
}

TEST(D2xxAdapterScanner, LibraryMissingLackingAnEntryOrAppearingLater) {
  TempDir dir;
  for (const std::string& path : {dir.Path + "/absent.so", std::string(FAKE_D2XX_PARTIAL_PATH)}) {
    EXPECT_TRUE(D2xxAdapterScanner(path).ScanForAdapter().FtdiLibraryMissing) << path;
  }
  const std::string later = dir.Path + "/" + d2xx::kLibraryName;
  D2xxAdapterScanner scanner(later);
  EXPECT_TRUE(scanner.ScanForAdapter().FtdiLibraryMissing);
  // A copy is a library of its own, which takes its adapters from the environment.
  fs::copy_file(FAKE_D2XX_PATH, later);
  putenv(const_cast<char*>("PALIMBO_FAKE_D2XX=KV Kestrolar 7=7"));
  const AdapterScanResult scan = scanner.ScanForAdapter();
  EXPECT_EQ(scan.ComNumber, 7);
  EXPECT_FALSE(scan.FtdiLibraryMissing);
}

struct ScriptedScanner final : AdapterScanner {
  explicit ScriptedScanner(AdapterScanResult Scan) : Result(std::move(Scan)) {}
  AdapterScanResult ScanForAdapter() override { return ++Scans, Result; }
  AdapterScanResult Result;
  int Scans = 0;
};

struct TickCase {
  bool Running;
  bool Automatic;
  AdapterScanResult Scan;
  std::string Label;
  std::optional<std::string> PortText;
};

// clang-format off
const TickCase kTickCases[] = {
    // A running upload counts before the mode.
    {true, false, {5, "", "KV A", false}, "(Update in progress..)", std::nullopt},
    {false, false, {5, "", "KV A", false}, "(Manual selection)", std::nullopt},
    {false, true, {5, "", "KV A", true}, "KV A (COM5)", "COM5"},
    {false, true, {0, "", "KV", true}, "(Error: FTD2XX.DLL not found)", std::nullopt},
    {false, true, {-1, "", "KV A", false}, "(No device found)", std::nullopt},
    {false, true, {0, "/dev/ttyACM1", "KV B", true}, "KV B (/dev/ttyACM1)", "/dev/ttyACM1"},
};
// clang-format on

TEST(TimerRefreshPort, UploadThenModeThenScan) {
  for (const TickCase& c : kTickCases) {
    SCOPED_TRACE(std::string(c.Running ? "running" : "idle") +
                 (c.Automatic ? " automatic " : " manual ") + c.Label);
    ScriptedScanner scanner(c.Scan);
    const PortRefresh refresh = TimerRefreshPort_Timer(c.Running, c.Automatic, scanner);
    EXPECT_EQ(refresh.Label, c.Label);
    EXPECT_EQ(refresh.PortText, c.PortText);
    EXPECT_EQ(scanner.Scans, !c.Running && c.Automatic ? 1 : 0);
  }
}

}  // namespace
}  // namespace palimbo
