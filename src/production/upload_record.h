#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "production/outcome.h"
#include "production/record_file.h"

namespace palimbo {

/// What a record says of the firmware of a run: the file as named, its image's length and CRC,
/// and the SHA-256 of the file's bytes, all from the run's one read of the file.
struct RecordedFirmware {
  std::string File;
  size_t ImageBytes = 0;
  int32_t ImageCrc = 0;
  std::string FileSha256;
};

/// The record of uploads: one JSON line per upload appended to a file, for the books of a
/// production line. Each line goes in whole, on a line of its own, and is on the disk before
/// the upload counts as recorded; stations on one machine may share the file. Safe for the
/// jobs of several modules at once.
class UploadRecord {
 public:
  /// Opens `Path` for appending, creating it; nothing, and why in `Error`, when it cannot.
  static std::unique_ptr<UploadRecord> Open(const std::string& Path, RecordedFirmware Firmware,
                                            std::string& Error);

  /// Appends the line of one upload; `Module` is its number in a station's run, 0 outside one.
  /// False, and why in `Error`, when the line is not in the file.
  bool Append(const ModuleResult& Result, int32_t Module, std::string& Error);

  /// Each line written goes here too, such as to the plant's database.
  std::function<void(const std::string& Line)> Written;

 private:
  UploadRecord(std::unique_ptr<RecordFile> Out, std::string Path, RecordedFirmware Firmware);

  std::mutex lock_;
  std::unique_ptr<RecordFile> out_;
  std::string path_;
  RecordedFirmware firmware_;
  std::string host_;
};

}  // namespace palimbo
