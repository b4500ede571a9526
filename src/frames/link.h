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

/// Longest wait on the port in one receive pass when nothing has arrived.
inline constexpr int32_t kIdleWaitMicros = 1000;

/// What an exchange with the bootloader needs of its job: the port, the clock, the pump and
/// the operator's cancel flag. All references point into the job's context.
struct Link {
  SerialBackend& Port;
  int32_t& PortHandle;
  Clock& Time;
  EventPump& Events;
  const bool& Cancel;
  /// Wait on the port per empty receive pass; 0 turns the passes into a pure spin.
  int32_t IdleWaitMicros = kIdleWaitMicros;
};

}  // namespace palimbo
