#pragma once

#include <memory>
#include <string>

namespace palimbo {

/// A file of lines that several programs append to at once, such as the stations of one line
/// sharing their record. Each line goes in whole or not at all, and starts on a line of its own.
class RecordFile {
 public:
  /// Opens `Path` for appending, creating it; nothing, and why in `Error`, when it cannot.
  static std::unique_ptr<RecordFile> Open(const std::string& Path, std::string& Error);
  virtual ~RecordFile() = default;

  /// Appends `Line` (which ends in a line feed) while holding the file against the other
  /// writers: a file that ends in a torn line gets a line feed first, a write that falls short
  /// is cut away again, and the line is on the disk when this returns true. False, and the
  /// system's message in `Error`, when the line is not in the file.
  virtual bool Append(const std::string& Line, std::string& Error) = 0;
};

}  // namespace palimbo
