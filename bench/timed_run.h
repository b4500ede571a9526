#pragma once

// Runs a program as a child process and measures it the way the operating system accounts
// for it: wall time from the start to the reaping, CPU time and peak memory from wait4, taken
// by the small launcher program beside the benchmarks.

#include <cstdint>
#include <string>
#include <vector>

namespace palimbo::bench {

struct TimedRun {
  bool Started = false;
  int ExitStatus = -1;  ///< the exit code, or -1 when a signal ended it
  double WallSeconds = 0;
  double CpuSeconds = 0;    ///< user and system together
  int64_t PeakKiB = 0;      ///< largest resident set
  int64_t StartMicros = 0;  ///< monotonic clock at the start, microseconds since its epoch
  int64_t EndMicros = 0;
};

/// Runs `Argv` (the program first, found on PATH) with its output going to `OutputPath`
/// (standard error too, unless `ErrorPath` names another file) and waits for its end.
TimedRun RunTimed(const std::vector<std::string>& Argv, const std::string& OutputPath = "/dev/null",
                  const std::string& ErrorPath = "");

/// Median of the values; 0 for none.
double Median(std::vector<double> Values);

}  // namespace palimbo::bench
