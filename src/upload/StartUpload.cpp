#include "frames/frame.h"
#include "frames/link.h"
#include "image/hex_file.h"
#include "serial/comm.h"
#include "serial/timer_resolution.h"
#include "upload/ccb_upload.h"
#include "upload/direct_upload.h"
#include "upload/job_steps.h"
#include "upload/module_check.h"
#include "upload/upload.h"

namespace palimbo {

namespace {

constexpr int32_t kDefaultPageSize = 256;
constexpr int32_t kEntryCycles = 26;

const char* const kNoResponseTitle = "Bootloader: No response";
const char* const kNoResponseText =
    "The bootloader did not respond while trying to enter it. Please check if the module is in "
    "bootloader mode by looking at the display. If it is already in bootloader mode, you can "
    "continue.\r\nContinue flashing firmware file?";

// Lets the line settle after DTR: everything the module sends in this second is dropped.
void SettlingDrain(JobContext& Ctx) {
  Link link = Ctx.MakeLink();
  std::string discarded;
  const int64_t T0 = Ctx.GetTickCount();
  while (T0 + 1000 > Ctx.GetTickCount()) {
    Comm_lesen_32(Ctx.Port(), Ctx.PortHandle, discarded);
    WaitBefore(link, T0 + 1000);
  }
}

// The page size of an "O" answer; sizes the page loops cannot step by fall back to 256.
int32_t PageSizeOf(JobContext& Ctx, const std::string& Reply) {
  const int32_t size = static_cast<uint8_t>(Reply[1]) * 65536 +
                       static_cast<uint8_t>(Reply[2]) * 256 + static_cast<uint8_t>(Reply[3]);
  if (size == 0 || size >= 32768) {
    Ctx.Log("Unsupported page size " + std::to_string(size) + " - using 256.");
    return kDefaultPageSize;
  }
  return size;
}

enum class EntryResult { Direct, Ccb, Cancelled, Refused };

// Polls with "i" until the bootloader answers "O" with its page size or "X" for the CCB
// protocol, at most 26 cycles; then the operator decides, where going on without an answer
// means anything (`MayAsk`).
EntryResult PollBootloader(JobContext& Ctx, int32_t& PageSize, bool MayAsk) {
  std::string ReplyBuffer;
  std::string Chunk;
  for (int32_t EntryCycles = 0;;) {
    Ctx.Sleep(200);
    Ctx.PumpEvents();
    if (Ctx.Cancel) return EntryResult::Cancelled;
    Comm_schreiben_32(Ctx.Port(), Ctx.PortHandle, "i");
    Ctx.Sleep(200);
    Ctx.PumpEvents();
    Comm_lesen_32(Ctx.Port(), Ctx.PortHandle, Chunk);
    // Only the echo at the head of a read is ours; an "i" further on is a stray byte.
    if (!Chunk.empty() && Chunk[0] == 'i') Chunk.erase(0, 1);
    ReplyBuffer += Chunk;
    if (ReplyBuffer.find('X') != std::string::npos) {
      Ctx.LastAnswerTick = Ctx.GetTickCount();
      Ctx.NoteProgress(1);
      Ctx.Protocol = "ccb";
      return EntryResult::Ccb;
    }
    if (ReplyBuffer.size() > 3) {
      if (ReplyBuffer[0] == 'O') {
        Ctx.LastAnswerTick = Ctx.GetTickCount();
        Ctx.NoteProgress(1);
        Ctx.Protocol = "direct";
        PageSize = PageSizeOf(Ctx, ReplyBuffer);
        return EntryResult::Direct;
      }
      ReplyBuffer.erase(0, 1);
    }
    Ctx.PumpEvents();
    Ctx.SetProgress(EntryCycles, kEntryCycles, kColorBlue, "Entering bootloader mode..");
    if (++EntryCycles >= kEntryCycles) {
      if (!Ctx.AwaitModule) break;
      EntryCycles = 0;
    }
  }
  if (!MayAsk || !Ctx.AskYesNo(kNoResponseTitle, kNoResponseText)) {
    Ctx.Log("Failed to enter bootloader mode - ABORTING..");
    Comm_close_32(Ctx.Port(), Ctx.PortHandle);
    return EntryResult::Refused;
  }
  Ctx.Log("Failed to enter bootloader mode - TRYING ANYWAYS..");
  // The operator vouches for the module, so the time spent on the question is no silence.
  Ctx.LastAnswerTick = Ctx.GetTickCount();
  Ctx.NoteProgress(1);
  Ctx.Protocol = "direct";
  PageSize = kDefaultPageSize;
  return EntryResult::Direct;
}

// The roads of one job on its image; StartUpload adds what a give-up makes of their ends.
UploadResult RunJob(JobContext& Ctx, const HexReadResult& Read, const std::string& ComPort,
                    WriteMode Mode) {
  const std::string& FirmwareString = Read.FirmwareString;
  Ctx.Log("Firmware read from file. Length " + std::to_string(FirmwareString.size()) + " Bytes.");
  // A module is never erased for a file that gives no image.
  if (FirmwareString.empty()) {
    const std::string reason = Read.Ok() ? std::string("no data records") : Read.Reason;
    Ctx.Log("Firmware file error: " + reason);
    return {UploadOutcome::FileError, reason};
  }
  // Opening a network port waits for a name, a connection and the server; CANCEL works there.
  Ctx.Port().SetOpenInterrupt([&Ctx] {
    Ctx.PumpEvents();
    return Ctx.Cancel;
  });
  Ctx.PortHandle = Comm_oeffnen_32(Ctx.Port(), ComPort + ":57600,N,8,1");
  Ctx.Port().SetOpenInterrupt({});
  int32_t PageSize = kDefaultPageSize;
  if (!IsPortOpen(Ctx.PortHandle)) {
    if (Ctx.Cancel) return CancelExit(Ctx);
    return {UploadOutcome::PortError,
            "cannot open port " + ComPort + ": " + Ctx.Port().LastOpenError()};
  }
  Ctx.LastAnswerTick = Ctx.GetTickCount();
  Ctx.NoteProgress(0);
  EscapeCommFunction(Ctx.Port(), Ctx.PortHandle, SETDTR);
  Ctx.Log(ComPort + " opened.");
  SettlingDrain(Ctx);
  Ctx.Log("Entering bootloader mode.");

  // A check without writing has no use for a module that does not answer.
  switch (PollBootloader(Ctx, PageSize, Mode != WriteMode::Never)) {
    case EntryResult::Ccb:
      if (Mode != WriteMode::Always) {
        if (auto checked = CheckCcbModule(Ctx, FirmwareString, Mode)) return *checked;
      }
      return StartUpload_CCBProtocol(Ctx, FirmwareString);
    case EntryResult::Cancelled:
      return CancelExit(Ctx);
    case EntryResult::Refused:
      return {UploadOutcome::NoBootloader, "no answer from the bootloader"};
    case EntryResult::Direct:
      break;
  }
  // Answers to further polls that the module sent meanwhile are dropped here.
  Ctx.PumpEvents();
  Ctx.Sleep(500);
  Ctx.PumpEvents();
  std::string discarded;
  Comm_lesen_32(Ctx.Port(), Ctx.PortHandle, discarded);
  Ctx.Log("Entered bootloader mode successfully.");
  if (Mode != WriteMode::Always) {
    if (auto checked = CheckDirectModule(Ctx, FirmwareString, Mode)) return *checked;
  }

  DirectUpload job{Ctx, FirmwareString, PageSize};
  ProbeAndErase(job);
  return VerifyAndReboot(job);
}

}  // namespace

UploadResult StartUpload(JobContext& Ctx, const std::string& FirmwareFile,
                         const std::string& ComPort) {
  const HexReadResult Read = ReadHexFile(FirmwareFile, Ctx.IsEncrypted);
  return StartUpload(Ctx, Read, ComPort);
}

UploadResult StartUpload(JobContext& Ctx, const HexReadResult& Image, const std::string& ComPort,
                         WriteMode Mode) {
  const FineTimerResolution fineTimer;
  Ctx.Cancel = false;
  Ctx.LastAnswerTick = -1;
  Ctx.ResetProgress();
  Ctx.GiveUpReason.clear();
  Ctx.Protocol.clear();
  UploadResult result = RunJob(Ctx, Image, ComPort, Mode);
  if (Ctx.GiveUpReason.empty()) return result;
  // A give-up ends the job the way a cancel does, and whichever road that took, the front end
  // must learn it was given up; the reason still tells an image the module had confirmed.
  if (result.Outcome == UploadOutcome::Verified) {
    return {UploadOutcome::GivenUp, "given up after the image was verified: " + Ctx.GiveUpReason};
  }
  return {UploadOutcome::GivenUp, "given up: " + Ctx.GiveUpReason};
}

}  // namespace palimbo
