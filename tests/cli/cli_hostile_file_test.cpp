// palimbo-cli info, hex2bin and flash on firmware files that cannot be read: each stops with
// exit status 2 and the cause on stderr, and flash never opens its port.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "image/hostile_corpus.h"
#include "support/process.h"
#include "support/temp_file.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;

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

// A FIFO as the serial port: opening it is harmless and any opening shows in the watch.
std::string MakePortFifo() {
  const std::string port = (testing::TestFolder() / "port").string();
  fs::remove(port);
  if (mkfifo(port.c_str(), 0600) != 0) ADD_FAILURE() << "mkfifo " << port;
  return port;
}

std::string ReadAll(const std::string& Path) {
  std::ifstream in(Path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs one of info, hex2bin and flash on `File` behind `Prefix` (a command that runs the rest):
// the reader's causes are the reader's tests' business, so each file needs one launch, and the
// files take the commands in turn. It must stop with status 2 and `Cause` on stderr.
void ExpectRefused(const std::string& File, const std::string& Cause, size_t Turn,
                   const std::vector<std::string>& Prefix = {}) {
  const fs::path dir = testing::TestFolder();
  const std::string out = (dir / "out.bin").string();
  const std::string errFile = (dir / "stderr").string();
  const std::string port = MakePortFifo();
  const std::vector<std::vector<std::string>> commands = {
      {PALIMBO_CLI, "info", File},
      {PALIMBO_CLI, "info", "--json", File},
      {PALIMBO_CLI, "hex2bin", File, out},
      {PALIMBO_CLI, "flash", "--port", port, "--yes", File},
  };
  {
    const auto& args = commands[Turn % commands.size()];
    SCOPED_TRACE(args[1] + " " + File);
    fs::remove(out);
    OpenWatch watch(port);
    ASSERT_TRUE(watch.Armed());
    std::vector<std::string> command = Prefix;
    command.insert(command.end(), args.begin(), args.end());
    testing::Process cli(command, errFile);
    EXPECT_EQ(cli.Wait(), 2) << cli.Output;
    const std::string err = ReadAll(errFile);
    EXPECT_NE(err.find(Cause), std::string::npos) << err;
    EXPECT_FALSE(fs::exists(out)) << "hex2bin wrote an image";
    EXPECT_FALSE(watch.Touched()) << "the port was opened";
  }
}

TEST(CliHostileFile, PortWatchSeesAnOpening) {
  // The proof that flash leaves its port alone is only as good as this watch.
  const std::string port = MakePortFifo();
  OpenWatch watch(port);
  ASSERT_TRUE(watch.Armed());
  EXPECT_FALSE(watch.Touched());
  const int fd = open(port.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_TRUE(watch.Touched());
}

TEST(CliHostileFile, CommittedCorpusNamesTheLine) {
  const auto corpus = testing::HostileCorpus();
  ASSERT_FALSE(corpus.empty());
  for (size_t i = 0; i < corpus.size(); ++i) ExpectRefused(corpus[i].Path, corpus[i].Reason, i);
}

struct Made {
  const char* Name;
  std::function<std::string()> Make;  // gives the firmware path
  const char* Cause;
};

TEST(CliHostileFile, FilesThatAreNoFirmwareNameTheCause) {
  const Made cases[] = {
      {"directory", [] { return testing::TestFolder().string(); },
       "not a regular file (a directory)"},
      {"FIFO",
       [] {
         const std::string path = (testing::TestFolder() / "fw.fifo").string();
         fs::remove(path);
         if (mkfifo(path.c_str(), 0600) != 0) ADD_FAILURE() << "mkfifo " << path;
         return path;
       },
       "not a regular file (a FIFO)"},
      {"endless device", [] { return std::string("/dev/zero"); },
       "not a regular file (a character device)"},
      {"missing", [] { return (testing::TestFolder() / "missing.hex").string(); },
       "cannot open file: No such file or directory"},
      // Made sparse here, never committed: 16 MiB and one byte.
      {"over the limit",
       [] {
         const std::string path = testing::WriteTempFile("big.hex", "");
         fs::resize_file(path, (uintmax_t{16} << 20) + 1);
         return path;
       },
       "file larger than 16 MiB"},
      {"read error", [] { return std::string("/proc/self/mem"); },
       "read error: Input/output error"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].Name);
    ExpectRefused(cases[i].Make(), cases[i].Cause, i);
  }
}

TEST(CliHostileFile, NoPermissionNamesTheCause) {
  // Root may read anything, so as root the commands run as nobody.
  std::vector<std::string> asUser;
  if (geteuid() == 0) {
    if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "root, and no setpriv";
    asUser = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  }
  const std::string path = testing::WriteTempFile("locked.hex", ":0100000055AA\r\n");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  ExpectRefused(path, "cannot open file: Permission denied", 3, asUser);
}

}  // namespace
}  // namespace palimbo
