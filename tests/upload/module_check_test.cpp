// Checking a module against an image without writing it, and flashing only a module that
// differs, for both protocols, on virtual time; each row looked at from the module's side too.
#include <gtest/gtest.h>

#include "frames/crc16.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using sim::BootProtocol;

// What the module holds: the image, or one that differs by a byte, or in the last two bytes so
// that the checksums differ only in their high or only in their low byte, or nothing.
enum class Flash { Same, OneByteDiffers, HighCrcByteDiffers, LowCrcByteDiffers, Blank };

// `Image` with its last two bytes changed so that its CRC differs from the image's only in the
// bits of `Differing`: a checksum compared in part takes it for the image.
std::string CrcDiffersIn(const std::string& Image, int32_t Differing) {
  int32_t prefix = kCrcStart;
  for (size_t i = 0; i + 2 < Image.size(); ++i) prefix = UpdateCRC16(prefix, Image[i]);
  const int32_t wanted = Crc16Of(Image);
  std::string other = Image;
  for (int32_t tail = 0; tail < 0x10000; ++tail) {
    other[other.size() - 2] = static_cast<char>(tail >> 8);
    other[other.size() - 1] = static_cast<char>(tail & 0xFF);
    const int32_t crc = UpdateCRC16(UpdateCRC16(prefix, tail >> 8), tail & 0xFF);
    if (crc != wanted && ((crc ^ wanted) & ~Differing) == 0) return other;
  }
  ADD_FAILURE() << "no such tail";
  return Image;
}

struct CheckRow {
  const char* Name;
  BootProtocol Protocol;
  WriteMode Mode;
  Flash Holds;
  void (*Adjust)(sim::ModuleSettings&);  // the bootloader's quirk, where the row has one
  UploadOutcome Outcome;
  bool Written;   // the module was erased and written
  bool Rebooted;  // the module was told to reboot
  int Checks;     // the checksum questions the module heard before any write
};

void PrintTo(const CheckRow& Row, std::ostream* Out) {
  *Out << Row.Name;
}

class ModuleCheck : public ::testing::TestWithParam<CheckRow> {};

TEST_P(ModuleCheck, OutcomeAndTheModulesSide) {
  const CheckRow& row = GetParam();
  const std::string image = testing::TestImage(700);
  sim::ModuleSettings settings;
  settings.Protocol = row.Protocol;
  if (row.Holds != Flash::Blank) settings.InitialFlash = image;
  if (row.Holds == Flash::OneByteDiffers) settings.InitialFlash[333] ^= 0x01;
  if (row.Holds == Flash::HighCrcByteDiffers) settings.InitialFlash = CrcDiffersIn(image, 0xFF00);
  if (row.Holds == Flash::LowCrcByteDiffers) settings.InitialFlash = CrcDiffersIn(image, 0x00FF);
  if (row.Adjust != nullptr) row.Adjust(settings);
  sim::SimulatedModule module(settings);
  testing::UploadRun run(module);
  const UploadResult result =
      StartUpload(run.Job.Ctx, HexReadResult{image, {}, {}, {}}, "SIM", row.Mode);

  EXPECT_EQ(result.Outcome, row.Outcome) << result.Reason;
  const bool direct = row.Protocol == BootProtocol::Direct;
  const int writes = direct ? module.CountOf(sim::kCmdErase) + module.CountOf(sim::kCmdFill) +
                                  module.CountOf(sim::kCmdPage)
                            : module.CountOf(sim::kCcbEnter) + module.CountOf(sim::kCcbBlock) +
                                  module.CountOf(sim::kCcbFinish);
  EXPECT_EQ(writes > 0, row.Written) << writes;
  EXPECT_EQ(module.Flash().substr(0, image.size()) == image,
            row.Written || row.Holds == Flash::Same);
  EXPECT_EQ(module.RebootCount(), row.Rebooted ? 1 : 0);
  // A written direct module hears the final check and the probe besides.
  const int checks = module.CountOf(direct ? sim::kCmdCrc : sim::kCcbCheck);
  EXPECT_EQ(checks, row.Checks + (row.Written ? (direct ? 2 : 1) : 0));
  if (result.Outcome == UploadOutcome::Matches || result.Outcome == UploadOutcome::Differs) {
    EXPECT_EQ(result.ModuleCrc, Crc16Of(module.Flash().substr(0, image.size())));
  }
  // Nobody is asked whether to go on without an answer, least of all for a check.
  EXPECT_EQ(run.Job.Question.Asked, 0);
  EXPECT_FALSE(run.Job.Line.IsOpen());
}

void NoCrc(sim::ModuleSettings& S) {
  S.SupportsCrc = false;
}
void CheckWhenEntered(sim::ModuleSettings& S) {
  S.CheckOnlyWhenEntered = true;
}
void Silent(sim::ModuleSettings& S) {
  S.Silent = true;
}

constexpr auto kDirect = BootProtocol::Direct;
constexpr auto kCcb = BootProtocol::Ccb;
constexpr auto kNever = WriteMode::Never;
constexpr auto kUnlessSame = WriteMode::UnlessSame;

INSTANTIATE_TEST_SUITE_P(
    , ModuleCheck,
    ::testing::Values(
        CheckRow{"DirectSame", kDirect, kNever, Flash::Same, nullptr, UploadOutcome::Matches, false,
                 true, 1},
        CheckRow{"DirectOneByteDiffers", kDirect, kNever, Flash::OneByteDiffers, nullptr,
                 UploadOutcome::Differs, false, true, 1},
        CheckRow{"DirectCannotTell", kDirect, kNever, Flash::Same, NoCrc, UploadOutcome::CannotTell,
                 false, true, 10},
        CheckRow{"DirectNoModule", kDirect, kNever, Flash::Same, Silent,
                 UploadOutcome::NoBootloader, false, false, 0},
        CheckRow{"CcbSame", kCcb, kNever, Flash::Same, nullptr, UploadOutcome::Matches, false, true,
                 1},
        CheckRow{"CcbOneByteDiffers", kCcb, kNever, Flash::OneByteDiffers, nullptr,
                 UploadOutcome::Differs, false, true, 1},
        // Three questions, not the ten of an upload's check, for a bootloader that keeps silent.
        CheckRow{"DirectHighCrcByteDiffers", kDirect, kNever, Flash::HighCrcByteDiffers, nullptr,
                 UploadOutcome::Differs, false, true, 1},
        CheckRow{"CcbLowCrcByteDiffers", kCcb, kNever, Flash::LowCrcByteDiffers, nullptr,
                 UploadOutcome::Differs, false, true, 1},
        CheckRow{"CcbCannotTell", kCcb, kNever, Flash::Same, CheckWhenEntered,
                 UploadOutcome::CannotTell, false, true, 3},
        CheckRow{"CcbNoModule", kCcb, kNever, Flash::Same, Silent, UploadOutcome::NoBootloader,
                 false, false, 0},
        CheckRow{"DirectSkipSame", kDirect, kUnlessSame, Flash::Same, nullptr,
                 UploadOutcome::AlreadyCurrent, false, true, 1},
        CheckRow{"DirectSkipDiffers", kDirect, kUnlessSame, Flash::OneByteDiffers, nullptr,
                 UploadOutcome::Verified, true, true, 1},
        CheckRow{"CcbSkipSame", kCcb, kUnlessSame, Flash::Same, nullptr,
                 UploadOutcome::AlreadyCurrent, false, true, 1},
        CheckRow{"CcbSkipCannotTell", kCcb, kUnlessSame, Flash::Blank, CheckWhenEntered,
                 UploadOutcome::Verified, true, true, 3}),
    [](const auto& Info) { return std::string(Info.param.Name); });

}  // namespace
}  // namespace palimbo
