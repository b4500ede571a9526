// The waits a module sees, to the tick, on virtual time: each command's wait per try, each
// sleep of the entry and of the reboot. A change of any of them moves a write by a tick or more.
#include <gtest/gtest.h>

#include <map>

#include "support/upload_run.h"

namespace palimbo {
namespace {

using sim::BootProtocol;
using sim::FaultKind;
using sim::ModuleSettings;
using sim::SimulatedModule;
using testing::TestImage;
using testing::UploadRun;

constexpr auto kDirect = BootProtocol::Direct;
constexpr auto kCcb = BootProtocol::Ccb;

// The tick of each write of a framed command (by its command byte) and of each entry poll.
std::map<int, std::vector<int64_t>> WriteTicks(const sim::SimLine& Line) {
  std::map<int, std::vector<int64_t>> ticks;
  for (const auto& chunk : Line.Written()) {
    const int key = chunk.Bytes == "i" ? 'i' : static_cast<uint8_t>(chunk.Bytes[2]);
    ticks[key].push_back(chunk.AtMicros / 1000);
  }
  return ticks;
}

// The module loses one answer; the tool sends the same frame again when its try is over: the
// sleep of the try (5 ms) plus the wait of the command.
struct RetryCase {
  const char* Name;
  BootProtocol Protocol;
  int Command;
  int Lost;  // which hearing of the command goes unanswered
  int64_t Gap;
};

void PrintTo(const RetryCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class RetryAfter : public ::testing::TestWithParam<RetryCase> {};

TEST_P(RetryAfter, SleepPlusTheCommandsWait) {
  const RetryCase& c = GetParam();
  ModuleSettings settings;
  settings.Protocol = c.Protocol;
  settings.Faults = {{FaultKind::LoseAnswer, c.Command, c.Lost}};
  SimulatedModule module(settings);
  UploadRun run(module);
  EXPECT_EQ(run.Run(TestImage(300)).Outcome, UploadOutcome::Verified);
  const std::vector<int64_t> ticks = WriteTicks(run.Job.Line)[c.Command];
  ASSERT_GT(ticks.size(), static_cast<size_t>(c.Lost));
  EXPECT_EQ(ticks[c.Lost] - ticks[c.Lost - 1], c.Gap);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, RetryAfter, ::testing::Values(
    RetryCase{"DirectCrcProbe", kDirect, 'C', 1, 5 + 1000},
    RetryCase{"DirectErase", kDirect, 'E', 1, 5 + 1250},
    RetryCase{"DirectBufferPart", kDirect, 'F', 2, 5 + 250},
    RetryCase{"DirectPage", kDirect, 'P', 1, 5 + 250},
    RetryCase{"DirectImageCheck", kDirect, 'C', 2, 5 + 2000},
    RetryCase{"DirectReboot", kDirect, 'S', 1, 5 + 250},
    RetryCase{"CcbEnter", kCcb, sim::kCcbEnter, 1, 5 + 1000},
    RetryCase{"CcbBlock", kCcb, sim::kCcbBlock, 2, 5 + 1000},
    RetryCase{"CcbFinish", kCcb, sim::kCcbFinish, 1, 5 + 1000},
    RetryCase{"CcbCheck", kCcb, sim::kCcbCheck, 1, 5 + 1000},
    RetryCase{"CcbReboot", kCcb, sim::kCcbReboot, 1, 5 + 1000}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// The sleeps between the events of a whole upload, from the job's start to its end.
struct StepCase {
  const char* Name;
  BootProtocol Protocol;
  const char* From;
  const char* To;
  int64_t Gap;
};

void PrintTo(const StepCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class Steps : public ::testing::TestWithParam<StepCase> {};

TEST_P(Steps, TakeTheirSleeps) {
  const StepCase& c = GetParam();
  ModuleSettings settings;
  settings.Protocol = c.Protocol;
  settings.AnswerAfterPolls = 1;  // so that two polls go out
  SimulatedModule module(settings);
  UploadRun run(module);
  std::map<std::string, int64_t> at = {{"start", run.Job.NowMs()}};
  EXPECT_EQ(run.Run(TestImage(300)).Outcome, UploadOutcome::Verified);
  at["end"] = run.Job.NowMs();
  auto ticks = WriteTicks(run.Job.Line);
  at["poll 1"] = ticks['i'].at(0);
  at["poll 2"] = ticks['i'].at(1);
  at["first frame"] =
      std::min(ticks['C'].empty() ? INT64_MAX : ticks['C'][0],
               ticks[sim::kCcbEnter].empty() ? INT64_MAX : ticks[sim::kCcbEnter][0]);
  at["reboot frame"] = c.Protocol == kDirect ? ticks['S'].at(0) : ticks[sim::kCcbReboot].at(0);
  const auto& calls = run.Job.Progress.Calls;
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].Text == "Rebooting..") {
      at["rebooting " + std::to_string(calls[i].Val)] = run.Job.Progress.Ticks[i];
    }
  }
  ASSERT_TRUE(at.count(c.From) && at.count(c.To)) << c.From << " or " << c.To << " never came";
  EXPECT_EQ(at[c.To] - at[c.From], c.Gap);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, Steps, ::testing::Values(
    // The line settles for a second, then each poll cycle sleeps 200 ms before and after its "i".
    StepCase{"SettlingThenFirstPoll", kDirect, "start", "poll 1", 1000 + 200},
    StepCase{"PollCycle", kDirect, "poll 1", "poll 2", 400},
    // The answer is read 200 ms after the poll; the direct upload then lets 500 ms pass.
    StepCase{"DirectEntryToProbe", kDirect, "poll 2", "first frame", 200 + 500},
    // The CCB upload goes straight to its first try, which sleeps 5 ms before writing.
    StepCase{"CcbEntryToEnter", kCcb, "poll 2", "first frame", 200 + 5},
    StepCase{"DirectRebootFrame", kDirect, "rebooting 0", "reboot frame", 500},
    StepCase{"DirectRebootSecondSleep", kDirect, "rebooting 1", "rebooting 2", 500},
    StepCase{"DirectRebootLastSleep", kDirect, "rebooting 2", "end", 200},
    StepCase{"CcbRebootFrame", kCcb, "rebooting 0", "reboot frame", 500 + 5},
    StepCase{"CcbRebootSecondSleep", kCcb, "rebooting 1", "rebooting 2", 500},
    StepCase{"CcbRebootLastSleep", kCcb, "rebooting 2", "end", 200}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

}  // namespace
}  // namespace palimbo
