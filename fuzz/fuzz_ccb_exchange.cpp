// CCBSendCommandAndGetAnswer against any answer bytes: True only for a positive frame that was
// really read, CRC only from such a frame, at most ten frames, and the call ends.
#include <cstddef>
#include <cstdint>

#include "exchange_harness.h"
#include "frames/ccb_exchange.h"

using namespace palimbo;

namespace {

bool Exchange(Link& Link, int16_t CommandByte, const std::string& CommandString,
              int16_t WaitForAnswer, int32_t& Value) {
  return CCBSendCommandAndGetAnswer(Link, CommandByte, CommandString, WaitForAnswer, Value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  int32_t crc = -1;
  const fuzz::ExchangeRun run =
      fuzz::RunExchange(Data, Size, kCcbStartByte, /*DrainAfterWrite=*/false, Exchange, crc);

  // The answers the call may have taken: 140, the echo, and a number over the rest.
  bool positiveWithCrc = false;
  bool beyondRange = false;
  for (const std::string& p : fuzz::ValidFrames(run.Kept, kCcbStartByte)) {
    if (p.size() < 2 || static_cast<uint8_t>(p[0]) != CCBAnswer ||
        static_cast<uint8_t>(p[1]) != run.CommandByte) {
      continue;
    }
    int64_t number = 0;
    for (size_t i = 2; i < p.size() && number <= INT32_MAX; ++i) {
      number = number * 256 + static_cast<uint8_t>(p[i]);
    }
    if (number > INT32_MAX) {
      beyondRange = true;
    } else if (number == crc) {
      positiveWithCrc = true;
    }
  }
  if (run.Result) fuzz::Require(positiveWithCrc, "True without a positive frame of that CRC");
  // Besides the operator and ten tries, only a number beyond 31 bits ends a call unanswered.
  if (!run.Result && !run.CancelSet && run.Writes.size() < 10) {
    fuzz::Require(beyondRange, "gave up before ten tries");
  }
  return 0;
}
