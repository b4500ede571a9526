#include "frames/ccb_exchange.h"

#include "frames/frame.h"
#include "serial/comm.h"

namespace palimbo {

namespace {

constexpr int kTries = 10;

enum class ScanResult { GoOn, Positive, OutOfRange };

// Composes the number behind the echo; false when it does not fit in 31 bits.
bool ComposeNumber(const std::string& Payload, int32_t& Number) {
  int32_t value = 0;
  for (size_t i = 2; i < Payload.size(); ++i) {
    if (value > 0x7FFFFF) return false;
    value = value * 256 | static_cast<uint8_t>(Payload[i]);
  }
  Number = value;
  return true;
}

// Takes frames from the head of the buffer; a valid frame that is not our answer is skipped.
ScanResult ScanFrames(std::string& RxBuffer, uint8_t CommandByte, int32_t& CRC) {
  for (;;) {
    std::string Payload;
    if (TakeHeadFrame(RxBuffer, Payload) != HeadFrame::Valid) return ScanResult::GoOn;
    if (Payload.size() >= 2 && static_cast<uint8_t>(Payload[0]) == CCBAnswer &&
        static_cast<uint8_t>(Payload[1]) == CommandByte) {
      return ComposeNumber(Payload, CRC) ? ScanResult::Positive : ScanResult::OutOfRange;
    }
    if (RxBuffer.empty()) return ScanResult::GoOn;
  }
}

}  // namespace

bool CCBSendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                                int16_t WaitForAnswer, int32_t& CRC) {
  const auto command = static_cast<uint8_t>(CommandByte);
  const std::string Frame = BuildFrame(kCcbStartByte, command, CommandString);
  int64_t LastByteTime = 0;
  std::string RxBuffer;
  std::string Chunk;
  for (int16_t Tries = 0; Tries < kTries; ++Tries) {
    // Drain before the write, so that an answer arriving right behind it is kept.
    Link.Time.Sleep(5);
    Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
    Comm_schreiben_32(Link.Port, Link.PortHandle, Frame);
    const int64_t TryStart = Link.Time.GetTickCount();
    do {
      Link.Events.PumpEvents();
      ReadPass(Link, Chunk);
      if (!Chunk.empty()) LastByteTime = Link.Time.GetTickCount();
      RxBuffer += Chunk;
      if (RxBuffer.size() >= 2) {
        if (static_cast<uint8_t>(RxBuffer[0]) != kCcbStartByte) {
          RxBuffer.erase(0, 1);
        } else {
          switch (ScanFrames(RxBuffer, command, CRC)) {
            case ScanResult::Positive:
              return true;
            case ScanResult::OutOfRange:
              return false;
            case ScanResult::GoOn:
              break;
          }
        }
      }
      DropAfterSilence(Link, LastByteTime, RxBuffer);
      Link.Events.PumpEvents();
      if (Link.Cancel) return false;
    } while (TryStart + WaitForAnswer > Link.Time.GetTickCount());
  }
  return false;
}

}  // namespace palimbo
