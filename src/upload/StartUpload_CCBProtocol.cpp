#include "frames/ccb_exchange.h"
#include "frames/crc16.h"
#include "frames/frame.h"
#include "serial/comm.h"
#include "upload/ccb_upload.h"
#include "upload/hex_text.h"
#include "upload/job_steps.h"

namespace palimbo {

namespace {

constexpr int32_t kBlockSize = 128;
constexpr int16_t kWait = 1000;

void ClosePort(JobContext& Ctx) {
  Comm_close_32(Ctx.Port(), Ctx.PortHandle);
  Ctx.SetProgress(0, 1, kColorBlue, "");
}

enum class TransferResult { Sent, Refused, Cancelled };

// `Refused` leaves the refused block's address in `BlockAddress`.
TransferResult SendBlocks(JobContext& Ctx, Link& Link, const std::string& FirmwareString,
                          int32_t& BlockAddress) {
  const auto L = static_cast<int32_t>(FirmwareString.size());
  for (BlockAddress = 0; BlockAddress < L; BlockAddress += kBlockSize) {
    Ctx.SetProgress(BlockAddress + 1, L, kColorRed, "Programming chip..");
    Ctx.Log("Programming page 0x" + HexText(BlockAddress) + " to 0x" +
            HexText(BlockAddress + kBlockSize) + " ..");
    const std::string Block = FirmwareString.substr(BlockAddress, kBlockSize);
    if (Ctx.Cancel) return TransferResult::Cancelled;
    int32_t scratch = 0;
    // A block gets the ten tries of its exchange and no more: a refused block ends the upload.
    if (!CCBSendCommandAndGetAnswer(Link, CCBBlock, BigEndian32(BlockAddress) + Block, kWait,
                                    scratch)) {
      Ctx.Log("Transfer failed.");
      ClosePort(Ctx);
      return TransferResult::Refused;
    }
    Ctx.Log("Transfer ok.");
    Ctx.NoteProgress(2 + int64_t{BlockAddress} + static_cast<int64_t>(Block.size()));
  }
  return TransferResult::Sent;
}

}  // namespace

void RebootCcbModule(JobContext& Ctx, Link& Link) {
  RebootAndClose(Ctx, [&] {
    int32_t scratch = 0;
    CCBSendCommandAndGetAnswer(Link, CCBReboot, "", kWait, scratch);
  });
}

UploadResult StartUpload_CCBProtocol(JobContext& Ctx, std::string FirmwareString) {
  if (!IsPortOpen(Ctx.PortHandle)) return {UploadOutcome::Failed, "port not open"};
  Link link = Ctx.MakeLink();
  EscapeCommFunction(Ctx.Port(), Ctx.PortHandle, SETDTR);
  int32_t scratch = 0;
  if (!CCBSendCommandAndGetAnswer(link, CCBEnter, "", kWait, scratch)) {
    // The flag is still set when the exchange gave up for it, and then no module refused.
    const bool cancelled = Ctx.Cancel;
    RebootCcbModule(Ctx, link);
    if (cancelled) return {UploadOutcome::Cancelled, "cancelled"};
    return {UploadOutcome::Failed, "the bootloader did not take up the upload"};
  }
  Ctx.Log("Entered bootloader mode successfully.");

  const std::string LengthField = BigEndian32(static_cast<uint32_t>(FirmwareString.size()));
  int32_t AnswerCRC = 0;
  for (;;) {
    int32_t BlockAddress = 0;
    switch (SendBlocks(Ctx, link, FirmwareString, BlockAddress)) {
      case TransferResult::Cancelled:
        return CancelExit(Ctx);
      case TransferResult::Refused:
        // A cancel inside the block's exchange ends on this road too, with the flag still set.
        if (Ctx.Cancel) return {UploadOutcome::Cancelled, "cancelled"};
        return {UploadOutcome::Failed, "block 0x" + HexText(BlockAddress) + " refused"};
      case TransferResult::Sent:
        break;
    }
    CCBSendCommandAndGetAnswer(link, CCBFinish, "", kWait, scratch);
    Ctx.SetProgress(0, 2, kColorRed, "Checking chip content..");
    const int32_t ImageCRC = Crc16Of(FirmwareString);
    // A check without an answer starts the transfer over, silently; a number too big for
    // any CRC differs and starts it over too.
    if (CCBSendCommandAndGetAnswer(link, CCBCheck, LengthField, kWait, AnswerCRC)) {
      if (ImageCRC == AnswerCRC) {
        Ctx.Log("CRC test of application section confirms:");
        Ctx.Log("UPLOAD SUCCESSFULLY COMPLETED.");
        break;
      }
      Ctx.Log("CRC test of application section FAILED:");
      Ctx.Log("UPLOAD FAILED. RESTARTING!");
    }
  }
  RebootCcbModule(Ctx, link);
  return {UploadOutcome::Verified, "verified"};
}

}  // namespace palimbo
