// The CCB upload after an "X" in the entry poll, on virtual time.
#include <gtest/gtest.h>
#include <functional>

#include "frames/ccb_exchange.h"
#include "frames/crc16.h"
#include "frames/frame.h"
#include "support/upload_run.h"
#include "upload/ccb_upload.h"

namespace palimbo {
namespace {

using sim::BootProtocol;
using sim::Fault;
using sim::FaultKind;
using sim::ModuleSettings;
using sim::SimulatedModule;
using testing::Bytes;
using testing::TestImage;
using testing::UploadRun;

ModuleSettings Ccb() {
  ModuleSettings settings;
  settings.Protocol = BootProtocol::Ccb;
  return settings;
}

std::string Frame(uint8_t Command, const std::string& Data) {
  return BuildFrame(kCcbStartByte, Command, Data);
}

TEST(CcbUpload, WorkedExampleOf130BytesByteForByte) {
  SimulatedModule module(Ccb());
  UploadRun run(module);
  const std::string image = TestImage(130);
  const UploadResult result = run.Run(image);
  EXPECT_EQ(result.Outcome, UploadOutcome::Verified);
  EXPECT_EQ(result.Reason, "verified");
  const std::vector<std::string> expected = {
      Bytes({0x53, 0x01, 0x8A, 0x4C, 0xE5}),
      Frame(139, Bytes({0, 0, 0, 0}) + image.substr(0, 128)),
      Frame(139, Bytes({0, 0, 0, 0x80}) + image.substr(128)),
      Bytes({0x53, 0x01, 0x8E, 0x37, 0x2A}),
      Bytes({0x53, 0x05, 0x8F, 0x00, 0x00, 0x00, 0x82, 0x9D, 0xD2}),
      Bytes({0x53, 0x01, 0x8D, 0xD8, 0x27}),
  };
  EXPECT_EQ(run.Frames(), expected);
  EXPECT_EQ(run.Frames()[1].substr(0, 3), Bytes({0x53, 0x85, 0x8B}));
  EXPECT_EQ(run.Frames()[2].substr(0, 3), Bytes({0x53, 0x07, 0x8B}));
  EXPECT_EQ(module.Flash().substr(0, 130), image);
  EXPECT_EQ(run.Job.Log.Lines.back(), "UPLOAD SUCCESSFULLY COMPLETED.");
  EXPECT_FALSE(run.Job.Line.IsOpen());
  EXPECT_EQ(run.Job.Line.DtrCount(), 2) << "the job and the CCB routine each raise DTR";

  EXPECT_EQ(run.LastProgress(7), testing::ProgressToTheEnd(129, 130, "Checking chip content.."));
}

struct BlockCase {
  size_t Length;
  int Blocks;
  std::string LastLine;  // the log line of the last block
  std::string LengthField;
};

class CcbBlocks : public ::testing::TestWithParam<BlockCase> {};

TEST_P(CcbBlocks, BlocksLengthFieldAndLogLines) {
  ModuleSettings settings = Ccb();
  settings.CheckBytes = 4;
  SimulatedModule module(settings);
  UploadRun run(module);
  const std::string image = TestImage(GetParam().Length);
  EXPECT_EQ(run.Run(image).Outcome, UploadOutcome::Verified);
  EXPECT_EQ(module.CountOf(CCBBlock), GetParam().Blocks);
  EXPECT_EQ(run.LinesEqualTo(GetParam().LastLine), 1);
  EXPECT_EQ(run.LinesEqualTo("Transfer ok."), GetParam().Blocks);
  const auto& check = module.Commands()[module.Commands().size() - 2];
  EXPECT_EQ(check.Command, CCBCheck);
  EXPECT_EQ(check.Data, GetParam().LengthField);
  EXPECT_EQ(module.Flash().substr(0, image.size()), image);
}

INSTANTIATE_TEST_SUITE_P(
    , CcbBlocks,
    ::testing::Values(
        BlockCase{128, 1, "Programming page 0x0 to 0x80 ..", Bytes({0, 0, 0, 0x80})},
        BlockCase{129, 2, "Programming page 0x80 to 0x100 ..", Bytes({0, 0, 0, 0x81})},
        BlockCase{8065, 64, "Programming page 0x1F80 to 0x2000 ..", Bytes({0, 0, 0x1F, 0x81})}),
    [](const auto& Info) { return "Length" + std::to_string(Info.param.Length); });

ModuleSettings CcbWith(std::vector<Fault> Faults, int RefuseBlock = -1, bool AnswerEnter = true) {
  ModuleSettings settings = Ccb();
  settings.AnswerEnter = AnswerEnter;
  settings.Faults = std::move(Faults);
  settings.RefuseBlock = RefuseBlock;
  return settings;
}

std::vector<Fault> LoseChecks(int Count) {
  std::vector<Fault> faults;
  for (int n = 1; n <= Count; ++n) faults.push_back(Fault{FaultKind::LoseAnswer, CCBCheck, n});
  return faults;
}

class CcbRoads : public ::testing::TestWithParam<testing::Road> {};

TEST_P(CcbRoads, CommandsAndLines) {
  testing::CheckRoad(GetParam());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, CcbRoads, ::testing::Values(
    // The transfer starts over from block 0 without a new CCBEnter.
    testing::Road{"FailedCheck", CcbWith({{FaultKind::BadWrite, CCBBlock, 2}}), 300,
        UploadOutcome::Verified, {{CCBEnter, 1}, {CCBBlock, 6}, {CCBCheck, 2}},
        {{"CRC test of application section FAILED:", 1}, {"UPLOAD FAILED. RESTARTING!", 1},
         {"Programming page 0x0 to 0x80 ..", 2}}},
    testing::Road{"CheckWithoutAnswerRestartsSilently", CcbWith(LoseChecks(10)), 200,
        UploadOutcome::Verified, {{CCBCheck, 11}},
        {{"CRC test of application section FAILED:", 0}, {"Programming page 0x0 to 0x80 ..", 2}}},
    // The ten tries of the exchange are all a block gets; no reboot follows.
    testing::Road{"RefusedBlock", CcbWith({}, 1), 400, UploadOutcome::Failed,
        {{CCBBlock, 11}, {CCBReboot, 0}}, {{"Transfer failed.", 1}}, false,
        /*FlashHoldsImage=*/false, "block 0x80 refused"},
    // Without the entry no block goes out; the module is still told to reboot.
    testing::Road{"EntryRefused", CcbWith({}, -1, false), 400, UploadOutcome::Failed,
        {{CCBEnter, 10}, {CCBBlock, 0}, {CCBReboot, 1}}, {{"Transfer failed.", 0}}, false,
        /*FlashHoldsImage=*/false, "the bootloader did not take up the upload"}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// Where the operator's click falls, and what the routine must do then.
using Trigger = std::function<bool(const SimulatedModule&, const testing::VirtualJob&)>;
struct CancelCase {
  const char* Name;
  Trigger When;
  UploadOutcome Outcome;
  std::string Reason;
  std::vector<std::string> LastLines;
  int Reboots;
  bool CancelLeftSet;
};

void PrintTo(const CancelCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class CcbCancel : public ::testing::TestWithParam<CancelCase> {};

TEST_P(CcbCancel, EndsAsTheClickDecides) {
  SimulatedModule module(Ccb());
  UploadRun run(module);
  bool fired = false;
  run.Job.Pump.OnPump = [&] {
    if (!fired && GetParam().When(module, run.Job)) {
      fired = true;
      run.Job.Ctx.Cancel = true;
    }
  };
  const UploadResult result = run.Run(TestImage(400));
  EXPECT_EQ(result.Outcome, GetParam().Outcome);
  EXPECT_EQ(result.Reason, GetParam().Reason);
  const auto& log = run.Job.Log.Lines;
  const auto& last = GetParam().LastLines;
  ASSERT_GE(log.size(), last.size());
  EXPECT_EQ(std::vector<std::string>(log.end() - last.size(), log.end()), last);
  EXPECT_EQ(module.CountOf(CCBReboot), GetParam().Reboots);
  EXPECT_EQ(run.Job.Ctx.Cancel, GetParam().CancelLeftSet);
  EXPECT_FALSE(run.Job.Line.IsOpen());
}

Trigger Progress(int32_t Val) {
  return [Val](const SimulatedModule&, const testing::VirtualJob& Job) {
    return !Job.Progress.Calls.empty() && Job.Progress.Calls.back().Val == Val;
  };
}
Trigger Heard(uint8_t Command, int Times) {
  return [=](const SimulatedModule& Module, const testing::VirtualJob&) {
    return Module.CountOf(Command) == Times;
  };
}
Trigger Logged(const char* Line) {
  return [Line](const SimulatedModule&, const testing::VirtualJob& Job) {
    return Job.Log.Contains(Line);
  };
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, CcbCancel, ::testing::Values(
    CancelCase{"InTheProgressOfABlock", Progress(129), UploadOutcome::Cancelled, "cancelled",
               {"Programming page 0x80 to 0x100 ..", "Operation cancelled."}, 0, false},
    // The log says what it always said; the result tells the operator's cancel.
    CancelCase{"InsideTheExchangeOfABlock", Heard(CCBBlock, 2), UploadOutcome::Cancelled,
               "cancelled", {"Transfer failed."}, 0, true},
    CancelCase{"InsideTheExchangeOfEnter", Heard(CCBEnter, 1), UploadOutcome::Cancelled,
               "cancelled", {"Entering bootloader mode."}, 1, true},
    CancelCase{"InsideTheCheck", Heard(CCBCheck, 1), UploadOutcome::Cancelled, "cancelled",
               {"Transfer ok.", "Programming page 0x0 to 0x80 ..", "Operation cancelled."},
               0, false},
    CancelCase{"DuringTheReboot", Logged("UPLOAD SUCCESSFULLY COMPLETED."), UploadOutcome::Verified,
               "verified", {"UPLOAD SUCCESSFULLY COMPLETED."}, 1, true}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// A bootloader whose numbers do not fit in 31 bits: the answer is still positive, and the number
// matches no CRC.
struct HugeNumberCase {
  const char* Name;
  std::string BlockNumber;       // number bytes in every answer to CCBBlock
  std::string FirstCheckNumber;  // number bytes in the first answer to CCBCheck; "" for the CRC
  int Blocks;                    // CCBBlock frames the module hears
  int FailedChecks;
};

void PrintTo(const HugeNumberCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class CcbHugeNumbers : public ::testing::TestWithParam<HugeNumberCase> {};

TEST_P(CcbHugeNumbers, BlocksGoOnAndChecksStartOver) {
  const HugeNumberCase& c = GetParam();
  const std::string image = TestImage(300);
  const int32_t crc = Crc16Of(image);
  testing::ScriptedPeer module;
  int blocks = 0, checks = 0;
  module.OnReceive = [&](std::string_view Heard, int64_t Now, std::vector<sim::Emission>& Out) {
    std::string number;
    if (Heard == "i") {
      Out.push_back({Now + 10'000, "X"});
      return;
    }
    const auto command = static_cast<uint8_t>(Heard[2]);
    if (command == CCBBlock) {
      ++blocks;
      number = c.BlockNumber;
    } else if (command == CCBCheck) {
      number = ++checks == 1 && !c.FirstCheckNumber.empty() ? c.FirstCheckNumber
                                                            : Bytes({crc >> 8, crc & 255});
    }
    Out.push_back({Now + 10'000, Frame(CCBAnswer, static_cast<char>(command) + number)});
  };
  testing::VirtualJob job(module);
  const std::string file = testing::WriteTempFile("fw.hex", testing::HexOf(image));
  const UploadResult result = StartUpload(job.Ctx, file, "SIM");
  EXPECT_EQ(result.Outcome, UploadOutcome::Verified);
  EXPECT_EQ(blocks, c.Blocks);
  int ok = 0, failed = 0;
  for (const auto& line : job.Log.Lines) {
    ok += line == "Transfer ok.";
    failed += line == "CRC test of application section FAILED:";
  }
  EXPECT_EQ(ok, c.Blocks);
  EXPECT_EQ(failed, c.FailedChecks);
  EXPECT_FALSE(job.Log.Contains("Transfer failed."));
}

INSTANTIATE_TEST_SUITE_P(
    , CcbHugeNumbers,
    ::testing::Values(
        HugeNumberCase{"BlockAnsweredWith32Bits", Bytes({0x80, 0, 0, 0}), "", 3, 0},
        HugeNumberCase{"BlockAnsweredWithFiveBytes", Bytes({1, 2, 3, 4, 5}), "", 3, 0},
        HugeNumberCase{"CheckAnsweredWith32Bits", "", Bytes({0xFF, 0xFF, 0xFF, 0xFF}), 6, 1},
        HugeNumberCase{"CheckAnsweredWithFiveBytes", "", Bytes({0, 0x80, 0, 0, 0}), 6, 1}),
    [](const auto& Info) { return std::string(Info.param.Name); });

}  // namespace
}  // namespace palimbo
