#include <windows.h>
// The multimedia timer header needs the types of windows.h before it.
#include <timeapi.h>

#include "serial/timer_resolution.h"

namespace palimbo {

// At the default tick of 15.6 ms every Sleep(5) after a write and every 1 ms wait of an empty
// receive pass would last a whole tick: answers would be seen late, garbage eaten at one byte a
// tick, and the drain after a direct write would swallow answers for 16 ms instead of 5.
FineTimerResolution::FineTimerResolution() : held_(::timeBeginPeriod(1) == TIMERR_NOERROR) {}

FineTimerResolution::~FineTimerResolution() {
  if (held_) ::timeEndPeriod(1);
}

}  // namespace palimbo
