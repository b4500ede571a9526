#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "image/file_read.h"

namespace palimbo {

namespace {

const char* KindOf(mode_t Mode) {
  if (S_ISDIR(Mode)) return "a directory";
  if (S_ISFIFO(Mode)) return "a FIFO";
  if (S_ISCHR(Mode)) return "a character device";
  if (S_ISBLK(Mode)) return "a block device";
  if (S_ISSOCK(Mode)) return "a socket";
  return "an unknown kind of file";
}

FileBytes Refused(FileProblem Problem, std::string Detail) {
  FileBytes result;
  result.Problem = Problem;
  result.Detail = std::move(Detail);
  return result;
}

FileBytes RefusedForErrno(FileProblem Problem) {
  return Refused(Problem, std::generic_category().message(errno));
}

class Descriptor {
 public:
  explicit Descriptor(int Fd) : fd_(Fd) {}
  ~Descriptor() { close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

FileBytes ReadRegularFile(const std::string& Filename, size_t Limit) {
  struct stat info {};
  // Looked at before it is opened: opening a FIFO or a device may block, and opening a serial
  // port raises its DTR line.
  if (stat(Filename.c_str(), &info) != 0) return RefusedForErrno(FileProblem::CannotOpen);
  if (!S_ISREG(info.st_mode)) return Refused(FileProblem::NotRegular, KindOf(info.st_mode));

  const int fd = open(Filename.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return RefusedForErrno(FileProblem::CannotOpen);
  const Descriptor file(fd);
  // The name may lead somewhere else since the first look.
  if (fstat(file.Get(), &info) != 0) return RefusedForErrno(FileProblem::ReadError);
  if (!S_ISREG(info.st_mode)) return Refused(FileProblem::NotRegular, KindOf(info.st_mode));
  if (static_cast<uintmax_t>(info.st_size) > Limit) return Refused(FileProblem::TooLarge, "");

  FileBytes result;
  std::string& bytes = result.Bytes;
  // One byte of room beyond the limit shows a file that grew past it; files of /proc report
  // the size 0 and grow the buffer as they are read.
  bytes.resize(static_cast<size_t>(info.st_size) + 1);
  size_t got = 0;
  for (;;) {
    if (got == bytes.size()) {
      if (got > Limit) return Refused(FileProblem::TooLarge, "");
      bytes.resize(std::min(std::max<size_t>(2 * got, 65536), Limit + 1));
    }
    const ssize_t n = read(file.Get(), bytes.data() + got, bytes.size() - got);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return RefusedForErrno(FileProblem::ReadError);
    }
    got += static_cast<size_t>(n);
  }
  bytes.resize(got);
  return result;
}

}  // namespace palimbo
