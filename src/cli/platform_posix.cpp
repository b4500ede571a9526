#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

#include "cli/commands.h"
#include "cli/platform.h"

namespace palimbo::cli {

namespace {

// A signal handler can reach nothing but a lock-free atomic, which the jobs' threads read.
std::atomic<int> interrupts{0};
static_assert(std::atomic<int>::is_always_lock_free);
struct sigaction previous_action {};

void OnInterrupt(int) {
  if (++interrupts < 2) return;
  static const char message[] = "\nInterrupted: port closed.\n";
  [[maybe_unused]] const auto ignored = write(STDERR_FILENO, message, sizeof message - 1);
  // The system closes every port of the process on its way out.
  _exit(kExitFailed);
}

}  // namespace

bool IsTerminal(StdStream Stream) {
  return isatty(Stream == StdStream::In ? STDIN_FILENO : STDERR_FILENO) != 0;
}

std::string TimeOfDay() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

InterruptWatch::InterruptWatch() {
  interrupts = 0;
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previous_action);
}

InterruptWatch::~InterruptWatch() {
  sigaction(SIGINT, &previous_action, nullptr);
}

bool InterruptWatch::Requested() const {
  return interrupts > 0;
}

}  // namespace palimbo::cli
