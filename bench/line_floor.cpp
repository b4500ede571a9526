#include "line_floor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "frames/frame.h"
#include "sim/pty_host.h"
#include "timed_run.h"

namespace palimbo::bench {

namespace {

void SleepMicros(int64_t Micros) {
  std::this_thread::sleep_for(std::chrono::microseconds(Micros));
}

// Takes whatever has reached the port, as the tool's drains do.
void Drain(int Fd) {
  char buffer[512];
  pollfd p{Fd, POLLIN, 0};
  while (poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0) {
    if (read(Fd, buffer, sizeof buffer) <= 0) return;
  }
}

// Blocks until `Count` bytes have come in; false when the line stays silent for 5 s.
bool Receive(int Fd, size_t Count) {
  char buffer[512];
  size_t got = 0;
  while (got < Count) {
    pollfd p{Fd, POLLIN, 0};
    if (poll(&p, 1, 5000) != 1) return false;
    const ssize_t n = read(Fd, buffer, std::min(sizeof buffer, Count - got));
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

bool Send(int Fd, const std::string& Bytes) {
  return write(Fd, Bytes.data(), Bytes.size()) == static_cast<ssize_t>(Bytes.size());
}

// The client's side of the upload; false as soon as the module does not answer as it did.
bool Replay(int Fd, const sim::SimulatedModule& Module) {
  const bool direct = Module.Settings().Protocol == sim::BootProtocol::Direct;
  const uint8_t start = direct ? sim::kDirectStart : sim::kCcbStart;
  const uint8_t reboot = direct ? sim::kCmdReboot : sim::kCcbReboot;
  SleepMicros(sim::kSettlingMicros);
  Drain(Fd);
  for (int i = 0; i < Module.PollCount(); ++i) {
    SleepMicros(sim::kPollSleepMicros);
    if (!Send(Fd, "i")) return false;
    SleepMicros(sim::kPollSleepMicros);
    Drain(Fd);
  }
  if (direct) {
    SleepMicros(sim::kEntryDrainMicros);
    Drain(Fd);
  }
  const auto& heard = Module.Commands();
  for (size_t i = 0; i < heard.size(); ++i) {
    const uint8_t command = heard[i].Command;
    if (heard[i].Answer.empty()) return false;
    if (command == reboot && (i == 0 || heard[i - 1].Command != reboot)) {
      SleepMicros(sim::kBeforeRebootMicros);
    }
    if (!direct) {
      SleepMicros(sim::kWriteSleepMicros);
      Drain(Fd);
    }
    if (!Send(Fd, BuildFrame(start, command, heard[i].Data))) return false;
    if (direct) {
      SleepMicros(sim::kWriteSleepMicros);
      Drain(Fd);
    }
    if (!Receive(Fd, heard[i].Answer.size())) return false;
    if (command == reboot && (i + 1 == heard.size() || heard[i + 1].Command != reboot)) {
      SleepMicros(sim::kAfterRebootMicros);
    }
  }
  return true;
}

}  // namespace

FrameExcess ExcessOverFrames(const std::vector<sim::ReceivedCommand>& Heard,
                             const sim::IdealTime& Ideal) {
  FrameExcess excess;
  if (Heard.empty() || Ideal.HeardMicros.size() != Heard.size()) return excess;
  const auto& ideal = Ideal.HeardMicros;
  const int64_t span = Heard.back().AtMicros - Heard.front().AtMicros;
  excess.Total = static_cast<double>(span - (ideal.back() - ideal.front())) / 1e6;
  std::vector<double> gaps;
  for (size_t i = 1; i < Heard.size(); ++i) {
    const int64_t real = Heard[i].AtMicros - Heard[i - 1].AtMicros;
    gaps.push_back(static_cast<double>(real - (ideal[i] - ideal[i - 1])));
    excess.Gaps.emplace_back(Heard[i].Command, gaps.back());
    excess.Max = std::max(excess.Max, gaps.back());
  }
  excess.Median = Median(gaps);
  return excess;
}

LineFloor ReplayAtLineSpeed(const sim::SimulatedModule& Module, const sim::WireSettings& Wire) {
  LineFloor floor;
  sim::SimulatedModule fresh(Module.Settings());
  std::string error;
  auto host = sim::PtyHost::Open(fresh, error, {Wire});
  if (!host) {
    std::cerr << "palimbo_upload_bench: no pseudo-terminal: " << error << "\n";
    return floor;
  }
  const int fd = open(host->SlavePath().c_str(), O_RDWR | O_NOCTTY);
  if (fd < 0) return floor;
  termios tio{};
  tcgetattr(fd, &tio);
  cfmakeraw(&tio);
  tcsetattr(fd, TCSANOW, &tio);

  const int slack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
  prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0);
  const auto opened = std::chrono::steady_clock::now();
  const bool replayed = Replay(fd, Module);
  close(fd);
  floor.WallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - opened).count();
  prctl(PR_SET_TIMERSLACK, slack, 0, 0, 0);
  host->Stop();

  floor.Complete = replayed && fresh.Commands().size() == Module.Commands().size();
  floor.Ideal = sim::IdealUploadTime(fresh, Wire);
  floor.Excess = ExcessOverFrames(fresh.Commands(), floor.Ideal);
  return floor;
}

}  // namespace palimbo::bench
