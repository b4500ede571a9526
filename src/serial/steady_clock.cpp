#include <chrono>
#include <thread>

#include "serial/clock.h"

namespace palimbo {

int64_t SteadyClock::GetTickCount() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int64_t SteadyClock::GetMicros() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

void SteadyClock::Sleep(int32_t Milliseconds) {
  if (Milliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(Milliseconds));
}

}  // namespace palimbo
