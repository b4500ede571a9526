#pragma once

namespace palimbo {

/// Holds the system's timer at its finest resolution for as long as the object lives, so that
/// the job's sleeps end when they should: Windows otherwise rounds them up to its 15.6 ms tick
/// (the setting is the process's), Linux lets them end up to the thread's timer slack late (the
/// setting is the calling thread's).
class FineTimerResolution {
 public:
  FineTimerResolution();
  ~FineTimerResolution();
  FineTimerResolution(const FineTimerResolution&) = delete;
  FineTimerResolution& operator=(const FineTimerResolution&) = delete;

 private:
  [[maybe_unused]] bool held_ = false;
  [[maybe_unused]] long previous_slack_ns_ = 0;
};

}  // namespace palimbo
