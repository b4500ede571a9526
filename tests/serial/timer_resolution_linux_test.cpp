#include <sys/prctl.h>

#include <gtest/gtest.h>

#include <thread>

#include "serial/timer_resolution.h"

namespace palimbo {
namespace {

int TimerSlack() {
  return ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
}

TEST(FineTimerResolution, HoldsTheFinestSlackAndGivesItBack) {
  // Another module's job may hold it on its own thread meanwhile; this thread's is its own.
  std::thread other([] {
    const FineTimerResolution fine;
    ASSERT_EQ(TimerSlack(), 1);
  });
  other.join();
  const int before = TimerSlack();
  ASSERT_GT(before, 1);
  {
    const FineTimerResolution fine;
    EXPECT_EQ(TimerSlack(), 1);
  }
  EXPECT_EQ(TimerSlack(), before);
}

}  // namespace
}  // namespace palimbo
