#pragma once

// A job on virtual time: the real exchanges and upload routines talk over a simulated line to
// a module, while the clock moves only by sleeps and waits on the port.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/module_peer.h"
#include "sim/sim_line.h"
#include "sim/virtual_clock.h"
#include "upload/job_context.h"

namespace palimbo::testing {

inline std::string Bytes(std::initializer_list<int> Values) {
  std::string out;
  for (const int v : Values) out += static_cast<char>(v);
  return out;
}

/// A module whose answers a test writes as a function of what it heard.
class ScriptedPeer final : public sim::ModulePeer {
 public:
  using Script = std::function<void(std::string_view Bytes, int64_t NowMicros,
                                    std::vector<sim::Emission>& Out)>;
  Script OnReceive;
  std::vector<std::string> Received;

  void Receive(std::string_view Bytes, int64_t NowMicros,
               std::vector<sim::Emission>& Out) override {
    Received.emplace_back(Bytes);
    if (OnReceive) OnReceive(Bytes, NowMicros, Out);
  }
};

class RecordingLog final : public JobLog {
 public:
  std::vector<std::string> Lines;
  void Log(const std::string& Text) override { Lines.push_back(Text); }
  bool Contains(const std::string& Text) const {
    for (const auto& line : Lines) {
      if (line == Text) return true;
    }
    return false;
  }
};

class RecordingProgress final : public ProgressDisplay {
 public:
  struct Call {
    int32_t Val;
    int32_t Max;
    uint32_t Color;
    std::string Text;
    bool operator==(const Call&) const = default;
  };
  std::vector<Call> Calls;
  std::vector<int64_t> Ticks;  ///< the tick of each call
  const sim::VirtualClock* Clock = nullptr;
  void SetProgress(int32_t Val, int32_t Max, uint32_t Color, const std::string& Text) override {
    Calls.push_back({Val, Max, Color, Text});
    Ticks.push_back(Clock != nullptr ? Clock->NowMicros() / 1000 : 0);
  }
};

/// Runs a test's handler at each pump, as nested window handlers would run.
class HookedPump final : public EventPump {
 public:
  std::function<void()> OnPump;
  int Count = 0;
  void PumpEvents() override {
    ++Count;
    if (OnPump) OnPump();
  }
};

class ScriptedQuestion final : public OperatorQuestion {
 public:
  bool Answer = false;
  int Asked = 0;
  std::string Title;
  std::string Text;
  bool AskYesNo(const std::string& T, const std::string& X) override {
    ++Asked;
    Title = T;
    Text = X;
    return Answer;
  }
};

/// Everything a job needs, on virtual time, wired to one module.
struct VirtualJob {
  explicit VirtualJob(sim::ModulePeer& Module) : Line(Clock, Module) { Progress.Clock = &Clock; }

  sim::VirtualClock Clock;
  sim::SimLine Line;
  RecordingLog Log;
  RecordingProgress Progress;
  HookedPump Pump;
  ScriptedQuestion Question;
  JobContext Ctx{Log, Progress, Pump, Question, Clock, Line};

  /// Opens the line as the job would, for tests of single exchanges.
  void OpenPort() { Ctx.PortHandle = Line.Open("SIM", "57600,N,8,1"); }
  int64_t NowMs() const { return Clock.NowMicros() / 1000; }
  /// The chunks the tool wrote, without their times.
  std::vector<std::string> Writes() const {
    std::vector<std::string> out;
    for (const auto& chunk : Line.Written()) out.push_back(chunk.Bytes);
    return out;
  }
};

}  // namespace palimbo::testing
