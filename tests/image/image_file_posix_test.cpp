// Files only POSIX systems have: FIFOs, devices, /proc, permissions.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "image/file_cases.h"
#include "image/file_read.h"
#include "image/hex_file.h"

namespace palimbo {
namespace {

using testing::FileCase;
using testing::ReadHexFileCase;

INSTANTIATE_TEST_SUITE_P(
    Posix, ReadHexFileCase,
    ::testing::Values(
        // Opening a FIFO for reading waits for a writer, so it must not even be opened.
        FileCase{"Fifo",
                 [] {
                   const std::string path = (testing::TestFolder() / "fifo").string();
                   std::filesystem::remove(path);
                   if (mkfifo(path.c_str(), 0600) != 0) ADD_FAILURE() << "mkfifo " << path;
                   return path;
                 },
                 "not a regular file (a FIFO)"},
        FileCase{"EndlessDevice", [] { return std::string("/dev/zero"); },
                 "not a regular file (a character device)"},
        FileCase{"ReadFails", [] { return std::string("/proc/self/mem"); },
                 "read error: Input/output error"},
        // /proc reports the size 0: the file is read, then found to be no HEX text.
        FileCase{"SizeZeroButFull", [] { return std::string("/proc/self/status"); },
                 "line 1: checksum mismatch"}),
    testing::CaseName);

TEST(ReadHexFile, NoPermission) {
  const std::string path = testing::WriteTempFile("locked.hex", ":0100000055AA");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  // Root may read anything, so root reads as nobody for the while.
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  bool encrypted = false;
  const std::string reason = ReadHexFile(path, encrypted).Reason;
  if (root) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_EQ(reason, "cannot open file: Permission denied");
}

TEST(ReadRegularFile, FindsAFileTooLongWhileReadingIt) {
  // /proc files report the size 0, so only the read itself can find them too long.
  const FileBytes small = ReadRegularFile("/proc/self/status", 16);
  EXPECT_EQ(small.Problem, FileProblem::TooLarge);
  EXPECT_TRUE(small.Bytes.empty());
  const FileBytes whole = ReadRegularFile("/proc/self/status", size_t{1} << 20);
  EXPECT_EQ(whole.Problem, FileProblem::None) << whole.Detail;
  EXPECT_EQ(whole.Bytes.rfind("Name:", 0), 0u);
}

}  // namespace
}  // namespace palimbo
