#include "serial/timer_resolution.h"

namespace palimbo {

// POSIX sleeps and polls are as fine as they are asked to be.
FineTimerResolution::FineTimerResolution() = default;
FineTimerResolution::~FineTimerResolution() = default;

}  // namespace palimbo
