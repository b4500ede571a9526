// palimbo-cli flash on several modules at once, and its ways out of a job nobody watches.
#include <signal.h>

#include <chrono>
#include <memory>
#include <sstream>

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

// One simulated module on a pseudo-terminal of its own, which writes its flash when stopped.
struct Module {
  Module(const std::string& Name, std::vector<std::string> Options)
      : Dump(WriteTempFile(Name + ".flash", "")) {
    std::vector<std::string> args = {PALIMBO_CLI, "simulate", "--dump", Dump};
    args.insert(args.end(), Options.begin(), Options.end());
    Host = std::make_unique<Process>(args, WriteTempFile(Name + ".err", ""));
    Port = Host->FirstLine(10000);
  }
  std::string Flash() {
    Host->Signal(SIGTERM);
    Host->Wait();
    return ReadAll(Dump);
  }
  std::string Dump;
  std::unique_ptr<Process> Host;
  std::string Port;
};

std::vector<nlohmann::json> JsonLines(const std::string& Text, const std::string& Type) {
  std::vector<nlohmann::json> lines;
  std::istringstream in(Text);
  for (std::string line; std::getline(in, line);) {
    const auto object = nlohmann::json::parse(line);
    if (object["type"] == Type) lines.push_back(object);
  }
  return lines;
}

struct GangCase {
  const char* Name;
  std::vector<std::vector<std::string>> Modules;  // the simulate options of each
  std::vector<std::string> Outcomes;              // what the JSON result of each says
  int ExitStatus;
};

void PrintTo(const GangCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class Gang : public ::testing::TestWithParam<GangCase> {};

TEST_P(Gang, EveryModuleHasItsOwnResult) {
  const std::string image = testing::TestImage(3000);
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(image));
  std::vector<std::unique_ptr<Module>> modules;
  std::vector<std::string> args = {PALIMBO_CLI, "flash", "--json"};
  for (const auto& options : GetParam().Modules) {
    modules.push_back(std::make_unique<Module>("m" + std::to_string(modules.size()), options));
    ASSERT_FALSE(modules.back()->Port.empty());
    args.insert(args.end(), {"--port", modules.back()->Port});
  }
  args.push_back(file);
  Process flash(args, WriteTempFile("flash.err", ""));
  EXPECT_EQ(flash.Wait(), GetParam().ExitStatus) << flash.Output;

  const auto results = JsonLines(flash.Output, "result");
  ASSERT_EQ(results.size(), modules.size()) << flash.Output;
  EXPECT_FALSE(JsonLines(flash.Output, "log").empty());
  EXPECT_FALSE(JsonLines(flash.Output, "progress").empty());
  for (size_t i = 0; i < modules.size(); ++i) {
    SCOPED_TRACE(modules[i]->Port);
    EXPECT_EQ(results[i]["port"], modules[i]->Port);
    EXPECT_EQ(results[i]["outcome"], GetParam().Outcomes[i]) << results[i]["reason"];
    EXPECT_EQ(results[i]["exit_status"], GetParam().Outcomes[i] == "verified" ? 0 : 1);
    EXPECT_EQ(results[i]["bytes"], image.size());
    const std::string flashed = modules[i]->Flash().substr(0, image.size());
    EXPECT_EQ(flashed == image, GetParam().Outcomes[i] == "verified");
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, Gang, ::testing::Values(
    GangCase{"OneRefusesABlock", {{"--protocol", "ccb"}, {"--protocol", "ccb", "--refuse-block", "3"}, {}},
             {"verified", "failed", "verified"}, 1}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(GangSummary, TableSaysWhatTheExitStatusSays) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(700)));
  Module good("good", {}), unverified("unverified", {"--no-crc"});
  Process flash({PALIMBO_CLI, "flash", "--port", good.Port, "--port", unverified.Port, file},
                WriteTempFile("flash.err", ""));
  EXPECT_EQ(flash.Wait(), 3);
  // Log lines carry their port; the summary closes the output.
  EXPECT_NE(flash.Output.find("\t" + good.Port + "\tUPLOAD SUCCESSFULLY COMPLETED.\n"),
            std::string::npos)
      << flash.Output;
  // One summary row a module: port, protocol, bytes, seconds, outcome, reason.
  const std::string summary = flash.Output.substr(flash.Output.rfind("\nPORT "));
  const auto row = [&](const std::string& Port) {
    const size_t at = summary.find("\n" + Port + " ");
    std::istringstream fields(summary.substr(at + 1, summary.find('\n', at + 1) - at - 1));
    std::vector<std::string> words;
    for (std::string w; fields >> w;) words.push_back(w);
    return words;
  };
  const auto goodRow = row(good.Port), unverifiedRow = row(unverified.Port);
  ASSERT_GE(goodRow.size(), 6u) << summary;
  ASSERT_GE(unverifiedRow.size(), 6u) << summary;
  EXPECT_EQ(goodRow[1], "direct");
  EXPECT_EQ(goodRow[2], "700");
  EXPECT_EQ(goodRow[4], "verified");
  EXPECT_EQ(unverifiedRow[4], "unverified");
  EXPECT_NE(summary.find("written; the bootloader cannot report the checksum"), std::string::npos)
      << summary;
}

// Ctrl-C cancels every module's job as CANCEL does, each at its own cancel exit.
TEST(GangCtrlC, CancelsEveryJob) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(30000)));
  Module direct("direct", {}), ccb("ccb", {"--protocol", "ccb"});
  Process flash({PALIMBO_CLI, "flash", "--json", "--port", direct.Port, "--port", ccb.Port, file},
                WriteTempFile("flash.err", ""));
  ASSERT_TRUE(flash.WaitForText("Transfer ok.", 30000)) << flash.Output;
  ASSERT_TRUE(flash.WaitForText("Writing FLASH", 30000)) << flash.Output;
  flash.Signal(SIGINT);
  EXPECT_EQ(flash.Wait(), 1);
  const auto results = JsonLines(flash.Output, "result");
  ASSERT_EQ(results.size(), 2u) << flash.Output;
  for (const auto& result : results) {
    EXPECT_EQ(result["outcome"], "cancelled") << result["port"] << ": " << result["reason"];
  }
}

// Nobody sits at a production line's CANCEL: when the module's side of the line goes away, the
// command line finds its own way out, says why and exits 1.
TEST(WayOut, LostPortEndsWithItsReason) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(20000)));
  Module module("m", {});
  ASSERT_FALSE(module.Port.empty());
  const std::string err = WriteTempFile("flash.err", "");
  Process flash({PALIMBO_CLI, "flash", "--port", module.Port, file}, err);
  ASSERT_TRUE(flash.WaitForLine("Writing FLASH", 30000)) << flash.Output;
  module.Host->Signal(SIGKILL);
  const auto from = std::chrono::steady_clock::now();
  EXPECT_EQ(flash.Wait(), 1) << flash.Output;
  // The last word is the cause, not the job's own "Operation cancelled.".
  EXPECT_TRUE(ReadAll(err).ends_with("palimbo-cli: given up: port " + module.Port +
                                     " lost: Input/output error\n"))
      << ReadAll(err);
  // Generous for a loaded machine: it ends at the next look, not after a give-up.
  EXPECT_LT(std::chrono::steady_clock::now() - from, std::chrono::seconds(20));
}

}  // namespace
}  // namespace palimbo
