// The job from reading the file to the entry into the bootloader, on virtual time.
#include <algorithm>
#include <string>

using namespace std::string_literals;
#include <gtest/gtest.h>

#include "support/temp_file.h"
#include "support/virtual_job.h"
#include "upload/upload.h"

namespace palimbo {
namespace {

using testing::ScriptedPeer;
using testing::VirtualJob;

constexpr int64_t kMs = 1000;
const std::string kEntered = "Entered bootloader mode successfully.";
const std::string kPollText = "Entering bootloader mode..";

// Answers the n-th poll "i" with the n-th text (none once the texts are used up).
ScriptedPeer::Script AnswerPolls(std::vector<std::string> Answers) {
  auto polls = std::make_shared<size_t>(0);
  return [Answers, polls](std::string_view Heard, int64_t Now, std::vector<sim::Emission>& Out) {
    if (Heard != "i") return;
    if (*polls < Answers.size() && !Answers[*polls].empty()) {
      Out.push_back({Now + 20 * kMs, Answers[*polls]});
    }
    ++*polls;
  };
}

std::vector<std::string> Silent(size_t Polls, std::string Then) {
  std::vector<std::string> answers(Polls);
  answers.push_back(std::move(Then));
  return answers;
}

std::string O(int b1, int b2, int b3) {
  return std::string("O") + static_cast<char>(b1) + static_cast<char>(b2) + static_cast<char>(b3);
}

struct EntryRun {
  UploadOutcome Outcome;
  int PollCycles;  // progress calls of the poll: one per cycle that found no answer
  int Polls;       // "i" bytes the module heard
};

// Runs a job until it has entered the bootloader, then cancels it at its next pump.
EntryRun RunEntry(VirtualJob& Job, ScriptedPeer& Module, bool CancelAfterEntry = true) {
  const std::string file = testing::WriteTempFile("fw.hex", ":02000000AABB99\r\n:0100100011DE\r\n");
  Job.Pump.OnPump = [&] {
    if (CancelAfterEntry && Job.Log.Contains(kEntered)) Job.Ctx.Cancel = true;
  };
  const UploadOutcome outcome = StartUpload(Job.Ctx, file, "SIM");
  EntryRun run{outcome, 0, 0};
  for (const auto& call : Job.Progress.Calls) run.PollCycles += call.Text == kPollText;
  for (const auto& heard : Module.Received) run.Polls += heard == "i";
  return run;
}

struct PollCase {
  const char* Name;
  std::vector<std::string> Answers;
  int PollCycles;
  const char* ExtraLine;  // a line the job must have logged, or ""
};

class EntryPoll : public ::testing::TestWithParam<PollCase> {};

TEST_P(EntryPoll, EntersTheDirectBootloaderInTheRightCycle) {
  ScriptedPeer module;
  module.OnReceive = AnswerPolls(GetParam().Answers);
  VirtualJob job(module);
  const EntryRun run = RunEntry(job, module);
  EXPECT_TRUE(job.Log.Contains(kEntered));
  EXPECT_EQ(run.PollCycles, GetParam().PollCycles);
  EXPECT_EQ(job.Question.Asked, 0);
  if (*GetParam().ExtraLine) {
    EXPECT_TRUE(job.Log.Contains(GetParam().ExtraLine));
  }
  EXPECT_EQ(run.Outcome, UploadOutcome::Cancelled);
}

INSTANTIATE_TEST_SUITE_P(
    , EntryPoll,
    ::testing::Values(
        PollCase{"AnswerAtOnce", {O(0, 1, 0)}, 0, ""},
        PollCase{"EchoFirst", {"i" + O(0, 1, 0)}, 0, ""},
        PollCase{"AnswerInPieces", {"O\x00"s, "\x01\x00"s}, 1, ""},
        PollCase{"LateBytesWaitForTheNextCycle", {"", "", "O", "\x00\x01"s, "\x00"s}, 4, ""},
        PollCase{"ThreeStrayBytesCostThreeCycles", {"ab!" + O(0, 1, 0)}, 3, ""},
        PollCase{"EchoNotFirstIsAStrayByte", {"zi" + O(0, 1, 0)}, 2, ""},
        PollCase{"LowerCaseXIsAStrayByte", {"x" + O(0, 1, 0)}, 1, ""},
        PollCase{"AnswerInThe26thCycle", Silent(25, O(0, 0, 128)), 25, ""},
        PollCase{"PageSizeZeroFallsBack", {O(0, 0, 0)}, 0, "Unsupported page size 0 - using 256."},
        PollCase{"PageSize32768FallsBack",
                 {O(0, 128, 0)},
                 0,
                 "Unsupported page size 32768 - using 256."},
        PollCase{"PageSizeAbove16BitsFallsBack",
                 {O(1, 0, 0)},
                 0,
                 "Unsupported page size 65536 - using 256."}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST(EntryPollRoads, XAnywhereLeadsToTheCcbProtocol) {
  ScriptedPeer module;
  module.OnReceive = AnswerPolls({"O\x00\x00X"s});
  VirtualJob job(module);
  RunEntry(job, module, /*CancelAfterEntry=*/false);
  // The CCB road begins with CCBEnter, not with a page size of 88.
  ASSERT_GE(module.Received.size(), 2u);
  EXPECT_EQ(module.Received[1].substr(0, 3), "\x53\x01\x8A"s);
  EXPECT_FALSE(job.Log.Contains(kEntered));
}

TEST(EntryPollRoads, NoAnswerThenNoAborts) {
  ScriptedPeer module;
  VirtualJob job(module);
  job.Question.Answer = false;
  const EntryRun run = RunEntry(job, module);
  EXPECT_EQ(run.Outcome, UploadOutcome::NoBootloader);
  EXPECT_EQ(run.Polls, 26);
  EXPECT_EQ(job.Question.Asked, 1);
  EXPECT_EQ(job.Question.Title, "Bootloader: No response");
  EXPECT_EQ(job.Question.Text,
            "The bootloader did not respond while trying to enter it. Please check if the module "
            "is in bootloader mode by looking at the display. If it is already in bootloader "
            "mode, you can continue.\r\nContinue flashing firmware file?");
  EXPECT_EQ(job.Log.Lines.back(), "Failed to enter bootloader mode - ABORTING..");
  EXPECT_FALSE(job.Line.IsOpen());
  EXPECT_EQ(job.Ctx.PortHandle, -1);
  // The bar counts 0 to 25 of 26 in blue; 26 is never shown.
  ASSERT_EQ(job.Progress.Calls.size(), 26u);
  for (int i = 0; i < 26; ++i) {
    EXPECT_EQ(job.Progress.Calls[i],
              (testing::RecordingProgress::Call{i, 26, kColorBlue, kPollText}));
  }
  // 26 cycles of 400 ms behind one second of settling.
  EXPECT_GE(job.NowMs() - 1000, 1000 + 26 * 400);
  EXPECT_LT(job.NowMs() - 1000, 1000 + 26 * 400 + 200);
}

TEST(EntryPollRoads, NoAnswerThenYesGoesOnWith256) {
  ScriptedPeer module;
  VirtualJob job(module);
  job.Question.Answer = true;
  RunEntry(job, module);
  const auto& lines = job.Log.Lines;
  const auto trying =
      std::find(lines.begin(), lines.end(), "Failed to enter bootloader mode - TRYING ANYWAYS..");
  ASSERT_NE(trying, lines.end());
  ASSERT_NE(trying + 1, lines.end());
  EXPECT_EQ(*(trying + 1), kEntered);
}

TEST(EntryPollRoads, CancelDuringThePollClosesThePort) {
  ScriptedPeer module;
  VirtualJob job(module);
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  job.Pump.OnPump = [&] {
    if (job.Progress.Calls.size() == 3) job.Ctx.Cancel = true;
  };
  EXPECT_EQ(StartUpload(job.Ctx, file, "SIM"), UploadOutcome::Cancelled);
  EXPECT_EQ(job.Log.Lines.back(), "Operation cancelled.");
  EXPECT_FALSE(job.Ctx.Cancel);
  EXPECT_FALSE(job.Line.IsOpen());
  EXPECT_EQ(job.Question.Asked, 0);
}

TEST(EntryPollRoads, LeftoverCancelIsClearedAtStart) {
  ScriptedPeer module;
  module.OnReceive = AnswerPolls({O(0, 1, 0)});
  VirtualJob job(module);
  job.Ctx.Cancel = true;
  RunEntry(job, module);
  EXPECT_TRUE(job.Log.Contains(kEntered));
}

TEST(JobStart, LogLinesInOrderAndDtrRaisedOnce) {
  ScriptedPeer module;
  module.OnReceive = AnswerPolls({O(0, 1, 0)});
  VirtualJob job(module);
  RunEntry(job, module);
  ASSERT_GE(job.Log.Lines.size(), 4u);
  EXPECT_EQ(job.Log.Lines[0], "Firmware read from file. Length 17 Bytes.");
  EXPECT_EQ(job.Log.Lines[1], "SIM opened.");
  EXPECT_EQ(job.Log.Lines[2], "Entering bootloader mode.");
  EXPECT_EQ(job.Log.Lines[3], kEntered);
  EXPECT_EQ(job.Line.DtrCount(), 1);
}

struct NoJobCase {
  const char* Name;
  std::string Content;  // file content; empty name when null
  std::string Port;
  UploadOutcome Outcome;
  std::vector<std::string> Lines;
};

class JobEndsEarly : public ::testing::TestWithParam<NoJobCase> {};

TEST_P(JobEndsEarly, NeverTouchesTheModule) {
  ScriptedPeer module;
  module.OnReceive = AnswerPolls({O(0, 1, 0)});
  VirtualJob job(module);
  const std::string file = testing::WriteTempFile("fw.hex", GetParam().Content);
  EXPECT_EQ(StartUpload(job.Ctx, file, GetParam().Port), GetParam().Outcome);
  EXPECT_EQ(job.Log.Lines, GetParam().Lines);
  EXPECT_TRUE(module.Received.empty());
  EXPECT_TRUE(job.Progress.Calls.empty());
  EXPECT_EQ(job.Ctx.PortHandle, -1);
}

INSTANTIATE_TEST_SUITE_P(, JobEndsEarly,
                         ::testing::Values(NoJobCase{"PortCannotBeOpened",
                                                     ":0100000055AA\r\n",
                                                     "",
                                                     UploadOutcome::PortError,
                                                     {"Firmware read from file. Length 1 Bytes."}},
                                           NoJobCase{
                                               "DamagedFile",
                                               ":0100000055AB\r\n",
                                               "SIM",
                                               UploadOutcome::FileError,
                                               {"Firmware read from file. Length 0 Bytes.",
                                                "Firmware file error: line 1: checksum mismatch"}},
                                           NoJobCase{"NoDataRecords",
                                                     ":00000001FF\r\n",
                                                     "SIM",
                                                     UploadOutcome::FileError,
                                                     {"Firmware read from file. Length 0 Bytes.",
                                                      "Firmware file error: no data records"}}),
                         [](const auto& Info) { return std::string(Info.param.Name); });

}  // namespace
}  // namespace palimbo
