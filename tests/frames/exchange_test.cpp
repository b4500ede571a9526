// Both bootloader exchanges on virtual time: what they send, what they accept, how long they try.
#include <gtest/gtest.h>

#include "frames/ccb_exchange.h"
#include "frames/direct_exchange.h"
#include "frames/frame.h"
#include "support/virtual_job.h"

namespace palimbo {
namespace {

using testing::Bytes;

// The direct worked example: "C" with 00 00 01 00, and its answers.
const std::string kProbe = Bytes({0x00, 0x00, 0x01, 0x00});
const std::string kProbeFrame = Bytes({0x55, 0x05, 0x43, 0x00, 0x00, 0x01, 0x00, 0x44, 0x89});
const std::string kPositive = Bytes({0x55, 0x05, 0x52, 0x43, 0x01, 0x12, 0x34, 0x8D, 0x9E});
const std::string kPositiveBare = Bytes({0x55, 0x03, 0x52, 0x43, 0x01, 0xBA, 0xCC});
const std::string kNegative = Bytes({0x55, 0x03, 0x52, 0x43, 0x00, 0xE0, 0x37});
const std::string kBadCrc = Bytes({0x55, 0x03, 0x52, 0x43, 0x01, 0xBA, 0xCD});
// The CCB worked examples: CCBEnter, and CCBCheck with 00 00 40 00.
const std::string kEnterFrame = Bytes({0x53, 0x01, 0x8A, 0x4C, 0xE5});
const std::string kEnterAnswer = Bytes({0x53, 0x02, 0x8C, 0x8A, 0x10, 0x46});
const std::string kCheck = Bytes({0x00, 0x00, 0x40, 0x00});
const std::string kCheckFrame = Bytes({0x53, 0x05, 0x8F, 0x00, 0x00, 0x40, 0x00, 0xF2, 0x83});
const std::string kCheckAnswer = Bytes({0x53, 0x04, 0x8C, 0x8F, 0x12, 0x34, 0x07, 0xC8});

std::string Direct(const std::string& Payload) {
  return BuildFrame(kDirectStartByte, static_cast<uint8_t>(Payload[0]), Payload.substr(1));
}
std::string Ccb(int Echo, const std::string& Number) {
  return BuildFrame(kCcbStartByte, CCBAnswer, static_cast<char>(Echo) + Number);
}

constexpr int kEvery = -1;
struct Reply {
  int Request;  // 0-based request the module answers, or kEvery
  int DelayMs;  // after the request has arrived
  std::string Bytes;
};

struct Scenario {
  const char* Name;
  bool UseCcb;
  int16_t Command;
  std::string Data;
  std::vector<Reply> Replies;
  bool Result;
  int32_t Value;  // Status or CRC afterwards; -7 is the value on entry
  size_t Writes;
  int Ms;  // from the call to its return, to the tick
  int16_t Wait = 250;
  bool Cancel = false;
  bool Packets = false;  // the adapter hands over each reply at once
  std::string FirstWrite = "";
};

void PrintTo(const Scenario& S, std::ostream* Out) {
  *Out << S.Name;
}

class Exchanges : public ::testing::TestWithParam<Scenario> {};

TEST_P(Exchanges, ResultValueTriesAndTime) {
  const Scenario& s = GetParam();
  testing::ScriptedPeer module;
  module.OnReceive = [&, request = 0](std::string_view, int64_t Now,
                                      std::vector<sim::Emission>& Out) mutable {
    for (const Reply& r : s.Replies) {
      if (r.Request == kEvery || r.Request == request)
        Out.push_back({Now + r.DelayMs * 1000, r.Bytes});
    }
    ++request;
  };
  testing::VirtualJob job(module);
  job.Line.SetPacketDelivery(s.Packets);
  job.OpenPort();
  job.Ctx.Cancel = s.Cancel;
  job.Ctx.LastAnswerTick = 3;
  Link link = job.Ctx.MakeLink();
  int32_t value = -7;
  const int64_t start = job.NowMs();
  const bool result = s.UseCcb ? CCBSendCommandAndGetAnswer(link, s.Command, s.Data, s.Wait, value)
                               : SendCommandAndGetAnswer(link, s.Command, s.Data, s.Wait, value);
  const int64_t elapsed = job.NowMs() - start;
  EXPECT_EQ(result, s.Result);
  // The positive answer is found in the call's last pass, at its last tick.
  EXPECT_EQ(job.Ctx.LastAnswerTick, s.Result ? job.NowMs() : 3);
  EXPECT_EQ(value, s.Value);
  EXPECT_EQ(job.Writes().size(), s.Writes);
  EXPECT_EQ(elapsed, s.Ms);
  EXPECT_EQ(job.Ctx.Cancel, s.Cancel) << "the exchanges only read the flag";
  if (!s.FirstWrite.empty()) {
    EXPECT_EQ(job.Writes().front(), s.FirstWrite);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    , Exchanges,
    ::testing::Values(
        // Direct: the worked example's three answers, then the timing rules.
        Scenario{"DirectPositive", false, 'C', kProbe, {{kEvery, 10, kPositive}}, true, 0x1234, 1,
                 13, 250, false, false, kProbeFrame},
        Scenario{"DirectPositiveWithoutStatus", false, 'C', kProbe, {{kEvery, 10, kPositiveBare}},
                 true, -7, 1, 12},
        Scenario{"DirectNegativeResendsAtOnce", false, 'C', kProbe, {{kEvery, 10, kNegative}},
                 false, -7, 10, 127},
        // Only the outcome 1 is positive: any other ends the try like a negative answer.
        Scenario{"DirectOutcomeTwoIsNotPositive", false, 'C', kProbe,
                 {{kEvery, 10, Direct(Bytes({'R', 'C', 2, 0x12, 0x34}))}}, false, -7, 10, 131},
        Scenario{"DirectStatusFFFF", false, 'C', kProbe,
                 {{kEvery, 10, Direct(Bytes({'R', 'C', 1, 255, 255}))}}, true, 65535, 1, 13},
        Scenario{"DirectFourBytePayloadKeepsStatus", false, 'C', kProbe,
                 {{kEvery, 10, Direct(Bytes({'R', 'C', 1, 9}))}}, true, -7, 1, 12},
        Scenario{"DirectBadCrcDoesNotEndTheTry", false, 'C', kProbe,
                 {{kEvery, 10, kBadCrc}}, false, -7, 10,
                 2550},
        // A bad frame loses its first byte only: its rest waits for the silence (61 ticks after
        // the last byte, at 14) and the answer behind it, in the same read, still counts.
        Scenario{"DirectBadCrcThenPositiveInOneRead", false, 'C', kProbe,
                 {{0, 10, kBadCrc + kPositive}}, true, 0x1234, 1, 75, 250, false, true},
        Scenario{"DirectSilenceTenFullTries", false, 'E', "", {}, false, -7, 10, 2550},
        Scenario{"DirectPositiveBehindNegativeInOneRead", false, 'C', kProbe,
                 {{0, 10, kNegative + kPositive}}, true, 0x1234, 1, 14, 250, false, true},
        Scenario{"DirectLateAnswerAcceptedAfterNextDrain", false, 'C', kProbe,
                 {{0, 300, kPositive}}, true, 0x1234, 2, 303},
        Scenario{"DirectAnswerInsideTheDrainIsLost", false, 'C', kProbe, {{kEvery, 0, kPositive}},
                 false, -7, 10, 2550},
        Scenario{"DirectGarbageWaitsForSilence", false, 'C', kProbe,
                 {{0, 10, Bytes({1, 2, 3}) + kPositive}}, true, 0x1234, 1, 74},
        // 300 bytes of garbage arrive in 54 ms; after 60 ms of silence they go in as many
        // passes, at once, and the answer behind them still makes the first try.
        Scenario{"DirectLongGarbageGoesAtOnceAfterSilence", false, 'C', kProbe,
                 {{0, 10, std::string(300, '\x01') + kPositive}}, true, 0x1234, 1, 127},
        Scenario{"DirectPartialFrameCompletedInNextTry", false, 'C', kProbe,
                 {{0, 235, kPositive.substr(0, 4)}, {0, 275, kPositive.substr(4)}}, true, 0x1234, 2,
                 277},
        Scenario{"DirectEmptyPayloadEndsTheTry", false, 'C', kProbe,
                 {{0, 10, Bytes({0x55, 0x00, 0x36, 0xA9})}, {1, 10, kPositiveBare}}, true, -7, 2,
                 25},
        Scenario{"DirectEchoedRequestKeepsWaiting", false, 'C', kProbe,
                 {{0, 6, kProbeFrame}, {0, 100, kPositive}}, true, 0x1234, 1, 103},
        Scenario{"DirectCancelOnEntryOnePass", false, 'C', kProbe, {{kEvery, 10, kPositive}}, false,
                 -7, 1, 5, 250, true},
        Scenario{"DirectWaitZeroOnePassPerTry", false, 'E', "", {}, false, -7, 10, 50, 0},
        // CCB: the worked examples, then what differs from the direct exchange.
        Scenario{"CcbEnter", true, 138, "", {{kEvery, 10, kEnterAnswer}}, true, 0, 1, 16, 1000,
                 false, false, kEnterFrame},
        Scenario{"CcbCheck", true, 143, kCheck, {{kEvery, 10, kCheckAnswer}}, true, 0x1234, 1, 17,
                 1000, false, false, kCheckFrame},
        Scenario{"CcbLeadingZeros", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0, 0, 0x12, 0x34}))}}, true, 0x1234, 1, 18,
                 1000},
        Scenario{"CcbLargestNumber", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0x7F, 0xFF, 0xFF, 0xFF}))}}, true, 0x7FFFFFFF, 1,
                 18, 1000},
        Scenario{"CcbLargestNumberInFiveBytes", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0, 0x7F, 0xFF, 0xFF, 0xFF}))}}, true, 0x7FFFFFFF, 1,
                 18, 1000},
        // A number beyond 31 bits is still a positive answer, with a value no CRC has.
        Scenario{"CcbNumberOf32BitsMatchesNoCrc", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0x80, 0, 0, 0}))}}, true, kNumberOutOfRange, 1,
                 18, 1000},
        Scenario{"CcbNumberOfFiveBytesMatchesNoCrc", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({1, 0, 0, 0x12, 0x34}))}}, true, kNumberOutOfRange, 1,
                 18, 1000},
        Scenario{"CcbOtherEchoThenPositiveInOneScan", true, 143, kCheck,
                 {{kEvery, 10, Ccb(139, "") + kCheckAnswer}}, true, 0x1234, 1, 19, 1000},
        Scenario{"CcbSkippedFramesKeepWaiting", true, 143, kCheck,
                 {{kEvery, 10, Ccb(139, "") + BuildFrame(kCcbStartByte, CCBAnswer, "")}}, false, -7,
                 10, 10050, 1000},
        Scenario{"CcbGarbageGoesAtOnce", true, 138, "",
                 {{kEvery, 10, Bytes({1, 2, 3}) + kEnterAnswer}}, true, 0, 1, 17, 1000},
        Scenario{"CcbBadCrcThenPositiveInOneRead", true, 138, "",
                 {{0, 10, kEnterAnswer.substr(0, 5) + "\x47" + kEnterAnswer}}, true, 0, 1, 17, 1000,
                 false, true},
        Scenario{"CcbStrayByteWaitsForSilence", true, 138, "",
                 {{0, 10, Bytes({0x53})}, {0, 200, kEnterAnswer}}, true, 0, 1, 206, 1000},
        Scenario{"CcbAnswerRightBehindTheWriteIsKept", true, 138, "", {{kEvery, 0, kEnterAnswer}},
                 true, 0, 1, 6, 1000},
        Scenario{"CcbCancelOnEntryOnePass", true, 143, kCheck, {{kEvery, 10, kCheckAnswer}}, false,
                 -7, 1, 5, 1000, true}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// A wait ends at the start of its deadline's tick at the latest, however far into the present
// tick it began, so that the pass behind it still runs in that tick. A closed port is slept on
// in whole ticks, which end inside the deadline's tick.
TEST(WaitBefore, EndsNoLaterThanTheDeadlinesTick) {
  struct Row {
    int64_t StartMicros, Deadline;
    bool Open;
    int64_t EndMicros;
  };
  const Row rows[] = {
      {1'000'998, 1'010, true, 1'010'000},  {1'000'000, 1'050, true, 1'010'000},
      {1'009'500, 1'009, true, 1'009'500},  {1'000'700, 1'003, false, 1'003'700},
      {1'000'700, 1'050, false, 1'005'700},
  };
  for (const Row& r : rows) {
    testing::ScriptedPeer module;
    testing::VirtualJob job(module);
    if (r.Open) job.OpenPort();
    job.Clock.AdvanceTo(r.StartMicros);
    Link link = job.Ctx.MakeLink();
    WaitBefore(link, r.Deadline);
    EXPECT_EQ(job.Clock.NowMicros(), r.EndMicros) << r.StartMicros << " to tick " << r.Deadline;
  }
}

// A module that floods the line from the first request on, for 10 s at line speed. The
// exchange must end as the rules say, and its buffer must cost no more than what arrived
// during the call, with work linear in it.
struct FloodCase {
  const char* Name;
  bool UseCcb;
  std::string Pattern;  // repeated for the whole flood
  int MinMs, MaxMs;
  size_t PeakMax;  // most bytes the receive buffer may hold at once
};

void PrintTo(const FloodCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class ExchangeUnderAFlood : public ::testing::TestWithParam<FloodCase> {};

constexpr int64_t kFloodBytes = 57600;  // 10 s at 57600 baud

TEST_P(ExchangeUnderAFlood, EndsWithBoundedBufferAndLinearWork) {
  const FloodCase& c = GetParam();
  std::string flood;
  while (static_cast<int64_t>(flood.size()) < kFloodBytes) flood += c.Pattern;
  flood.resize(kFloodBytes);
  testing::ScriptedPeer module;
  module.OnReceive = [&, started = false](std::string_view, int64_t Now,
                                          std::vector<sim::Emission>& Out) mutable {
    if (!started) Out.push_back({Now, flood});
    started = true;
  };
  testing::VirtualJob job(module);
  job.OpenPort();
  Link link = job.Ctx.MakeLink();
  RxQueue rx;
  int32_t value = -7;
  const int64_t start = job.NowMs();
  const bool result = c.UseCcb ? CCBSendCommandAndGetAnswer(link, 143, kCheck, 2000, value, rx)
                               : SendCommandAndGetAnswer(link, 'C', kProbe, 2000, value, rx);
  const int64_t elapsed = job.NowMs() - start;
  EXPECT_FALSE(result);
  EXPECT_EQ(value, -7);
  EXPECT_GE(elapsed, c.MinMs);
  EXPECT_LE(elapsed, c.MaxMs);
  EXPECT_EQ(job.Line.Sent().size(), static_cast<size_t>(kFloodBytes));
  EXPECT_LE(rx.PeakSize(), c.PeakMax);
  EXPECT_LE(rx.BytesMoved(), static_cast<uint64_t>(kFloodBytes));
}

std::string NeverPositiveDirect() {
  return Direct(Bytes({'R', 'E', 1}));  // answers another command
}
std::string NeverPositiveCcb() {
  return Ccb(139, Bytes({0x12, 0x34}));  // echoes another command
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, ExchangeUnderAFlood, ::testing::Values(
    // No start byte at the head: the direct exchange keeps all until 60 ms of silence.
    FloodCase{"DirectZeros", false, Bytes({0}), 20050, 20060, kFloodBytes},
    // A start byte and a length at every head: one bad frame a pass, one byte dropped each.
    FloodCase{"DirectStartBytes", false, Bytes({0x55}), 20050, 20060, 0x55 + 8},
    // The first frame ends its try at once; where the next try's drain cuts into the stream
    // decides whether its head finds frames again or waits in vain for silence.
    FloodCase{"DirectNeverPositive", false, NeverPositiveDirect(), 10050, 18100, kFloodBytes},
    FloodCase{"CcbZeros", true, Bytes({0}), 20050, 20060, 8},
    FloodCase{"CcbStartBytes", true, Bytes({0x53}), 20050, 20060, 0x53 + 8},
    // Skipped frames cost no try: the call runs its full time.
    FloodCase{"CcbNeverPositive", true, NeverPositiveCcb(), 20050, 20060, 64}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

}  // namespace
}  // namespace palimbo
