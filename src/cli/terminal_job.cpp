#include "cli/terminal_job.h"

#include "cli/flash_run.h"

namespace palimbo::cli {

TerminalResult RunTerminalUpload(const TerminalUpload& Upload, SerialBackend&) {
  FlashRequest request;
  request.File = Upload.File;
  request.Ports = {Upload.Port};
  request.AssumeYes = Upload.AssumeYes;
  request.TraceFile = Upload.TraceFile;
  request.IdleWait = Upload.IdleWait;
  const FlashReport report = FlashModules(request, [] { return MakeSystemSerialBackend(); });
  const UploadOutcome outcome =
      report.Modules.empty() ? UploadOutcome::FileError : report.Modules.front().Result.Outcome;
  return {outcome, report.ExitStatus};
}

}  // namespace palimbo::cli
