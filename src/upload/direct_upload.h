#pragma once

#include <cstdint>
#include <string>

#include "upload/job_context.h"
#include "upload/upload.h"

namespace palimbo {

/// Command bytes of the direct protocol.
inline constexpr int16_t kCmdCrc = 'C';
inline constexpr int16_t kCmdErase = 'E';
inline constexpr int16_t kCmdFill = 'F';
inline constexpr int16_t kCmdWritePage = 'P';
inline constexpr int16_t kCmdWriteEncrypted = 'D';
inline constexpr int16_t kCmdReboot = 'S';

/// The working state of a direct upload after the bootloader has been entered.
struct DirectUpload {
  JobContext& Ctx;
  const std::string& FirmwareString;
  int32_t PageSize = 256;
  bool SupportsCRC = false;
  int32_t Status = 0;
  int32_t PageCRC = 0;
};

/// Asks whether the bootloader reports CRCs, then erases the module twice.
void ProbeAndErase(DirectUpload& Job);

/// Writes every page of the image, each until the module returns its CRC.
/// Returns false when the job took its cancel exit (the port is then closed).
bool RunPagePass(DirectUpload& Job);

/// Tells the module to reboot ("S") and closes the port, as every direct job ends.
void RebootDirectModule(JobContext& Ctx, Link& Link);

/// Checks the whole image, starting new page passes while the module's CRC differs, then
/// reboots the module and closes the port.
UploadResult VerifyAndReboot(DirectUpload& Job);

}  // namespace palimbo
