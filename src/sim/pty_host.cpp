#include "sim/pty_host.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <vector>

namespace palimbo::sim {

namespace {

int64_t MonotonicMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string SystemMessage(const char* What) {
  return std::string(What) + ": " + std::strerror(errno);
}

// Without a tool on the terminal side the master reports a hang-up on every poll; this nap
// keeps the thread from spinning while it waits for the next open.
constexpr int kHangupNapMillis = 10;

// Longest single wait of the loop when no answer is due.
constexpr int64_t kLongestWaitMicros = 200'000;

}  // namespace

std::unique_ptr<PtyHost> PtyHost::Open(ModulePeer& Module, std::string& Error,
                                       PtyHostOptions Options) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0) {
    Error = SystemMessage("posix_openpt");
    return nullptr;
  }
  auto fail = [&](const char* What) {
    Error = SystemMessage(What);
    close(master);
    return nullptr;
  };
  if (grantpt(master) != 0) return fail("grantpt");
  if (unlockpt(master) != 0) return fail("unlockpt");
  char name[128] = {};
  if (ptsname_r(master, name, sizeof name) != 0) return fail("ptsname");
  // The terminal side carries bytes unchanged: no echo, no line editing, no CR/LF mapping.
  termios tio{};
  if (tcgetattr(master, &tio) != 0) return fail("tcgetattr");
  cfmakeraw(&tio);
  cfsetispeed(&tio, B57600);
  cfsetospeed(&tio, B57600);
  if (tcsetattr(master, TCSANOW, &tio) != 0) return fail("tcsetattr");
  if (fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK) != 0) return fail("fcntl");
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) return fail("eventfd");
  fcntl(master, F_SETFD, FD_CLOEXEC);

  std::unique_ptr<PtyHost> host(new PtyHost(Module, master, wake, name, Options));
  host->thread_ = std::thread([raw = host.get()] { raw->Serve(); });
  return host;
}

PtyHost::PtyHost(ModulePeer& Module, int MasterFd, int WakeFd, std::string SlavePath,
                 PtyHostOptions Options)
    : module_(Module),
      master_fd_(MasterFd),
      wake_fd_(WakeFd),
      slave_path_(std::move(SlavePath)),
      options_(Options) {}

PtyHost::~PtyHost() {
  Stop();
  close(wake_fd_);
  close(master_fd_);
}

void PtyHost::Stop() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t n = write(wake_fd_, &one, sizeof one);
  thread_.join();
}

void PtyHost::Serve() {
  std::deque<Emission> due;  // answers not yet on the line, in the module's order
  std::string line;          // answer bytes due and not yet taken by the terminal
  int64_t lineFreeUs = 0;    // with pacing: when the last answer has crossed the wire
  std::vector<Emission> out;
  std::vector<char> buffer(4096);
  bool toolGone = false;  // the terminal side was closed and not opened again yet

  // An answer is due at its time, or with pacing when its last byte would have crossed the wire.
  auto dueAt = [&](const Emission& e) {
    if (options_.PaceBaud <= 0) return e.AtMicros;
    const auto wireUs = static_cast<int64_t>(e.Bytes.size()) * 10'000'000 / options_.PaceBaud;
    return std::max(e.AtMicros, lineFreeUs) + wireUs;
  };

  for (;;) {
    int64_t now = MonotonicMicros();
    while (!due.empty() && dueAt(due.front()) <= now) {
      lineFreeUs = dueAt(due.front());
      line += due.front().Bytes;
      due.pop_front();
    }
    if (!line.empty()) {
      const ssize_t n = write(master_fd_, line.data(), line.size());
      if (n > 0) line.erase(0, static_cast<size_t>(n));
      if (n < 0 && errno != EAGAIN && errno != EINTR) line.clear();
    }

    int64_t waitUs = kLongestWaitMicros;
    if (!due.empty()) waitUs = std::clamp<int64_t>(dueAt(due.front()) - now, 0, kLongestWaitMicros);
    pollfd fds[2] = {
        {master_fd_, static_cast<short>(POLLIN | (line.empty() ? 0 : POLLOUT)), 0},
        {wake_fd_, POLLIN, 0},
    };
    // Rounded up, so an answer due within the next millisecond does not spin the loop.
    if (poll(fds, 2, static_cast<int>((waitUs + 999) / 1000)) < 0 && errno != EINTR) break;
    if ((fds[1].revents & POLLIN) != 0) break;

    bool hungUp = false;
    if ((fds[0].revents & POLLIN) != 0) {
      const ssize_t n = read(master_fd_, buffer.data(), buffer.size());
      if (n > 0) {
        now = MonotonicMicros();
        out.clear();
        module_.Receive(std::string_view(buffer.data(), static_cast<size_t>(n)), now, out);
        due.insert(due.end(), out.begin(), out.end());
      } else if (n < 0 && errno == EIO) {
        hungUp = true;
      }
    } else if ((fds[0].revents & (POLLHUP | POLLERR)) != 0) {
      hungUp = true;
    }
    if (!hungUp) {
      toolGone = false;
      continue;
    }
    // No tool has the port open: what it would have heard is lost, as on a real line, and
    // nothing written meanwhile may greet the next tool that opens it.
    due.clear();
    line.clear();
    if (!toolGone) tcflush(master_fd_, TCOFLUSH);
    toolGone = true;
    pollfd wakeOnly{wake_fd_, POLLIN, 0};
    if (poll(&wakeOnly, 1, kHangupNapMillis) > 0) break;
  }
}

}  // namespace palimbo::sim
