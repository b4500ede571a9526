#include "frames/direct_exchange.h"

#include <gtest/gtest.h>

#include "frames/frame.h"
#include "support/virtual_job.h"

namespace palimbo {
namespace {

using testing::Bytes;
using testing::ScriptedPeer;
using testing::VirtualJob;

constexpr int64_t kMs = 1000;

// The request of the worked example: "C" with 00 00 01 00.
const std::string kProbeData = Bytes({0x00, 0x00, 0x01, 0x00});
const std::string kProbeFrame = Bytes({0x55, 0x05, 0x43, 0x00, 0x00, 0x01, 0x00, 0x44, 0x89});
const std::string kPositiveWithStatus =
    Bytes({0x55, 0x05, 0x52, 0x43, 0x01, 0x12, 0x34, 0x8D, 0x9E});
const std::string kPositiveBare = Bytes({0x55, 0x03, 0x52, 0x43, 0x01, 0xBA, 0xCC});
const std::string kNegative = Bytes({0x55, 0x03, 0x52, 0x43, 0x00, 0xE0, 0x37});

struct Exchange {
  bool Result;
  int32_t Status;
  int64_t ElapsedMs;
};

Exchange Exchanged(VirtualJob& Job, int16_t Command, const std::string& Data, int16_t Wait,
                   int32_t Status = -7) {
  Job.OpenPort();
  Link link = Job.Ctx.MakeLink();
  const int64_t start = Job.NowMs();
  const bool result = SendCommandAndGetAnswer(link, Command, Data, Wait, Status);
  return {result, Status, Job.NowMs() - start};
}

// Answers the n-th request (0-based) with the given bytes after the given delay.
ScriptedPeer::Script AnswerRequests(std::vector<std::pair<int64_t, std::string>> Answers) {
  auto count = std::make_shared<size_t>(0);
  return [Answers, count](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
    if (*count < Answers.size() && !Answers[*count].second.empty()) {
      Out.push_back({Now + Answers[*count].first, Answers[*count].second});
    }
    ++*count;
  };
}

TEST(DirectFrame, BuildsTheWorkedExampleAndTheShortestRequest) {
  EXPECT_EQ(BuildFrame(kDirectStartByte, 'C', kProbeData), kProbeFrame);
  const std::string empty = BuildFrame(kDirectStartByte, 'E', "");
  ASSERT_EQ(empty.size(), 5u);
  EXPECT_EQ(empty[1], 1);
}

struct AnswerCase {
  const char* Name;
  std::string Answer;
  bool Result;
  int32_t Status;
};

class DirectAnswers : public ::testing::TestWithParam<AnswerCase> {};

TEST_P(DirectAnswers, ResultAndStatus) {
  ScriptedPeer module;
  // The same answer to every try, 10 ms after each request.
  module.OnReceive = [&](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
    Out.push_back({Now + 10 * kMs, GetParam().Answer});
  };
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 1000);
  EXPECT_EQ(e.Result, GetParam().Result);
  EXPECT_EQ(e.Status, GetParam().Status);
  EXPECT_EQ(job.Writes().front(), kProbeFrame);
}

INSTANTIATE_TEST_SUITE_P(
    , DirectAnswers,
    ::testing::Values(
        AnswerCase{"PositiveWithStatus", kPositiveWithStatus, true, 0x1234},
        AnswerCase{"PositiveWithoutStatusKeepsIt", kPositiveBare, true, -7},
        AnswerCase{"NegativeTenTimes", kNegative, false, -7},
        AnswerCase{"StatusFFFFIsPositive",
                   BuildFrame(kDirectStartByte, 0x52, Bytes({0x43, 0x01, 0xFF, 0xFF})), true,
                   65535},
        AnswerCase{"ExtraBytesBehindStatusIgnored",
                   BuildFrame(kDirectStartByte, 0x52, Bytes({0x43, 0x01, 0x00, 0x07, 0x99})), true,
                   7},
        AnswerCase{"FourBytePayloadLeavesStatus",
                   BuildFrame(kDirectStartByte, 0x52, Bytes({0x43, 0x01, 0x55})), true, -7},
        AnswerCase{"EchoOfAnotherCommand",
                   BuildFrame(kDirectStartByte, 0x52, Bytes({0x50, 0x01, 0x12, 0x34})), false, -7},
        AnswerCase{"BadCrcNeverCounts", Bytes({0x55, 0x03, 0x52, 0x43, 0x01, 0xBA, 0xCD}), false,
                   -7}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST(DirectExchange, NegativeAnswersResendAtOnceTenTimes) {
  ScriptedPeer module;
  module.OnReceive = [&](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
    Out.push_back({Now + 10 * kMs, kNegative});
  };
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 1000);
  EXPECT_FALSE(e.Result);
  EXPECT_EQ(job.Writes().size(), 10u);
  // Each try ends with the negative answer, long before its 1000 ms are over.
  EXPECT_LT(e.ElapsedMs, 10 * 30);
}

TEST(DirectExchange, SilenceGivesTenTriesOfTheFullWait) {
  ScriptedPeer module;
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_FALSE(e.Result);
  ASSERT_EQ(job.Writes().size(), 10u);
  for (const auto& w : job.Writes()) EXPECT_EQ(w, kProbeFrame);
  EXPECT_GE(e.ElapsedMs, 10 * 255);
  EXPECT_LE(e.ElapsedMs, 10 * 255 + 20);
}

TEST(DirectExchange, PositiveBehindNegativeInOneReadIsAccepted) {
  ScriptedPeer module;
  module.OnReceive = AnswerRequests({{10 * kMs, kNegative + kPositiveWithStatus}});
  VirtualJob job(module);
  job.Line.SetPacketDelivery(true);
  const Exchange e = Exchanged(job, 'C', kProbeData, 1000);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(e.Status, 0x1234);
}

TEST(DirectExchange, LateAnswerIsAcceptedBehindTheNextDrain) {
  ScriptedPeer module;
  module.OnReceive = AnswerRequests({{300 * kMs, kPositiveWithStatus}});
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(job.Writes().size(), 2u);
}

TEST(DirectExchange, AnswerInsideTheFiveMsAfterTheWriteIsLost) {
  ScriptedPeer module;
  module.OnReceive = [&](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
    Out.push_back({Now, kPositiveWithStatus});
  };
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_FALSE(e.Result);
  EXPECT_EQ(job.Writes().size(), 10u);
}

TEST(DirectExchange, GarbageWaitsForSilenceThenTheFrameBehindIsFound) {
  ScriptedPeer module;
  module.OnReceive = AnswerRequests({{10 * kMs, Bytes({0x01, 0x02, 0x03}) + kPositiveWithStatus}});
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(job.Writes().size(), 1u);
  // The garbage goes one byte a pass only after 60 ms without a byte.
  EXPECT_GT(e.ElapsedMs, 10 + 60);
}

TEST(DirectExchange, PartialFrameIsCompletedByTheNextTry) {
  ScriptedPeer module;
  // The first piece comes late in the first try, the rest after the second try's drain but
  // within 60 ms of the first piece, so the inactivity rule has not eaten it.
  module.OnReceive = [first = true](std::string_view, int64_t Now,
                                    std::vector<sim::Emission>& Out) mutable {
    if (first) {
      Out.push_back({Now + 235 * kMs, kPositiveWithStatus.substr(0, 4)});
      Out.push_back({Now + 275 * kMs, kPositiveWithStatus.substr(4)});
    }
    first = false;
  };
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(e.Status, 0x1234);
  EXPECT_EQ(job.Writes().size(), 2u);
}

TEST(DirectExchange, EmptyPayloadFrameEndsTheTry) {
  ScriptedPeer module;
  // L = 0 with the CRC of the length byte 00 alone.
  module.OnReceive =
      AnswerRequests({{10 * kMs, Bytes({0x55, 0x00, 0x36, 0xA9})}, {10 * kMs, kPositiveBare}});
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 1000);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(job.Writes().size(), 2u);
  EXPECT_LT(e.ElapsedMs, 100);
}

TEST(DirectExchange, EchoedRequestDoesNotShortenTheWait) {
  ScriptedPeer module;
  module.OnReceive = [&](std::string_view Heard, int64_t Now, std::vector<sim::Emission>& Out) {
    Out.push_back({Now + 1 * kMs + 5 * kMs, std::string(Heard)});
    Out.push_back({Now + 100 * kMs, kPositiveWithStatus});
  };
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(job.Writes().size(), 1u);
}

TEST(DirectExchange, CancelOnEntrySendsOnceAndGivesUpAfterOnePass) {
  ScriptedPeer module;
  module.OnReceive = AnswerRequests({{10 * kMs, kPositiveWithStatus}});
  VirtualJob job(module);
  job.Ctx.Cancel = true;
  const Exchange e = Exchanged(job, 'C', kProbeData, 250);
  EXPECT_FALSE(e.Result);
  EXPECT_EQ(e.Status, -7);
  EXPECT_EQ(job.Writes().size(), 1u);
  EXPECT_TRUE(job.Ctx.Cancel) << "the exchange only reads the flag";
  EXPECT_LT(e.ElapsedMs, 10);
}

TEST(DirectExchange, WaitZeroRunsOnePassPerTry) {
  ScriptedPeer module;
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 'E', "", 0);
  EXPECT_FALSE(e.Result);
  EXPECT_EQ(job.Writes().size(), 10u);
  EXPECT_LT(e.ElapsedMs, 10 * 8);
}

TEST(DirectExchange, IdleWaitDoesNotChangeWhatIsSeen) {
  // The same positive answer, found with the idle wait and with a pure spin.
  for (const int32_t idle : {0, kIdleWaitMicros}) {
    ScriptedPeer module;
    module.OnReceive = AnswerRequests({{10 * kMs, kPositiveWithStatus}});
    VirtualJob job(module);
    job.Ctx.IdleWaitMicros = idle;
    const Exchange e = Exchanged(job, 'C', kProbeData, 250);
    EXPECT_TRUE(e.Result) << idle;
    EXPECT_LE(e.ElapsedMs, 10 + 2 + 2) << idle;
  }
}

}  // namespace
}  // namespace palimbo
