#pragma once

#include <functional>

#include "upload/job_context.h"
#include "upload/upload.h"

namespace palimbo {

/// The cancel exit of the entry poll and of both uploads: clears `Cancel`, logs it and closes
/// the port.
UploadResult CancelExit(JobContext& Ctx);

/// The end of both uploads: the module is told to reboot between two sleeps of half a second,
/// the bar fills in blue over a last 200 ms, then the port is closed and the bar emptied.
/// `SendReboot` sends the protocol's reboot command; its answer changes nothing.
void RebootAndClose(JobContext& Ctx, const std::function<void()>& SendReboot);

}  // namespace palimbo
