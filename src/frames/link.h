#pragma once

#include <cstdint>

#include "serial/clock.h"
#include "serial/serial_backend.h"

namespace palimbo {

/// Lets the surroundings handle their pending events (clicks, timers, signals) and return.
/// Other handlers run only inside such a pump.
class EventPump {
 public:
  virtual ~EventPump() = default;
  virtual void PumpEvents() = 0;
};

/// Longest wait on the port in one receive pass when nothing has arrived. The wait ends the
/// moment input arrives, so its length costs no answer time; it only has to leave the window
/// its events at least every 20 ms.
inline constexpr int32_t kIdleWaitMicros = 10'000;

/// The same where no window waits for its events: only Ctrl-C and the give-up watch of the
/// command line look at them, and a twentieth of a second is quick enough for both. Fewer
/// wake-ups leave the machine to the other modules' jobs.
inline constexpr int32_t kUnattendedIdleWaitMicros = 50'000;

/// Wait of one receive pass on a closed port. Nothing can arrive there, so it only paces the
/// pumps and the clock, and a few milliseconds keep a job on a lost port nearly idle.
inline constexpr int32_t kClosedPortWaitMillis = 5;

/// Times an exchange sends its request before it gives up.
inline constexpr int16_t kExchangeTries = 10;

/// What an exchange with the bootloader needs of its job: the port, the clock, the pump and
/// the operator's cancel flag. All references point into the job's context.
struct Link {
  SerialBackend& Port;
  int32_t& PortHandle;
  Clock& Time;
  EventPump& Events;
  const bool& Cancel;
  /// Tick of the module's last positive answer; each exchange sets it when it gets one.
  int64_t& LastAnswerTick;
  /// Wait on the port per empty receive pass; 0 turns the passes into a pure spin.
  int32_t IdleWaitMicros = kIdleWaitMicros;
  /// Times each exchange sends its request; only a question that a module may leave
  /// unanswered, outside the upload, asks fewer.
  int16_t Tries = kExchangeTries;
};

}  // namespace palimbo
