#pragma once

#include <string>

#include "image/hex_file.h"
#include "upload/job_context.h"

namespace palimbo {

/// How a job ended. The window ignores it; the command line turns it into its exit status.
enum class UploadOutcome {
  Verified,        ///< the module confirmed the CRC of the whole image
  Unverified,      ///< written, but the bootloader cannot report the CRC
  FileError,       ///< no image: the file could not be read or holds no data
  PortError,       ///< the port could not be opened
  NoBootloader,    ///< the bootloader did not answer and the operator said No
  Cancelled,       ///< the job took its cancel exit
  Failed,          ///< the module refused the upload (a block, or the entry)
  GivenUp,         ///< the front end gave up on the job (`JobContext::GiveUpReason`), whatever
                   ///< road the job then took
  AlreadyCurrent,  ///< the module held the image already: not written, only rebooted
  Matches,         ///< a check without writing: the module holds the image
  Differs,         ///< a check without writing: the module holds something else
  CannotTell,      ///< a check without writing: the bootloader does not report the checksum
};

/// What a job does to the module's flash.
enum class WriteMode {
  Always,      ///< the upload
  UnlessSame,  ///< asks the module's checksum first; a module that holds the image is only
               ///< rebooted, any other is written as always
  Never,       ///< only asks the module's checksum over the image's length, then reboots it:
               ///< nothing is erased or written, and a CCB bootloader is never entered
};

/// How a job ended, and why in a few words for the operator: "line 3: checksum mismatch",
/// "cannot open port COM7: Access is denied", "block 0x80 refused", "cancelled",
/// "given up: no answer from the module for 60 s".
struct UploadResult {
  UploadOutcome Outcome;
  std::string Reason;
  int32_t ModuleCrc = -1;  ///< the module's checksum over the image's length, where it told one
};

/// The upload job: reads `FirmwareFile`, opens `ComPort`, brings the bootloader to answer and
/// writes the image with whichever protocol it speaks. Returns when the job is over; all it
/// tells the operator goes through the context's log and progress bar.
///
/// A job that the front end gave up on ends as `GivenUp` with "given up: " and the reason,
/// whatever road it then took; one whose image the module had confirmed before says so in
/// the reason ("given up after the image was verified: ...").
UploadResult StartUpload(JobContext& Ctx, const std::string& FirmwareFile,
                         const std::string& ComPort);

/// The same job on an image read before (`Image`, as `ReadHexFile` gave it, with
/// `Ctx.IsEncrypted` as that read left it): a run of several modules reads its file once, so
/// that every module gets the very image the run checked and recorded.
UploadResult StartUpload(JobContext& Ctx, const HexReadResult& Image, const std::string& ComPort,
                         WriteMode Mode = WriteMode::Always);

}  // namespace palimbo
