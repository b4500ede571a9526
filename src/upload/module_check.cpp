#include "upload/module_check.h"

#include <functional>

#include "frames/ccb_exchange.h"
#include "frames/crc16.h"
#include "frames/direct_exchange.h"
#include "frames/frame.h"
#include "serial/comm.h"
#include "upload/ccb_upload.h"
#include "upload/direct_upload.h"
#include "upload/hex_text.h"
#include "upload/job_steps.h"

namespace palimbo {

namespace {

// Each try gives the module as long as the checks of an upload do.
constexpr int16_t kDirectCheckWait = 2000;
constexpr int16_t kCcbCheckWait = 1000;
// A CCB bootloader need not answer its check before it was entered: three tries still bridge
// two lost frames, and give up on a bootloader that stays silent in 3 s instead of 10.
constexpr int16_t kCcbCheckTries = 3;

// Tells what the check found; the job's result where it ends here, nothing where the upload
// goes on.
std::optional<UploadResult> Conclude(JobContext& Ctx, WriteMode Mode, bool Answered,
                                     int32_t ModuleCrc, const std::string& FirmwareString,
                                     const char* NoAnswerLine,
                                     const std::function<void()>& Reboot) {
  // A cancel inside the check makes it fail like a bootloader without it; the flag tells.
  if (Ctx.Cancel) return CancelExit(Ctx);
  if (!Answered) {
    Ctx.Log(NoAnswerLine);
    if (Mode == WriteMode::UnlessSame) return std::nullopt;
    Reboot();
    return UploadResult{UploadOutcome::CannotTell, "the bootloader cannot report the checksum"};
  }
  const int32_t ImageCrc = Crc16Of(FirmwareString);
  Ctx.Log("CRC test of application section: module " + Hex4(ModuleCrc & 0xFFFF) + ", image " +
          Hex4(ImageCrc) + ".");
  const bool same = ModuleCrc == ImageCrc;
  if (Mode == WriteMode::UnlessSame) {
    if (!same) {
      Ctx.Log("Module holds another image: writing it.");
      return std::nullopt;
    }
    Ctx.Log("MODULE ALREADY HOLDS THIS IMAGE: NOT WRITTEN.");
    Reboot();
    return UploadResult{UploadOutcome::AlreadyCurrent, "already current", ModuleCrc};
  }
  Ctx.Log(same ? "MODULE HOLDS THIS IMAGE." : "MODULE HOLDS ANOTHER IMAGE.");
  Reboot();
  if (same) return UploadResult{UploadOutcome::Matches, "the module holds the image", ModuleCrc};
  return UploadResult{
      UploadOutcome::Differs,
      "the module holds checksum " + Hex4(ModuleCrc & 0xFFFF) + ", the image has " + Hex4(ImageCrc),
      ModuleCrc};
}

}  // namespace

std::optional<UploadResult> CheckDirectModule(JobContext& Ctx, const std::string& FirmwareString,
                                              WriteMode Mode) {
  Link link = Ctx.MakeLink();
  Ctx.SetProgress(0, 2, kColorBlue, "Checking content..");
  int32_t ModuleCrc = -1;
  const bool answered = SendCommandAndGetAnswer(
      link, kCmdCrc, BigEndian32(static_cast<uint32_t>(FirmwareString.size())), kDirectCheckWait,
      ModuleCrc);
  return Conclude(Ctx, Mode, answered, ModuleCrc, FirmwareString,
                  "Unable to retrieve checksum (not supported by bootloader)",
                  [&] { RebootDirectModule(Ctx, link); });
}

std::optional<UploadResult> CheckCcbModule(JobContext& Ctx, const std::string& FirmwareString,
                                           WriteMode Mode) {
  if (!IsPortOpen(Ctx.PortHandle)) return UploadResult{UploadOutcome::Failed, "port not open"};
  EscapeCommFunction(Ctx.Port(), Ctx.PortHandle, SETDTR);
  Link link = Ctx.MakeLink();
  Link check = link;
  check.Tries = kCcbCheckTries;
  Ctx.SetProgress(0, 2, kColorBlue, "Checking chip content..");
  int32_t AnswerCRC = -1;
  const bool answered = CCBSendCommandAndGetAnswer(
      check, CCBCheck, BigEndian32(static_cast<uint32_t>(FirmwareString.size())), kCcbCheckWait,
      AnswerCRC);
  return Conclude(Ctx, Mode, answered, AnswerCRC, FirmwareString,
                  "Unable to retrieve checksum (not answered before an upload)",
                  [&] { RebootCcbModule(Ctx, link); });
}

}  // namespace palimbo
