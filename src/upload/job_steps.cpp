#include "upload/job_steps.h"

#include "serial/comm.h"

namespace palimbo {

UploadResult CancelExit(JobContext& Ctx) {
  Ctx.Cancel = false;
  Ctx.Log("Operation cancelled.");
  Comm_close_32(Ctx.Port(), Ctx.PortHandle);
  return {UploadOutcome::Cancelled, "cancelled"};
}

void RebootAndClose(JobContext& Ctx, const std::function<void()>& SendReboot) {
  Ctx.SetProgress(0, 2, kColorRed, "Rebooting..");
  Ctx.Sleep(500);
  SendReboot();
  Ctx.SetProgress(1, 2, kColorBlue, "Rebooting..");
  Ctx.Sleep(500);
  Ctx.SetProgress(2, 2, kColorBlue, "Rebooting..");
  Ctx.Sleep(200);
  Comm_close_32(Ctx.Port(), Ctx.PortHandle);
  Ctx.SetProgress(0, 1, kColorBlue, "");
}

}  // namespace palimbo
