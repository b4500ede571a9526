// SendCommandAndGetAnswer against any answer bytes: True only for a positive frame that was
// really read, Status only from such a frame, at most ten frames, and the call ends.
#include <cstddef>
#include <cstdint>

#include "exchange_harness.h"
#include "frames/direct_exchange.h"

using namespace palimbo;

namespace {

bool Exchange(Link& Link, int16_t CommandByte, const std::string& CommandString,
              int16_t WaitForAnswer, int32_t& Value) {
  return SendCommandAndGetAnswer(Link, CommandByte, CommandString, WaitForAnswer, Value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  int32_t status = fuzz::kUntouched;
  const fuzz::ExchangeRun run =
      fuzz::RunExchange(Data, Size, kDirectStartByte, /*DrainAfterWrite=*/true, Exchange, status);

  // The answers the call may have taken: "R", the echo, 1, and maybe a 16-bit status.
  bool positive = false;
  bool positiveWithStatus = false;
  bool positiveWithoutStatus = false;
  for (const std::string& p : fuzz::ValidFrames(run.Kept, kDirectStartByte)) {
    if (p.size() < 3 || p[0] != 'R' || static_cast<uint8_t>(p[1]) != run.CommandByte || p[2] != 1) {
      continue;
    }
    positive = true;
    if (p.size() < 5) {
      positiveWithoutStatus = true;
    } else if (static_cast<uint8_t>(p[3]) * 256 + static_cast<uint8_t>(p[4]) == status) {
      positiveWithStatus = true;
    }
  }
  if (run.Result) {
    fuzz::Require(positive, "True without a positive frame");
    fuzz::Require(status == fuzz::kUntouched ? positiveWithoutStatus : positiveWithStatus,
                  "Status not from a positive frame");
  }
  // Only the operator or ten tries end a call without an answer; a refusal only shortens a try.
  if (!run.Result && !run.CancelSet) {
    fuzz::Require(run.Writes.size() == 10, "gave up before ten tries");
  }
  return 0;
}
