#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "cli/upload_display.h"
#include "cli/upload_record.h"

namespace palimbo::cli {

/// The running count of a production station: modules verified, unverified and failed, over
/// all its places, and the limit of modules it takes.
class StationTally {
 public:
  /// `Limit` modules at most; 0 for no limit. `CountCurrent` gives modules that already held
  /// the image a column of their own.
  StationTally(int32_t Limit, bool CountCurrent) : limit_(Limit), count_current_(CountCurrent) {}

  /// Takes the place of the next module; false when the limit is reached.
  bool Claim();
  /// Gives a place back that no module took (the station stopped while waiting for one, or
  /// the port went away before a module answered).
  void Release();
  /// Counts a module's end; gives its number and the line the operator sees for it, such as
  /// "module 3: verified in 4.2 s; 3 verified, 0 unverified, 0 failed" (with
  /// "1 already current" after the verified ones where they are counted).
  std::pair<int32_t, std::string> Count(const ModuleResult& Result);
  /// Replaces the result of module `Number` by what became of it after its count: its record
  /// line and trace, which may have failed it.
  void Settle(int32_t Number, const ModuleResult& Result);
  /// Notes a fault of the run that is no module's: a place whose port never opened, a record
  /// that could not be written. The run then ends with status 1.
  void NoteFault();
  /// The count as the end of the run tells it.
  std::string Summary() const;
  /// 0 when at least one module was flashed, every module was verified and the run had no
  /// fault of its own, else 1.
  int ExitStatus() const;
  /// Every module's result in the order they ended.
  std::vector<ModuleResult> Results() const;

 private:
  mutable std::mutex lock_;
  int32_t limit_;
  int32_t claimed_ = 0;
  std::string Counts() const;

  bool count_current_;
  int32_t verified_ = 0;
  int32_t current_ = 0;
  int32_t unverified_ = 0;
  int32_t failed_ = 0;
  bool fault_ = false;
  std::vector<ModuleResult> results_;
};

/// What one place of a station does besides its uploads.
struct StationPlace {
  size_t Index = 0;
  std::string Port;
  /// Runs one job on the port, which waits in its entry poll for the next module.
  std::function<ModuleResult()> RunOne;
  /// Opens the port and closes it again: empty when it opened, else why not.
  std::function<std::string()> ProbePort;
  /// The operator or the run has stopped the station.
  std::function<bool()> Stopping;
  /// Stops every place: the record failed, and a station without its record is not a station.
  std::function<void()> StopStation;
  /// Waits a little between two looks for a port that went away.
  std::function<void()> Pause;
};

/// One place of a station: flashes module after module, until Ctrl-C, the tally's limit, a
/// record that cannot be written, or a port that cannot be opened at the start. A port that
/// goes away while the place waits for a module is no module: the place says so, waits for the
/// port to come back and goes on. Each module's line goes to the display, its JSON result in
/// JSON mode, and its line to the record when there is one.
void RunStationPort(const StationPlace& Place, StationTally& Tally, UploadDisplay& Display,
                    UploadRecord* Record, bool Json);

}  // namespace palimbo::cli
