#include "sim/ideal_time.h"

#include <gtest/gtest.h>

#include "support/upload_run.h"

// Each case names only the settings it is about; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace palimbo::sim {
namespace {

using testing::TestImage;
using testing::UploadRun;

constexpr int64_t kTurnaround = 10'000, kFlash = 4'000;

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
