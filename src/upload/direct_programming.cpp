#include <algorithm>

#include "frames/crc16.h"
#include "frames/direct_exchange.h"
#include "frames/frame.h"
#include "serial/comm.h"
#include "upload/direct_upload.h"
#include "upload/hex_text.h"

namespace palimbo {

namespace {

constexpr int32_t kPartSize = 128;

// The page's bytes as the module will hold them: image bytes, then 0xFF past the image.
int32_t ComputePageCRC(const std::string& Image, int32_t PageAddress, int32_t PageSize) {
  int32_t crc = kCrcStart;
  for (int32_t i = 0; i < PageSize; ++i) {
    const size_t at = static_cast<size_t>(PageAddress) + static_cast<size_t>(i);
    const uint8_t b = at < Image.size() ? static_cast<uint8_t>(Image[at]) : 0xFF;
    crc = UpdateCRC16(crc, b);
  }
  return crc;
}

std::string PartBytes(const std::string& Image, int32_t From) {
  std::string part;
  if (static_cast<size_t>(From) < Image.size()) part = Image.substr(From, kPartSize);
  part.resize(kPartSize, static_cast<char>(0xFF));
  return part;
}

// Sends one 128-byte part until it is taken (twice in a row for a bootloader without CRCs).
// Returns false when the operator cancelled.
bool SendPart(DirectUpload& Job, Link& Link, int32_t PageAddress, int32_t Offset) {
  JobContext& Ctx = Job.Ctx;
  std::string data;
  data += static_cast<char>(Offset / 256);
  data += static_cast<char>(Offset % 256);
  data += PartBytes(Job.FirmwareString, PageAddress + Offset);
  int16_t TransferCount = 0;
  Ctx.Log("Transmitting buffer part " + std::to_string(Offset / kPartSize + 1) + " of " +
          std::to_string(Job.PageSize / kPartSize));
  for (;;) {
    int32_t scratch = 0;
    if (SendCommandAndGetAnswer(Link, kCmdFill, data, 250, scratch)) {
      ++TransferCount;
      if (TransferCount > 1 || Job.SupportsCRC) {
        Ctx.Log("Transfer successfull..");
        return true;
      }
      Ctx.Log("First transfer okay..");
    } else {
      if (Ctx.Cancel) return false;
      Ctx.Log("TOO MANY TRIES. MODULE IS BROKEN!");
    }
  }
}

// One attempt at a page. Returns false when the operator cancelled.
bool WritePageOnce(DirectUpload& Job, Link& Link, int32_t PageAddress) {
  JobContext& Ctx = Job.Ctx;
  const auto L = static_cast<int32_t>(Job.FirmwareString.size());
  Ctx.SetProgress(PageAddress + 1, L, kColorRed, "Programming chip..");
  Job.PageCRC = ComputePageCRC(Job.FirmwareString, PageAddress, Job.PageSize);
  Ctx.Log("Programming page 0x" + HexText(PageAddress) + " to 0x" +
          HexText(PageAddress + Job.PageSize) + " (CRC=0x" + Hex4(Job.PageCRC) + ")");
  for (int32_t offset = 0; offset < Job.PageSize; offset += kPartSize) {
    if (!SendPart(Job, Link, PageAddress, offset)) return false;
  }
  Ctx.Log("Writing FLASH");
  const int16_t command = Ctx.IsEncrypted ? kCmdWriteEncrypted : kCmdWritePage;
  if (SendCommandAndGetAnswer(Link, command, BigEndian32(PageAddress), 250, Job.Status)) {
    if (Job.Status == Job.PageCRC) {
      Ctx.Log("Flash write successfull (0x" + HexText(PageAddress) + ")..");
    } else {
      Ctx.Log("Flash write NOT successfull (0x" + HexText(PageAddress) + "): BAD CRC (0x" +
              Hex4(Job.Status) + "). Try again..");
    }
  } else {
    if (Ctx.Cancel) return false;
    Ctx.Log("MODULE IS BROKEN.");
  }
  return true;
}

}  // namespace

void ProbeAndErase(DirectUpload& Job) {
  JobContext& Ctx = Job.Ctx;
  Link link = Ctx.MakeLink();
  int32_t scratch = 0;
  // The probe asks for the CRC of 256 bytes; only whether the module can answer counts.
  Job.SupportsCRC = SendCommandAndGetAnswer(link, kCmdCrc, BigEndian32(256), 1000, scratch);
  Ctx.Log(Job.SupportsCRC ? "Bootloader supports CRC checks - skipping double page write."
                          : "Bootloader does not support CRC checks - enabling double page write.");
  SendCommandAndGetAnswer(link, kCmdErase, "", 1250, scratch);
  SendCommandAndGetAnswer(link, kCmdErase, "", 1250, scratch);
}

bool RunPagePass(DirectUpload& Job) {
  Link link = Job.Ctx.MakeLink();
  const auto L = static_cast<int32_t>(Job.FirmwareString.size());
  for (int32_t PageAddress = 0; PageAddress < L; PageAddress += Job.PageSize) {
    // A page is done only when the module returns its CRC, whatever the probe said.
    do {
      if (!WritePageOnce(Job, link, PageAddress)) return false;
    } while (Job.Status != Job.PageCRC);
    Job.Ctx.NoteProgress(2 + int64_t{PageAddress} + Job.PageSize);
  }
  return true;
}

}  // namespace palimbo
