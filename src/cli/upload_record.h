#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "cli/upload_display.h"

namespace palimbo::cli {

/// The record of uploads: one JSON line per upload appended to a file, for the books of a
/// production line. Every line is written whole in one write and flushed at once, into a file
/// opened for appending, so a crash loses no finished line and two stations may share a file.
/// Safe for the jobs of several modules at once.
class UploadRecord {
 public:
  /// Opens `Path` for appending, creating it; nothing, and why in `Error`, when it cannot.
  /// `File`, `ImageBytes` and `ImageCrc` describe the firmware every line is about.
  static std::unique_ptr<UploadRecord> Open(const std::string& Path, const std::string& File,
                                            size_t ImageBytes, int32_t ImageCrc,
                                            std::string& Error);
  ~UploadRecord();
  UploadRecord(const UploadRecord&) = delete;
  UploadRecord& operator=(const UploadRecord&) = delete;

  /// Appends the line of one upload; `Module` is its number in a station's run, 0 outside one.
  /// False, and why in `Error`, when the line could not be written whole.
  bool Append(const ModuleResult& Result, int32_t Module, std::string& Error);

 private:
  UploadRecord(std::FILE* Out, std::string Path, std::string File, size_t ImageBytes,
               int32_t ImageCrc);

  std::mutex lock_;
  std::FILE* out_;
  std::string path_;
  std::string file_;
  size_t image_bytes_;
  int32_t image_crc_;
  std::string host_;
};

}  // namespace palimbo::cli
