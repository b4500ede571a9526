#include "sim/ideal_time.h"

#include <gtest/gtest.h>

#include "support/upload_run.h"

// Each case names only the settings it is about; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace palimbo::sim {
namespace {

using testing::TestImage;
using testing::UploadRun;

// Wire times at 57600 baud, 10 bits a byte, in whole microseconds.
constexpr int64_t k5 = 868, k9 = 1'562, k11 = 1'909, k135 = 23'437, k137 = 23'784;
// An answer of up to 62 bytes is handed on 16 ms after its first byte (173 µs) is through.
constexpr int64_t kHandover16 = 173 + 16'000;
// With 1 ms latency a 6-byte CCB answer goes whole at 1173 µs; an 8-byte one in two parts, the
// second when its 7th byte (1215 µs) has waited 1 ms.
constexpr int64_t kHandover1Short = 1'173, kHandover1Check = 1'215 + 1'000;

constexpr int64_t kTurnaround = 10'000, kFlash = 4'000;
// Settling second and one poll cycle; the direct protocol adds the 500 ms drain.
constexpr int64_t kEntry = 1'000'000 + 400'000, kDrain = 500'000;
constexpr int64_t kReboot = 500'000 + 700'000;

int64_t DirectExchange(int64_t Request, int64_t ModuleDelay) {
  return Request + ModuleDelay + kHandover16;
}
int64_t CcbExchange(int64_t Request, int64_t ModuleDelay, int64_t Handover) {
  return 5'000 + Request + ModuleDelay + Handover;
}

// Direct, 300 bytes in pages of 256: probe, two erases, two pages of two parts and a write,
// the final check and the reboot.
const int64_t kDirect300 = kEntry + kDrain + kReboot + DirectExchange(k9, kTurnaround) * 2 +
                           DirectExchange(k5, kTurnaround) * 3 +
                           DirectExchange(k135, kTurnaround) * 4 +
                           DirectExchange(k9, kTurnaround + kFlash) * 2;
// CCB, 130 bytes: enter, a full and a short block, finish, check, reboot; latency 1 ms.
const int64_t kCcb130 = kEntry + kReboot + CcbExchange(k5, kTurnaround, kHandover1Short) * 3 +
                        CcbExchange(k137, kTurnaround + kFlash, kHandover1Short) +
                        CcbExchange(k11, kTurnaround + kFlash, kHandover1Short) +
                        CcbExchange(k9, kTurnaround, kHandover1Check);

struct IdealCase {
  const char* Name;
  ModuleSettings Settings;
  size_t Length;
  int64_t LatencyMicros;
  int64_t Expected;
};

TEST(IdealTimeTest, MatchesTheHandComputation) {
  const ModuleSettings direct{.TurnaroundMicros = kTurnaround, .FlashWriteMicros = kFlash};
  ModuleSettings ccb = direct;
  ccb.Protocol = BootProtocol::Ccb;
  ModuleSettings lostErase = direct;
  lostErase.Faults = {{FaultKind::LoseAnswer, kCmdErase, 1}};
  const IdealCase cases[] = {
      {"direct, 300 bytes, 16 ms", direct, 300, 16'000, kDirect300},
      {"ccb, 130 bytes, 1 ms", ccb, 130, 1'000, kCcb130},
      // The first erase goes unanswered: its try lasts 5 ms and the erase's 1250 ms wait.
      {"direct, a lost answer", lostErase, 300, 16'000, kDirect300 + 5'000 + 1'250'000},
  };
  for (const IdealCase& c : cases) {
    SimulatedModule module(c.Settings);
    UploadRun run(module);
    ASSERT_EQ(run.Run(TestImage(c.Length)).Outcome, UploadOutcome::Verified) << c.Name;
    const IdealTime ideal = IdealUploadTime(module, {57600, c.LatencyMicros, 62});
    EXPECT_EQ(ideal.TotalMicros, c.Expected) << c.Name;
    ASSERT_EQ(ideal.HeardMicros.size(), module.Commands().size()) << c.Name;
    // Entry and drain come first; the probe of 9 bytes (or CCBEnter of 5 after 5 ms) follows.
    EXPECT_EQ(ideal.HeardMicros[0], module.Settings().Protocol == BootProtocol::Direct
                                        ? kEntry + kDrain + k9
                                        : kEntry + 5'000 + k5)
        << c.Name;
    EXPECT_EQ(ideal.ToModuleMicros + ideal.ToToolMicros + ideal.ModuleMicros + ideal.AdapterMicros +
                  ideal.ToolWaitMicros,
              ideal.TotalMicros)
        << c.Name;
  }
}

// A fast module behind a low-latency adapter answers "S" within the 5 ms after the write, so
// the drain takes the answer and the try waits its 250 ms.
TEST(IdealTimeTest, AnswerInTheDrainCostsTheWholeTry) {
  const std::vector<ReceivedCommand> heard = {
      {kCmdReboot, "", 0, std::string(7, 'r'), 1'000},
  };
  const IdealTime fast = IdealUploadTime(BootProtocol::Direct, 1, heard, {57600, 1'000, 62});
  EXPECT_EQ(fast.TotalMicros, kEntry + kDrain + 500'000 + 5'000 + 250'000 + 700'000);
  EXPECT_EQ(fast.BytesToTool, 0);
  // The same answer 5 ms later gets through, its 7th byte at 1215 µs after waiting 1 ms.
  const std::vector<ReceivedCommand> slower = {
      {kCmdReboot, "", 0, std::string(7, 'r'), 6'000},
  };
  const IdealTime ok = IdealUploadTime(BootProtocol::Direct, 1, slower, {57600, 1'000, 62});
  EXPECT_EQ(ok.TotalMicros, kEntry + kDrain + kReboot + k5 + 6'000 + 1'215 + 1'000);
  EXPECT_EQ(ok.BytesToTool, 7);
}

// On a line without adapter latency the simulated line of the tests carries bytes exactly as
// the ideal assumes, so a whole upload on virtual time, with looks at the port costing nothing,
// takes the ideal time: a wait the tool changes without the ideal knowing shows here.
TEST(IdealTimeTest, VirtualUploadTakesTheIdealTime) {
  struct Row {
    const char* Name;
    ModuleSettings Settings;
    size_t Length;
    int TimedOutTries;  // each ends on a millisecond tick, up to 1 ms either way
  };
  const ModuleSettings direct{.TurnaroundMicros = kTurnaround, .FlashWriteMicros = kFlash};
  ModuleSettings pages128 = direct, ccb = direct, noCrc = direct, fast = direct;
  pages128.PageSize = 128;
  ccb.Protocol = BootProtocol::Ccb;
  noCrc.SupportsCrc = false;
  noCrc.AnswerReboot = false;
  // Answers to the 5-byte "E" and "S" come within 5 ms of the write and are drained.
  fast.TurnaroundMicros = 3'500;
  const Row rows[] = {
      {"direct", direct, 1000, 0},
      {"direct, pages of 128", pages128, 700, 0},
      {"ccb", ccb, 1000, 0},
      {"direct without crc, reboot unanswered", noCrc, 300, 10},
      {"direct, fast module", fast, 300, 30},
  };
  // The window's wait on an empty port and the command line's longer one.
  for (const int32_t idleWait : {kIdleWaitMicros, kUnattendedIdleWaitMicros}) {
    for (const Row& r : rows) {
      SimulatedModule module(r.Settings);
      UploadRun run(module);
      run.Job.Line.SetPassCostMicros(0);
      run.Job.Ctx.IdleWaitMicros = idleWait;
      const int64_t opened = run.Job.Clock.NowMicros();
      run.Run(TestImage(r.Length));
      const int64_t took = run.Job.Clock.NowMicros() - opened;
      const int64_t ideal = IdealUploadTime(module, {57600, 0, 62}).TotalMicros;
      EXPECT_NEAR(static_cast<double>(took), static_cast<double>(ideal), r.TimedOutTries * 1000.0)
          << r.Name << ", idle wait " << idleWait << " µs";
    }
  }
}

}  // namespace
}  // namespace palimbo::sim
