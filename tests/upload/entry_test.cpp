// The job from reading the file to the entry into the bootloader, on virtual time.
#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "support/temp_file.h"
#include "support/virtual_job.h"
#include "upload/upload.h"

namespace palimbo {
namespace {

using namespace std::string_literals;
using testing::ScriptedPeer;
using testing::VirtualJob;

const std::string kEntered = "Entered bootloader mode successfully.";
const std::string kPollText = "Entering bootloader mode..";

// Answers the n-th poll "i" with the n-th text, 20 ms after it (nothing once they are used up).
void AnswerPolls(ScriptedPeer& Module, std::vector<std::string> Answers) {
  Module.OnReceive = [Answers, polls = size_t{0}](std::string_view Heard, int64_t Now,
                                                  std::vector<sim::Emission>& Out) mutable {
    if (Heard != "i") return;
    if (polls < Answers.size() && !Answers[polls].empty())
      Out.push_back({Now + 20'000, Answers[polls]});
    ++polls;
  };
}

std::vector<std::string> Silent(size_t Polls, std::string Then) {
  std::vector<std::string> answers(Polls);
  answers.push_back(std::move(Then));
  return answers;
}

std::string O(int b1, int b2, int b3) {
  return "O"s + static_cast<char>(b1) + static_cast<char>(b2) + static_cast<char>(b3);
}

// Runs a job on a 17-byte image; once it has entered the bootloader it is cancelled at its
// next pump, which ends it at the first "F".
UploadResult RunEntry(VirtualJob& Job, bool CancelAfterEntry = true) {
  const std::string file = testing::WriteTempFile("fw.hex", ":02000000AABB99\r\n:0100100011DE\r\n");
  Job.Pump.OnPump = [&] {
    if (CancelAfterEntry && Job.Log.Contains(kEntered)) Job.Ctx.Cancel = true;
  };
  return StartUpload(Job.Ctx, file, "SIM");
}

int PollCycles(const VirtualJob& Job) {
  return static_cast<int>(std::count_if(Job.Progress.Calls.begin(), Job.Progress.Calls.end(),
                                        [](const auto& Call) { return Call.Text == kPollText; }));
}

struct PollCase {
  const char* Name;
  std::vector<std::string> Answers;
  int PollCycles;  // cycles that found no answer, each with its blue bar
  std::string ExtraLine = "";
  bool LeftoverCancel = false;
  bool AwaitModule = false;  // a station's job, which never asks
};

void PrintTo(const PollCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class EntryPoll : public ::testing::TestWithParam<PollCase> {};

TEST_P(EntryPoll, EntersTheDirectBootloaderInTheRightCycle) {
  ScriptedPeer module;
  AnswerPolls(module, GetParam().Answers);
  VirtualJob job(module);
  job.Ctx.Cancel = GetParam().LeftoverCancel;
  job.Ctx.AwaitModule = GetParam().AwaitModule;
  EXPECT_EQ(RunEntry(job).Outcome, UploadOutcome::Cancelled);
  const std::vector<std::string> start(job.Log.Lines.begin(), job.Log.Lines.begin() + 3);
  EXPECT_EQ(start, (std::vector<std::string>{"Firmware read from file. Length 17 Bytes.",
                                             "SIM opened.", "Entering bootloader mode."}));
  EXPECT_TRUE(job.Log.Contains(kEntered));
  EXPECT_EQ(PollCycles(job), GetParam().PollCycles);
  EXPECT_EQ(job.Question.Asked, 0);
  EXPECT_EQ(job.Line.DtrCount(), 1);
  if (!GetParam().ExtraLine.empty()) {
    EXPECT_TRUE(job.Log.Contains(GetParam().ExtraLine));
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, EntryPoll, ::testing::Values(
    PollCase{"AnswerAtOnce", {O(0, 1, 0)}, 0},
    PollCase{"EchoFirst", {"i" + O(0, 1, 0)}, 0},
    PollCase{"AnswerInPieces", {"O\x00"s, "\x01\x00"s}, 1},
    PollCase{"LateBytesWaitForTheNextCycle", {"", "", "O", "\x00\x01"s, "\x00"s}, 4},
    PollCase{"ThreeStrayBytesCostThreeCycles", {"ab!" + O(0, 1, 0)}, 3},
    PollCase{"EchoNotFirstIsAStrayByte", {"zi" + O(0, 1, 0)}, 2},
    PollCase{"AnswerInThe26thCycle", Silent(25, O(0, 0, 128)), 25},
    PollCase{"LeftoverCancelIsCleared", {O(0, 1, 0)}, 0, "", true},
    PollCase{"AStationPollsOnForItsModule", Silent(60, O(0, 1, 0)), 60, "", false, true},
    PollCase{"PageSizeZeroFallsBack", {O(0, 0, 0)}, 0, "Unsupported page size 0 - using 256."},
    PollCase{"PageSize32768FallsBack", {O(0, 128, 0)}, 0,
             "Unsupported page size 32768 - using 256."},
    PollCase{"PageSizeAbove16Bits", {O(1, 0, 0)}, 0, "Unsupported page size 65536 - using 256."}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(EntryPollRoads, XAnywhereLeadsToTheCcbProtocol) {
  ScriptedPeer module;
  AnswerPolls(module, {"O\x00\x00X"s});
  VirtualJob job(module);
  RunEntry(job, /*CancelAfterEntry=*/false);
  // The CCB road begins with CCBEnter, not with a page size of 88.
  ASSERT_GE(module.Received.size(), 2u);
  EXPECT_EQ(module.Received[1].substr(0, 3), "\x53\x01\x8A"s);
  EXPECT_FALSE(job.Log.Contains(kEntered));
}

TEST(EntryPollRoads, NoAnswerAsksTheOperatorAfter26Cycles) {
  for (const bool yes : {false, true}) {
    ScriptedPeer module;
    VirtualJob job(module);
    job.Question.Answer = yes;
    const UploadResult result = RunEntry(job);
    EXPECT_EQ(job.Question.Asked, 1);
    EXPECT_EQ(job.Question.Title, "Bootloader: No response");
    EXPECT_EQ(job.Question.Text,
              "The bootloader did not respond while trying to enter it. Please check if the "
              "module is in bootloader mode by looking at the display. If it is already in "
              "bootloader mode, you can continue.\r\nContinue flashing firmware file?");
    // The bar counts 0 to 25 of 26 in blue; 26 is never shown.
    ASSERT_GE(job.Progress.Calls.size(), 26u);
    for (int i = 0; i < 26; ++i) {
      EXPECT_EQ(job.Progress.Calls[i],
                (testing::RecordingProgress::Call{i, 26, kColorBlue, kPollText}));
    }
    const auto& lines = job.Log.Lines;
    if (!yes) {
      EXPECT_EQ(result.Outcome, UploadOutcome::NoBootloader);
      EXPECT_EQ(result.Reason, "no answer from the bootloader");
      EXPECT_EQ(lines.back(), "Failed to enter bootloader mode - ABORTING..");
      EXPECT_FALSE(job.Line.IsOpen());
      EXPECT_EQ(job.Ctx.PortHandle, -1);
      // 26 cycles of 400 ms behind one second of settling.
      EXPECT_GE(job.NowMs() - 1000, 1000 + 26 * 400);
      EXPECT_LT(job.NowMs() - 1000, 1000 + 26 * 400 + 200);
    } else {
      const auto trying = std::find(lines.begin(), lines.end(),
                                    "Failed to enter bootloader mode - TRYING ANYWAYS..");
      ASSERT_NE(trying + 1, lines.end());
      EXPECT_EQ(*(trying + 1), kEntered);
    }
  }
}

TEST(EntryPollRoads, CancelDuringThePollClosesThePort) {
  ScriptedPeer module;
  VirtualJob job(module);
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  job.Pump.OnPump = [&] {
    if (job.Progress.Calls.size() == 3) job.Ctx.Cancel = true;
  };
  const UploadResult result = StartUpload(job.Ctx, file, "SIM");
  EXPECT_EQ(result.Outcome, UploadOutcome::Cancelled);
  EXPECT_EQ(result.Reason, "cancelled");
  EXPECT_EQ(job.Log.Lines.back(), "Operation cancelled.");
  EXPECT_FALSE(job.Ctx.Cancel);
  EXPECT_FALSE(job.Line.IsOpen());
}

struct NoJobCase {
  const char* Name;
  std::string Content;
  std::string Port;
  UploadOutcome Outcome;
  std::string Reason;
  std::vector<std::string> Lines;
};

void PrintTo(const NoJobCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class JobEndsEarly : public ::testing::TestWithParam<NoJobCase> {};

TEST_P(JobEndsEarly, NeverTouchesTheModule) {
  ScriptedPeer module;
  VirtualJob job(module);
  const std::string file = testing::WriteTempFile("fw.hex", GetParam().Content);
  const UploadResult result = StartUpload(job.Ctx, file, GetParam().Port);
  EXPECT_EQ(result.Outcome, GetParam().Outcome);
  EXPECT_EQ(result.Reason, GetParam().Reason);
  EXPECT_EQ(job.Log.Lines, GetParam().Lines);
  EXPECT_TRUE(module.Received.empty());
  EXPECT_TRUE(job.Progress.Calls.empty());
  EXPECT_EQ(job.Ctx.PortHandle, -1);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, JobEndsEarly, ::testing::Values(
    NoJobCase{"PortCannotBeOpened", ":0100000055AA\r\n", "", UploadOutcome::PortError,
              "cannot open port : No such file or directory",
              {"Firmware read from file. Length 1 Bytes."}},
    NoJobCase{"DamagedFile", ":0100000055AB\r\n", "SIM", UploadOutcome::FileError,
              "line 1: checksum mismatch",
              {"Firmware read from file. Length 0 Bytes.",
               "Firmware file error: line 1: checksum mismatch"}},
    NoJobCase{"NoDataRecords", ":00000001FF\r\n", "SIM", UploadOutcome::FileError,
              "no data records",
              {"Firmware read from file. Length 0 Bytes.",
               "Firmware file error: no data records"}}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

}  // namespace
}  // namespace palimbo
