// Page programming, verification and reboot of the direct protocol, on virtual time.
#include <gtest/gtest.h>
#include <algorithm>

#include "frames/crc16.h"
#include "frames/frame.h"
#include "support/upload_run.h"
#include "upload/hex_text.h"

namespace palimbo {
namespace {

using sim::Fault;
using sim::FaultKind;
using sim::ModuleSettings;
using sim::SimulatedModule;
using testing::TestImage;
using testing::UploadRun;

std::string Frame(uint8_t Command, const std::string& Data) {
  return BuildFrame(kDirectStartByte, Command, Data);
}

std::string Fill(const std::string& Image, size_t Offset, size_t Part, size_t From) {
  std::string data = {static_cast<char>(Offset / 256), static_cast<char>(Offset % 256)};
  std::string bytes = From < Image.size() ? Image.substr(From, Part) : "";
  bytes.resize(Part, '\xFF');
  return data + bytes;
}

TEST(DirectUpload, WorkedExampleOf300BytesFrameByFrame) {
  SimulatedModule module;
  UploadRun run(module);
  const std::string image = TestImage(300);
  const UploadResult result = run.Run(image);
  EXPECT_EQ(result.Outcome, UploadOutcome::Verified);
  EXPECT_EQ(result.Reason, "verified");
  const std::vector<std::string> expected = {
      Frame('C', BigEndian32(256)),
      Frame('E', ""),
      Frame('E', ""),
      Frame('F', Fill(image, 0, 128, 0)),
      Frame('F', Fill(image, 128, 128, 128)),
      Frame('P', BigEndian32(0)),
      Frame('F', Fill(image, 0, 128, 256)),
      Frame('F', Fill(image, 128, 128, 384)),
      Frame('P', BigEndian32(256)),
      Frame('C', BigEndian32(300)),
      Frame('S', ""),
  };
  EXPECT_EQ(run.Frames(), expected);
  EXPECT_EQ(module.Flash().substr(0, 300), image);
  EXPECT_EQ(module.Flash().substr(300, 212), std::string(212, '\xFF'));
  EXPECT_FALSE(run.Job.Line.IsOpen());

  const auto& log = run.Job.Log.Lines;
  const std::vector<std::string> tail(log.end() - 4, log.end());
  EXPECT_EQ(tail, (std::vector<std::string>{"Writing FLASH", "Flash write successfull (0x100)..",
                                            "CRC test of application section confirms:",
                                            "UPLOAD SUCCESSFULLY COMPLETED."}));
  // The second page's CRC runs on through the 0xFF behind the image.
  std::string page2 = image.substr(256);
  page2.resize(256, '\xFF');
  EXPECT_EQ(
      run.LinesEqualTo("Programming page 0x100 to 0x200 (CRC=0x" + Hex4(Crc16Of(page2)) + ")"), 1);

  EXPECT_EQ(run.LastProgress(7), testing::ProgressToTheEnd(257, 300, "Checking content.."));
}

struct PartCase {
  int32_t PageSize;
  size_t ImageLength;
  std::vector<std::string> PartLines;  // the distinct "Transmitting buffer part" lines
  int FillFrames;
  int PageFrames;
};

class PageSizes : public ::testing::TestWithParam<PartCase> {};

TEST_P(PageSizes, PartsAndPagesFollowThePageSize) {
  ModuleSettings settings;
  settings.PageSize = GetParam().PageSize;
  SimulatedModule module(settings);
  UploadRun run(module);
  const std::string image = TestImage(GetParam().ImageLength);
  EXPECT_EQ(run.Run(image).Outcome, UploadOutcome::Verified);
  EXPECT_EQ(module.Flash().substr(0, image.size()), image);
  EXPECT_EQ(module.CountOf('F'), GetParam().FillFrames);
  EXPECT_EQ(module.CountOf('P'), GetParam().PageFrames);
  for (const auto& line : GetParam().PartLines) EXPECT_GE(run.LinesEqualTo(line), 1) << line;
}

INSTANTIATE_TEST_SUITE_P(
    , PageSizes,
    ::testing::Values(PartCase{256, 1, {"Transmitting buffer part 2 of 2"}, 2, 1},
                      PartCase{256, 512, {"Transmitting buffer part 1 of 2"}, 4, 2},
                      PartCase{128, 300, {"Transmitting buffer part 1 of 1"}, 3, 3},
                      PartCase{200, 300, {"Transmitting buffer part 2 of 1"}, 4, 2},
                      PartCase{64, 200, {"Transmitting buffer part 1 of 0"}, 4, 4}),
    [](const auto& Info) {
      return "Page" + std::to_string(Info.param.PageSize) + "Image" +
             std::to_string(Info.param.ImageLength);
    });

std::vector<Fault> LoseFills(int From, int To) {
  std::vector<Fault> faults;
  for (int n = From; n <= To; ++n) faults.push_back(Fault{FaultKind::LoseAnswer, 'F', n});
  return faults;
}

class DirectRoads : public ::testing::TestWithParam<testing::Road> {};

TEST_P(DirectRoads, CommandsAndLines) {
  testing::CheckRoad(GetParam());
}

const std::string kPage2Of700 = "Programming page 0x100 to 0x200 (CRC=0x" +
                                Hex4(Crc16Of(TestImage(700).substr(256, 256))) + ")";

// clang-format off
INSTANTIATE_TEST_SUITE_P(, DirectRoads, ::testing::Values(
    // Every part twice, no check, and the same reboot.
    testing::Road{"WithoutCrcSupport", testing::Faulty({}, false), 300, UploadOutcome::Unverified,
        {{'F', 8}, {'S', 1}},
        {{"Bootloader does not support CRC checks - enabling double page write.", 1},
         {"First transfer okay..", 4},
         {"Unable to retrieve checksum (not supported by bootloader)", 1}}, false, true,
        "written; the bootloader cannot report the checksum"},
    // One more positive answer after the failure completes the part: the count is kept.
    testing::Road{"DoubleWriteWithAFailureBetween", testing::Faulty(LoseFills(2, 11), false), 128,
        UploadOutcome::Unverified, {{'F', 14}},
        {{"First transfer okay..", 2}, {"TOO MANY TRIES. MODULE IS BROKEN!", 1},
         {"Transfer successfull..", 2}}},
    // The page is written again with all its parts, without a new erase.
    testing::Road{"PageWrittenWrongOnce", testing::Faulty({{FaultKind::BadWrite, 'P', 2}}), 700,
        UploadOutcome::Verified, {{'P', 4}, {'F', 8}, {'E', 2}}, {{kPage2Of700, 2}}},
    // A new page pass from page 0, without probe or erase.
    testing::Road{"FailedFinalCheck", testing::Faulty({{FaultKind::WrongValue, 'C', 2}}), 300,
        UploadOutcome::Verified, {{'P', 4}, {'E', 2}, {'C', 3}},
        {{"CRC test of application section FAILED:", 1}, {"UPLOAD FAILED. RESTARTING!", 1},
         {"UPLOAD SUCCESSFULLY COMPLETED.", 1}}},
    testing::Road{"EncryptedImageWritesWithD", {}, 300, UploadOutcome::Verified,
        {{'D', 2}, {'P', 0}}, {}, /*Marker=*/true}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

TEST(DirectUpload, CancelWhileProgrammingTakesTheCancelExit) {
  SimulatedModule module;
  UploadRun run(module);
  run.Job.Pump.OnPump = [&] {
    if (module.CountOf('F') == 3) run.Job.Ctx.Cancel = true;
  };
  const UploadResult result = run.Run(TestImage(1000));
  EXPECT_EQ(result.Outcome, UploadOutcome::Cancelled);
  EXPECT_EQ(result.Reason, "cancelled");
  EXPECT_EQ(run.Job.Log.Lines.back(), "Operation cancelled.");
  EXPECT_FALSE(run.Job.Line.IsOpen());
  EXPECT_EQ(module.CountOf('S'), 0);
}

TEST(DirectUpload, CancelDuringTheFinalCheckStillReboots) {
  SimulatedModule module;
  UploadRun run(module);
  run.Job.Pump.OnPump = [&] {
    if (module.CountOf('C') == 2 && !run.Job.Log.Contains("Operation cancelled.")) {
      run.Job.Ctx.Cancel = true;
    }
  };
  const UploadResult result = run.Run(TestImage(300));
  EXPECT_EQ(result.Outcome, UploadOutcome::Unverified);
  EXPECT_EQ(result.Reason, "written; the check was cancelled");
  EXPECT_TRUE(run.Job.Log.Contains("Unable to retrieve checksum (not supported by bootloader)"));
  EXPECT_FALSE(run.Job.Log.Contains("Operation cancelled."));
  // "S" goes out once, its exchange sees the flag and gives up after one pass.
  EXPECT_EQ(run.Frames().back(), Frame('S', ""));
  EXPECT_EQ(module.CountOf('S'), 1);
  EXPECT_TRUE(run.Job.Ctx.Cancel);
}

// The window stays alive while pages are written: from the first page's bar to the last, no
// two pumps lie more than 20 ms apart, also with answers that come late in their try.
TEST(DirectUpload, PagesPumpEventsAtLeastEvery20Ms) {
  for (const bool late : {false, true}) {
    SimulatedModule module(
        testing::Faulty(late ? std::vector<sim::Fault>{{sim::FaultKind::LateAnswer, sim::kCmdFill,
                                                        sim::kEveryTime, 200'000}}
                             : std::vector<sim::Fault>{}));
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
    EXPECT_EQ(run.Run(TestImage(1000)).Outcome, UploadOutcome::Verified);
    EXPECT_GT(pagingPumps, 100);
    EXPECT_LE(widest, 20) << (late ? "late answers" : "prompt answers");
  }
}

}  // namespace
}  // namespace palimbo
