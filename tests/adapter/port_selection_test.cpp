#include "adapter/port_selection.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "adapter/modFTDI.h"
#include "fake_d2xx_control.h"

namespace palimbo {
namespace {

class ScriptedScanner final : public AdapterScanner {
 public:
  explicit ScriptedScanner(AdapterScanResult Result) : result_(std::move(Result)) {}
  AdapterScanResult ScanForAdapter() override {
    ++Scans;
    return result_;
  }
  int Scans = 0;

 private:
  AdapterScanResult result_;
};

struct TickCase {
  const char* Name;
  std::string Caption;
  bool Automatic;
  AdapterScanResult Scan;
  std::string Label;
  std::optional<std::string> PortText;
};

const AdapterScanResult kCom5{5, "", "KV Kestrolar A", false};
const AdapterScanResult kTty{0, "/dev/ttyUSB0", "KV Kestrolar B", false};
const auto kNone = std::nullopt;

// clang-format off
const TickCase kTickCases[] = {
    {"UploadRunning", "CANCEL", true, kCom5, "(Update in progress..)", kNone},
    {"UploadRunningManual", "CANCEL", false, kCom5, "(Update in progress..)", kNone},
    {"CaptionComparedExactly", "Start", true, kCom5, "(Update in progress..)", kNone},
    {"CaptionWithBlank", "START ", true, kCom5, "(Update in progress..)", kNone},
    {"Manual", "START", false, kCom5, "(Manual selection)", kNone},
    {"ComFound", "START", true, kCom5, "KV Kestrolar A (COM5)", "COM5"},
    {"TwoDigitCom", "START", true, {12, "", "KV C", false}, "KV C (COM12)", "COM12"},
    {"NumberWinsOverFlag", "START", true, {5, "", "KV A", true}, "KV A (COM5)", "COM5"},
    {"LibraryMissing", "START", true, {0, "", "KV", true}, "(Error: FTD2XX.DLL not found)", kNone},
    {"NegativeNumber", "START", true, {-1, "", "KV A", false}, "(No device found)", kNone},
    {"NothingFound", "START", true, {}, "(No device found)", kNone},
    {"DevicePathFound", "START", true, kTty, "KV Kestrolar B (/dev/ttyUSB0)", "/dev/ttyUSB0"},
    {"DevicePathWinsOverFlag", "START", true, {0, "/dev/ttyACM1", "KV B", true},
     "KV B (/dev/ttyACM1)", "/dev/ttyACM1"},
};
// clang-format on

class TimerRefreshPortTest : public ::testing::TestWithParam<TickCase> {};

TEST_P(TimerRefreshPortTest, ShowsLabelAndTakesPort) {
  const TickCase& c = GetParam();
  ScriptedScanner scanner(c.Scan);
  const PortRefresh refresh = TimerRefreshPort_Timer(c.Caption, c.Automatic, scanner);
  EXPECT_EQ(refresh.Label, c.Label);
  EXPECT_EQ(refresh.PortText, c.PortText);
  const bool scans = c.Caption == "START" && c.Automatic;
  EXPECT_EQ(scanner.Scans, scans ? 1 : 0);

  if (scans) {
    std::string label;
    EXPECT_EQ(FindAdapterPort(scanner, &label), c.PortText);
    EXPECT_EQ(label, c.Label);
  }
}

INSTANTIATE_TEST_SUITE_P(Ticks, TimerRefreshPortTest, ::testing::ValuesIn(kTickCases),
                         [](const auto& Info) { return std::string(Info.param.Name); });

TEST(TimerRefreshPortLibraryTest, ManualModeNeverCallsTheLibrary) {
  FakeD2xx fake(FAKE_D2XX_PATH);
  fake.SetDevices({{.Description = "KV Kestrolar 3", .ComNumber = 3}});
  D2xxAdapterScanner scanner(FAKE_D2XX_PATH);

  EXPECT_EQ(TimerRefreshPort_Timer("START", false, scanner).Label, "(Manual selection)");
  EXPECT_EQ(TimerRefreshPort_Timer("CANCEL", true, scanner).Label, "(Update in progress..)");
  EXPECT_EQ(fake.Counters().ListCalls, 0);

  const PortRefresh found = TimerRefreshPort_Timer("START", true, scanner);
  EXPECT_EQ(found.Label, "KV Kestrolar 3 (COM3)");
  EXPECT_EQ(found.PortText, "COM3");
}

}  // namespace
}  // namespace palimbo
