#include <windows.h>

#include "production/record_file.h"
#include "serial/system_message.h"

namespace palimbo {

namespace {

// The stations hold this byte far behind any end of the file while they append: a lock on
// the lines themselves would stop those who only read the record.
constexpr DWORD kLockOffsetHigh = 0x40000000;

class Win32RecordFile final : public RecordFile {
 public:
  Win32RecordFile(HANDLE File, std::string Path) : file_(File), path_(std::move(Path)) {}
  ~Win32RecordFile() override { ::CloseHandle(file_); }
  Win32RecordFile(const Win32RecordFile&) = delete;
  Win32RecordFile& operator=(const Win32RecordFile&) = delete;

  bool Append(const std::string& Line, std::string& Error) override {
    OVERLAPPED lock{};
    lock.OffsetHigh = kLockOffsetHigh;
    if (!::LockFileEx(file_, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &lock)) return Fail(Error);
    const bool written = AppendLocked(Line, Error);
    ::UnlockFileEx(file_, 0, 1, 0, &lock);
    return written;
  }

 private:
  static bool Fail(std::string& Error, DWORD Code = ::GetLastError()) {
    Error = SystemMessage(Code);
    return false;
  }

  bool AppendLocked(const std::string& Line, std::string& Error) {
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file_, &size)) return Fail(Error);
    std::string text = Line;
    // A line cut short by a crash or a full disk is closed, so that this one stays whole.
    if (size.QuadPart > 0) {
      OVERLAPPED at{};
      at.Offset = static_cast<DWORD>((size.QuadPart - 1) & 0xFFFFFFFF);
      at.OffsetHigh = static_cast<DWORD>((size.QuadPart - 1) >> 32);
      char last = '\n';
      DWORD got = 0;
      if (::ReadFile(file_, &last, 1, &got, &at) && got == 1 && last != '\n') {
        text.insert(0, 1, '\n');
      }
    }
    // A handle with append access only: the system puts the whole write at the end of the
    // file, whoever else appends at the same time.
    DWORD written = 0;
    const BOOL ok =
        ::WriteFile(file_, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    const DWORD why = ok ? ERROR_DISK_FULL : ::GetLastError();
    if (ok && written == text.size()) {
      // On the disk, not only in the system's cache: a power cut loses no line. A line that
      // may not be there goes, so that the run's "not written" holds.
      if (::FlushFileBuffers(file_)) return true;
      return CutBack(size, Error, ::GetLastError());
    }
    if (written > 0) return CutBack(size, Error, why);
    return Fail(Error, why);
  }

  // Cuts a part of a line away again, through a handle that may set the end of the file, and
  // fails with `Why`; says so when the part stays.
  bool CutBack(LARGE_INTEGER Size, std::string& Error, DWORD Why) const {
    const HANDLE file =
        ::CreateFileA(path_.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    const bool cut = file != INVALID_HANDLE_VALUE &&
                     ::SetFilePointerEx(file, Size, nullptr, FILE_BEGIN) && ::SetEndOfFile(file);
    const DWORD cutWhy = ::GetLastError();
    if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
    Fail(Error, Why);
    if (!cut) Error += "; a part of the line stays: " + SystemMessage(cutWhy);
    return false;
  }

  HANDLE file_;
  std::string path_;
};

}  // namespace

std::unique_ptr<RecordFile> RecordFile::Open(const std::string& Path, std::string& Error) {
  const HANDLE file = ::CreateFileA(Path.c_str(), FILE_APPEND_DATA | FILE_READ_DATA | SYNCHRONIZE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    Error = SystemMessage(::GetLastError());
    return nullptr;
  }
  return std::make_unique<Win32RecordFile>(file, Path);
}

}  // namespace palimbo
