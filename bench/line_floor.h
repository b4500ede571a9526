#pragma once

#include <cstdint>
#include <vector>

#include "sim/ideal_time.h"
#include "sim/simulated_module.h"
#include "sim/wire_line.h"

namespace palimbo::bench {

/// How far the requests a module heard lie beyond their ideal times.
struct FrameExcess {
  double Total = 0;   ///< seconds, from the first request heard to the last
  double Median = 0;  ///< µs, from one request to the next
  double Max = 0;     ///< µs
  /// Each request's command byte and its time beyond the ideal gap since the one before, µs.
  std::vector<std::pair<uint8_t, double>> Gaps;
};

/// `Heard` against `Ideal.HeardMicros`, request by request.
FrameExcess ExcessOverFrames(const std::vector<sim::ReceivedCommand>& Heard,
                             const sim::IdealTime& Ideal);

/// What the least a client needs through this machine's pseudo-terminal came to.
struct LineFloor {
  bool Complete = false;   ///< every request went out and was answered as in the tool's run
  double WallSeconds = 0;  ///< from the opening of the port to its closing
  sim::IdealTime Ideal;    ///< of the replayed upload
  FrameExcess Excess;
};

/// Replays the upload that a tool carried out with `Module` (its polls, then every request it
/// heard, byte for byte) into a fresh module of the same settings on a new pseudo-terminal,
/// doing nothing but what the tool's design prescribes: the settling second, the poll cycles,
/// the drain after a direct entry, the 5 ms sleeps, the reboot's sleeps, and each request the
/// moment the answer to the one before is in. No log, no check, no event pump, one thread with
/// the finest timer slack: what this takes beyond the ideal is what the machine costs, not the
/// tool. A run with a request that went unanswered is not replayed (`Complete` stays false).
LineFloor ReplayAtLineSpeed(const sim::SimulatedModule& Module, const sim::WireSettings& Wire);

}  // namespace palimbo::bench
