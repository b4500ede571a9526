// palimbo-cli flash on a firmware file that gives no image: it stops with exit status 2 and the
// cause on stderr, and never opens its port. (info and hex2bin refuse such files in the image
// commands' table; the reader's causes are the reader's tests' business.)
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "image/hostile_corpus.h"
#include "support/process.h"
#include "support/temp_file.h"

namespace palimbo {
namespace {

// Tells whether anyone opened, read or wrote a file since the watch began.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& Path)
      : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
        watch_(inotify_add_watch(fd_, Path.c_str(), IN_OPEN | IN_ACCESS | IN_MODIFY)) {}
  ~OpenWatch() { close(fd_); }
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;

  bool Armed() const { return fd_ >= 0 && watch_ >= 0; }
  bool Touched() const {
    alignas(inotify_event) char events[4096];
    return read(fd_, events, sizeof events) > 0;
  }

 private:
  int fd_;
  int watch_;
};

TEST(CliHostileFile, FlashStopsBeforeItsPort) {
  // A FIFO as the serial port: opening it is harmless and any opening shows in the watch.
  const std::string port = (testing::TestFolder() / "port").string();
  std::filesystem::remove(port);
  ASSERT_EQ(mkfifo(port.c_str(), 0600), 0);
  {
    // The proof is only as good as the watch.
    OpenWatch watch(port);
    ASSERT_TRUE(watch.Armed());
    EXPECT_FALSE(watch.Touched());
    const int fd = open(port.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_TRUE(watch.Touched());
  }
  const auto corpus = testing::HostileCorpus();
  ASSERT_FALSE(corpus.empty());
  const std::pair<std::string, std::string> files[] = {
      {corpus.front().Path, corpus.front().Reason},
      {"/dev/zero", "not a regular file (a character device)"},
  };
  for (const auto& [file, cause] : files) {
    SCOPED_TRACE(file);
    OpenWatch watch(port);
    ASSERT_TRUE(watch.Armed());
    const std::string errFile = testing::WriteTempFile("stderr", "");
    testing::Process cli({PALIMBO_CLI, "flash", "--port", port, "--yes", file}, errFile);
    EXPECT_EQ(cli.Wait(), 2) << cli.Output;
    const std::string err = testing::ReadAll(errFile);
    EXPECT_NE(err.find(cause), std::string::npos) << err;
    EXPECT_FALSE(watch.Touched()) << "the port was opened";
  }
}

}  // namespace
}  // namespace palimbo
