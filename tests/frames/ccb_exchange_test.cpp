#include "frames/ccb_exchange.h"

#include <gtest/gtest.h>

#include "frames/frame.h"
#include "support/virtual_job.h"

namespace palimbo {
namespace {

using testing::Bytes;
using testing::ScriptedPeer;
using testing::VirtualJob;

constexpr int64_t kMs = 1000;

const std::string kEnterFrame = Bytes({0x53, 0x01, 0x8A, 0x4C, 0xE5});
const std::string kEnterAnswer = Bytes({0x53, 0x02, 0x8C, 0x8A, 0x10, 0x46});
const std::string kCheckData = Bytes({0x00, 0x00, 0x40, 0x00});
const std::string kCheckFrame = Bytes({0x53, 0x05, 0x8F, 0x00, 0x00, 0x40, 0x00, 0xF2, 0x83});
const std::string kCheckAnswer = Bytes({0x53, 0x04, 0x8C, 0x8F, 0x12, 0x34, 0x07, 0xC8});

std::string Answer(int Echo, const std::string& Number) {
  return BuildFrame(kCcbStartByte, CCBAnswer, static_cast<char>(Echo) + Number);
}

struct Exchange {
  bool Result;
  int32_t CRC;
  int64_t ElapsedMs;
};

Exchange Exchanged(VirtualJob& Job, int16_t Command, const std::string& Data, int32_t CRC = -7) {
  Job.OpenPort();
  Link link = Job.Ctx.MakeLink();
  const int64_t start = Job.NowMs();
  const bool result = CCBSendCommandAndGetAnswer(link, Command, Data, 1000, CRC);
  return {result, CRC, Job.NowMs() - start};
}

void AnswerEachRequest(ScriptedPeer& Module, const std::string& Bytes, int64_t Delay = 10 * kMs) {
  Module.OnReceive = [Bytes, Delay](std::string_view, int64_t Now,
                                    std::vector<sim::Emission>& Out) {
    Out.push_back({Now + Delay, Bytes});
  };
}

TEST(CcbExchange, WorkedExamplesByteForByte) {
  {
    ScriptedPeer module;
    AnswerEachRequest(module, kEnterAnswer);
    VirtualJob job(module);
    const Exchange e = Exchanged(job, 138, "");
    EXPECT_TRUE(e.Result);
    EXPECT_EQ(e.CRC, 0) << "an answer without number bytes gives 0";
    EXPECT_EQ(job.Writes(), std::vector<std::string>{kEnterFrame});
  }
  {
    ScriptedPeer module;
    AnswerEachRequest(module, kCheckAnswer);
    VirtualJob job(module);
    const Exchange e = Exchanged(job, 143, kCheckData);
    EXPECT_TRUE(e.Result);
    EXPECT_EQ(e.CRC, 0x1234);
    EXPECT_EQ(job.Writes(), std::vector<std::string>{kCheckFrame});
  }
}

struct NumberCase {
  const char* Name;
  std::string Answer;
  bool Result;
  int32_t CRC;
};

class CcbAnswers : public ::testing::TestWithParam<NumberCase> {};

TEST_P(CcbAnswers, ResultAndNumber) {
  ScriptedPeer module;
  AnswerEachRequest(module, GetParam().Answer);
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 143, kCheckData);
  EXPECT_EQ(e.Result, GetParam().Result);
  EXPECT_EQ(e.CRC, GetParam().CRC);
}

INSTANTIATE_TEST_SUITE_P(
    , CcbAnswers,
    ::testing::Values(
        NumberCase{"LeadingZerosDoNotCount", Answer(143, Bytes({0, 0, 0x12, 0x34})), true, 0x1234},
        NumberCase{"ThreeBytes", Answer(143, Bytes({0x01, 0x02, 0x03})), true, 0x010203},
        NumberCase{"LargestThatFits", Answer(143, Bytes({0x7F, 0xFF, 0xFF, 0xFF})), true,
                   0x7FFFFFFF},
        NumberCase{"TopBitOfFourBytesDoesNotFit", Answer(143, Bytes({0x80, 0, 0, 0})), false, -7},
        NumberCase{"FiveSignificantBytesDoNotFit", Answer(143, Bytes({1, 0, 0, 0, 0})), false, -7},
        NumberCase{"OneBytePayloadIsSkipped", BuildFrame(kCcbStartByte, CCBAnswer, ""), false, -7},
        NumberCase{"OtherAnswerCodeIsSkipped", BuildFrame(kCcbStartByte, 141, Bytes({143})), false,
                   -7}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST(CcbExchange, OtherEchoThenPositiveInTheSameScan) {
  ScriptedPeer module;
  AnswerEachRequest(module, Answer(139, Bytes({0x55})) + Answer(143, Bytes({0x12, 0x34})));
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 143, kCheckData);
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(e.CRC, 0x1234);
  EXPECT_EQ(job.Writes().size(), 1u);
}

TEST(CcbExchange, SkippedFramesDoNotEndTheTry) {
  ScriptedPeer module;
  AnswerEachRequest(module, Answer(139, ""));
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 143, kCheckData);
  EXPECT_FALSE(e.Result);
  EXPECT_EQ(job.Writes().size(), 10u);
  EXPECT_GE(e.ElapsedMs, 10 * 1005);
  EXPECT_LE(e.ElapsedMs, 10 * 1005 + 20);
}

TEST(CcbExchange, GarbageGoesInTheSamePassWithoutWaitingForSilence) {
  ScriptedPeer module;
  AnswerEachRequest(module, Bytes({0x01, 0x02, 0x03}) + kEnterAnswer);
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 138, "");
  EXPECT_TRUE(e.Result);
  EXPECT_LT(e.ElapsedMs, 30) << "the direct exchange would have waited 60 ms here";
}

TEST(CcbExchange, StrayByteAloneWaitsThenGoesAfterSilence) {
  ScriptedPeer module;
  // A lone "S" is held until the inactivity rule takes it; the answer behind it is then found.
  module.OnReceive = [](std::string_view, int64_t Now, std::vector<sim::Emission>& Out) {
    Out.push_back({Now + 10 * kMs, Bytes({0x53})});
    Out.push_back({Now + 200 * kMs, kEnterAnswer});
  };
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 138, "");
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(job.Writes().size(), 1u);
}

TEST(CcbExchange, AnswerRightBehindTheWriteIsKept) {
  ScriptedPeer module;
  AnswerEachRequest(module, kEnterAnswer, 0);
  VirtualJob job(module);
  const Exchange e = Exchanged(job, 138, "");
  EXPECT_TRUE(e.Result);
  EXPECT_EQ(job.Writes().size(), 1u);
}

TEST(CcbExchange, CancelOnEntrySendsOnceAndKeepsTheNumber) {
  ScriptedPeer module;
  AnswerEachRequest(module, kCheckAnswer);
  VirtualJob job(module);
  job.Ctx.Cancel = true;
  const Exchange e = Exchanged(job, 143, kCheckData);
  EXPECT_FALSE(e.Result);
  EXPECT_EQ(e.CRC, -7);
  EXPECT_EQ(job.Writes().size(), 1u);
  EXPECT_TRUE(job.Ctx.Cancel);
}

}  // namespace
}  // namespace palimbo
