#pragma once

#include <cstdint>
#include <vector>

#include "sim/simulated_module.h"
#include "sim/wire_line.h"

namespace palimbo::sim {

// The waits of the tool's design.
inline constexpr int64_t kSettlingMicros = 1'000'000;              ///< drain after opening the port
inline constexpr int64_t kPollSleepMicros = 200'000;               ///< before and after each "i"
inline constexpr int64_t kPollCycleMicros = 2 * kPollSleepMicros;  ///< sleep, "i", sleep, read
inline constexpr int64_t kEntryDrainMicros = 500'000;  ///< direct protocol only, after the entry
inline constexpr int64_t kWriteSleepMicros = 5'000;    ///< after a direct write, before a CCB write
inline constexpr int64_t kBeforeRebootMicros = 500'000;
inline constexpr int64_t kAfterRebootMicros = 700'000;  ///< 500 ms, then 200 ms before the close

/// The least time an upload can take on a real line, from the port's opening to its closing,
/// split by what it is spent on. The parts add up to `TotalMicros`.
struct IdealTime {
  int64_t TotalMicros = 0;
  int64_t ToModuleMicros = 0;  ///< requests crossing the line
  int64_t ToToolMicros = 0;    ///< answers crossing the line
  int64_t ModuleMicros = 0;    ///< the module's turnaround and flash writes
  int64_t AdapterMicros = 0;   ///< answers held back by the adapter's latency timer
  /// The tool's own waits: the settling second, the poll cycles, the drain after the entry,
  /// the sleeps around writes and at the reboot, and tries that end without an answer.
  int64_t ToolWaitMicros = 0;
  int64_t FramesToModule = 0;  ///< requests heard, each try counted
  int64_t BytesToModule = 0;   ///< polls and frames
  int64_t BytesToTool = 0;     ///< answers to frames
  /// When each request of the record has arrived, counted from the port's opening.
  std::vector<int64_t> HeardMicros;
};

/// The ideal time of the upload that a module took part in, worked out from what it heard and
/// answered: `Polls` entry polls, then `Commands` in order. Each request leaves the moment the
/// tool may send it and takes the wire's time; each answer leaves after the module's delay
/// as recorded, crosses the wire and waits in the adapter. The tool's waits are those its
/// design prescribes; its own work takes no time.
///
/// A direct answer handed on within the 5 ms after its request is lost in the drain, and such
/// a try, like one without an answer, lasts its whole wait.
IdealTime IdealUploadTime(BootProtocol Protocol, int Polls,
                          const std::vector<ReceivedCommand>& Commands, const WireSettings& Wire);

/// The same for the record that `Module` has kept.
inline IdealTime IdealUploadTime(const SimulatedModule& Module, const WireSettings& Wire) {
  return IdealUploadTime(Module.Settings().Protocol, Module.PollCount(), Module.Commands(), Wire);
}

}  // namespace palimbo::sim
