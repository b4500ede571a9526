#pragma once

#include <algorithm>
#include <map>
#include <ostream>
#include <string>

#include "sim/simulated_module.h"
#include "support/firmware_file.h"
#include "support/temp_file.h"
#include "support/virtual_job.h"
#include "upload/upload.h"

namespace palimbo::testing {

/// A whole upload of `Image` into `Module` on virtual time.
struct UploadRun {
  explicit UploadRun(sim::SimulatedModule& Module) : Module(Module), Job(Module) {}

  UploadResult Run(const std::string& Image, bool Marker = false,
                   WriteMode Mode = WriteMode::Always) {
    const std::string file = WriteTempFile("fw.hex", HexOf(Image, Marker));
    if (Mode == WriteMode::Always) return StartUpload(Job.Ctx, file, "SIM");
    bool encrypted = false;
    return StartUpload(Job.Ctx, ReadHexFile(file, encrypted), "SIM", Mode);
  }

  /// The framed requests the tool wrote (the entry polls left out).
  std::vector<std::string> Frames() const {
    std::vector<std::string> out;
    for (const auto& w : Job.Writes()) {
      if (w != "i") out.push_back(w);
    }
    return out;
  }

  /// The last `Count` progress calls of the job.
  std::vector<RecordingProgress::Call> LastProgress(size_t Count) const {
    const auto& calls = Job.Progress.Calls;
    return {calls.end() - static_cast<std::ptrdiff_t>(std::min(Count, calls.size())), calls.end()};
  }

  int LinesEqualTo(const std::string& Text) const {
    int n = 0;
    for (const auto& line : Job.Log.Lines) n += line == Text;
    return n;
  }

  sim::SimulatedModule& Module;
  VirtualJob Job;
};

/// The bar from the last two blocks or pages of `Length` bytes to the end of a verified upload:
/// red while programming and checking, blue at the reboot, then empty.
inline std::vector<RecordingProgress::Call> ProgressToTheEnd(int32_t Second, int32_t Length,
                                                             const char* CheckText) {
  return {{1, Length, kColorRed, "Programming chip.."},
          {Second, Length, kColorRed, "Programming chip.."},
          {0, 2, kColorRed, CheckText},
          {0, 2, kColorRed, "Rebooting.."},
          {1, 2, kColorBlue, "Rebooting.."},
          {2, 2, kColorBlue, "Rebooting.."},
          {0, 1, kColorBlue, ""}};
}

/// One road through an upload: the module's settings, and what the job must do on it.
struct Road {
  const char* Name;
  sim::ModuleSettings Settings;
  size_t Length;
  UploadOutcome Outcome;
  std::map<uint8_t, int> Commands;   ///< how often the module heard each command
  std::map<std::string, int> Lines;  ///< how often each log line stands
  bool Marker = false;               ///< the file carries the encryption marker
  bool FlashHoldsImage = true;
  const char* Reason = nullptr;  ///< the result's reason, where a row names it
};

inline void PrintTo(const Road& R, std::ostream* Out) {
  *Out << R.Name;
}

inline void CheckRoad(const Road& R) {
  sim::SimulatedModule module(R.Settings);
  UploadRun run(module);
  const std::string image = TestImage(R.Length);
  const UploadResult result = run.Run(image, R.Marker);
  EXPECT_EQ(result.Outcome, R.Outcome);
  if (R.Reason != nullptr) {
    EXPECT_EQ(result.Reason, R.Reason);
  }
  for (const auto& [command, times] : R.Commands) {
    EXPECT_EQ(module.CountOf(command), times) << "command " << int{command};
  }
  for (const auto& [line, times] : R.Lines) EXPECT_EQ(run.LinesEqualTo(line), times) << line;
  if (R.FlashHoldsImage) {
    EXPECT_EQ(module.Flash().substr(0, image.size()), image);
  }
  EXPECT_FALSE(run.Job.Line.IsOpen());
}

/// Module settings with faults, and optionally without CRC support.
inline sim::ModuleSettings Faulty(std::vector<sim::Fault> Faults, bool Crc = true) {
  sim::ModuleSettings settings;
  settings.Faults = std::move(Faults);
  settings.SupportsCrc = Crc;
  return settings;
}

}  // namespace palimbo::testing
