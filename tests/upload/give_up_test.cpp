// The command line's way out on virtual time: a job on a port that went away, or with a module
// that stopped answering, is given up and ends as a cancel would, with the reason.
#include <gtest/gtest.h>

#include <functional>

#include "serial/comm.h"
#include "support/upload_run.h"
#include "upload/ccb_upload.h"
#include "upload/give_up.h"

namespace palimbo {
namespace {

using sim::BootProtocol;
using sim::Fault;
using sim::FaultKind;
using sim::ModuleSettings;
using sim::SimulatedModule;
using testing::TestImage;
using testing::UploadRun;

const char kLost[] = "given up: port SIM lost: Input/output error";
const char kSilent5[] = "given up: no answer from the module for 5 s";
const char kSilent60[] = "given up: no answer from the module for 60 s";
const char kCancelled[] = "Operation cancelled.";

ModuleSettings Module(BootProtocol Protocol, std::vector<Fault> Faults = {}) {
  ModuleSettings settings;
  settings.Protocol = Protocol;
  settings.Faults = std::move(Faults);
  return settings;
}
// A bootloader that ignores the CRC commands and answers no erase: the longest a healthy
// module stays silent.
ModuleSettings SlowModule() {
  return Module(BootProtocol::Direct, {{FaultKind::LoseAnswer, 'C', sim::kEveryTime},
                                       {FaultKind::LoseAnswer, 'E', sim::kEveryTime}});
}
ModuleSettings SilentModule(BootProtocol Protocol) {
  ModuleSettings settings = Module(Protocol);
  settings.Silent = true;
  return settings;
}
// No answer to `Command` ever comes.
std::vector<Fault> LoseAll(int Command) {
  return {{FaultKind::LoseAnswer, Command, sim::kEveryTime}};
}
// The answers to `Command` from its `From`-th time on are lost, for two exchanges' tries.
std::vector<Fault> LoseFrom(int Command, int From) {
  std::vector<Fault> faults;
  for (int n = From; n < From + 20; ++n) faults.push_back({FaultKind::LoseAnswer, Command, n});
  return faults;
}

using Moment = std::function<bool(const SimulatedModule&, const testing::VirtualJob&)>;
Moment Heard(uint8_t Command, int Times) {
  return [=](const SimulatedModule& M, const testing::VirtualJob&) {
    return M.CountOf(Command) == Times;
  };
}
Moment PollCycle(size_t Cycle) {
  return [=](const SimulatedModule&, const testing::VirtualJob& Job) {
    return Job.Progress.Calls.size() == Cycle;
  };
}

struct GiveUpCase {
  const char* Name;
  ModuleSettings Settings;
  Moment Cut;  // when the line is cut; none for a module that falls silent
  int32_t NoAnswerSeconds;
  UploadOutcome Outcome;
  std::string Reason;
  std::string LastLine;
  int64_t MaxMsToEnd;  // from the cut, or from the module's last answer, to the job's end
  bool AnswerYes = false;
  WriteMode Mode = WriteMode::Always;
};

void PrintTo(const GiveUpCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class GiveUp : public ::testing::TestWithParam<GiveUpCase> {};

TEST_P(GiveUp, EndsTheJobSoonWithTheReason) {
  const GiveUpCase& c = GetParam();
  SimulatedModule module(c.Settings);
  UploadRun run(module);
  run.Job.Question.Answer = c.AnswerYes;
  GiveUpWatch watch("SIM", c.NoAnswerSeconds);
  int64_t cutAt = -1, looksAtCut = 0;
  int gaveUp = 0;
  run.Job.Pump.OnPump = [&] {
    if (c.Cut && cutAt < 0 && c.Cut(module, run.Job)) {
      run.Job.Line.CutAfterBytes(0);
      cutAt = run.Job.NowMs();
      looksAtCut = run.Job.Line.Looks();
    }
    gaveUp += watch.Check(run.Job.Ctx);
  };
  const int64_t start = run.Job.NowMs();
  const UploadResult result = run.Run(TestImage(700), false, c.Mode);
  const int64_t end = run.Job.NowMs();
  if (c.AnswerYes) {
    EXPECT_GE(end - start, 1000 + 26 * 400 + 60'000) << "the silence counts from the Yes";
  }

  EXPECT_EQ(result.Outcome, c.Outcome);
  EXPECT_EQ(result.Reason, c.Reason);
  EXPECT_EQ(gaveUp, c.Reason.find("given up") != std::string::npos ? 1 : 0)
      << "a watch gives up once";
  EXPECT_EQ(run.Job.Log.Lines.back(), c.LastLine);
  EXPECT_FALSE(run.Job.Line.IsOpen());
  EXPECT_EQ(run.Job.Ctx.PortHandle, -1);
  if (c.Cut) {
    ASSERT_GE(cutAt, 0) << "the cut never came";
    EXPECT_LE(end - cutAt, c.MaxMsToEnd);
    // The job idles on the lost port: a look every few milliseconds, not hundreds in one.
    EXPECT_LE(run.Job.Line.Looks() - looksAtCut, (end - cutAt) / 2 + 20);
  } else if (c.Outcome == UploadOutcome::GivenUp) {
    // A module that answers without taking the image is given twice the time.
    const bool answers = c.Reason.find("no progress") != std::string::npos;
    const int64_t since =
        end - (answers ? run.Job.Ctx.LastProgressTick : run.Job.Ctx.LastAnswerTick);
    const int64_t limit = (answers ? 2 : 1) * c.NoAnswerSeconds * 1000;
    EXPECT_GE(since, limit);
    EXPECT_LE(since, limit + c.MaxMsToEnd);
  }
}

constexpr auto kDirect = BootProtocol::Direct;
constexpr auto kCcb = BootProtocol::Ccb;

// clang-format off
INSTANTIATE_TEST_SUITE_P(, GiveUp, ::testing::Values(
    // The line is cut: the next look notices, the next pump gives up.
    GiveUpCase{"DirectCutInThePagePass", Module(kDirect), Heard('F', 3), 60,
               UploadOutcome::GivenUp, kLost, kCancelled, 50},
    // The final check has no cancel exit: it fails, and the reboot runs out on the dead port.
    GiveUpCase{"DirectCutInTheFinalCheck", Module(kDirect), Heard('C', 2), 60,
               UploadOutcome::GivenUp, kLost,
               "Unable to retrieve checksum (not supported by bootloader)", 1500},
    GiveUpCase{"CcbCutInTheEntryPoll", SilentModule(kCcb), PollCycle(3), 60,
               UploadOutcome::GivenUp, kLost, kCancelled, 1000},
    GiveUpCase{"CcbCutInTheTransfer", Module(kCcb), Heard(CCBBlock, 2), 60,
               UploadOutcome::GivenUp, kLost, "Transfer failed.", 50},
    GiveUpCase{"CcbCutInTheFinalCheck", Module(kCcb), Heard(CCBCheck, 1), 60,
               UploadOutcome::GivenUp, kLost, kCancelled, 50},
    // A module confirmed the image before the port went: given up all the same, and the
    // reason tells of the image.
    GiveUpCase{"CcbCutInTheReboot", Module(kCcb), Heard(CCBReboot, 1), 60,
               UploadOutcome::GivenUp,
               "given up after the image was verified: port SIM lost: Input/output error",
               "UPLOAD SUCCESSFULLY COMPLETED.", 1500},
    // The module falls silent: the time counts from its last positive answer, or from the
    // port's opening when none came.
    GiveUpCase{"DirectSilentInThePagePass", Module(kDirect, LoseAll('F')), nullptr, 5,
               UploadOutcome::GivenUp, kSilent5, kCancelled, 50},
    GiveUpCase{"DirectSilentInTheFinalCheck", Module(kDirect, LoseFrom('C', 2)), nullptr, 5,
               UploadOutcome::GivenUp, kSilent5,
               "Unable to retrieve checksum (not supported by bootloader)", 1500},
    GiveUpCase{"CcbSilentInTheEntryPoll", SilentModule(kCcb), nullptr, 5,
               UploadOutcome::GivenUp, kSilent5, kCancelled, 500},
    GiveUpCase{"CcbSilentInTheTransfer", Module(kCcb, LoseFrom(CCBBlock, 3)), nullptr, 5,
               UploadOutcome::GivenUp, kSilent5, "Transfer failed.", 50},
    GiveUpCase{"CcbSilentInTheFinalCheck", Module(kCcb, LoseAll(CCBCheck)), nullptr, 5,
               UploadOutcome::GivenUp, kSilent5, kCancelled, 50},
    // Entry without an answer and the operator's Yes: the silence counts from the Yes.
    GiveUpCase{"SilentModuleAfterYes", SilentModule(kDirect), nullptr, 60,
               UploadOutcome::GivenUp, kSilent60, kCancelled, 50, /*AnswerYes=*/true},
    // A page the module never takes: it answers every time, but gets no further.
    GiveUpCase{"DirectPageNeverTaken", Module(kDirect, {{FaultKind::BadWrite, 'P', 0}}), nullptr,
               5, UploadOutcome::GivenUp,
               "given up: no progress for 10 s: the module answers, but takes no further part of "
               "the image", kCancelled, 300},
    // The shortest give-up the command line takes lets the slowest healthy module through.
    GiveUpCase{"SlowModuleLetThrough", SlowModule(), nullptr, kLongestHealthySilenceSeconds,
               UploadOutcome::Unverified, "written; the bootloader cannot report the checksum",
               "Unable to retrieve checksum (not supported by bootloader)", 0},
    GiveUpCase{"SlowModuleGivenUpASecondSooner", SlowModule(), nullptr,
               kLongestHealthySilenceSeconds - 1, UploadOutcome::GivenUp,
               "given up: no answer from the module for 35 s", kCancelled, 50},
    // A check never erases: its shortest give-up is shorter, and lets the same module through.
    GiveUpCase{"SlowModuleCheckedThrough", SlowModule(), nullptr,
               kLongestHealthyCheckSilenceSeconds, UploadOutcome::CannotTell,
               "the bootloader cannot report the checksum",
               "Unable to retrieve checksum (not supported by bootloader)", 0, false,
               WriteMode::Never},
    GiveUpCase{"SlowModuleCheckGivenUpASecondSooner", SlowModule(), nullptr,
               kLongestHealthyCheckSilenceSeconds - 1, UploadOutcome::GivenUp,
               "given up: no answer from the module for 21 s",
               "Unable to retrieve checksum (not supported by bootloader)", 1500, false,
               WriteMode::Never},
    // Without a give-up the operator's question ends a silent entry, as it always did.
    GiveUpCase{"SilentEntryAskedFirst", SilentModule(kDirect), nullptr, 60,
               UploadOutcome::NoBootloader, "no answer from the bootloader",
               "Failed to enter bootloader mode - ABORTING..", 12'000},
    // The job's own close at its end is no loss.
    GiveUpCase{"NothingGoesWrong", Module(kDirect), nullptr, 60, UploadOutcome::Verified,
               "verified", "UPLOAD SUCCESSFULLY COMPLETED.", 2000}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(GiveUpWatchAlone, LooksOnlyAtAJobWithItsPortOpenAndNeverForSilenceAtZero) {
  SimulatedModule module;
  testing::VirtualJob job(module);
  GiveUpWatch never("SIM", 0), soon("SIM", 1);
  // Before the job opens its port there is nothing to watch, however long ago that was.
  EXPECT_FALSE(soon.Check(job.Ctx));
  job.OpenPort();
  job.Ctx.LastAnswerTick = job.Clock.GetTickCount();
  job.Clock.Sleep(999);
  EXPECT_FALSE(soon.Check(job.Ctx));
  job.Clock.Sleep(1);
  EXPECT_FALSE(never.Check(job.Ctx));
  EXPECT_FALSE(job.Ctx.Cancel);
  EXPECT_TRUE(soon.Check(job.Ctx));
  EXPECT_TRUE(job.Ctx.Cancel);
  EXPECT_EQ(job.Ctx.GiveUpReason, "no answer from the module for 1 s");
  // Once given up, a loss adds nothing; the first reason stands.
  job.Line.CutAfterBytes(0, "gone");
  std::string chunk;
  Comm_lesen_32(job.Line, job.Ctx.PortHandle, chunk);
  EXPECT_FALSE(soon.Check(job.Ctx));
  EXPECT_EQ(job.Ctx.GiveUpReason, "no answer from the module for 1 s");
  EXPECT_FALSE(never.Check(job.Ctx));
}

// A module that goes away while the line settles, before any pump: the settling second idles
// on the lost port, and the first poll cycle gives up.
class LostAtDtr final : public sim::ModulePeer {
 public:
  sim::SimLine* Line = nullptr;
  void Receive(std::string_view, int64_t, std::vector<sim::Emission>&) override {}
  void DtrRaised(int64_t) override { Line->CutAfterBytes(0, "No such device"); }
};

TEST(GiveUpWhileSettling, TheDrainIdlesAndTheFirstCycleGivesUp) {
  LostAtDtr module;
  testing::VirtualJob job(module);
  module.Line = &job.Line;
  GiveUpWatch watch("SIM", 60);
  job.Pump.OnPump = [&] { watch.Check(job.Ctx); };
  const std::string file = testing::WriteTempFile("fw.hex", ":0100000055AA\r\n");
  const int64_t start = job.NowMs();
  const UploadResult result = StartUpload(job.Ctx, file, "SIM");
  EXPECT_EQ(result.Outcome, UploadOutcome::GivenUp);
  EXPECT_EQ(result.Reason, "given up: port SIM lost: No such device");
  EXPECT_EQ(job.Log.Lines.back(), kCancelled);
  EXPECT_LE(job.NowMs() - start, 1000 + 250);
  // One second of settling and one cycle of the poll, a look every few milliseconds.
  EXPECT_LE(job.Line.Looks(), 250);
}

}  // namespace
}  // namespace palimbo
