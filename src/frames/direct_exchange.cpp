#include "frames/direct_exchange.h"

#include "frames/frame.h"
#include "serial/comm.h"

namespace palimbo {

namespace {

constexpr int kTries = 10;
constexpr uint8_t kAnswerMark = 0x52;  // "R"

enum class ScanResult { GoOn, Positive };

// Takes frames from the head of the buffer. `WaitEnded` becomes true when a valid frame was
// not the positive answer, so that the same request goes out again at once.
ScanResult ScanFrames(RxQueue& RxBuffer, uint8_t CommandByte, int32_t& Status, bool& WaitEnded) {
  std::string Payload;
  for (;;) {
    if (TakeHeadFrame(RxBuffer, Payload) != HeadFrame::Valid) return ScanResult::GoOn;
    if (Payload.size() > 2) {
      // A frame that is no answer at all, such as our own request echoed, does not shorten the
      // wait.
      if (static_cast<uint8_t>(Payload[0]) != kAnswerMark) return ScanResult::GoOn;
      if (static_cast<uint8_t>(Payload[1]) == CommandByte && Payload[2] == 1) {
        if (Payload.size() >= 5) {
          Status = static_cast<uint8_t>(Payload[3]) * 256 + static_cast<uint8_t>(Payload[4]);
        }
        return ScanResult::Positive;
      }
    }
    WaitEnded = true;
    if (RxBuffer.empty()) return ScanResult::GoOn;
  }
}

}  // namespace

bool SendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                             int16_t WaitForAnswer, int32_t& Status) {
  RxQueue RxBuffer;
  return SendCommandAndGetAnswer(Link, CommandByte, CommandString, WaitForAnswer, Status, RxBuffer);
}

bool SendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                             int16_t WaitForAnswer, int32_t& Status, RxQueue& RxBuffer) {
  const auto command = static_cast<uint8_t>(CommandByte);
  const std::string Frame = BuildFrame(kDirectStartByte, command, CommandString);
  int64_t LastByteTime = 0;
  // Whether the last pass took no byte from the buffer, so that the next can only wait for more.
  bool Settled = true;
  RxBuffer.clear();
  std::string Chunk;
  for (int16_t Tries = 0; Tries < kTries; ++Tries) {
    Comm_schreiben_32(Link.Port, Link.PortHandle, Frame);
    Link.Time.Sleep(5);
    // Whatever reached the port up to now, answer or not, is lost here.
    Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
    const int64_t TryStart = Link.Time.GetTickCount();
    bool WaitEnded = false;
    do {
      Link.Events.PumpEvents();
      const size_t kept = RxBuffer.size();
      ReadPass(Link, Chunk,
               PassWaitDeadline(Link, RxBuffer, LastByteTime, TryStart + WaitForAnswer, Settled));
      if (!Chunk.empty()) LastByteTime = Link.Time.GetTickCount();
      RxBuffer.Append(Chunk);
      if (RxBuffer.size() >= 2 && RxBuffer[0] == kDirectStartByte &&
          ScanFrames(RxBuffer, command, Status, WaitEnded) == ScanResult::Positive) {
        Link.LastAnswerTick = Link.Time.GetTickCount();
        return true;
      }
      DropAfterSilence(Link, LastByteTime, RxBuffer);
      Settled = RxBuffer.size() == kept + Chunk.size();
      Link.Events.PumpEvents();
      if (Link.Cancel) return false;
    } while (TryStart + WaitForAnswer > Link.Time.GetTickCount() && !WaitEnded);
  }
  return false;
}

}  // namespace palimbo
