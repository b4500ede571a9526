#include "frames/crc16.h"
#include "frames/direct_exchange.h"
#include "frames/frame.h"
#include "upload/direct_upload.h"
#include "upload/job_steps.h"

namespace palimbo {

void RebootDirectModule(JobContext& Ctx, Link& Link) {
  RebootAndClose(Ctx, [&] {
    int32_t scratch = 0;
    SendCommandAndGetAnswer(Link, kCmdReboot, "", 250, scratch);
  });
}

UploadResult VerifyAndReboot(DirectUpload& Job) {
  JobContext& Ctx = Job.Ctx;
  Link link = Ctx.MakeLink();
  bool UploadDone = false;
  bool verified = false;
  while (!UploadDone) {
    if (!RunPagePass(Job)) return CancelExit(Ctx);
    const std::string LengthField = BigEndian32(static_cast<uint32_t>(Job.FirmwareString.size()));
    Ctx.SetProgress(0, 2, kColorRed, "Checking content..");
    Ctx.PumpEvents();
    if (SendCommandAndGetAnswer(link, kCmdCrc, LengthField, 2000, Job.Status)) {
      // The module's CRC covers exactly the image, without the fill of the last page.
      Job.PageCRC = Crc16Of(Job.FirmwareString);
      if (Job.PageCRC == Job.Status) {
        Ctx.Log("CRC test of application section confirms:");
        Ctx.Log("UPLOAD SUCCESSFULLY COMPLETED.");
        UploadDone = true;
        verified = true;
      } else {
        Ctx.Log("CRC test of application section FAILED:");
        Ctx.Log("UPLOAD FAILED. RESTARTING!");
      }
    } else {
      Ctx.Log("Unable to retrieve checksum (not supported by bootloader)");
      UploadDone = true;
    }
  }

  RebootDirectModule(Ctx, link);
  if (verified) return {UploadOutcome::Verified, "verified"};
  // A cancel in the check makes it fail like a bootloader without it; the flag tells them apart.
  if (Ctx.Cancel) return {UploadOutcome::Unverified, "written; the check was cancelled"};
  return {UploadOutcome::Unverified, "written; the bootloader cannot report the checksum"};
}

}  // namespace palimbo
