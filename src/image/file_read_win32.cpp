#include <io.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "image/file_read.h"

namespace palimbo {

namespace {

namespace fs = std::filesystem;

const char* KindOf(fs::file_type Type) {
  switch (Type) {
    case fs::file_type::directory:
      return "a directory";
    case fs::file_type::fifo:
      return "a FIFO";
    case fs::file_type::character:
      return "a character device";
    case fs::file_type::block:
      return "a block device";
    case fs::file_type::socket:
      return "a socket";
    default:
      return "an unknown kind of file";
  }
}

FileBytes Refused(FileProblem Problem, std::string Detail) {
  FileBytes result;
  result.Problem = Problem;
  result.Detail = std::move(Detail);
  return result;
}

class File {
 public:
  explicit File(std::FILE* Handle) : handle_(Handle) {}
  ~File() { std::fclose(handle_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  std::FILE* Get() const { return handle_; }

 private:
  std::FILE* handle_;
};

}  // namespace

FileBytes ReadRegularFile(const std::string& Filename, size_t Limit) {
  std::error_code error;
  // Looked at before it is opened: reading a console or a pipe would wait for input.
  const fs::file_status status = fs::status(Filename, error);
  if (error) return Refused(FileProblem::CannotOpen, error.message());
  if (!fs::is_regular_file(status)) return Refused(FileProblem::NotRegular, KindOf(status.type()));
  const uintmax_t size = fs::file_size(Filename, error);
  if (!error && size > Limit) return Refused(FileProblem::TooLarge, "");

  std::FILE* handle = std::fopen(Filename.c_str(), "rb");
  if (handle == nullptr) {
    return Refused(FileProblem::CannotOpen, std::generic_category().message(errno));
  }
  const File file(handle);
  // Reserved names such as CON or COM1 open devices whatever the first look said.
  const auto osHandle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file.Get())));
  if (GetFileType(osHandle) != FILE_TYPE_DISK) return Refused(FileProblem::NotRegular, "a device");

  FileBytes result;
  std::string& bytes = result.Bytes;
  bytes.resize(static_cast<size_t>(std::min<uintmax_t>(error ? 0 : size, Limit)) + 1);
  size_t got = 0;
  for (;;) {
    if (got == bytes.size()) {
      if (got > Limit) return Refused(FileProblem::TooLarge, "");
      bytes.resize(std::min(std::max<size_t>(2 * got, 65536), Limit + 1));
    }
    got += std::fread(bytes.data() + got, 1, bytes.size() - got, file.Get());
    if (std::ferror(file.Get())) {
      return Refused(FileProblem::ReadError, std::generic_category().message(errno));
    }
    if (std::feof(file.Get())) break;
  }
  bytes.resize(got);
  return result;
}

}  // namespace palimbo
