#pragma once

// One exchange on the virtual line against a module that answers with the fuzzer's bytes, in
// the fuzzer's pieces and at the fuzzer's times, and what can be checked of it afterwards.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "frames/crc16.h"
#include "frames/frame.h"
#include "fuzz_check.h"
#include "support/virtual_job.h"

namespace palimbo::fuzz {

/// The port as the exchange sees it, keeping apart the bytes an exchange threw away in its
/// drains, the look at the port right behind each write (`DrainAfterWrite`) or right before it.
class RecordingPort final : public SerialBackend {
 public:
  RecordingPort(SerialBackend& Inner, bool DrainAfterWrite)
      : inner_(Inner), drain_after_write_(DrainAfterWrite) {}

  int32_t Open(const std::string& Name, const std::string& Settings) override {
    return inner_.Open(Name, Settings);
  }
  std::string LastOpenError() const override { return inner_.LastOpenError(); }
  std::string LostReason() const override { return inner_.LostReason(); }
  int32_t BytesWaiting(int32_t Handle) override {
    Settle();
    look_open_ = true;
    look_is_drain_ = drain_after_write_ && last_was_write_;
    last_was_write_ = false;
    return inner_.BytesWaiting(Handle);
  }
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override {
    const int16_t status = inner_.Read(Handle, Count, Buffer);
    look_ += Buffer;
    return status;
  }
  int32_t Write(int32_t Handle, const std::string& Data) override {
    if (!drain_after_write_ && look_open_) look_is_drain_ = true;
    Settle();
    writes_.push_back(Data);
    last_was_write_ = true;
    return inner_.Write(Handle, Data);
  }
  void Close(int32_t Handle) override { inner_.Close(Handle); }
  void RaiseDtr(int32_t Handle) override { inner_.RaiseDtr(Handle); }
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override {
    inner_.WaitForInput(Handle, MaxMicros);
  }

  /// The frames written, in order.
  const std::vector<std::string>& Writes() const { return writes_; }
  /// Everything read except the drains.
  const std::string& Kept() {
    Settle();
    return kept_;
  }

 private:
  void Settle() {
    if (look_open_ && !look_is_drain_) kept_ += look_;
    look_.clear();
    look_open_ = false;
  }

  SerialBackend& inner_;
  bool drain_after_write_;
  bool last_was_write_ = false;
  bool look_open_ = false;
  bool look_is_drain_ = false;
  std::string look_;
  std::string kept_;
  std::vector<std::string> writes_;
};

/// The payloads of all frames with a sound CRC that the frame scan can reach in `Bytes`: those
/// that begin with `StartByte`, and those that stand right behind such a frame or behind one of
/// these, since the scan takes the byte behind a valid frame as the next start whatever it is.
inline std::vector<std::string> ValidFrames(const std::string& Bytes, uint8_t StartByte) {
  const auto soundLength = [&Bytes](size_t At) -> size_t {
    if (At + 1 >= Bytes.size()) return 0;
    const size_t L = static_cast<uint8_t>(Bytes[At + 1]);
    if (At + L + 4 > Bytes.size()) return 0;
    const int32_t crc = Crc16Of(std::string_view(Bytes).substr(At + 1, L + 1));
    if (static_cast<uint8_t>(Bytes[At + L + 2]) != crc / 256 ||
        static_cast<uint8_t>(Bytes[At + L + 3]) != (crc & 255)) {
      return 0;
    }
    return L + 4;
  };
  std::vector<bool> reachable(Bytes.size() + 1, false);
  std::vector<std::string> payloads;
  for (size_t i = 0; i + 1 < Bytes.size(); ++i) {
    if (static_cast<uint8_t>(Bytes[i]) != StartByte && !reachable[i]) continue;
    const size_t length = soundLength(i);
    if (length == 0) continue;
    payloads.push_back(Bytes.substr(i + 2, length - 4));
    reachable[i + length] = true;
  }
  return payloads;
}

/// What one exchange did.
struct ExchangeRun {
  uint8_t CommandByte = 0;
  bool Result = false;
  bool CancelSet = false;
  std::vector<std::string> Writes;
  std::string Request;  ///< the frame every try must send
  std::string Kept;     ///< the bytes the exchange read and did not drain
};

/// The exchange under test: link, command byte, data field, wait, value in and out.
using ExchangeCall = std::function<bool(Link&, int16_t, const std::string&, int16_t, int32_t&)>;

/// The value an exchange's output starts with: no answer of either protocol gives it.
inline constexpr int32_t kUntouched = INT32_MIN;

/// Decodes the input into a command, line timings, a cancel and the module's answers, runs the
/// exchange once and checks what holds for both protocols. `Value` starts at `kUntouched`.
inline ExchangeRun RunExchange(const uint8_t* Data, size_t Size, uint8_t StartByte,
                               bool DrainAfterWrite, const ExchangeCall& Call, int32_t& Value) {
  Input in(Data, Size);
  ExchangeRun run;
  run.CommandByte = in.Byte();
  const uint8_t settings = in.Byte();
  static constexpr int16_t kWaits[] = {0, 250, 1000, 1250, 2000};
  const int16_t wait = kWaits[settings % 5];
  // The window's idle wait only for the short waits, where a try then takes 25 passes; the
  // command line's; or passes as coarse as a slow machine gives.
  const int32_t idleMicros = (settings & 0x10) && wait <= 250 ? kIdleWaitMicros
                             : (settings & 0x40)              ? kUnattendedIdleWaitMicros
                                                              : (wait / 4 + 1) * 1000;
  const int64_t passCostMicros = (settings & 0x20) ? 500 : 5;
  const uint8_t cancel = in.Byte();
  const int cancelAtPump = (cancel & 0x80) ? (cancel & 0x7F) * 4 + 1 : -1;
  const std::string commandString = in.Take(in.Byte() % 16);

  // Answer batches: a piece whose control byte has the top bit set begins the batch that
  // answers the next frame; the low bits are its delay behind the piece before, in ms.
  std::vector<std::vector<sim::Emission>> batches(1);
  while (!in.Empty()) {
    const uint8_t control = in.Byte();
    const std::string piece = in.Take(in.Byte());
    if ((control & 0x80) && !batches.back().empty()) batches.emplace_back();
    batches.back().push_back({int64_t{control & 0x7F} * 1000, piece});
  }

  testing::ScriptedPeer peer;
  peer.OnReceive = [&](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
    const size_t frame = peer.Received.size() - 1;
    if (frame >= batches.size()) return;
    int64_t at = Now;
    for (const sim::Emission& piece : batches[frame]) {
      at += piece.AtMicros;
      Out.push_back({at, piece.Bytes});
    }
  };
  testing::VirtualJob job(peer);
  job.Line.SetPacketDelivery((settings & 0x08) != 0);
  job.Line.SetPassCostMicros(passCostMicros);
  RecordingPort port(job.Line, DrainAfterWrite);
  JobContext ctx(job.Log, job.Progress, job.Pump, job.Question, job.Clock, port);
  ctx.PortHandle = port.Open("SIM", "57600,N,8,1");
  ctx.IdleWaitMicros = idleMicros;
  job.Pump.OnPump = [&] {
    if (job.Pump.Count == cancelAtPump) {
      ctx.Cancel = true;
      run.CancelSet = true;
    }
  };
  Link link = ctx.MakeLink();

  const int64_t start = job.NowMs();
  run.Result = Call(link, run.CommandByte, commandString, wait, Value);
  const int64_t elapsed = job.NowMs() - start;

  run.Writes = port.Writes();
  run.Request = BuildFrame(StartByte, run.CommandByte, commandString);
  run.Kept = port.Kept();

  Require(!run.Writes.empty() && run.Writes.size() <= 10, "1 to 10 frames go out");
  for (const std::string& w : run.Writes) Require(w == run.Request, "every try sends the request");
  // Each try lasts its wait plus the 5 ms sleep, and its last pass at most one idle wait and a
  // few looks at the port more.
  const int64_t tryBound = wait + 5 + 2 + idleMicros / 1000 + 4 * passCostMicros / 1000 + 1;
  Require(elapsed <= 10 * tryBound, "the call outlasts ten tries");
  if (!run.Result) Require(Value == kUntouched, "a failed call changed the value");
  return run;
}

}  // namespace palimbo::fuzz
