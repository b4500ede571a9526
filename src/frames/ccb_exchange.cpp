#include "frames/ccb_exchange.h"

#include "frames/frame.h"

namespace palimbo {

namespace {

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
  return RunTries(Link, BuildFrame(kCcbStartByte, command, CommandString),
                  WriteOrder::AfterTheDrain, WaitForAnswer, RxBuffer, [&](RxQueue& Buffer) {
                    if (Buffer.size() < 2) return PassFind::Nothing;
                    // A byte that begins no frame goes at once.
                    if (Buffer[0] != kCcbStartByte) {
                      Buffer.DropFront(1);
                      return PassFind::Nothing;
                    }
                    return ScanFrames(Buffer, command, CRC) ? PassFind::Positive
                                                            : PassFind::Nothing;
                  });
}

}  // namespace palimbo
