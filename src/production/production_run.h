#pragma once

#include <chrono>
#include <ctime>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "image/hex_file.h"
#include "production/outcome.h"
#include "production/record_forwarder.h"
#include "production/run_request.h"
#include "production/station.h"
#include "production/upload_record.h"
#include "serial/trace_backend.h"
#include "upload/give_up.h"
#include "upload/job_context.h"

namespace palimbo {

/// The firmware of a run, read once: every module of the run gets this image, and the record
/// and the release lock speak of these very bytes, whatever happens to the file later.
struct RunFirmware {
  HexReadResult Image;
  bool Encrypted = false;  ///< the file carried the marker record
  int32_t Crc = 0;         ///< the image's CRC
};

/// Reads the run's firmware once and checks it against the approved release: nothing (an
/// empty image), and why in `Error`, when the file is no firmware to write or not the approved
/// one. Notes about the file go to `Warnings` either way.
RunFirmware ReadRunFirmware(const RunRequest& Request, std::string& Error,
                            std::vector<std::string>& Warnings);

/// A run made ready to start: its firmware read once and checked against the approved release,
/// every trace and the record open. The command line and the window both start their runs so.
class ProductionRun {
 public:
  /// What opening a run gave: the run, or why it cannot start (nothing was written then), and
  /// warnings about the file either way.
  struct Opening {
    std::unique_ptr<ProductionRun> Run;
    std::string Error;
    std::vector<std::string> Warnings;
  };
  static Opening Open(const RunRequest& Request);

  const RunRequest& Request() const { return request_; }
  const RunFirmware& Firmware() const { return firmware_; }
  /// The record, or nothing when the run keeps none.
  UploadRecord* Record() { return record_.get(); }
  /// The trace of the place at `Index`, kept for the whole run; nothing without a trace.
  std::ostream* Trace(size_t Index) { return traces_.at(Index).get(); }
  /// The count of a station's modules (for all its places).
  StationTally& Tally() { return tally_; }
  /// Stops forwarding and tells where the record's lines stand: "records: N lines in the
  /// database's table palimbo_uploads, N wait in the record", and while lines wait the
  /// database's reason; empty without a forwarder.
  std::string FinishForwarding();
  /// What a unit scanned at the station must look like.
  const UnitRule& Units() const { return units_; }
  /// What the run writes: "Firmware F read once for the whole run: N bytes, CRC X, SHA-256 S".
  std::string Description() const;

 private:
  ProductionRun(const RunRequest& Request, RunFirmware Firmware);

  RunRequest request_;
  RunFirmware firmware_;
  std::vector<std::unique_ptr<std::ostream>> traces_;
  std::unique_ptr<UploadRecord> record_;
  StationTally tally_;
  UnitRule units_;
  std::unique_ptr<RecordForwarder> forwarder_;  // after the record, which it reads
};

/// The trace file of the place at `Index`: FILE with one port, FILE.1, FILE.2.. with several.
std::string TraceFileName(const RunRequest& Request, size_t Index);

/// One module's job in a run. The front end makes the job's context (its port traced where the
/// run has a trace) and calls `AtPump` from the context's event pump; the job keeps the run's
/// rules there: a station waits for its next module as long as it takes, a stopped station
/// takes no further module, a silent module or a lost port is given up.
class ModuleJob {
 public:
  ModuleJob(const ProductionRun& Run, size_t Index);

  /// Runs one job on `Ctx`; `Trace` is the traced port, if any, whose losses fail the module.
  ModuleResult Run(JobContext& Ctx, const TraceBackend* Trace);
  /// The run's duties at one pump of the job. `StopWaiting` ends a station's wait for its
  /// module (as a cancel, once). True at the pump that first sees the bootloader's answer.
  bool AtPump(JobContext& Ctx, bool StopWaiting);
  /// The bootloader's protocol once it answered, else empty.
  const std::string& Protocol() const { return protocol_; }

 private:
  const ProductionRun& run_;
  size_t index_;
  GiveUpWatch watch_;
  bool stop_sent_ = false;
  std::string protocol_;
  std::string port_lost_;
  std::chrono::steady_clock::time_point answered_;  // when the bootloader answered the entry
  std::time_t answered_time_ = 0;
};

/// Opens the port and closes it again, giving up when `Stopping` says so: empty when it
/// opened, else why not.
std::string ProbePort(SerialBackend& Port, const std::string& Name,
                      const std::function<bool()>& Stopping);

}  // namespace palimbo
