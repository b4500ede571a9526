#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "serial/comm.h"
#include "serial/serial_backend.h"

namespace palimbo {
namespace {

using std::chrono::milliseconds;
using Stopwatch = std::chrono::steady_clock;

double MillisSince(Stopwatch::time_point Start) {
  return std::chrono::duration<double, std::milli>(Stopwatch::now() - Start).count();
}

// The module's end of the line: the master side of a pseudo-terminal.
class ModuleEnd {
 public:
  ModuleEnd() {
    char name[128] = {};
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
        ::ptsname_r(master_, name, sizeof(name)) != 0) {
      ADD_FAILURE() << "no pseudo-terminal";
    }
    slave_path_ = name;
  }
  ~ModuleEnd() { CloseMaster(); }

  const std::string& SlavePath() const { return slave_path_; }
  void CloseMaster() {
    if (master_ >= 0) ::close(master_);
    master_ = -1;
  }
  void Send(const std::string& Bytes) {
    ASSERT_EQ(::write(master_, Bytes.data(), Bytes.size()), static_cast<ssize_t>(Bytes.size()));
  }
  // What the tool sent, until `Count` bytes are there or `Limit` has passed.
  std::string Receive(size_t Count, milliseconds Limit = milliseconds(2000)) {
    std::string got;
    const auto deadline = Stopwatch::now() + Limit;
    while (got.size() < Count && Stopwatch::now() < deadline) {
      pollfd in{master_, POLLIN, 0};
      ::poll(&in, 1, 10);
      char chunk[4096];
      const ssize_t n = ::read(master_, chunk, sizeof(chunk));
      if (n > 0) got.append(chunk, static_cast<size_t>(n));
    }
    return got;
  }

 private:
  int master_ = -1;
  std::string slave_path_;
};

class SerialPty : public ::testing::Test {
 protected:
  std::string Settings(const std::string& Line = "57600,N,8,1") const {
    return module_.SlavePath() + ":" + Line;
  }
  int32_t OpenPort() {
    const int32_t handle = Comm_oeffnen_32(*port_, Settings());
    EXPECT_GE(handle, 0) << port_->LastOpenError();
    return handle;
  }
  // Bytes from the module reach the slave's queue a moment after the master took them.
  void AwaitWaiting(int32_t Handle, int32_t Count) {
    const auto deadline = Stopwatch::now() + milliseconds(2000);
    while (port_->BytesWaiting(Handle) < Count && Stopwatch::now() < deadline) {
      Comm_warten_32(*port_, Handle, 10'000);
    }
    ASSERT_EQ(port_->BytesWaiting(Handle), Count);
  }

  ModuleEnd module_;
  std::unique_ptr<SerialBackend> port_ = MakeSystemSerialBackend();
};

TEST_F(SerialPty, GoodSettingsOpenRawAtTheirSpeed) {
  const std::pair<std::string, speed_t> cases[] = {
      {"57600,N,8,1", B57600},
      {"9600,e,7,2", B9600},
      {"115200", B115200},
      {"57600,n,8", B57600},
      {"96,N,8,1", B9600},
      {"1200,M,8,1", B1200},
      {"baud=19200 parity=N data=8 stop=1", B19200},
      {"PARITY=n BAUD=38400 xon=off", B38400},
  };
  for (const auto& [line, speed] : cases) {
    int32_t handle = Comm_oeffnen_32(*port_, Settings(line));
    ASSERT_GE(handle, 0) << line << ": " << port_->LastOpenError();
    termios tio{};
    ASSERT_EQ(::tcgetattr(handle, &tio), 0) << line;
    EXPECT_EQ(cfgetospeed(&tio), speed) << line;
    EXPECT_EQ(cfgetispeed(&tio), speed) << line;
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ISIG), 0u) << line;
    EXPECT_EQ(tio.c_iflag & (ICRNL | IXON | ISTRIP), 0u) << line;
    EXPECT_EQ(tio.c_oflag & OPOST, 0u) << line;
    EXPECT_EQ(tio.c_cflag & (CLOCAL | CREAD | CRTSCTS), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_TRUE(Comm_close_32(*port_, handle));
  }
}

TEST_F(SerialPty, FailedOpensGiveMinusOneAndTheReason) {
  const std::pair<std::string, std::string> cases[] = {
      {"@:57600,X,8,1", "bad line settings '57600,X,8,1'"},
      {"@:abc", "bad line settings 'abc'"},
      {"@:57600,N,9,1", "bad line settings '57600,N,9,1'"},
      {"@:", "bad line settings ''"},
      {"@:57601,N,8,1", "bad line settings '57601,N,8,1'"},
      {"@", ""},  // no ":" never reaches the system
      {":57600,N,8,1", "No such file or directory"},
      {"/dev/palimbo-no-such-port:57600,N,8,1", "No such file or directory"},
      {"/dev/null:57600,N,8,1", "Inappropriate ioctl for device"},
  };
  for (auto [settings, reason] : cases) {
    if (settings[0] == '@') settings.replace(0, 1, module_.SlavePath());
    const auto port = MakeSystemSerialBackend();
    const int32_t handle = Comm_oeffnen_32(*port, settings);
    EXPECT_EQ(handle, -1) << settings;
    EXPECT_FALSE(IsPortOpen(handle)) << settings;
    EXPECT_EQ(port->LastOpenError(), reason) << settings;
  }
  // No failed open may have kept the port.
  int32_t handle = OpenPort();
  Comm_close_32(*port_, handle);
}

TEST_F(SerialPty, PortIsExclusiveUntilClosed) {
  int32_t first = OpenPort();
  const auto otherProgram = MakeSystemSerialBackend();
  for (SerialBackend* port : {port_.get(), otherProgram.get(), port_.get()}) {
    EXPECT_EQ(Comm_oeffnen_32(*port, Settings()), -1);
    EXPECT_EQ(port->LastOpenError(), "Device or resource busy");
  }
  // A refused open must not take the holder's exclusive flag with it.
  int exclusive = 0;
  ASSERT_EQ(::ioctl(first, TIOCGEXCL, &exclusive), 0);
  EXPECT_EQ(exclusive, 1);

  EXPECT_TRUE(Comm_close_32(*port_, first));
  EXPECT_EQ(first, -1);
  EXPECT_FALSE(IsPortOpen(first));
  // The pseudo-terminal lives on; its flag must not keep out a program without root.
  const int probe = ::open(module_.SlavePath().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_GE(probe, 0);
  ASSERT_EQ(::ioctl(probe, TIOCGEXCL, &exclusive), 0);
  EXPECT_EQ(exclusive, 0);
  ::close(probe);

  int32_t second = Comm_oeffnen_32(*otherProgram, Settings());
  EXPECT_GE(second, 0) << otherProgram->LastOpenError();
  Comm_close_32(*otherProgram, second);
}

TEST_F(SerialPty, ReadReplacesBufferAndDeliversEverythingWaiting) {
  int32_t handle = OpenPort();
  const std::string frames = std::string("\x55\x01\x43\x12\x34", 5) + "O\x00\x01\x00" + "X";
  module_.Send(frames);
  AwaitWaiting(handle, static_cast<int32_t>(frames.size()));

  std::string buffer = "old text from the caller";
  EXPECT_NE(Comm_lesen_32(*port_, handle, buffer), 0);
  EXPECT_EQ(buffer, frames);
  for (int closed = 0; closed < 2; ++closed) {
    buffer = "stale";
    EXPECT_EQ(Comm_lesen_32(*port_, handle, buffer), 0);
    EXPECT_EQ(buffer, "");
    Comm_close_32(*port_, handle);
  }
}

TEST_F(SerialPty, AllByteValuesPassUnchangedBothWays) {
  int32_t handle = OpenPort();
  std::string bytes = "\r\n\r";
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  EXPECT_EQ(Comm_schreiben_32(*port_, handle, bytes), static_cast<int16_t>(bytes.size()));
  EXPECT_EQ(module_.Receive(bytes.size()), bytes);

  module_.Send(bytes);
  AwaitWaiting(handle, static_cast<int32_t>(bytes.size()));
  std::string got;
  Comm_lesen_32(*port_, handle, got);
  EXPECT_EQ(got, bytes);
  EXPECT_EQ(module_.Receive(1, milliseconds(50)), "") << "the port echoed";
  Comm_close_32(*port_, handle);
}

TEST_F(SerialPty, EmptyWriteAndRaisedDtrLeaveThePortWorking) {
  int32_t handle = OpenPort();
  const int32_t opened = handle;
  EscapeCommFunction(*port_, handle, SETDTR);
  EXPECT_EQ(Comm_schreiben_32(*port_, handle, ""), 0);
  EXPECT_EQ(handle, opened);
  EXPECT_EQ(Comm_schreiben_32(*port_, handle, "i"), 1);
  EXPECT_EQ(module_.Receive(2, milliseconds(100)), "i");
  Comm_close_32(*port_, handle);
}

TEST_F(SerialPty, WriteWaitsUntilASlowReaderTookEverything) {
  int32_t handle = OpenPort();
  // More than a pseudo-terminal buffers, so the write has to wait for the module to read.
  std::string data(30000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  std::string received;
  std::thread reader([&] { received = module_.Receive(data.size(), milliseconds(5000)); });
  EXPECT_EQ(Comm_schreiben_32(*port_, handle, data), static_cast<int16_t>(data.size()));
  reader.join();
  EXPECT_TRUE(IsPortOpen(handle));
  EXPECT_EQ(received, data);
  Comm_close_32(*port_, handle);
}

TEST_F(SerialPty, WriteNobodyTakesEndsShortAfterTheTimeOutAndClosesThePort) {
  int32_t handle = OpenPort();
  const auto start = Stopwatch::now();
  const int16_t written = Comm_schreiben_32(*port_, handle, std::string(30000, 'F'));
  EXPECT_GT(written, 0);
  EXPECT_LT(written, 30000);
  EXPECT_EQ(handle, -1);
  EXPECT_GE(MillisSince(start), 1500.0);
  EXPECT_LE(MillisSince(start), 5000.0);
}

TEST_F(SerialPty, WriteAfterTheModuleHungUpClosesThePort) {
  int32_t handle = OpenPort();
  module_.CloseMaster();
  for (int closed = 0; closed < 2; ++closed) {
    EXPECT_EQ(Comm_schreiben_32(*port_, handle, "i"), 0);
    EXPECT_EQ(handle, -1);
    EXPECT_FALSE(IsPortOpen(handle));
  }
}

TEST_F(SerialPty, ClosingTwiceIsHarmlessAndLeavesOtherFilesAlone) {
  int32_t handle = OpenPort();
  const int32_t stale = handle;
  EXPECT_TRUE(Comm_close_32(*port_, handle));
  EXPECT_TRUE(Comm_close_32(*port_, handle));
  EXPECT_EQ(handle, -1);

  // The old number now belongs to another file of the program; the backend must not touch it.
  const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::dup2(other, stale), stale);
  port_->Close(stale);
  EXPECT_NE(::fcntl(stale, F_GETFD), -1);
  EXPECT_EQ(port_->Write(stale, "x"), 0);
  ::close(stale);
  ::close(other);
  handle = OpenPort();
  Comm_close_32(*port_, handle);
}

TEST_F(SerialPty, WaitForInputReturnsWhenAByteArrivesOrAfterItsTime) {
  int32_t handle = OpenPort();
  auto start = Stopwatch::now();
  Comm_warten_32(*port_, handle, 1000);
  EXPECT_GE(MillisSince(start), 0.5);
  EXPECT_LE(MillisSince(start), 20.0);

  std::thread module([&] {
    std::this_thread::sleep_for(milliseconds(20));
    module_.Send("O");
  });
  start = Stopwatch::now();
  Comm_warten_32(*port_, handle, 2'000'000);
  const double elapsed = MillisSince(start);
  module.join();
  EXPECT_GE(elapsed, 10.0);
  EXPECT_LE(elapsed, 500.0);

  // With the byte still waiting, and on a closed port, the wait ends at once.
  AwaitWaiting(handle, 1);
  for (int closed = 0; closed < 2; ++closed) {
    start = Stopwatch::now();
    Comm_warten_32(*port_, handle, 2'000'000);
    EXPECT_LE(MillisSince(start), 20.0);
    Comm_close_32(*port_, handle);
  }
}

}  // namespace
}  // namespace palimbo
