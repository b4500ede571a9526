#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "production/record_file.h"

namespace palimbo {

namespace {

class PosixRecordFile final : public RecordFile {
 public:
  PosixRecordFile(int Fd, std::string Path) : fd_(Fd), path_(std::move(Path)) {}
  ~PosixRecordFile() override { ::close(fd_); }
  PosixRecordFile(const PosixRecordFile&) = delete;
  PosixRecordFile& operator=(const PosixRecordFile&) = delete;

  bool Append(const std::string& Line, std::string& Error) override {
    // The other stations wait here for the few microseconds of one line.
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) return Fail(Error);
    }
    const bool written = AppendLocked(Line, Error);
    ::flock(fd_, LOCK_UN);
    return written;
  }

 private:
  bool Fail(std::string& Error) const {
    Error = std::strerror(errno);
    return false;
  }

  bool AppendLocked(const std::string& Line, std::string& Error) {
    struct stat status {};
    if (::fstat(fd_, &status) != 0) return Fail(Error);
    // Lines into a file that nobody can find any more are lines lost.
    struct stat named {};
    if (status.st_nlink == 0 || ::stat(path_.c_str(), &named) != 0 ||
        named.st_dev != status.st_dev || named.st_ino != status.st_ino) {
      Error = "the file was deleted or renamed away while the run held it";
      return false;
    }
    const off_t size = status.st_size;
    std::string text = Line;
    char last = '\n';
    // A line cut short by a crash or a full disk is closed, so that this one stays whole.
    if (size > 0 && ::pread(fd_, &last, 1, size - 1) == 1 && last != '\n') text.insert(0, 1, '\n');
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else {
        if (n == 0) errno = ENOSPC;
        // What went in of the line goes again; a device that cannot be cut has taken nothing.
        return CutBack(size, done > 0, Error);
      }
    }
    // On the disk, not only in the system's cache: a power cut loses no line. A line that
    // may not be there goes, so that the run's "not written" holds and a re-run adds it once.
    if (::fdatasync(fd_) != 0 && errno != EINVAL) return CutBack(size, true, Error);
    return true;
  }

  // Fails with the present errno, after cutting the file back to `Size` when `Cut`.
  bool CutBack(off_t Size, bool Cut, std::string& Error) const {
    const int why = errno;
    if (Cut && ::ftruncate(fd_, Size) != 0) {
      Error =
          std::string(std::strerror(why)) + "; a part of the line stays: " + std::strerror(errno);
      return false;
    }
    errno = why;
    return Fail(Error);
  }

  int fd_;
  std::string path_;
};

}  // namespace

std::unique_ptr<RecordFile> RecordFile::Open(const std::string& Path, std::string& Error) {
  // Read access too, for the look at the last byte.
  const int fd = ::open(Path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    Error = std::strerror(errno);
    return nullptr;
  }
  return std::make_unique<PosixRecordFile>(fd, Path);
}

}  // namespace palimbo
