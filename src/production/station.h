#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "production/outcome.h"
#include "production/unit.h"
#include "production/upload_record.h"

namespace palimbo {

/// The running count of a production station over all its places, and the limit of modules
/// it takes: modules verified, unverified and failed, or for a checking station matching,
/// differing and failed.
class StationTally {
 public:
  /// `Limit` modules at most; 0 for no limit. `Mode` is the station's: `UnlessSame` gives
  /// modules that already held the image a column of their own, `Never` counts checks.
  StationTally(int32_t Limit, WriteMode Mode) : limit_(Limit), mode_(Mode) {}

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
  /// The counts so far, such as "3 verified, 0 unverified, 0 failed".
  std::string Counts() const;
  /// The count as the end of the run tells it.
  std::string Summary() const;
  /// 0 when at least one module was taken, every module ended well (verified, already current
  /// or matching, with its record line and trace) and the run had no fault of its own, else 1.
  int ExitStatus() const;
  /// Every module's result in the order they ended.
  std::vector<ModuleResult> Results() const;

 private:
  std::string CountsLocked() const;

  mutable std::mutex lock_;
  int32_t limit_;
  int32_t claimed_ = 0;
  WriteMode mode_;
  int32_t good_ = 0;     // verified, or matching for checks
  int32_t current_ = 0;  // already current
  int32_t unsure_ = 0;   // unverified, or differing for checks
  int32_t cannot_tell_ = 0;
  int32_t failed_ = 0;
  bool fault_ = false;
  std::vector<ModuleResult> results_;
};

/// What a station tells its front end, from the threads of its places.
class StationEvents {
 public:
  virtual ~StationEvents() = default;
  /// A line of the station at a place: a module's count, a port that went and came back.
  virtual void Log(size_t Place, const std::string& Text) = 0;
  /// Why a place, or the whole station, stops.
  virtual void Note(size_t Place, const std::string& Text) = 0;
  /// Module `Number` ended, was counted and went to the record as `Result` says.
  virtual void Counted(size_t Place, int32_t Number, const ModuleResult& Result) = 0;
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
  /// Reads the line the operator scans for the next module's unit: nothing at the end of the
  /// input or when the station stops. Unset when the station asks no unit.
  std::function<std::optional<std::string>()> ReadUnitLine;
  /// What a scanned unit must look like.
  UnitRule Units;
};

/// One place of a station: flashes module after module, until a stop, the tally's limit, a
/// record that cannot be written, or a port that cannot be opened at the start. Where the
/// station asks each module's unit, a module is flashed only once a scanned line named it; a
/// line the rule refuses is said and the next one asked for. A port that
/// goes away while the place waits for a module is no module: the place says so, waits for the
/// port to come back and goes on. Each module is counted, goes to the record when there is
/// one, and to the front end.
void RunStationPort(const StationPlace& Place, StationTally& Tally, StationEvents& Events,
                    UploadRecord* Record);

/// Ends a module's outputs: tells a trace that was not written, and appends the record's line
/// (numbered `Module` at a station, 0 elsewhere) when there is a record. Gives why an output
/// was not written (the module then fails), or nothing.
std::string SettleOutputs(ModuleResult& Result, UploadRecord* Record, int32_t Module);

}  // namespace palimbo
