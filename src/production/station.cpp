#include "production/station.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace palimbo {

bool StationTally::Claim() {
  const std::lock_guard guard(lock_);
  if (limit_ > 0 && claimed_ >= limit_) return false;
  ++claimed_;
  return true;
}

void StationTally::Release() {
  const std::lock_guard guard(lock_);
  --claimed_;
}

std::pair<int32_t, std::string> StationTally::Count(const ModuleResult& Result) {
  const std::lock_guard guard(lock_);
  results_.push_back(Result);
  switch (Result.Result.Outcome) {
    case UploadOutcome::Verified:
    case UploadOutcome::Matches:
      ++good_;
      break;
    case UploadOutcome::AlreadyCurrent:
      ++current_;
      break;
    case UploadOutcome::Unverified:
    case UploadOutcome::Differs:
      ++unsure_;
      break;
    case UploadOutcome::CannotTell:
      ++cannot_tell_;
      break;
    default:
      ++failed_;
      break;
  }
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f", Result.Seconds);
  const auto number = static_cast<int32_t>(results_.size());
  std::string line = "module " + std::to_string(number) +
                     (Result.Unit.empty() ? "" : " (unit " + Result.Unit + ")") + ": " +
                     OutcomeName(Result.Result.Outcome) + " in " + seconds + " s";
  if (ExitStatusOf(Result.Result.Outcome) != kExitOk && !Result.Result.Reason.empty()) {
    line += " (" + Result.Result.Reason + ")";
  }
  return {number, line + "; " + CountsLocked()};
}

std::string StationTally::Counts() const {
  const std::lock_guard guard(lock_);
  return CountsLocked();
}

std::string StationTally::CountsLocked() const {
  const auto n = [](int32_t Count) { return std::to_string(Count); };
  if (mode_ == WriteMode::Never) {
    return n(good_) + " matching, " + n(unsure_) + " differing, " + n(cannot_tell_) +
           " cannot tell, " + n(failed_) + " failed";
  }
  return n(good_) + " verified, " +
         (mode_ == WriteMode::UnlessSame ? n(current_) + " already current, " : std::string()) +
         n(unsure_) + " unverified, " + n(failed_) + " failed";
}

void StationTally::Settle(int32_t Number, const ModuleResult& Result) {
  const std::lock_guard guard(lock_);
  results_.at(static_cast<size_t>(Number - 1)) = Result;
}

void StationTally::NoteFault() {
  const std::lock_guard guard(lock_);
  fault_ = true;
}

std::string StationTally::Summary() const {
  const std::lock_guard guard(lock_);
  return "station: " + std::to_string(results_.size()) + " modules, " + CountsLocked();
}

int StationTally::ExitStatus() const {
  const std::lock_guard guard(lock_);
  const bool allWell = std::all_of(results_.begin(), results_.end(),
                                   [](const ModuleResult& m) { return m.ExitStatus == kExitOk; });
  return !results_.empty() && allWell && !fault_ ? kExitOk : kExitFailed;
}

std::vector<ModuleResult> StationTally::Results() const {
  const std::lock_guard guard(lock_);
  return results_;
}

std::string SettleOutputs(ModuleResult& Result, UploadRecord* Record, int32_t Module) {
  static constexpr std::string_view kNotWritten = "not written: ";
  std::string error;
  if (Result.Trace.starts_with(kNotWritten)) {
    error = Result.Trace.substr(kNotWritten.size());
    Result.ExitStatus = kExitFailed;
  }
  if (Record != nullptr) {
    std::string why;
    Result.Record =
        Record->Append(Result, Module, why) ? "written" : std::string(kNotWritten) + why;
    if (error.empty()) error = why;
  }
  if (!error.empty()) Result.ExitStatus = kExitFailed;
  return error;
}

namespace {

// Looks for the port again and again until it opens; false when the station stopped first.
bool AwaitPort(const StationPlace& Place) {
  while (!Place.Stopping()) {
    if (Place.ProbePort().empty()) return true;
    Place.Pause();
  }
  return false;
}

// The unit of the next module as the operator scans it: nothing when the input ended or the
// station stopped first.
std::optional<std::string> NextUnit(const StationPlace& Place, StationEvents& Events) {
  while (!Place.Stopping()) {
    const std::optional<std::string> line = Place.ReadUnitLine();
    if (!line) return std::nullopt;
    std::string why;
    if (std::optional<std::string> unit = Place.Units.Take(*line, why)) return unit;
    Events.Note(Place.Index, why + "; nothing recorded, scan the label again");
  }
  return std::nullopt;
}

}  // namespace

void RunStationPort(const StationPlace& Place, StationTally& Tally, StationEvents& Events,
                    UploadRecord* Record) {
  bool opened = false;
  std::optional<std::string> unit;  // scanned for a module that has not come yet
  while (!Place.Stopping() && Tally.Claim()) {
    if (Place.ReadUnitLine && !unit && !(unit = NextUnit(Place, Events))) {
      Tally.Release();
      return;
    }
    ModuleResult result = Place.RunOne();
    if (unit) result.Unit = *unit;
    const UploadOutcome outcome = result.Result.Outcome;
    const bool lost = !result.PortLost.empty() || outcome == UploadOutcome::PortError;
    // No bootloader answered: the station was stopped, or the port went away, while it waited.
    if (result.Protocol.empty() && (lost || outcome == UploadOutcome::Cancelled)) {
      Tally.Release();
      if (outcome == UploadOutcome::PortError && !opened) {
        // Nothing to wait for behind a port that never opened: this place is over.
        Events.Note(Place.Index, result.Result.Reason);
        Tally.NoteFault();
        return;
      }
      if (!lost) return;
    } else {
      unit.reset();
      const auto [number, line] = Tally.Count(result);
      const std::string error = SettleOutputs(result, Record, number);
      Tally.Settle(number, result);
      Events.Log(Place.Index, line);
      Events.Counted(Place.Index, number, result);
      if (!error.empty()) {
        Events.Note(Place.Index, error + "; the station stops");
        Tally.NoteFault();
        Place.StopStation();
        return;
      }
    }
    opened = true;
    if (lost) {
      const std::string& why = result.PortLost.empty() ? result.Result.Reason : result.PortLost;
      Events.Log(Place.Index, why + "; waiting for the port to come back");
      if (!AwaitPort(Place)) return;
      Events.Log(Place.Index, "port " + Place.Port + " is back; waiting for the next module");
    }
  }
}

}  // namespace palimbo
