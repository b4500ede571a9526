#include "cli/station.h"

#include <cstdio>

#include "cli/commands.h"

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
  if (Result.Result.Outcome != UploadOutcome::Verified && !Result.Result.Reason.empty()) {
    line += " (" + Result.Result.Reason + ")";
  }
  line += "; " + std::to_string(verified_) + " verified, " + std::to_string(unverified_) +
          " unverified, " + std::to_string(failed_) + " failed";
  return {number, line};
}

std::string StationTally::Summary() const {
  const std::lock_guard guard(lock_);
  return "station: " + std::to_string(results_.size()) + " modules, " + std::to_string(verified_) +
         " verified, " + std::to_string(unverified_) + " unverified, " + std::to_string(failed_) +
         " failed";
}

int StationTally::ExitStatus() const {
  const std::lock_guard guard(lock_);
  return !results_.empty() && unverified_ == 0 && failed_ == 0 ? kExitOk : kExitFailed;
}

std::vector<ModuleResult> StationTally::Results() const {
  const std::lock_guard guard(lock_);
  return results_;
}

void RunStationPort(size_t Index, const std::function<ModuleResult()>& RunOne,
                    const std::function<bool()>& Stopping, StationTally& Tally,
                    UploadDisplay& Display, UploadRecord* Record, bool Json) {
  while (!Stopping() && Tally.Claim()) {
    const ModuleResult result = RunOne();
    // Stopped while waiting for a module: no module took part, so none is counted.
    if (result.Protocol.empty() && result.Result.Outcome == UploadOutcome::Cancelled) {
      Tally.Release();
      break;
    }
    const auto [number, line] = Tally.Count(result);
    Display.Log(Index, line);
    if (Json) Display.Finish({result});
    std::string error;
    if (Record != nullptr && !Record->Append(result, number, error)) Display.Note(Index, error);
    // A port that does not open has no module behind it to wait for.
    if (result.Result.Outcome == UploadOutcome::PortError) {
      Display.Note(Index, result.Result.Reason);
      break;
    }
  }
}

}  // namespace palimbo::cli
