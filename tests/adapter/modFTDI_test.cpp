#include "adapter/modFTDI.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fake_d2xx_control.h"
#include "temp_dir.h"

namespace palimbo {
namespace {

// The family string straddles byte 100, where the description is cut.
const std::string kCutFamily = std::string(90, '-') + "KV KESTROLAR [1]";

struct ScanCase {
  const char* Name;
  std::vector<FakeD2xxDevice> Devices;
  int32_t Number;
  std::string Description;
  bool Missing;
  std::vector<int> OpenEx;  // calls per index; indexes left out expect none
  std::vector<int> Open;
  long ReportedCount = -1;
  unsigned long CountStatus = 0;
};

std::vector<FakeD2xxDevice> EightForeignThen(std::vector<FakeD2xxDevice> Tail) {
  std::vector<FakeD2xxDevice> devices(8, FakeD2xxDevice{.Description = "USB Serial Converter"});
  devices.insert(devices.end(), Tail.begin(), Tail.end());
  return devices;
}

const ScanCase kScanCases[] = {
    {"NoAdapter", {}, 0, "", false, {}, {}},
    {"CountCallFails", {{.Description = "KV KESTROLAR [1]", .ComNumber = 5}}, 0, "", false, {}, {},
     -1, 4},
    {"LowerCase", {{.Description = "kv kestrolar [a1]", .ComNumber = 5}}, 5, "kv kestrolar [a1]",
     false, {1}, {}},
    {"FamilyInTheMiddle", {{.Description = "Cable KV Mini-Kestrolar rev2", .ComNumber = 6}}, 6,
     "Cable KV Mini-Kestrolar rev2", false, {1}, {}},
    {"ThreeModelsHighestIndexWins",
     {{.Description = "KV MINI-KESTROLAR [1]", .ComNumber = 3},
      {.Description = "KV KESTROLAR [2]", .ComNumber = 4},
      {.Description = "KV PC-Kestrolar [3]", .ComNumber = 11}},
     11, "KV PC-Kestrolar [3]", false, {1, 1, 1}, {}},
    {"NoClosingBlank",
     {{.Description = "KV KESTROLAR", .ComNumber = 5},
      {.Description = "KV PC-KESTROLAR[2]", .ComNumber = 6}},
     0, "", false, {0, 0}, {0, 0}},
    {"ForeignProductNeverOpened",
     {{.Description = "KV KESTROLAR [1]", .ComNumber = 5},
      {.Description = "FT232R USB UART", .ComNumber = 7}},
     5, "KV KESTROLAR [1]", false, {1, 0}, {0, 0}},
    {"LaterAdapterCannotBeOpened",
     {{.Description = "KV KESTROLAR [1]", .ComNumber = 3},
      {.Description = "KV KESTROLAR [2]", .OpenExFails = 1, .OpenFails = 1, .ComNumber = 7}},
     3, "KV KESTROLAR [1]", false, {1, 1}, {0, 1}},
    {"OpenedByIndexWhenByDescriptionFails",
     {{.Description = "KV KESTROLAR [1]", .OpenExFails = 1, .ComNumber = 4}}, 4,
     "KV KESTROLAR [1]", false, {1}, {1}},
    {"NoOpenByIndexFromNine",
     EightForeignThen({{.Description = "KV KESTROLAR [8]", .OpenExFails = 1, .ComNumber = 8},
                      {.Description = "KV KESTROLAR [9]", .OpenExFails = 1, .ComNumber = 9}}),
     8, "KV KESTROLAR [8]", false, {0, 0, 0, 0, 0, 0, 0, 0, 1, 1},
     {0, 0, 0, 0, 0, 0, 0, 0, 1, 0}},
    {"NumberQueryFails",
     {{.Description = "KV KESTROLAR [1]", .ComNumber = 4},
      {.Description = "KV KESTROLAR [2]", .NumberFails = 1, .ComNumber = 9}},
     4, "KV KESTROLAR [1]", false, {1, 1}, {}},
    {"NegativeNumberReplaces",
     {{.Description = "KV KESTROLAR [1]", .ComNumber = 4},
      {.Description = "KV KESTROLAR [2]", .ComNumber = -1}},
     -1, "KV KESTROLAR [2]", false, {1, 1}, {}},
    {"DescriptionCallFails", {{.Description = "KV KESTROLAR [1]", .DescriptionFails = 1}}, 0, "",
     false, {0}, {0}},
    {"BufferWithoutNulTakenWhole", {{.Description = "KV Kestrolar 1 ", .NoNul = 1, .ComNumber = 5}},
     5, "KV Kestrolar 1 " + std::string(85, ' '), false, {0}, {1}},
    {"FamilyCutAtByte100", {{.Description = kCutFamily.c_str(), .ComNumber = 5}}, 0, "", false,
     {0}, {0}},
    {"CountBeyondSixteenBits", {{.Description = "KV KESTROLAR [1]", .ComNumber = 5}}, 0, "", true,
     {0}, {0}, 40000},
};

class ScanForAdapterTest : public ::testing::TestWithParam<ScanCase> {};

TEST_P(ScanForAdapterTest, FindsNumberDescriptionAndFlag) {
  const ScanCase& c = GetParam();
  FakeD2xx fake(FAKE_D2XX_PATH);
  fake.SetDevices(c.Devices, c.ReportedCount, c.CountStatus);
  modFTDI module(FAKE_D2XX_PATH);

  EXPECT_EQ(module.ScanForAdapter(), c.Number);
  EXPECT_EQ(module.AdapterDescription(), c.Description);
  EXPECT_EQ(module.FtdiLibraryMissing(), c.Missing);
  const FakeD2xxCounters counters = fake.Counters();
  for (size_t i = 0; i < c.Devices.size(); ++i) {
    EXPECT_EQ(counters.OpenEx[i], i < c.OpenEx.size() ? c.OpenEx[i] : 0) << "index " << i;
    EXPECT_EQ(counters.Open[i], i < c.Open.size() ? c.Open[i] : 0) << "index " << i;
  }
  EXPECT_EQ(counters.OpenHandles, 0) << "an adapter was left open";
  EXPECT_EQ(counters.BadCalls, 0) << "a call with flags the library refuses";
}

INSTANTIATE_TEST_SUITE_P(Devices, ScanForAdapterTest, ::testing::ValuesIn(kScanCases),
                         [](const auto& Info) { return std::string(Info.param.Name); });

TEST(ScanForAdapterLibraryTest, UnbindableLibraryIsReported) {
  TempDir dir;
  const std::string notALibrary = dir.Path() / "libftd2xx.so";
  std::ofstream(notALibrary) << "not a shared library\n";
  for (const std::string& path :
       {std::string(dir.Path() / "absent.so"), notALibrary, std::string(FAKE_D2XX_PARTIAL_PATH)}) {
    modFTDI module(path);
    EXPECT_EQ(module.ScanForAdapter(), 0) << path;
    EXPECT_TRUE(module.FtdiLibraryMissing()) << path;
  }
}

TEST(ScanForAdapterLibraryTest, LibraryThatAppearsLaterIsFoundAndDescriptionOutlivesAdapter) {
  TempDir dir;
  const std::filesystem::path path = dir.Path() / "libftd2xx.so";
  modFTDI module(path);
  EXPECT_EQ(module.ScanForAdapter(), 0);
  EXPECT_TRUE(module.FtdiLibraryMissing());

  std::filesystem::copy_file(FAKE_D2XX_PATH, path);
  FakeD2xx fake(path);
  fake.SetDevices({{.Description = "KV Kestrolar [7]", .ComNumber = 7}});
  EXPECT_EQ(module.ScanForAdapter(), 7);
  EXPECT_FALSE(module.FtdiLibraryMissing());
  EXPECT_EQ(module.AdapterDescription(), "KV Kestrolar [7]");

  fake.SetDevices({});
  EXPECT_EQ(module.ScanForAdapter(), 0);
  EXPECT_EQ(module.AdapterDescription(), "KV Kestrolar [7]");
}

}  // namespace
}  // namespace palimbo
