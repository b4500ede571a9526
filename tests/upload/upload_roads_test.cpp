// Both uploads after the entry, on virtual time: what goes on the wire, the roads through
// faults and refusals, and where a cancel ends them.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "frames/ccb_exchange.h"
#include "frames/crc16.h"
#include "frames/frame.h"
#include "support/upload_run.h"
#include "upload/ccb_upload.h"
#include "upload/hex_text.h"

namespace palimbo {
namespace {

using sim::BootProtocol;
using sim::Fault;
using sim::FaultKind;
using sim::ModuleSettings;
using sim::SimulatedModule;
using testing::Bytes;
using testing::Road;
using testing::TestImage;
using testing::UploadRun;

std::string Direct(uint8_t Command, const std::string& Data) {
  return BuildFrame(kDirectStartByte, Command, Data);
}
std::string Ccb(uint8_t Command, const std::string& Data) {
  return BuildFrame(kCcbStartByte, Command, Data);
}
// A buffer part: its offset in the page, then 128 bytes of the image, 0xFF past its end.
std::string Fill(const std::string& Image, size_t Offset, size_t From) {
  std::string bytes = From < Image.size() ? Image.substr(From, 128) : "";
  bytes.resize(128, '\xFF');
  return std::string{static_cast<char>(Offset / 256), static_cast<char>(Offset % 256)} + bytes;
}

ModuleSettings Settings(BootProtocol Protocol, std::vector<Fault> Faults = {}) {
  ModuleSettings settings;
  settings.Protocol = Protocol;
  settings.Faults = std::move(Faults);
  return settings;
}

TEST(DirectUpload, WorkedExampleOf300BytesFrameByFrame) {
  SimulatedModule module;
  UploadRun run(module);
  const std::string image = TestImage(300);
  const UploadResult result = run.Run(image);
  EXPECT_EQ(result.Outcome, UploadOutcome::Verified);
  EXPECT_EQ(result.Reason, "verified");
  const std::vector<std::string> expected = {
      Direct('C', BigEndian32(256)),
      Direct('E', ""),
      Direct('E', ""),
      Direct('F', Fill(image, 0, 0)),
      Direct('F', Fill(image, 128, 128)),
      Direct('P', BigEndian32(0)),
      Direct('F', Fill(image, 0, 256)),
      Direct('F', Fill(image, 128, 384)),
      Direct('P', BigEndian32(256)),
      Direct('C', BigEndian32(300)),
      Direct('S', ""),
  };
  EXPECT_EQ(run.Frames(), expected);
  EXPECT_EQ(module.Flash().substr(0, 300), image);
  EXPECT_EQ(module.Flash().substr(300, 212), std::string(212, '\xFF'));
  EXPECT_FALSE(run.Job.Line.IsOpen());
  const auto& log = run.Job.Log.Lines;
  EXPECT_EQ(std::vector<std::string>(log.end() - 4, log.end()),
            (std::vector<std::string>{
                "Writing FLASH", "Flash write successfull (0x100)..",
                "CRC test of application section confirms:", "UPLOAD SUCCESSFULLY COMPLETED."}));
  // The second page's CRC runs on through the 0xFF behind the image.
  std::string page2 = image.substr(256);
  page2.resize(256, '\xFF');
  EXPECT_EQ(
      run.LinesEqualTo("Programming page 0x100 to 0x200 (CRC=0x" + Hex4(Crc16Of(page2)) + ")"), 1);
  EXPECT_EQ(run.LastProgress(7), testing::ProgressToTheEnd(257, 300, "Checking content.."));
}

TEST(CcbUpload, WorkedExampleOf130BytesByteForByte) {
  SimulatedModule module(Settings(BootProtocol::Ccb));
  UploadRun run(module);
  const std::string image = TestImage(130);
  const UploadResult result = run.Run(image);
  EXPECT_EQ(result.Outcome, UploadOutcome::Verified);
  EXPECT_EQ(result.Reason, "verified");
  const std::vector<std::string> expected = {
      Bytes({0x53, 0x01, 0x8A, 0x4C, 0xE5}),
      Ccb(139, Bytes({0, 0, 0, 0}) + image.substr(0, 128)),
      Ccb(139, Bytes({0, 0, 0, 0x80}) + image.substr(128)),
      Bytes({0x53, 0x01, 0x8E, 0x37, 0x2A}),
      Bytes({0x53, 0x05, 0x8F, 0x00, 0x00, 0x00, 0x82, 0x9D, 0xD2}),
      Bytes({0x53, 0x01, 0x8D, 0xD8, 0x27}),
  };
  EXPECT_EQ(run.Frames(), expected);
  EXPECT_EQ(run.Frames()[1].substr(0, 3), Bytes({0x53, 0x85, 0x8B}));
  EXPECT_EQ(module.Flash().substr(0, 130), image);
  EXPECT_EQ(run.Job.Log.Lines.back(), "UPLOAD SUCCESSFULLY COMPLETED.");
  EXPECT_FALSE(run.Job.Line.IsOpen());
  EXPECT_EQ(run.Job.Line.DtrCount(), 2) << "the job and the CCB routine each raise DTR";
  EXPECT_EQ(run.LastProgress(7), testing::ProgressToTheEnd(129, 130, "Checking chip content.."));
}

std::vector<Fault> Lose(int Command, int From, int To) {
  std::vector<Fault> faults;
  for (int n = From; n <= To; ++n) faults.push_back(Fault{FaultKind::LoseAnswer, Command, n});
  return faults;
}
ModuleSettings WithoutCrc(std::vector<Fault> Faults = {}) {
  ModuleSettings settings = Settings(BootProtocol::Direct, std::move(Faults));
  settings.SupportsCrc = false;
  return settings;
}
ModuleSettings PageSize(int32_t Size) {
  ModuleSettings settings;
  settings.PageSize = Size;
  return settings;
}
ModuleSettings CcbWith(std::vector<Fault> Faults, int RefuseBlock = -1, bool AnswerEnter = true) {
  ModuleSettings settings = Settings(BootProtocol::Ccb, std::move(Faults));
  settings.AnswerEnter = AnswerEnter;
  settings.RefuseBlock = RefuseBlock;
  return settings;
}

class Roads : public ::testing::TestWithParam<Road> {};

TEST_P(Roads, CommandsAndLines) {
  testing::CheckRoad(GetParam());
}

const std::string kPage2Of700 = "Programming page 0x100 to 0x200 (CRC=0x" +
                                Hex4(Crc16Of(TestImage(700).substr(256, 256))) + ")";
constexpr auto kVerified = UploadOutcome::Verified;

// clang-format off
INSTANTIATE_TEST_SUITE_P(, Roads, ::testing::Values(
    // Direct. Every part twice, no check, and the same reboot.
    Road{"DirectWithoutCrcSupport", WithoutCrc(), 300, UploadOutcome::Unverified,
        {{'F', 8}, {'S', 1}},
        {{"Bootloader does not support CRC checks - enabling double page write.", 1},
         {"First transfer okay..", 4},
         {"Unable to retrieve checksum (not supported by bootloader)", 1}}, false, true,
        "written; the bootloader cannot report the checksum"},
    // One more positive answer after the failure completes the part: the count is kept.
    Road{"DirectDoubleWriteWithAFailureBetween", WithoutCrc(Lose('F', 2, 11)), 128,
        UploadOutcome::Unverified, {{'F', 14}},
        {{"First transfer okay..", 2}, {"TOO MANY TRIES. MODULE IS BROKEN!", 1},
         {"Transfer successfull..", 2}}},
    // The page is written again with all its parts, without a new erase.
    Road{"DirectPageWrittenWrongOnce", Settings(BootProtocol::Direct, {{FaultKind::BadWrite, 'P', 2}}),
        700, kVerified, {{'P', 4}, {'F', 8}, {'E', 2}}, {{kPage2Of700, 2}}},
    // A new page pass from page 0, without probe or erase.
    Road{"DirectFailedFinalCheck", Settings(BootProtocol::Direct, {{FaultKind::WrongValue, 'C', 2}}),
        300, kVerified, {{'P', 4}, {'E', 2}, {'C', 3}},
        {{"CRC test of application section FAILED:", 1}, {"UPLOAD FAILED. RESTARTING!", 1},
         {"UPLOAD SUCCESSFULLY COMPLETED.", 1}}},
    Road{"DirectEncryptedImageWritesWithD", {}, 300, kVerified, {{'D', 2}, {'P', 0}}, {},
        /*Marker=*/true},
    // The parts follow the page size the module told, whatever it is.
    Road{"DirectPage256Image1", PageSize(256), 1, kVerified, {{'F', 2}, {'P', 1}},
        {{"Transmitting buffer part 2 of 2", 1}}},
    Road{"DirectPage200Image300", PageSize(200), 300, kVerified, {{'F', 4}, {'P', 2}},
        {{"Transmitting buffer part 2 of 1", 2}}},
    Road{"DirectPage64Image200", PageSize(64), 200, kVerified, {{'F', 4}, {'P', 4}},
        {{"Transmitting buffer part 1 of 0", 4}}},
    // CCB. The transfer starts over from block 0 without a new CCBEnter.
    Road{"CcbFailedCheck", CcbWith({{FaultKind::BadWrite, CCBBlock, 2}}), 300, kVerified,
        {{CCBEnter, 1}, {CCBBlock, 6}, {CCBCheck, 2}},
        {{"CRC test of application section FAILED:", 1}, {"UPLOAD FAILED. RESTARTING!", 1},
         {"Programming page 0x0 to 0x80 ..", 2}}},
    Road{"CcbCheckWithoutAnswerRestartsSilently", CcbWith(Lose(CCBCheck, 1, 10)), 200, kVerified,
        {{CCBCheck, 11}},
        {{"CRC test of application section FAILED:", 0}, {"Programming page 0x0 to 0x80 ..", 2}}},
    // The ten tries of the exchange are all a block gets; no reboot follows.
    Road{"CcbRefusedBlock", CcbWith({}, 1), 400, UploadOutcome::Failed,
        {{CCBBlock, 11}, {CCBReboot, 0}}, {{"Transfer failed.", 1}}, false,
        /*FlashHoldsImage=*/false, "block 0x80 refused"},
    // Without the entry no block goes out; the module is still told to reboot.
    Road{"CcbEntryRefused", CcbWith({}, -1, false), 400, UploadOutcome::Failed,
        {{CCBEnter, 10}, {CCBBlock, 0}, {CCBReboot, 1}}, {{"Transfer failed.", 0}}, false,
        /*FlashHoldsImage=*/false, "the bootloader did not take up the upload"},
    Road{"CcbBlocksOf128", CcbWith({}), 8065, kVerified, {{CCBBlock, 64}},
        {{"Programming page 0x1F80 to 0x2000 ..", 1}, {"Transfer ok.", 64}}}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// Where the operator's click falls, and what the job must do then.
using Trigger = std::function<bool(const SimulatedModule&, const testing::VirtualJob&)>;
struct CancelCase {
  const char* Name;
  BootProtocol Protocol;
  Trigger When;
  UploadOutcome Outcome;
  std::string Reason;
  std::vector<std::string> LastLines;
  uint8_t RebootCommand;
  int Reboots;
  bool CancelLeftSet;  // for the front end, which clears it; a cancel exit clears it itself
};

void PrintTo(const CancelCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class Cancel : public ::testing::TestWithParam<CancelCase> {};

TEST_P(Cancel, EndsAsTheClickDecides) {
  const CancelCase& c = GetParam();
  SimulatedModule module(Settings(c.Protocol));
  UploadRun run(module);
  bool fired = false;
  run.Job.Pump.OnPump = [&] {
    if (!fired && c.When(module, run.Job)) {
      fired = true;
      run.Job.Ctx.Cancel = true;
    }
  };
  const UploadResult result = run.Run(TestImage(400));
  EXPECT_EQ(result.Outcome, c.Outcome);
  EXPECT_EQ(result.Reason, c.Reason);
  const auto& log = run.Job.Log.Lines;
  ASSERT_GE(log.size(), c.LastLines.size());
  EXPECT_EQ(std::vector<std::string>(log.end() - c.LastLines.size(), log.end()), c.LastLines);
  EXPECT_EQ(module.CountOf(c.RebootCommand), c.Reboots);
  EXPECT_EQ(run.Job.Ctx.Cancel, c.CancelLeftSet);
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

constexpr auto kCancelled = UploadOutcome::Cancelled;

// clang-format off
INSTANTIATE_TEST_SUITE_P(, Cancel, ::testing::Values(
    CancelCase{"DirectWhileProgramming", BootProtocol::Direct, Heard('F', 3), kCancelled,
               "cancelled", {"Operation cancelled."}, 'S', 0, false},
    // The check fails as without CRC support, and the module is still rebooted.
    CancelCase{"DirectInTheFinalCheck", BootProtocol::Direct, Heard('C', 2),
               UploadOutcome::Unverified, "written; the check was cancelled",
               {"Unable to retrieve checksum (not supported by bootloader)"}, 'S', 1, true},
    CancelCase{"CcbInTheProgressOfABlock", BootProtocol::Ccb, Progress(129), kCancelled,
               "cancelled", {"Programming page 0x80 to 0x100 ..", "Operation cancelled."},
               CCBReboot, 0, false},
    // The log says what it always said; the result tells the operator's cancel.
    CancelCase{"CcbInsideTheExchangeOfABlock", BootProtocol::Ccb, Heard(CCBBlock, 2), kCancelled,
               "cancelled", {"Transfer failed."}, CCBReboot, 0, true},
    CancelCase{"CcbInsideTheExchangeOfEnter", BootProtocol::Ccb, Heard(CCBEnter, 1), kCancelled,
               "cancelled", {"Entering bootloader mode."}, CCBReboot, 1, true},
    CancelCase{"CcbInsideTheCheck", BootProtocol::Ccb, Heard(CCBCheck, 1), kCancelled, "cancelled",
               {"Transfer ok.", "Programming page 0x0 to 0x80 ..", "Operation cancelled."},
               CCBReboot, 0, false},
    CancelCase{"CcbDuringTheReboot", BootProtocol::Ccb, Logged("UPLOAD SUCCESSFULLY COMPLETED."),
               kVerified, "verified", {"UPLOAD SUCCESSFULLY COMPLETED."}, CCBReboot, 1, true}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

// The window stays alive while pages are written: from the first page's bar to the last, no
// two pumps lie more than 20 ms apart, also with answers that come late in their try.
TEST(DirectUpload, PagesPumpEventsAtLeastEvery20Ms) {
  for (const bool late : {false, true}) {
    SimulatedModule module(Settings(
        BootProtocol::Direct,
        late ? std::vector<Fault>{{FaultKind::LateAnswer, sim::kCmdFill, sim::kEveryTime, 200'000}}
             : std::vector<Fault>{}));
    UploadRun run(module);
    int64_t last = -1, widest = 0;
    int pagingPumps = 0;
    run.Job.Pump.OnPump = [&] {
      const bool paging = !run.Job.Progress.Calls.empty() &&
                          run.Job.Progress.Calls.back().Text == "Programming chip..";
      const int64_t now = run.Job.NowMs();
      if (paging && last >= 0) widest = std::max(widest, now - last);
      pagingPumps += paging;
      last = paging ? now : -1;
    };
    EXPECT_EQ(run.Run(TestImage(1000)).Outcome, kVerified);
    EXPECT_GT(pagingPumps, 100);
    EXPECT_LE(widest, 20) << (late ? "late answers" : "prompt answers");
  }
}

}  // namespace
}  // namespace palimbo
