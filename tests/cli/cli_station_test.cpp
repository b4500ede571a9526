// flash --station: module after module on one port, a count, a record line each, and Ctrl-C.
#include <signal.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "frames/crc16.h"
#include "support/process.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;
using testing::WriteTempFile;

TEST(Station, FlashesModuleAfterModuleAndRecordsEach) {
  const std::string image = testing::TestImage(1500);
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(image));
  // A line left by another station that shares the file stays as it is.
  const std::string record = WriteTempFile("record.jsonl", "{\"other\":1}\n");
  // Each rebooted module is replaced by a blank one long enough later for Ctrl-C to fall
  // between modules.
  Process module({PALIMBO_CLI, "simulate", "--replace-after-ms", "2500"},
                 WriteTempFile("simulate.err", ""));
  const std::string port = module.FirstLine(10000);
  Process station({PALIMBO_CLI, "flash", "--station", "--record", record, "--port", port, file},
                  WriteTempFile("flash.err", ""));
  ASSERT_TRUE(station.WaitForText("module 2: verified", 60000)) << station.Output;
  EXPECT_NE(station.Output.find("module 1: verified in "), std::string::npos) << station.Output;
  EXPECT_NE(station.Output.find("; 2 verified, 0 unverified, 0 failed\n"), std::string::npos);
  station.Signal(SIGINT);
  EXPECT_EQ(station.Wait(), 0) << station.Output;
  EXPECT_NE(station.Output.find("station: 2 modules, 2 verified"), std::string::npos)
      << station.Output;

  std::ifstream in(record);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "{\"other\":1}");
  char crc[8];
  std::snprintf(crc, sizeof crc, "%04X", static_cast<unsigned>(Crc16Of(image)));
  for (int m = 1; m <= 2; ++m) {
    const auto line = nlohmann::json::parse(lines[m]);
    EXPECT_EQ(line["module"], m);
    EXPECT_EQ(line["port"], port);
    EXPECT_EQ(line["file"], file);
    EXPECT_EQ(line["file_bytes"], image.size());
    EXPECT_EQ(line["file_crc"], crc);
    EXPECT_EQ(line["protocol"], "direct");
    EXPECT_EQ(line["outcome"], "verified");
    EXPECT_EQ(line["version"], PALIMBO_VERSION);
    EXPECT_FALSE(line["host"].get<std::string>().empty());
    EXPECT_EQ(line["time"].get<std::string>().size(), 20u) << line["time"];
    EXPECT_GT(line["seconds"].get<double>(), 0.5);
  }
}

}  // namespace
}  // namespace palimbo
