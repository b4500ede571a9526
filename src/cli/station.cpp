#include "cli/station.h"

#include <cstdio>

#include "cli/commands.h"
#include "cli/flash_run.h"

namespace palimbo::cli {

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
      ++verified_;
      break;
    case UploadOutcome::AlreadyCurrent:
      ++current_;
      break;
    case UploadOutcome::Unverified:
      ++unverified_;
      break;
    default:
      ++failed_;
      break;
  }
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.1f", Result.Seconds);
  const auto number = static_cast<int32_t>(results_.size());
  std::string line = "module " + std::to_string(number) + ": " +
                     OutcomeName(Result.Result.Outcome) + " in " + seconds + " s";
  if (ExitStatusOf(Result.Result.Outcome) != kExitOk && !Result.Result.Reason.empty()) {
    line += " (" + Result.Result.Reason + ")";
  }
  return {number, line + "; " + Counts()};
}

std::string StationTally::Counts() const {
  return std::to_string(verified_) + " verified, " +
         (count_current_ ? std::to_string(current_) + " already current, " : std::string()) +
         std::to_string(unverified_) + " unverified, " + std::to_string(failed_) + " failed";
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
  return "station: " + std::to_string(results_.size()) + " modules, " + Counts();
}

int StationTally::ExitStatus() const {
  const std::lock_guard guard(lock_);
  return !results_.empty() && unverified_ == 0 && failed_ == 0 && !fault_ ? kExitOk : kExitFailed;
}

std::vector<ModuleResult> StationTally::Results() const {
  const std::lock_guard guard(lock_);
  return results_;
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

}  // namespace

void RunStationPort(const StationPlace& Place, StationTally& Tally, UploadDisplay& Display,
                    UploadRecord* Record, bool Json) {
  bool opened = false;
  while (!Place.Stopping() && Tally.Claim()) {
    ModuleResult result = Place.RunOne();
    const UploadOutcome outcome = result.Result.Outcome;
    const bool lost = !result.PortLost.empty() || outcome == UploadOutcome::PortError;
    // No bootloader answered: the station was stopped, or the port went away, while it waited.
    if (result.Protocol.empty() && (lost || outcome == UploadOutcome::Cancelled)) {
      Tally.Release();
      if (outcome == UploadOutcome::PortError && !opened) {
        // Nothing to wait for behind a port that never opened: this place is over.
        Display.Note(Place.Index, result.Result.Reason);
        Tally.NoteFault();
        return;
      }
      if (!lost) return;
    } else {
      const auto [number, line] = Tally.Count(result);
      const std::string error = SettleOutputs(result, Record, number);
      Tally.Settle(number, result);
      Display.Log(Place.Index, line);
      if (Json) Display.Finish({result});
      if (!error.empty()) {
        Display.Note(Place.Index, error + "; the station stops");
        Tally.NoteFault();
        Place.StopStation();
        return;
      }
    }
    opened = true;
    if (lost) {
      const std::string& why = result.PortLost.empty() ? result.Result.Reason : result.PortLost;
      Display.Log(Place.Index, why + "; waiting for the port to come back");
      if (!AwaitPort(Place)) return;
      Display.Log(Place.Index, "port " + Place.Port + " is back; waiting for the next module");
    }
  }
}

}  // namespace palimbo::cli
