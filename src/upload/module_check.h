#pragma once

#include <optional>
#include <string>

#include "upload/job_context.h"
#include "upload/upload.h"

namespace palimbo {

/// Asks a direct bootloader, entered and drained, for its checksum over the image's length
/// and compares it with the image's own. With `WriteMode::Never`, and with `UnlessSame` when
/// the module holds the image, it reboots the module and gives the job's result; otherwise
/// nothing, and the upload goes on.
std::optional<UploadResult> CheckDirectModule(JobContext& Ctx, const std::string& FirmwareString,
                                              WriteMode Mode);

/// The same for a CCB bootloader that has answered "X", without entering it.
std::optional<UploadResult> CheckCcbModule(JobContext& Ctx, const std::string& FirmwareString,
                                           WriteMode Mode);

}  // namespace palimbo
