#include "frames/ccb_exchange.h"

#include "frames/frame.h"
#include "serial/comm.h"

namespace palimbo {

namespace {

constexpr int kTries = 10;

// The number behind the echo; one beyond 31 bits gives kNumberOutOfRange.
int32_t ComposeNumber(const std::string& Payload) {
  int32_t value = 0;
  for (size_t i = 2; i < Payload.size(); ++i) {
    if (value > 0x7FFFFF) return kNumberOutOfRange;
    value = value * 256 | static_cast<uint8_t>(Payload[i]);
  }
  return value;
}

// Takes frames from the head of the buffer; a valid frame that is not our answer is skipped.
bool ScanFrames(RxQueue& RxBuffer, uint8_t CommandByte, int32_t& CRC) {
  std::string Payload;
  for (;;) {
    if (TakeHeadFrame(RxBuffer, Payload) != HeadFrame::Valid) return false;
    if (Payload.size() >= 2 && static_cast<uint8_t>(Payload[0]) == CCBAnswer &&
        static_cast<uint8_t>(Payload[1]) == CommandByte) {
      CRC = ComposeNumber(Payload);
      return true;
    }
    if (RxBuffer.empty()) return false;
  }
}

}  // namespace

bool CCBSendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                                int16_t WaitForAnswer, int32_t& CRC) {
  RxQueue RxBuffer;
  return CCBSendCommandAndGetAnswer(Link, CommandByte, CommandString, WaitForAnswer, CRC, RxBuffer);
}

bool CCBSendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                                int16_t WaitForAnswer, int32_t& CRC, RxQueue& RxBuffer) {
  const auto command = static_cast<uint8_t>(CommandByte);
  const std::string Frame = BuildFrame(kCcbStartByte, command, CommandString);
  int64_t LastByteTime = 0;
  // Whether the last pass took no byte from the buffer, so that the next can only wait for more.
  bool Settled = true;
  RxBuffer.clear();
  std::string Chunk;
  for (int16_t Tries = 0; Tries < kTries; ++Tries) {
    // Drain before the write, so that an answer arriving right behind it is kept.
    Link.Time.Sleep(5);
    Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
    Comm_schreiben_32(Link.Port, Link.PortHandle, Frame);
    const int64_t TryStart = Link.Time.GetTickCount();
    do {
      Link.Events.PumpEvents();
      const size_t kept = RxBuffer.size();
      ReadPass(Link, Chunk,
               PassWaitDeadline(Link, RxBuffer, LastByteTime, TryStart + WaitForAnswer, Settled));
      if (!Chunk.empty()) LastByteTime = Link.Time.GetTickCount();
      RxBuffer.Append(Chunk);
      if (RxBuffer.size() >= 2) {
        if (RxBuffer[0] != kCcbStartByte) {
          RxBuffer.DropFront(1);
        } else if (ScanFrames(RxBuffer, command, CRC)) {
          Link.LastAnswerTick = Link.Time.GetTickCount();
          return true;
        }
      }
      DropAfterSilence(Link, LastByteTime, RxBuffer);
      Settled = RxBuffer.size() == kept + Chunk.size();
      Link.Events.PumpEvents();
      if (Link.Cancel) return false;
    } while (TryStart + WaitForAnswer > Link.Time.GetTickCount());
  }
  return false;
}

}  // namespace palimbo
