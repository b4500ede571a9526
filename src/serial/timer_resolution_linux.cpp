#include <sys/prctl.h>

#include "serial/timer_resolution.h"

namespace palimbo {

// A thread's sleeps end up to its timer slack late, 50 µs by default: on every CCB block's 5 ms
// sleep before the write, and thus on every block. The finest slack is 1 ns.
FineTimerResolution::FineTimerResolution() {
  const int previous = ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
  if (previous > 1 && ::prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0) == 0) {
    held_ = true;
    previous_slack_ns_ = previous;
  }
}

FineTimerResolution::~FineTimerResolution() {
  if (held_) ::prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(previous_slack_ns_), 0, 0, 0);
}

}  // namespace palimbo
