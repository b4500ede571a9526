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
/// all its ports, and the limit of modules it takes.
class StationTally {
 public:
  /// `Limit` modules at most; 0 for no limit.
  explicit StationTally(int32_t Limit) : limit_(Limit) {}

  /// Takes the place of the next module; false when the limit is reached.
  bool Claim();
  /// Gives a place back that no module took (the station stopped while waiting for one).
  void Release();
  /// Counts a module's end; gives its number and the line the operator sees for it, such as
  /// "module 3: verified in 4.2 s; 3 verified, 0 unverified, 0 failed".
  std::pair<int32_t, std::string> Count(const ModuleResult& Result);
  /// The count as the end of the run tells it.
  std::string Summary() const;
  /// 0 when at least one module was flashed and every module was verified, else 1.
  int ExitStatus() const;
  /// Every module's result in the order they ended.
  std::vector<ModuleResult> Results() const;

 private:
  mutable std::mutex lock_;
  int32_t limit_;
  int32_t claimed_ = 0;
  int32_t verified_ = 0;
  int32_t unverified_ = 0;
  int32_t failed_ = 0;
  std::vector<ModuleResult> results_;
};

/// One port of a station: flashes module after module, each job waiting in its entry poll for
/// the next module to be plugged in, until Ctrl-C, the tally's limit, or a port that cannot be
/// opened. `RunOne` runs one job on the port; `Stopping` tells that the operator has stopped
/// the station. Each module's line goes to the display, its JSON result in JSON mode, and its
/// line to the record when there is one.
void RunStationPort(size_t Index, const std::function<ModuleResult()>& RunOne,
                    const std::function<bool()>& Stopping, StationTally& Tally,
                    UploadDisplay& Display, UploadRecord* Record, bool Json);

}  // namespace palimbo::cli
