// verify, and flash --skip-same at a station, against simulated modules that hold firmware.
#include <signal.h>

#include <memory>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/process.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;
using testing::ReadAll;
using testing::WriteTempFile;

TEST(Verify, ExitStatusTellsWhatTheModuleHolds) {
  const std::string image = testing::TestImage(900);
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(image));
  std::string other = image;
  other[500] ^= 0x10;
  const std::string otherFile = WriteTempFile("other.bin", other);
  struct Row {
    std::vector<std::string> Simulate;
    int Status;
    const char* Outcome;
  } const rows[] = {
      {{"--flash-from", file}, 0, "matches"},
      {{"--protocol", "ccb", "--flash-from", otherFile}, 4, "differs"},
      {{"--protocol", "ccb", "--check-when-entered", "--flash-from", file}, 3, "cannot tell"},
  };
  // Every row at once, each on a module of its own.
  std::vector<std::unique_ptr<Process>> modules, checks;
  std::vector<std::string> records;
  for (const Row& row : rows) {
    std::vector<std::string> args = {PALIMBO_CLI, "simulate"};
    args.insert(args.end(), row.Simulate.begin(), row.Simulate.end());
    modules.push_back(std::make_unique<Process>(args, WriteTempFile("simulate.err", "")));
    records.push_back(WriteTempFile("record" + std::to_string(records.size()), ""));
    checks.push_back(std::make_unique<Process>(
        std::vector<std::string>{PALIMBO_CLI, "verify", "--json", "--record", records.back(),
                                 "--port", modules.back()->FirstLine(10000), file},
        WriteTempFile("verify.err", "")));
  }
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(checks[i]->Wait(), rows[i].Status) << checks[i]->Output;
    const std::string last =
        checks[i]->Output.substr(checks[i]->Output.rfind('\n', checks[i]->Output.size() - 2) + 1);
    const auto result = nlohmann::json::parse(last);
    EXPECT_EQ(result["outcome"], rows[i].Outcome) << last;
    const auto recorded = nlohmann::json::parse(ReadAll(records[i]));
    EXPECT_EQ(recorded["outcome"], rows[i].Outcome);
    // Both checksums wherever the module told one.
    EXPECT_EQ(result.contains("module_crc"), rows[i].Status == 0 || rows[i].Status == 4);
    EXPECT_EQ(recorded.contains("module_crc"), result.contains("module_crc"));
    if (rows[i].Status == 4) {
      EXPECT_NE(result["module_crc"], result["image_crc"]);
    }
  }
}

// Half of the modules coming to the station hold the image: those are only rebooted.
TEST(Station, SkipsModulesThatHoldTheImage) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(600)));
  Process module({PALIMBO_CLI, "simulate", "--flash-from", file, "--flash-from-every", "2",
                  "--replace-after-ms", "300"},
                 WriteTempFile("simulate.err", ""));
  Process station({PALIMBO_CLI, "flash", "--station", "--count", "3", "--skip-same", "--port",
                   module.FirstLine(10000), file},
                  WriteTempFile("flash.err", ""));
  EXPECT_EQ(station.Wait(), 0) << station.Output;
  for (const char* line :
       {"module 1: already current in ", "module 2: verified in ", "module 3: already current in ",
        "station: 3 modules, 1 verified, 2 already current, 0 unverified, "
        "0 failed"}) {
    EXPECT_NE(station.Output.find(line), std::string::npos) << line << "\n" << station.Output;
  }
}

}  // namespace
}  // namespace palimbo
