// An upgrade interrupted at each request in turn: the adapter is pulled inside the request, or
// right behind it before the answer. The unattended job must report the loss, never a
// success it did not see, and the next upload into the same module must go through.
//
// A cut in the reboot comes after the module confirmed the image: the job then reports the
// loss "after the image was verified", which is true, and the flash must hold the image.
#include <gtest/gtest.h>

#include "support/upload_run.h"
#include "upload/ccb_upload.h"
#include "upload/give_up.h"

namespace palimbo {
namespace {

using sim::BootProtocol;
using sim::ModuleSettings;
using sim::SimulatedModule;
using testing::TestImage;
using testing::UploadRun;

constexpr size_t kImageLength = 300;
const char kLost[] = "given up: port SIM lost: Input/output error";
const char kLostAfterCheck[] =
    "given up after the image was verified: port SIM lost: Input/output error";

// A name for each request the tool writes: the poll, or the frame's command.
std::string RequestName(const std::string& Bytes) {
  if (Bytes == "i") return "i";
  if (Bytes.size() < 3) return "?";
  const auto command = static_cast<uint8_t>(Bytes[2]);
  switch (command) {
    case CCBEnter:
      return "Enter";
    case CCBBlock:
      return "Block";
    case CCBFinish:
      return "Finish";
    case CCBCheck:
      return "Check";
    case CCBReboot:
      return "Reboot";
    default:
      return std::string(1, static_cast<char>(command));
  }
}

struct Upgrade {
  const char* Name;
  ModuleSettings Settings;
  bool Marker;
  std::vector<std::string> Requests;  // the uncut upload writes these, in this order
};

ModuleSettings Module(BootProtocol Protocol, int32_t PageSize = 256) {
  ModuleSettings settings;
  settings.Protocol = Protocol;
  settings.PageSize = PageSize;
  return settings;
}

const Upgrade kUpgrades[] = {
    {"Direct",
     Module(BootProtocol::Direct),
     false,
     {"i", "C", "E", "E", "F", "F", "P", "F", "F", "P", "C", "S"}},
    {"DirectMarked",
     Module(BootProtocol::Direct),
     true,
     {"i", "C", "E", "E", "F", "F", "D", "F", "F", "D", "C", "S"}},
    {"DirectPages128",
     Module(BootProtocol::Direct, 128),
     false,
     {"i", "C", "E", "E", "F", "P", "F", "P", "F", "P", "C", "S"}},
    {"Ccb",
     Module(BootProtocol::Ccb),
     false,
     {"i", "Enter", "Block", "Block", "Block", "Finish", "Check", "Reboot"}},
};

enum class CutAt { Inside, Behind };

struct Cut {
  const Upgrade* Of;
  size_t Request;
  CutAt Where;
};

void PrintTo(const Cut& C, std::ostream* Out) {
  *Out << C.Of->Name << " " << C.Request << " " << C.Of->Requests[C.Request];
}

std::vector<Cut> EveryCut() {
  std::vector<Cut> cuts;
  for (const Upgrade& u : kUpgrades) {
    for (size_t r = 0; r < u.Requests.size(); ++r) {
      cuts.push_back({&u, r, CutAt::Inside});
      cuts.push_back({&u, r, CutAt::Behind});
    }
  }
  return cuts;
}

// Where each request begins in the bytes the tool wrote, with its length.
struct Written {
  std::vector<std::string> Names;
  std::vector<int64_t> Offsets;
  std::vector<int64_t> Sizes;
};

Written WrittenBy(const UploadRun& Run) {
  Written w;
  int64_t offset = 0;
  for (const std::string& chunk : Run.Job.Writes()) {
    w.Names.push_back(RequestName(chunk));
    w.Offsets.push_back(offset);
    w.Sizes.push_back(static_cast<int64_t>(chunk.size()));
    offset += static_cast<int64_t>(chunk.size());
  }
  return w;
}

class InterruptedUpgrade : public ::testing::TestWithParam<Cut> {};

TEST_P(InterruptedUpgrade, ReportsTheLossAndTheNextUploadGoesThrough) {
  const Cut& cut = GetParam();
  const Upgrade& upgrade = *cut.Of;
  const std::string image = TestImage(kImageLength);

  // The uncut upload tells where each request lies on the wire.
  SimulatedModule reference(upgrade.Settings);
  UploadRun whole(reference);
  ASSERT_EQ(whole.Run(image, upgrade.Marker).Outcome, UploadOutcome::Verified);
  const Written written = WrittenBy(whole);
  ASSERT_EQ(written.Names, upgrade.Requests);
  const size_t r = cut.Request;
  const int64_t cutAfter =
      written.Offsets[r] + (cut.Where == CutAt::Inside ? written.Sizes[r] / 2 : written.Sizes[r]);

  SimulatedModule module(upgrade.Settings);
  UploadRun interrupted(module);
  GiveUpWatch watch("SIM", kDefaultNoAnswerSeconds);
  bool armed = false;
  interrupted.Job.Pump.OnPump = [&] {
    // Armed once the port is open, so that even the first poll can be cut.
    if (!armed) interrupted.Job.Line.CutAfterBytes(cutAfter);
    armed = true;
    watch.Check(interrupted.Job.Ctx);
  };
  const UploadResult result = interrupted.Run(image, upgrade.Marker);
  const bool inReboot = upgrade.Requests[r] == "S" || upgrade.Requests[r] == "Reboot";

  EXPECT_EQ(result.Outcome, UploadOutcome::GivenUp);
  EXPECT_EQ(result.Reason, inReboot ? kLostAfterCheck : kLost);
  EXPECT_FALSE(interrupted.Job.Line.IsOpen());
  // Up to the cut the wire carried exactly what the uncut upload wrote.
  std::string sent, uncut;
  for (const auto& chunk : interrupted.Job.Writes()) sent += chunk;
  for (const auto& chunk : whole.Job.Writes()) uncut += chunk;
  EXPECT_EQ(sent, uncut.substr(0, static_cast<size_t>(cutAfter)));
  if (inReboot) {
    EXPECT_EQ(module.Flash().substr(0, image.size()), image);
  }

  // The operator powers the module with its switch held and starts again, later on the same
  // clock as the module knows it.
  module.Restart();
  UploadRun again(module);
  again.Job.Clock.AdvanceTo(interrupted.Job.Clock.NowMicros() + 5'000'000);
  const UploadResult second = again.Run(image, upgrade.Marker);
  EXPECT_EQ(second.Outcome, UploadOutcome::Verified) << second.Reason;
  EXPECT_EQ(module.Flash().substr(0, image.size()), image);
}

INSTANTIATE_TEST_SUITE_P(, InterruptedUpgrade, ::testing::ValuesIn(EveryCut()),
                         [](const auto& Info) {
                           const Cut& c = Info.param;
                           return std::string(c.Of->Name) + "_" + std::to_string(c.Request) + "_" +
                                  c.Of->Requests[c.Request] +
                                  (c.Where == CutAt::Inside ? "_Inside" : "_Behind");
                         });

}  // namespace
}  // namespace palimbo
