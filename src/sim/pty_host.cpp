#include "sim/pty_host.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <limits>
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

// A timer wakes the thread some 50 µs late, more on a busy machine; the last stretch before a
// byte is due is spun through instead, so the line keeps its times to a few microseconds.
constexpr int64_t kSpinMicros = 200;

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
  // The default timer slack of 50 µs would add to every wait before the spin.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  const bool wire = options_.Wire.has_value();
  const WireSettings settings = options_.Wire.value_or(WireSettings{});
  ToModuleWire toModule(settings.Baud);
  ToToolWire toTool(settings);
  std::deque<Emission> heard;  // the tool's bytes on their way, keyed by their last byte's arrival
  std::deque<Emission> due;    // without the wire: answers not yet on the line, in order
  std::string line;            // handed on and not yet taken by the terminal
  std::vector<Emission> out;
  std::vector<char> buffer(4096);
  bool toolGone = false;  // the terminal side was closed and not opened again yet
  int64_t handedUs = -1;  // when answer bytes last went to the terminal, until the tool writes

  auto nextHandover = [&] {
    if (wire) return toTool.NextHandover();
    return due.empty() ? std::numeric_limits<int64_t>::max() : due.front().AtMicros;
  };
  auto handOver = [&](int64_t At, int64_t Now) {
    if (wire) {
      toTool.TakeHandedOver(At, line);
    } else {
      line += due.front().Bytes;
      due.pop_front();
    }
    ++stats_.Handovers;
    stats_.LateMicrosTotal += Now - At;
    stats_.LateMicrosMax = std::max(stats_.LateMicrosMax, Now - At);
  };

  for (;;) {
    int64_t now = MonotonicMicros();
    while (!heard.empty() && heard.front().AtMicros <= now) {
      out.clear();
      module_.Receive(heard.front().Bytes, heard.front().AtMicros, out);
      heard.pop_front();
      for (Emission& e : out) {
        if (wire) {
          toTool.Send(e.AtMicros, e.Bytes);
        } else {
          due.push_back(std::move(e));
        }
      }
    }
    for (int64_t at = nextHandover(); at <= now; at = nextHandover()) handOver(at, now);
    if (toolGone) line.clear();
    if (!line.empty()) {
      const ssize_t n = write(master_fd_, line.data(), line.size());
      if (n > 0) {
        line.erase(0, static_cast<size_t>(n));
        handedUs = MonotonicMicros();
      }
      if (n < 0 && errno != EAGAIN && errno != EINTR) line.clear();
    }

    int64_t next = nextHandover();
    if (!heard.empty()) next = std::min(next, heard.front().AtMicros);
    const int64_t waitUs =
        std::clamp<int64_t>(next - MonotonicMicros() - kSpinMicros, 0, kLongestWaitMicros);
    const timespec wait{static_cast<time_t>(waitUs / 1'000'000),
                        static_cast<long>(waitUs % 1'000'000) * 1000};
    pollfd fds[2] = {
        {master_fd_, static_cast<short>(POLLIN | (line.empty() ? 0 : POLLOUT)), 0},
        {wake_fd_, POLLIN, 0},
    };
    if (ppoll(fds, 2, &wait, nullptr) < 0 && errno != EINTR) break;
    if ((fds[1].revents & POLLIN) != 0) break;

    bool hungUp = false;
    if ((fds[0].revents & POLLIN) != 0) {
      const ssize_t n = read(master_fd_, buffer.data(), buffer.size());
      if (n > 0) {
        now = MonotonicMicros();
        if (handedUs >= 0) stats_.ReactionMicros.push_back(now - handedUs);
        handedUs = -1;
        const auto count = static_cast<size_t>(n);
        heard.push_back(
            {wire ? toModule.Carry(now, count) : now, std::string(buffer.data(), count)});
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
    // nothing written meanwhile may greet the next tool that opens it. What the tool wrote
    // before it left still reaches the module.
    due.clear();
    toTool.Clear();
    line.clear();
    if (!toolGone) tcflush(master_fd_, TCOFLUSH);
    toolGone = true;
    pollfd wakeOnly{wake_fd_, POLLIN, 0};
    if (poll(&wakeOnly, 1, kHangupNapMillis) > 0) break;
  }
}

}  // namespace palimbo::sim
