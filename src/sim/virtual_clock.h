#pragma once

#include <cstdint>

#include "serial/clock.h"

namespace palimbo::sim {

/// A clock that moves only when told to: `Sleep` and the simulated line advance it, so the
/// timing rules of a whole upload run in milliseconds of real time.
class VirtualClock final : public Clock {
 public:
  int64_t GetTickCount() override { return now_us_ / 1000; }
  int64_t GetMicros() override { return now_us_; }
  void Sleep(int32_t Milliseconds) override {
    if (Milliseconds > 0) now_us_ += int64_t{Milliseconds} * 1000;
  }

  int64_t NowMicros() const { return now_us_; }
  void AdvanceMicros(int64_t Micros) {
    if (Micros > 0) now_us_ += Micros;
  }
  void AdvanceTo(int64_t Micros) {
    if (Micros > now_us_) now_us_ = Micros;
  }

 private:
  int64_t now_us_ = 1'000'000;  // not 0, so that a tick of 0 means "never" in the exchanges' state
};

}  // namespace palimbo::sim
