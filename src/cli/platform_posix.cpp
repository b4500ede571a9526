#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "cli/commands.h"
#include "cli/platform.h"

namespace palimbo::cli {

namespace {

// A signal handler can reach nothing but a lock-free atomic, which the jobs' threads read.
std::atomic<int> interrupts{0};
static_assert(std::atomic<int>::is_always_lock_free);
struct sigaction previous_action {};
// The first press wakes a read of standard input through this pipe; a write to a pipe is one of
// the few things a signal handler may do.
int wake_pipe[2] = {-1, -1};

void OnInterrupt(int) {
  if (++interrupts < 2) {
    const char wake = 1;
    [[maybe_unused]] const auto ignored = write(wake_pipe[1], &wake, 1);
    return;
  }
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
  if (pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0) wake_pipe[0] = wake_pipe[1] = -1;
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previous_action);
}

InterruptWatch::~InterruptWatch() {
  sigaction(SIGINT, &previous_action, nullptr);
  for (int& end : wake_pipe) {
    if (end >= 0) close(end);
    end = -1;
  }
}

bool InterruptWatch::Requested() const {
  return interrupts > 0;
}

std::optional<std::string> InterruptWatch::ReadLine() const {
  std::string line;
  while (!Requested()) {
    pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {wake_pipe[0], POLLIN, 0}};
    if (poll(ready, 2, -1) < 0 && errno != EINTR) break;
    if ((ready[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    // A byte at a time, so that nothing behind the line is taken from the next reader.
    char c = 0;
    const ssize_t got = read(STDIN_FILENO, &c, 1);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) {
      if (line.empty()) break;
      return line;
    }
    if (c == '\n') return line;
    line += c;
  }
  return std::nullopt;
}

}  // namespace palimbo::cli
