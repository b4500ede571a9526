#pragma once

#include <string>

#include "serial/serial_backend.h"
#include "upload/upload.h"

namespace palimbo::cli {

/// One upload on the terminal, as the demo asks for it.
struct TerminalUpload {
  std::string File;
  std::string Port;
  bool AssumeYes = false;
  std::string TraceFile;
  bool IdleWait = true;
};

/// The outcome of a terminal upload and the exit status that goes with it.
struct TerminalResult {
  UploadOutcome Outcome;
  int ExitStatus;
};

/// Runs one upload as `flash` does, on a port of this system.
TerminalResult RunTerminalUpload(const TerminalUpload& Upload, SerialBackend& Port);

}  // namespace palimbo::cli
