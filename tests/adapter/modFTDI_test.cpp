#include "adapter/modFTDI.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "fake_d2xx_control.h"
#include "temp_dir.h"

namespace palimbo {
namespace {

// The family string straddles byte 100, where the description is cut.
const std::string kCutFamily = std::string(90, '-') + "KV KESTROLAR 1";

// A device of the double with what fails for it: 'n' no closing NUL behind the description,
// 'd' the description call, 'e' FT_OpenEx, 'o' FT_Open, 'q' the number query.
FakeD2xxDevice D(const char* Description, long ComNumber, std::string_view Fails = "") {
  const auto has = [&](char c) { return Fails.find(c) != std::string_view::npos ? 1 : 0; };
  return {Description, has('n'), has('d'), has('e'), has('o'), has('q'), ComNumber};
}

struct ScanCase {
  const char* Name;
  std::vector<FakeD2xxDevice> Devices;
  int32_t Number;
  std::string Description;
  std::string OpenEx;  // calls per index, one digit each; indexes left out expect none
  std::string Open;
  bool Missing = false;
  long ReportedCount = -1;
  unsigned long CountStatus = 0;
};

const FakeD2xxDevice kForeign = D("USB Serial Converter", 1);
const std::string kUnterminated = "KV Kestrolar 1 " + std::string(85, ' ');

// clang-format off
const ScanCase kScanCases[] = {
    {"NoAdapter", {}, 0, "", "", ""},
    {"CountCallFails", {D("KV KESTROLAR 1", 5)}, 0, "", "0", "0", false, -1, 4},
    {"CountBeyondSixteenBits", {D("KV KESTROLAR 1", 5)}, 0, "", "0", "0", true, 40000},
    {"LowerCase", {D("kv kestrolar a1", 5)}, 5, "kv kestrolar a1", "1", "0"},
    {"FamilyInTheMiddle", {D("Cable KV Mini-Kestrolar 2", 6)}, 6, "Cable KV Mini-Kestrolar 2",
     "1", ""},
    {"ThreeModelsHighestIndexWins",
     {D("KV MINI-KESTROLAR 1", 3), D("KV KESTROLAR 2", 4), D("KV PC-Kestrolar 3", 11)},
     11, "KV PC-Kestrolar 3", "111", "000"},
    {"NoClosingBlank", {D("KV KESTROLAR", 5), D("KV PC-KESTROLAR[2]", 6)}, 0, "", "00", "00"},
    {"ForeignNeverOpened", {D("KV KESTROLAR 1", 5), D("FT232R USB UART", 7)},
     5, "KV KESTROLAR 1", "10", "00"},
    {"LaterCannotBeOpened", {D("KV KESTROLAR 1", 3), D("KV KESTROLAR 2", 7, "eo")},
     3, "KV KESTROLAR 1", "11", "01"},
    {"OpenedByIndex", {D("KV KESTROLAR 1", 4, "e")}, 4, "KV KESTROLAR 1", "1", "1"},
    {"NoOpenByIndexFromNine",
     {kForeign, kForeign, kForeign, kForeign, kForeign, kForeign, kForeign, kForeign,
      D("KV KESTROLAR 8", 8, "e"), D("KV KESTROLAR 9", 9, "e")},
     8, "KV KESTROLAR 8", "0000000011", "0000000010"},
    {"NumberQueryFails", {D("KV KESTROLAR 1", 4), D("KV KESTROLAR 2", 9, "q")},
     4, "KV KESTROLAR 1", "11", ""},
    {"NegativeNumberReplaces", {D("KV KESTROLAR 1", 4), D("KV KESTROLAR 2", -1)},
     -1, "KV KESTROLAR 2", "11", ""},
    {"DescriptionCallFails", {D("KV KESTROLAR 1", 5, "d")}, 0, "", "0", "0"},
    // Opening by this text fails, as no adapter bears the trailing blanks; the index opens it.
    {"BufferWithoutNulTakenWhole", {D("KV Kestrolar 1 ", 5, "n")}, 5, kUnterminated, "0", "1"},
    {"FamilyCutAtByte100", {D(kCutFamily.c_str(), 5)}, 0, "", "0", "0"},
};
// clang-format on

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
    EXPECT_EQ(counters.OpenEx[i], i < c.OpenEx.size() ? c.OpenEx[i] - '0' : 0) << "index " << i;
    EXPECT_EQ(counters.Open[i], i < c.Open.size() ? c.Open[i] - '0' : 0) << "index " << i;
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
  fake.SetDevices({D("KV Kestrolar 7", 7)});
  EXPECT_EQ(module.ScanForAdapter(), 7);
  EXPECT_FALSE(module.FtdiLibraryMissing());
  EXPECT_EQ(module.AdapterDescription(), "KV Kestrolar 7");

  fake.SetDevices({});
  EXPECT_EQ(module.ScanForAdapter(), 0);
  EXPECT_EQ(module.AdapterDescription(), "KV Kestrolar 7");
}

}  // namespace
}  // namespace palimbo
