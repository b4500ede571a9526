#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "production/outcome.h"
#include "production/run_request.h"
#include "serial/serial_backend.h"

namespace palimbo::cli {

/// Makes the serial ports of one module's job; each job gets its own.
using BackendFactory = std::function<std::unique_ptr<SerialBackend>()>;

/// How the uploads ended, and the exit status of the whole.
struct FlashReport {
  int ExitStatus = 0;
  std::vector<ModuleResult> Modules;  ///< empty when the file was bad: no port was opened
};

/// Checks the firmware file once, then writes it into every port at once: one job, one thread,
/// one context, clock and port for each module, so that a module that fails stops no other.
/// `Json` shows the run as JSON Lines on stdout. Ctrl-C cancels every job as CANCEL does; a
/// second one ends the process at once.
FlashReport FlashModules(const RunRequest& Request, bool Json, const BackendFactory& MakePort);

}  // namespace palimbo::cli
