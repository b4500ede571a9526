#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "upload/upload.h"

namespace palimbo {

/// Exit statuses of a run, as the command line ends with them and the record keeps them.
inline constexpr int kExitOk = 0;      ///< done (and for an upload: verified)
inline constexpr int kExitFailed = 1;  ///< the operation failed or was cancelled
inline constexpr int kExitUsage = 2;   ///< bad arguments, or an unreadable or invalid firmware file
inline constexpr int kExitUnverified = 3;  ///< firmware written but not verified; for a check:
                                           ///< the bootloader cannot tell
inline constexpr int kExitDiffers = 4;     ///< a check: the module holds another image

/// What became of one module's upload.
struct ModuleResult {
  std::string Port;
  std::string Protocol;  ///< "direct" or "ccb" once the entry answer told; empty before
  size_t Bytes = 0;      ///< length of the image
  int32_t ImageCrc = 0;  ///< the image's CRC
  double Seconds = 0;
  std::time_t Started = 0;  ///< when the job began, by the calendar
  UploadResult Result{UploadOutcome::Failed, ""};
  int ExitStatus = 1;
  std::string PortLost;           ///< "port NAME lost: why" when the port went away under the job
  std::string Record;             ///< with a record: "written", or "not written: " and why
  std::string Trace;              ///< with a trace: "written", or "not written: " and why
  std::string ServerFingerprint;  ///< SHA-256 of the server's certificate on a secured port
  std::string Unit;               ///< the unit's own identity, such as its label; empty if unknown
};

/// The outcome as the summary, the JSON results and the record name it, e.g. "given up".
const char* OutcomeName(UploadOutcome Outcome);

/// The exit status of one module: 0 verified, already current or matching, 3 unverified or
/// cannot tell, 4 holds another image, 2 bad file, 1 otherwise.
int ExitStatusOf(UploadOutcome Outcome);

/// The exit status of several: 1 if any failed, was cancelled or given up; else 4 if any holds
/// another image; else 3 if any is unverified or cannot tell; else 0.
int CombinedExitStatus(const std::vector<ModuleResult>& Modules);

}  // namespace palimbo
