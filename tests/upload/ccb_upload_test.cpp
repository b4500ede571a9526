// The CCB upload after an "X" in the entry poll, on virtual time.
#include <gtest/gtest.h>
#include <functional>

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
  EXPECT_EQ(run.Run(image), UploadOutcome::Verified);
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
  EXPECT_EQ(run.Run(image), UploadOutcome::Verified);
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

ModuleSettings CcbWith(std::vector<Fault> Faults, int RefuseBlock = -1) {
  ModuleSettings settings = Ccb();
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
        /*FlashHoldsImage=*/false}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// Where the operator's click falls, and what the routine must do then.
using Trigger = std::function<bool(const SimulatedModule&, const testing::VirtualJob&)>;
struct CancelCase {
  const char* Name;
  Trigger When;
  UploadOutcome Outcome;
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
  EXPECT_EQ(run.Run(TestImage(400)), GetParam().Outcome);
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
    CancelCase{"InTheProgressOfABlock", Progress(129), UploadOutcome::Cancelled,
               {"Programming page 0x80 to 0x100 ..", "Operation cancelled."}, 0, false},
    CancelCase{"InsideTheExchangeOfABlock", Heard(CCBBlock, 2), UploadOutcome::Failed,
               {"Transfer failed."}, 0, true},
    CancelCase{"InsideTheExchangeOfEnter", Heard(CCBEnter, 1), UploadOutcome::Failed,
               {"Entering bootloader mode."}, 1, true},
    CancelCase{"InsideTheCheck", Heard(CCBCheck, 1), UploadOutcome::Cancelled,
               {"Transfer ok.", "Programming page 0x0 to 0x80 ..", "Operation cancelled."},
               0, false},
    CancelCase{"DuringTheReboot", Logged("UPLOAD SUCCESSFULLY COMPLETED."), UploadOutcome::Verified,
               {"UPLOAD SUCCESSFULLY COMPLETED."}, 1, true}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

}  // namespace
}  // namespace palimbo
