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
  int MinMs, MaxMs;
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
  Link link = job.Ctx.MakeLink();
  int32_t value = -7;
  const int64_t start = job.NowMs();
  const bool result = s.UseCcb ? CCBSendCommandAndGetAnswer(link, s.Command, s.Data, s.Wait, value)
                               : SendCommandAndGetAnswer(link, s.Command, s.Data, s.Wait, value);
  const int64_t elapsed = job.NowMs() - start;
  EXPECT_EQ(result, s.Result);
  EXPECT_EQ(value, s.Value);
  EXPECT_EQ(job.Writes().size(), s.Writes);
  EXPECT_GE(elapsed, s.MinMs);
  EXPECT_LE(elapsed, s.MaxMs);
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
                 10, 14, 250, false, false, kProbeFrame},
        Scenario{"DirectPositiveWithoutStatus", false, 'C', kProbe, {{kEvery, 10, kPositiveBare}},
                 true, -7, 1, 10, 14},
        Scenario{"DirectNegativeResendsAtOnce", false, 'C', kProbe, {{kEvery, 10, kNegative}},
                 false, -7, 10, 100, 160},
        Scenario{"DirectStatusFFFF", false, 'C', kProbe,
                 {{kEvery, 10, Direct(Bytes({'R', 'C', 1, 255, 255}))}}, true, 65535, 1, 10, 14},
        Scenario{"DirectFourBytePayloadKeepsStatus", false, 'C', kProbe,
                 {{kEvery, 10, Direct(Bytes({'R', 'C', 1, 9}))}}, true, -7, 1, 10, 14},
        Scenario{"DirectBadCrcDoesNotEndTheTry", false, 'C', kProbe,
                 {{kEvery, 10, Bytes({0x55, 0x03, 0x52, 0x43, 0x01, 0xBA, 0xCD})}}, false, -7, 10,
                 2550, 2560},
        Scenario{"DirectSilenceTenFullTries", false, 'E', "", {}, false, -7, 10, 2550, 2560},
        Scenario{"DirectPositiveBehindNegativeInOneRead", false, 'C', kProbe,
                 {{0, 10, kNegative + kPositive}}, true, 0x1234, 1, 10, 16, 250, false, true},
        Scenario{"DirectLateAnswerAcceptedAfterNextDrain", false, 'C', kProbe,
                 {{0, 300, kPositive}}, true, 0x1234, 2, 300, 305},
        Scenario{"DirectAnswerInsideTheDrainIsLost", false, 'C', kProbe, {{kEvery, 0, kPositive}},
                 false, -7, 10, 2550, 2560},
        Scenario{"DirectGarbageWaitsForSilence", false, 'C', kProbe,
                 {{0, 10, Bytes({1, 2, 3}) + kPositive}}, true, 0x1234, 1, 72, 90},
        Scenario{"DirectPartialFrameCompletedInNextTry", false, 'C', kProbe,
                 {{0, 235, kPositive.substr(0, 4)}, {0, 275, kPositive.substr(4)}}, true, 0x1234, 2,
                 270, 280},
        Scenario{"DirectEmptyPayloadEndsTheTry", false, 'C', kProbe,
                 {{0, 10, Bytes({0x55, 0x00, 0x36, 0xA9})}, {1, 10, kPositiveBare}}, true, -7, 2,
                 20, 30},
        Scenario{"DirectEchoedRequestKeepsWaiting", false, 'C', kProbe,
                 {{0, 6, kProbeFrame}, {0, 100, kPositive}}, true, 0x1234, 1, 95, 105},
        Scenario{"DirectCancelOnEntryOnePass", false, 'C', kProbe, {{kEvery, 10, kPositive}}, false,
                 -7, 1, 5, 8, 250, true},
        Scenario{"DirectWaitZeroOnePassPerTry", false, 'E', "", {}, false, -7, 10, 50, 70, 0},
        // CCB: the worked examples, then what differs from the direct exchange.
        Scenario{"CcbEnter", true, 138, "", {{kEvery, 10, kEnterAnswer}}, true, 0, 1, 15, 18, 1000,
                 false, false, kEnterFrame},
        Scenario{"CcbCheck", true, 143, kCheck, {{kEvery, 10, kCheckAnswer}}, true, 0x1234, 1, 15,
                 20, 1000, false, false, kCheckFrame},
        Scenario{"CcbLeadingZeros", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0, 0, 0x12, 0x34}))}}, true, 0x1234, 1, 15, 20,
                 1000},
        Scenario{"CcbLargestNumber", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0x7F, 0xFF, 0xFF, 0xFF}))}}, true, 0x7FFFFFFF, 1, 15,
                 20, 1000},
        Scenario{"CcbNumberTooBigFails", true, 143, kCheck,
                 {{kEvery, 10, Ccb(143, Bytes({0x80, 0, 0, 0}))}}, false, -7, 1, 15, 20, 1000},
        Scenario{"CcbOtherEchoThenPositiveInOneScan", true, 143, kCheck,
                 {{kEvery, 10, Ccb(139, "") + kCheckAnswer}}, true, 0x1234, 1, 15, 21, 1000},
        Scenario{"CcbSkippedFramesKeepWaiting", true, 143, kCheck,
                 {{kEvery, 10, Ccb(139, "") + BuildFrame(kCcbStartByte, CCBAnswer, "")}}, false, -7,
                 10, 10050, 10060, 1000},
        Scenario{"CcbGarbageGoesAtOnce", true, 138, "",
                 {{kEvery, 10, Bytes({1, 2, 3}) + kEnterAnswer}}, true, 0, 1, 15, 20, 1000},
        Scenario{"CcbStrayByteWaitsForSilence", true, 138, "",
                 {{0, 10, Bytes({0x53})}, {0, 200, kEnterAnswer}}, true, 0, 1, 200, 210, 1000},
        Scenario{"CcbAnswerRightBehindTheWriteIsKept", true, 138, "", {{kEvery, 0, kEnterAnswer}},
                 true, 0, 1, 5, 8, 1000},
        Scenario{"CcbCancelOnEntryOnePass", true, 143, kCheck, {{kEvery, 10, kCheckAnswer}}, false,
                 -7, 1, 5, 8, 1000, true}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(ExchangeIdleWait, DoesNotChangeWhatIsSeen) {
  for (const int32_t idle : {0, kIdleWaitMicros}) {
    testing::ScriptedPeer module;
    module.OnReceive = [](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
      Out.push_back({Now + 10'000, kPositive});
    };
    testing::VirtualJob job(module);
    job.OpenPort();
    job.Ctx.IdleWaitMicros = idle;
    Link link = job.Ctx.MakeLink();
    int32_t status = 0;
    EXPECT_TRUE(SendCommandAndGetAnswer(link, 'C', kProbe, 250, status)) << idle;
    EXPECT_LE(job.NowMs(), 1000 + 16) << idle;
  }
}

}  // namespace
}  // namespace palimbo
