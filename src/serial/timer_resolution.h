#pragma once

namespace palimbo {

/// Holds the system's timer at its finest resolution for as long as the object lives, where
/// the system's sleeps and waits are otherwise coarse (Windows); elsewhere it does nothing.
class FineTimerResolution {
 public:
  FineTimerResolution();
  ~FineTimerResolution();
  FineTimerResolution(const FineTimerResolution&) = delete;
  FineTimerResolution& operator=(const FineTimerResolution&) = delete;

 private:
  [[maybe_unused]] bool held_ = false;
};

}  // namespace palimbo
