#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/upload_display.h"
#include "cli/upload_record.h"
#include "serial/serial_backend.h"
#include "upload/give_up.h"

namespace palimbo::cli {

/// What `flash` and `demo` ask of one upload or of several at once.
struct FlashRequest {
  std::string File;
  WriteMode Mode = WriteMode::Always;  ///< `Never` checks the modules without writing
  std::string ExpectSha256;            ///< lower-case hex; when set, any other file is refused
  std::vector<std::string> Ports;      ///< one module a port
  bool AssumeYes = false;              ///< answer the no-response question with Yes
  std::string TraceFile;  ///< wire trace, one chunk a line; with several ports FILE.1, FILE.2..
  bool IdleWait = true;   ///< wait on the port in empty receive passes instead of spinning
  bool Json = false;      ///< JSON Lines on stdout instead of the log and the bar
  int32_t GiveUpAfterSeconds = kDefaultNoAnswerSeconds;  ///< 0 never gives up on silence
  std::string RecordFile;    ///< appends one JSON line per upload when set
  bool Station = false;      ///< module after module on each port, until Ctrl-C or the count
  int32_t StationCount = 0;  ///< modules a station takes in all; 0 for no limit
};

/// Makes the serial ports of one module's job; each job gets its own.
using BackendFactory = std::function<std::unique_ptr<SerialBackend>()>;

/// How the uploads ended, and the exit status of the whole.
struct FlashReport {
  int ExitStatus = 0;
  std::vector<ModuleResult> Modules;  ///< empty when the file was bad: no port was opened
};

/// Checks the firmware file once, then writes it into every port at once: one job, one thread,
/// one context, clock and port for each module, so that a module that fails stops no other.
/// Ctrl-C cancels every job as CANCEL does; a second one ends the process at once.
FlashReport FlashModules(const FlashRequest& Request, const BackendFactory& MakePort);

/// The trace file of the module at `Index`: FILE with one port, FILE.1, FILE.2.. with several.
std::string TraceFileName(const FlashRequest& Request, size_t Index);

/// Ends a module's outputs: tells a trace that was not written, and appends the record's line
/// (numbered `Module` at a station, 0 elsewhere) when there is a record. Gives why an output
/// was not written (the module then fails), or nothing.
std::string SettleOutputs(ModuleResult& Result, UploadRecord* Record, int32_t Module);

/// The exit status of one module: 0 verified, already current or matching, 3 unverified or
/// cannot tell, 4 holds another image, 2 bad file, 1 otherwise.
int ExitStatusOf(UploadOutcome Outcome);

/// The exit status of several: 1 if any failed, was cancelled or given up; else 4 if any holds
/// another image; else 3 if any is unverified or cannot tell; else 0.
int CombinedExitStatus(const std::vector<ModuleResult>& Modules);

}  // namespace palimbo::cli
