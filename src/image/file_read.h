#pragma once

#include <cstddef>
#include <string>

namespace palimbo {

/// What kept a file's bytes back.
enum class FileProblem { None, NotRegular, TooLarge, CannotOpen, ReadError };

/// The bytes of a file, or why there are none: `Detail` names the kind of file for
/// `NotRegular` ("a directory") and carries the system's message for `CannotOpen` and
/// `ReadError`.
struct FileBytes {
  std::string Bytes;
  FileProblem Problem = FileProblem::None;
  std::string Detail;
};

/// Reads a regular file of at most `Limit` bytes, whole. Anything else (a directory, a FIFO,
/// a device) is refused before it is opened, so nothing blocks and no device is touched; the
/// buffer never grows beyond `Limit` + 1 bytes, even for a file that grows while it is read.
FileBytes ReadRegularFile(const std::string& Filename, size_t Limit);

}  // namespace palimbo
