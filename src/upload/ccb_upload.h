#pragma once

#include <string>

#include "upload/job_context.h"
#include "upload/upload.h"

namespace palimbo {

/// Command values of the CCB protocol (140, the answer code, is never sent).
inline constexpr int16_t CCBEnter = 138;
inline constexpr int16_t CCBBlock = 139;
inline constexpr int16_t CCBReboot = 141;
inline constexpr int16_t CCBFinish = 142;
inline constexpr int16_t CCBCheck = 143;

/// The reboot sequence of a CCB job (CCBReboot between its sleeps), then the port is closed.
void RebootCcbModule(JobContext& Ctx, Link& Link);

/// Writes the image into a module whose bootloader answered the entry poll with "X": enters,
/// sends 128-byte blocks, checks the whole image (starting over while it differs), reboots
/// and closes the port.
UploadResult StartUpload_CCBProtocol(JobContext& Ctx, std::string FirmwareString);

}  // namespace palimbo
