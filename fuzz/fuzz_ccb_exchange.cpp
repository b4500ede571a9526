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
  int32_t crc = fuzz::kUntouched;
  const fuzz::ExchangeRun run =
      fuzz::RunExchange(Data, Size, kCcbStartByte, /*DrainAfterWrite=*/false, Exchange, crc);

  // The answers the call may have taken: 140, the echo, and a number over the rest; a number
  // beyond 31 bits is still positive and gives the value no CRC has.
  bool positiveWithCrc = false;
  for (const std::string& p : fuzz::ValidFrames(run.Kept, kCcbStartByte)) {
    if (p.size() < 2 || static_cast<uint8_t>(p[0]) != CCBAnswer ||
        static_cast<uint8_t>(p[1]) != run.CommandByte) {
      continue;
    }
    int64_t number = 0;
    for (size_t i = 2; i < p.size() && number <= INT32_MAX; ++i) {
      number = number * 256 + static_cast<uint8_t>(p[i]);
    }
    if ((number > INT32_MAX ? kNumberOutOfRange : number) == crc) positiveWithCrc = true;
  }
  if (run.Result) fuzz::Require(positiveWithCrc, "True without a positive frame of that CRC");
  // Only the operator or ten tries end a call without an answer.
  if (!run.Result && !run.CancelSet) {
    fuzz::Require(run.Writes.size() == 10, "gave up before ten tries");
  }
  return 0;
}
