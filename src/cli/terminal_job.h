#pragma once

#include <ostream>
#include <string>

#include "serial/serial_backend.h"
#include "upload/upload.h"

namespace palimbo::cli {

/// What `flash` and `demo` ask of one upload on the terminal.
struct TerminalUpload {
  std::string File;
  std::string Port;
  bool AssumeYes = false;  ///< answer the no-response question with Yes
  std::string TraceFile;   ///< wire trace, one chunk a line; empty for none
  bool IdleWait = true;    ///< wait on the port in empty receive passes instead of spinning
};

/// The outcome of a terminal upload and the exit status that goes with it.
struct TerminalResult {
  UploadOutcome Outcome;
  int ExitStatus;
};

/// Runs `StartUpload` with the log on stdout ("HH:MM:SS<TAB>text", flushed at once), the bar on
/// stderr when it is a terminal, the question answered by `AssumeYes` or the operator, and
/// Ctrl-C as CANCEL (a second Ctrl-C closes the port and ends the process).
/// Reasons for a bad file or a port that cannot be opened go to stderr.
TerminalResult RunTerminalUpload(const TerminalUpload& Upload, SerialBackend& Port);

/// The exit status for an outcome: 0 verified, 3 unverified, 2 file error, 1 otherwise.
int ExitStatusOf(UploadOutcome Outcome);

}  // namespace palimbo::cli
