#pragma once

#include <cstdint>

namespace palimbo {

/// The platform's clock and sleep, as the waiting routines see them.
///
/// Ticks are milliseconds of a monotonic clock that never wraps, so sums such as
/// `TryStart + WaitForAnswer` are plain comparisons. Tests replace it by a virtual clock.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Milliseconds since an arbitrary start; never goes back.
  virtual int64_t GetTickCount() = 0;
  /// The same clock in microseconds, so that a wait can end right at the start of a tick.
  virtual int64_t GetMicros() = 0;
  /// Blocks for the given milliseconds; pumps no events.
  virtual void Sleep(int32_t Milliseconds) = 0;
};

/// The real monotonic clock of the machine.
class SteadyClock final : public Clock {
 public:
  int64_t GetTickCount() override;
  int64_t GetMicros() override;
  void Sleep(int32_t Milliseconds) override;
};

}  // namespace palimbo
