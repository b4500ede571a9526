#include "frames/direct_exchange.h"

#include "frames/frame.h"

namespace palimbo {

namespace {

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
  return RunTries(Link, BuildFrame(kDirectStartByte, command, CommandString),
                  WriteOrder::BeforeTheDrain, WaitForAnswer, RxBuffer, [&](RxQueue& Buffer) {
                    // Anything but a start byte at the head waits for the silence rule.
                    if (Buffer.size() < 2 || Buffer[0] != kDirectStartByte) {
                      return PassFind::Nothing;
                    }
                    bool WaitEnded = false;
                    if (ScanFrames(Buffer, command, Status, WaitEnded) == ScanResult::Positive) {
                      return PassFind::Positive;
                    }
                    return WaitEnded ? PassFind::EndOfTry : PassFind::Nothing;
                  });
}

}  // namespace palimbo
