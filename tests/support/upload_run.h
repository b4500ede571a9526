#pragma once

#include <string>

#include "sim/simulated_module.h"
#include "support/temp_file.h"
#include "support/virtual_job.h"
#include "upload/upload.h"

namespace palimbo::testing {

/// Bytes that look like firmware and differ from page to page.
inline std::string TestImage(size_t Length) {
  std::string image(Length, '\0');
  for (size_t i = 0; i < Length; ++i) image[i] = static_cast<char>((i * 7 + i / 251 + 3) & 255);
  return image;
}

/// A whole upload of `Image` into `Module` on virtual time.
struct UploadRun {
  explicit UploadRun(sim::SimulatedModule& Module) : Module(Module), Job(Module) {}

  UploadOutcome Run(const std::string& Image, bool Marker = false) {
    const std::string file = WriteTempFile("fw.hex", HexOf(Image, Marker));
    return StartUpload(Job.Ctx, file, "SIM");
  }

  /// The framed requests the tool wrote (the entry polls left out).
  std::vector<std::string> Frames() const {
    std::vector<std::string> out;
    for (const auto& w : Job.Writes()) {
      if (w != "i") out.push_back(w);
    }
    return out;
  }

  int LinesEqualTo(const std::string& Text) const {
    int n = 0;
    for (const auto& line : Job.Log.Lines) n += line == Text;
    return n;
  }

  sim::SimulatedModule& Module;
  VirtualJob Job;
};

}  // namespace palimbo::testing
