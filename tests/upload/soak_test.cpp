// The fault-injection soak in short: a few dozen seeded uploads per protocol, each with its
// faults, none of which may end in a false success, a crash or a hang. Also the module's
// fault kinds that the soak relies on.
#include "soak_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frames/crc16.h"
#include "sim/simulated_module.h"
#include "support/temp_file.h"
#include "support/upload_run.h"
#include "upload/give_up.h"

// Each case names only the settings and fault fields it is about; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace palimbo::soak {

void PrintTo(Verdict V, std::ostream* Out) {
  *Out << VerdictName(V);
}

namespace {

using sim::BootProtocol;
using sim::Emission;
using sim::FaultKind;
using sim::ModuleSettings;
using sim::SimulatedModule;
using ::testing::Contains;

constexpr uint64_t kSeed = 12;
constexpr int kRunsPerRow = 4;

std::string DirectFrame(std::string_view Payload) {
  return SimulatedModule::EncodeFrame(sim::kDirectStart, Payload);
}
std::string CcbFrame(std::string_view Payload) {
  return SimulatedModule::EncodeFrame(sim::kCcbStart, Payload);
}
std::string WithByte(std::string Bytes, size_t At, uint8_t Mask) {
  Bytes[At] = static_cast<char>(static_cast<uint8_t>(Bytes[At]) ^ Mask);
  return Bytes;
}

const std::string kErase = DirectFrame("E");
const std::string kEraseOk = DirectFrame("RE\x01");
const std::string kPart = DirectFrame(std::string("F\0\0", 3) + std::string(128, 'q'));
const std::string kPage0 = DirectFrame(std::string("P\0\0\0\0", 5));
const std::string kPage1 = DirectFrame(std::string("P\0\0\0\x80", 5));
// The positive answer to "P" with the CRC of what the page holds.
std::string PageAnswer(std::string_view Page) {
  const int32_t crc = Crc16Of(Page);
  return DirectFrame(std::string("RP\x01", 3) + static_cast<char>(crc >> 8) +
                     static_cast<char>(crc & 0xFF));
}

const std::string kEnter = CcbFrame("\x8A");
const std::string kEnterOk = CcbFrame("\x8C\x8A");

struct FaultCase {
  const char* Name;
  ModuleSettings Settings;
  std::vector<std::string> Requests;  // heard 200 ms apart from 1 s on
  std::vector<Emission> Expected;     // every emission, in order
};

void PrintTo(const FaultCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class SoakFaults : public ::testing::TestWithParam<FaultCase> {};

TEST_P(SoakFaults, ReachTheLineAsTheySay) {
  const FaultCase& c = GetParam();
  SimulatedModule module(c.Settings);
  std::vector<Emission> out;
  for (size_t i = 0; i < c.Requests.size(); ++i) {
    module.Receive(c.Requests[i], 1'000'000 + static_cast<int64_t>(i) * 200'000, out);
  }
  ASSERT_EQ(out.size(), c.Expected.size());
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(out[i].AtMicros, c.Expected[i].AtMicros) << "emission " << i;
    EXPECT_EQ(out[i].Bytes, c.Expected[i].Bytes) << "emission " << i;
  }
}

constexpr int64_t kFirst = 1'010'000;  // the first answer: heard at 1 s, 10 ms turnaround
constexpr int64_t kSecond = 1'210'000;
constexpr auto kTruncate = FaultKind::TruncateAnswer;
constexpr auto kFlip = FaultKind::CorruptByte;
constexpr auto kNoise = FaultKind::NoiseAfter;

// clang-format off
INSTANTIATE_TEST_SUITE_P(, SoakFaults, ::testing::Values(
    FaultCase{"TruncatedOnceAfterThreeBytes",
              {.Faults = {{.Kind = kTruncate, .Command = 'E', .Occurrence = 1, .Position = 3}}},
              {kErase, kErase}, {{kFirst, kEraseOk.substr(0, 3)}, {kSecond, kEraseOk}}},
    // Taken modulo the answer's length, so that a truncation always takes something.
    FaultCase{"TruncationWrapsAtTheLength",
              {.Faults = {{.Kind = kTruncate, .Command = 'E', .Position = 9}}},
              {kErase}, {{kFirst, kEraseOk.substr(0, 2)}}},
    FaultCase{"TruncatedToNothingSendsNothing",
              {.Faults = {{.Kind = kTruncate, .Command = 'E', .Position = 7}}},
              {kErase, kErase}, {}},
    FaultCase{"TwoTruncationsKeepTheShorter",
              {.Faults = {{.Kind = kTruncate, .Command = 'E', .Position = 5},
                          {.Kind = kTruncate, .Command = 'E', .Position = 2}}},
              {kErase}, {{kFirst, kEraseOk.substr(0, 2)}}},
    FaultCase{"CcbTruncated",
              {.Protocol = BootProtocol::Ccb,
               .Faults = {{.Kind = kTruncate, .Command = sim::kCcbEnter, .Position = 4}}},
              {kEnter}, {{kFirst, kEnterOk.substr(0, 4)}}},
    FaultCase{"OneByteFlippedOnce",
              {.Faults = {{.Kind = kFlip, .Command = 'E', .Occurrence = 2, .Position = 4,
                           .Mask = 0x01}}},
              {kErase, kErase}, {{kFirst, kEraseOk}, {kSecond, WithByte(kEraseOk, 4, 0x01)}}},
    FaultCase{"FlipsWrapAndFold",
              {.Faults = {{.Kind = kFlip, .Command = 'E', .Position = 1, .Mask = 0xF0},
                          {.Kind = kFlip, .Command = 'E', .Position = 8, .Mask = 0x0F}}},
              {kErase}, {{kFirst, WithByte(kEraseOk, 1, 0xFF)}}},
    FaultCase{"FlipThenTruncate",
              {.Faults = {{.Kind = kFlip, .Command = 'E', .Position = 0, .Mask = 0x80},
                          {.Kind = kTruncate, .Command = 'E', .Position = 2}}},
              {kErase}, {{kFirst, WithByte(kEraseOk, 0, 0x80).substr(0, 2)}}},
    FaultCase{"NoiseFollowsTheAnswer",
              {.Faults = {{.Kind = kNoise, .Command = 'E', .Occurrence = 1,
                           .DelayMicros = 50'000, .Garbage = "U?"}}},
              {kErase, kErase},
              {{kFirst, kEraseOk}, {kFirst + 50'000, "U?"}, {kSecond, kEraseOk}}},
    FaultCase{"NoiseWithoutAnAnswerFollowsTheCommand",
              {.Faults = {{.Kind = FaultKind::LoseAnswer, .Command = 'E'},
                          {.Kind = kNoise, .Command = 'E', .DelayMicros = 30'000,
                           .Garbage = "n"}}},
              {kErase}, {{1'030'000, "n"}}},
    // Noise is on the line like an answer: a later answer waits behind it.
    FaultCase{"NoiseHoldsBackTheNextAnswer",
              {.Faults = {{.Kind = kNoise, .Command = 'E', .Occurrence = 1,
                           .DelayMicros = 300'000, .Garbage = "n"}}},
              {kErase, kErase},
              {{kFirst, kEraseOk}, {kFirst + 300'000, "n"}, {kFirst + 300'000, kEraseOk}}},
    FaultCase{"RefusedPageIsNeitherAnsweredNorWritten",
              {.PageSize = 128, .RefusePage = 1},
              {kPart, kPage1, kPage0},
              {{kFirst, DirectFrame("RF\x01")}, {1'410'000, PageAnswer(std::string(128, 'q'))}}}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(SoakFaultsRefusedPage, OnlyThatPageStaysEmpty) {
  SimulatedModule module({.PageSize = 128, .RefusePage = 1});
  std::vector<Emission> out;
  module.Receive(kPart + kPage1 + kPage0, 1'000'000, out);
  EXPECT_EQ(module.Flash().substr(0, 128), std::string(128, 'q'));
  EXPECT_EQ(module.Flash().substr(128, 128), std::string(128, '\xFF'));
}

TEST(SoakFaultsRestart, BackAtTheEntryWithTheFlashKept) {
  SimulatedModule module({.PageSize = 128});
  std::vector<Emission> out;
  module.Receive("i", 1'000'000, out);
  module.Receive(kPart + kPage0, 1'100'000, out);
  ASSERT_EQ(module.CurrentMode(), SimulatedModule::Mode::Framed);
  out.clear();
  module.Receive("i", 1'150'000, out);
  EXPECT_TRUE(out.empty()) << "a module taking frames ignores polls";
  module.Receive(kErase.substr(0, 3), 1'200'000, out);

  module.Restart();
  EXPECT_EQ(module.CurrentMode(), SimulatedModule::Mode::Entry);
  // Sooner than the module's frame time-out: only the restart has dropped the half frame.
  module.Receive("i", 1'250'000, out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].Bytes, std::string("O\0\0\x80", 4));
  EXPECT_EQ(module.Flash().substr(0, 128), std::string(128, 'q'));
  module.Receive(kErase, 1'300'000, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].Bytes, kEraseOk);
}

// How a run of one fault class may end; a mixed run, any honest way.
std::vector<Verdict> HonestEnds(const RunPlan& Plan) {
  const Verdict written = Plan.Settings.SupportsCrc ? Verdict::Verified : Verdict::Unverified;
  switch (Plan.Row) {
    case FaultClass::LineCut:
      return {Verdict::GivenUp};
    case FaultClass::Refused:
      // A refused block ends a CCB upload; a refused page repeats until the job gives up.
      return {Plan.Settings.Protocol == BootProtocol::Ccb ? Verdict::Failed : Verdict::GivenUp};
    case FaultClass::LostAnswer:
      // Ten lost in a row use up an exchange: the final check is given up, or a block fails.
      return {written, Verdict::Unverified, Verdict::Failed};
    case FaultClass::Mixed:
      return {Verdict::Verified, Verdict::Unverified, Verdict::Failed, Verdict::GivenUp};
    default:
      return {written};
  }
}

struct ShortSoakCase {
  const char* Name;
  BootProtocol Protocol;
  std::vector<FaultClass> Classes;
};

void PrintTo(const ShortSoakCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class ShortSoak : public ::testing::TestWithParam<ShortSoakCase> {};

TEST_P(ShortSoak, EndsHonestlyAndExercisesEveryFault) {
  const ShortSoakCase& c = GetParam();
  SoakOptions options;
  options.Classes = c.Classes;
  const std::string hex = testing::WriteTempFile("soak.hex", "");
  const int runs = kRunsPerRow * static_cast<int>(c.Classes.size() + 1);
  Tally tally;
  for (int i = 0; i < runs; ++i) {
    const RunPlan plan =
        PlanRun(c.Protocol, RunSeed(kSeed, c.Protocol, i), RowOf(options, i), options);
    const RunRecord record = RunOne(plan, hex, options);
    tally.Add(record);
    EXPECT_THAT(HonestEnds(plan), Contains(record.Result))
        << "run " << i << " ended " << VerdictName(record.Result) << ": \"" << record.Reason
        << "\", last line \"" << record.LastLine << "\"; " << Describe(plan);
    EXPECT_FALSE(record.PortLeftOpen) << "run " << i << "; " << Describe(plan);
  }
  EXPECT_EQ(tally.TotalRuns(), runs);
  EXPECT_EQ(tally.Count(Verdict::FalseSuccess), 0);
  EXPECT_EQ(tally.Count(Verdict::Crash), 0);
  EXPECT_EQ(tally.Count(Verdict::Hang), 0);
  for (const FaultClass f : c.Classes) {
    EXPECT_EQ(tally.Runs(f), kRunsPerRow) << FaultClassName(f);
    EXPECT_GT(tally.Exercised(f), 0) << FaultClassName(f) << " never came to pass";
  }
  // A soak in which nothing gets through tests nothing.
  EXPECT_GT(tally.Count(Verdict::Verified), runs / 2);
}

INSTANTIATE_TEST_SUITE_P(
    , ShortSoak,
    ::testing::Values(ShortSoakCase{"Direct", BootProtocol::Direct, AllFaultClasses()},
                      ShortSoakCase{"Ccb", BootProtocol::Ccb, AllFaultClasses()}),
    [](const auto& Info) { return std::string(Info.param.Name); });

// Repeats without end in which some requests are still answered: an unattended job gives up
// on work that gets no further, though the module never falls silent.
struct EndlessCase {
  const char* Name;
  ModuleSettings Settings;
};

void PrintTo(const EndlessCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class EndlessRepeats : public ::testing::TestWithParam<EndlessCase> {};

TEST_P(EndlessRepeats, EndUnattended) {
  SimulatedModule module(GetParam().Settings);
  testing::UploadRun run(module);
  GiveUpWatch watch("SIM", kDefaultNoAnswerSeconds);
  const int64_t bound = run.Job.NowMs() + SoakOptions{}.HangBoundMs;
  run.Job.Pump.OnPump = [&] {
    watch.Check(run.Job.Ctx);
    if (run.Job.NowMs() > bound) run.Job.Ctx.Cancel = true;
  };
  const UploadResult result = run.Run(testing::TestImage(300));
  EXPECT_LE(run.Job.NowMs(), bound) << "still going after " << bound / 1000 << " s";
  EXPECT_THAT((std::vector{UploadOutcome::GivenUp, UploadOutcome::Failed}),
              Contains(result.Outcome))
      << result.Reason;
}

constexpr auto kEvery = sim::kEveryTime;
constexpr auto kCcbModule = BootProtocol::Ccb;

// clang-format off
INSTANTIATE_TEST_SUITE_P(, EndlessRepeats, ::testing::Values(
    EndlessCase{"DirectPageRefused", {.RefusePage = 1}},
    EndlessCase{"DirectPageAlwaysNegative",
                {.Faults = {{.Kind = FaultKind::NegativeAnswer, .Command = 'P', .Occurrence = kEvery}}}},
    EndlessCase{"DirectPageAlwaysWrittenWrong",
                {.Faults = {{.Kind = FaultKind::BadWrite, .Command = 'P', .Occurrence = kEvery}}}},
    EndlessCase{"DirectCheckAlwaysWrong",
                {.Faults = {{.Kind = FaultKind::WrongValue, .Command = 'C', .Occurrence = kEvery}}}},
    // A stray "O" makes a page size of the bytes behind it, and the job falls back to 256.
    EndlessCase{"DirectPageSizeMisread", {.PageSize = 128, .StrayBytes = "O"}},
    // Short answers come back within the 5 ms before the drain and are never heard.
    EndlessCase{"DirectAnswersTooSoon", {.TurnaroundMicros = 2'000}},
    EndlessCase{"CcbCheckNeverAnswered",
                {.Protocol = kCcbModule,
                 .Faults = {{.Kind = FaultKind::LoseAnswer, .Command = sim::kCcbCheck}}}},
    EndlessCase{"CcbCheckAlwaysWrong",
                {.Protocol = kCcbModule,
                 .Faults = {{.Kind = FaultKind::WrongValue, .Command = sim::kCcbCheck}}}},
    EndlessCase{"CcbBlockAlwaysWrittenWrong",
                {.Protocol = kCcbModule,
                 .Faults = {{.Kind = FaultKind::BadWrite, .Command = sim::kCcbBlock}}}}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(SoakPlans, FollowTheirSeedAlone) {
  const SoakOptions options;
  for (const BootProtocol p : {BootProtocol::Direct, BootProtocol::Ccb}) {
    for (int i = 0; i < 2 * kRows; ++i) {
      const uint64_t seed = RunSeed(kSeed, p, i);
      const RunPlan once = PlanRun(p, seed, RowOf(options, i), options);
      const RunPlan again = PlanRun(p, seed, RowOf(options, i), options);
      EXPECT_EQ(Describe(once), Describe(again));
      EXPECT_EQ(once.Image, again.Image);
      EXPECT_EQ(once.Settings.Faults.size(), once.FaultTags.size());
      EXPECT_NE(seed, RunSeed(kSeed, p, i + 1));
      EXPECT_NE(seed, RunSeed(kSeed + 1, p, i));
    }
  }
  EXPECT_NE(RunSeed(kSeed, BootProtocol::Direct, 3), RunSeed(kSeed, BootProtocol::Ccb, 3));
}

TEST(SoakJudge, OnlyAClaimOfTheImageCanBeFalse) {
  struct Row {
    UploadOutcome Outcome;
    const char* Reason;
    bool FlashHoldsImage;
    Verdict Expected;
  };
  const char* const afterCheck = "given up after the image was verified: port SIM lost: gone";
  const Row rows[] = {
      {UploadOutcome::Verified, "verified", true, Verdict::Verified},
      {UploadOutcome::Verified, "verified", false, Verdict::FalseSuccess},
      {UploadOutcome::GivenUp, afterCheck, true, Verdict::GivenUp},
      {UploadOutcome::GivenUp, afterCheck, false, Verdict::FalseSuccess},
      {UploadOutcome::GivenUp, "given up: port SIM lost: gone", false, Verdict::GivenUp},
      {UploadOutcome::Unverified, "written; the bootloader cannot report the checksum", false,
       Verdict::Unverified},
      {UploadOutcome::Cancelled, "cancelled", false, Verdict::GivenUp},
      {UploadOutcome::Failed, "block 0x80 refused", false, Verdict::Failed},
      {UploadOutcome::NoBootloader, "no answer from the bootloader", false, Verdict::Failed},
      {UploadOutcome::PortError, "cannot open port SIM: gone", true, Verdict::Failed},
      {UploadOutcome::FileError, "no data records", false, Verdict::Failed},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(Judge({r.Outcome, r.Reason}, r.FlashHoldsImage), r.Expected)
        << r.Reason << (r.FlashHoldsImage ? ", flash holds the image" : ", flash differs");
  }
}

}  // namespace
}  // namespace palimbo::soak
