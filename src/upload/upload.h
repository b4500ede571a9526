#pragma once

#include <string>

#include "upload/job_context.h"

namespace palimbo {

/// How a job ended. The window ignores it; the command line turns it into its exit status.
enum class UploadOutcome {
  Verified,      ///< the module confirmed the CRC of the whole image
  Unverified,    ///< written, but the bootloader cannot report the CRC
  FileError,     ///< no image: the file could not be read or holds no data
  PortError,     ///< the port could not be opened
  NoBootloader,  ///< the bootloader did not answer and the operator said No
  Cancelled,     ///< the job took its cancel exit
  Failed,        ///< the module refused the upload (a block, or the entry)
};

/// The upload job: reads `FirmwareFile`, opens `ComPort`, brings the bootloader to answer and
/// writes the image with whichever protocol it speaks. Returns when the job is over; all it
/// tells the operator goes through the context's log and progress bar.
UploadOutcome StartUpload(JobContext& Ctx, const std::string& FirmwareFile,
                          const std::string& ComPort);

}  // namespace palimbo
