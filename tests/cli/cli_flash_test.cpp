// palimbo-cli flash against palimbo-cli simulate, over a real pseudo-terminal.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "support/process.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;

std::string ReadAll(const std::string& Path) {
  std::ifstream in(Path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

struct FlashCase {
  const char* Name;
  std::vector<std::string> SimulateArgs;
  size_t ImageLength;
  int ExitStatus;
  const char* LastLine;
};

class FlashIntoSimulate : public ::testing::TestWithParam<FlashCase> {};

TEST_P(FlashIntoSimulate, ExitStatusLogAndFlash) {
  const std::string image = testing::TestImage(GetParam().ImageLength);
  const std::string file = testing::WriteTempFile("fw.hex", testing::HexOf(image));
  const std::string dump = testing::WriteTempFile("flash.bin", "");
  const std::string trace = testing::WriteTempFile("trace.txt", "");
  std::vector<std::string> simArgs = {PALIMBO_CLI, "simulate", "--dump", dump};
  simArgs.insert(simArgs.end(), GetParam().SimulateArgs.begin(), GetParam().SimulateArgs.end());
  Process module(simArgs, testing::WriteTempFile("simulate.err", ""));
  const std::string port = module.FirstLine(5000);
  ASSERT_FALSE(port.empty());

  Process flash({PALIMBO_CLI, "flash", "--port", port, "--trace", trace, file},
                testing::WriteTempFile("flash.err", ""));
  EXPECT_EQ(flash.Wait(), GetParam().ExitStatus) << flash.Output;
  module.Signal(SIGTERM);
  EXPECT_EQ(module.Wait(), 0);

  EXPECT_TRUE(flash.Output.find("Entered bootloader mode successfully.\n") != std::string::npos);
  ASSERT_GE(flash.Output.size(), 2u);
  const std::string lastLine =
      flash.Output.substr(flash.Output.rfind('\t', flash.Output.size() - 2) + 1);
  EXPECT_EQ(lastLine, std::string(GetParam().LastLine) + "\n");
  EXPECT_EQ(ReadAll(dump).substr(0, image.size()), image);
  // The trace begins with the first poll going out.
  const std::string traced = ReadAll(trace);
  EXPECT_NE(traced.find(" > 69\n"), std::string::npos) << traced.substr(0, 200);
}

INSTANTIATE_TEST_SUITE_P(
    , FlashIntoSimulate,
    ::testing::Values(FlashCase{"Direct", {}, 5000, 0, "UPLOAD SUCCESSFULLY COMPLETED."},
                      FlashCase{
                          "Ccb", {"--protocol", "ccb"}, 5000, 0, "UPLOAD SUCCESSFULLY COMPLETED."}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST(Flash, PortThatCannotBeOpenedSaysWhy) {
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  const std::string err = testing::WriteTempFile("flash.err", "");
  Process flash({PALIMBO_CLI, "flash", "--port", "/dev/palimbo-no-such-port", file}, err);
  EXPECT_EQ(flash.Wait(), 1);
  EXPECT_EQ(flash.Output.substr(flash.Output.find('\t') + 1),
            "Firmware read from file. Length 1 Bytes.\n");
  EXPECT_NE(ReadAll(err).find("cannot open port /dev/palimbo-no-such-port: No such file"),
            std::string::npos)
      << ReadAll(err);
}

// A give-up shorter than a healthy module's longest silence would cancel good uploads.
TEST(Flash, GiveUpBelowAHealthySilenceIsRefused) {
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  const std::string err = testing::WriteTempFile("flash.err", "");
  for (const auto& [seconds, status] : {std::pair{"35", 2}, {"36", 1}, {"0", 1}}) {
    Process flash({PALIMBO_CLI, "flash", "--port", "/dev/palimbo-no-such-port", "--give-up-after",
                   seconds, file},
                  err);
    EXPECT_EQ(flash.Wait(), status) << seconds;
    EXPECT_EQ(ReadAll(err).find("--give-up-after 35 is shorter than a healthy module may stay "
                                "silent (36 s: the CRC probe and two erases)") != std::string::npos,
              status == 2)
        << ReadAll(err);
  }
}

}  // namespace
}  // namespace palimbo
