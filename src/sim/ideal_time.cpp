#include "sim/ideal_time.h"

#include <algorithm>
#include <limits>
#include <string>

namespace palimbo::sim {

namespace {

constexpr int64_t kCcbWaitMicros = 1'000'000;

// Each framed request adds start, length and two CRC bytes to the command and its data.
constexpr int64_t kFrameOverhead = 5;

struct Handover {
  int64_t First = std::numeric_limits<int64_t>::max();
  int64_t Last = 0;
};

// When the adapter hands the first and the last byte of an answer to the tool.
Handover HandOver(const WireSettings& Wire, int64_t AtMicros, const std::string& Bytes) {
  ToToolWire line(Wire);
  line.Send(AtMicros, Bytes);
  Handover h;
  std::string taken;
  while (!line.Empty()) {
    const int64_t due = line.NextHandover();
    line.TakeHandedOver(due, taken);
    h.First = std::min(h.First, due);
    h.Last = due;
  }
  return h;
}

// How long a direct try waits for its answer; the probe before the erases waits less than the
// final check.
int64_t DirectWaitMicros(uint8_t Command, bool Erased) {
  switch (Command) {
    case kCmdCrc:
      return Erased ? 2'000'000 : 1'000'000;
    case kCmdErase:
      return 1'250'000;
    default:
      return 250'000;
  }
}

}  // namespace

IdealTime IdealUploadTime(BootProtocol Protocol, int Polls,
                          const std::vector<ReceivedCommand>& Commands, const WireSettings& Wire) {
  const bool direct = Protocol == BootProtocol::Direct;
  const uint8_t reboot = direct ? kCmdReboot : kCcbReboot;
  IdealTime ideal;
  ideal.ToolWaitMicros = kSettlingMicros + int64_t{Polls} * kPollCycleMicros;
  if (direct) ideal.ToolWaitMicros += kEntryDrainMicros;
  ideal.BytesToModule = Polls;
  int64_t t = ideal.ToolWaitMicros;

  bool erased = false;
  for (size_t i = 0; i < Commands.size(); ++i) {
    const ReceivedCommand& heard = Commands[i];
    const bool repeat = i > 0 && Commands[i - 1].Command == heard.Command;
    if (heard.Command == reboot && !repeat) {
      t += kBeforeRebootMicros;
      ideal.ToolWaitMicros += kBeforeRebootMicros;
    }
    if (!direct) {
      t += kWriteSleepMicros;
      ideal.ToolWaitMicros += kWriteSleepMicros;
    }
    const int64_t written = t;
    const int64_t requestBytes = static_cast<int64_t>(heard.Data.size()) + kFrameOverhead;
    const int64_t arrived = written + WireMicros(requestBytes, Wire.Baud);
    ideal.FramesToModule += 1;
    ideal.BytesToModule += requestBytes;
    ideal.ToModuleMicros += arrived - written;
    ideal.HeardMicros.push_back(arrived);

    // A try that gets no answer it can use lasts its whole wait.
    const int64_t tryEnd =
        direct ? written + kWriteSleepMicros + DirectWaitMicros(heard.Command, erased)
               : written + kCcbWaitMicros;
    bool answered = !heard.Answer.empty();
    Handover h;
    int64_t left = 0;
    if (answered) {
      left = arrived + (heard.AnswerAtMicros - heard.AtMicros);
      h = HandOver(Wire, left, heard.Answer);
      const bool drained = direct && h.First <= written + kWriteSleepMicros;
      answered = !drained && h.Last <= tryEnd;
    }
    if (answered) {
      const int64_t onWire = WireMicros(static_cast<int64_t>(heard.Answer.size()), Wire.Baud);
      ideal.ModuleMicros += left - arrived;
      ideal.ToToolMicros += onWire;
      ideal.AdapterMicros += h.Last - left - onWire;
      ideal.BytesToTool += static_cast<int64_t>(heard.Answer.size());
      t = h.Last;
    } else {
      ideal.ToolWaitMicros += tryEnd - arrived;
      t = tryEnd;
    }

    if (direct && heard.Command == kCmdErase) erased = true;
    const bool runEnds = i + 1 == Commands.size() || Commands[i + 1].Command != heard.Command;
    if (heard.Command == reboot && runEnds) {
      t += kAfterRebootMicros;
      ideal.ToolWaitMicros += kAfterRebootMicros;
    }
  }
  ideal.TotalMicros = t;
  return ideal;
}

}  // namespace palimbo::sim
