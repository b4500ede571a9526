#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "serial/comm.h"

namespace palimbo {
namespace {

// The master side of a pseudo-terminal is the module's end of the line.
class SerialPty : public ::testing::Test {
 protected:
  void TearDown() override {
    if (master_ >= 0) ::close(master_);
  }

  int32_t OpenPort(SerialBackend& Port, const std::string& Line = "57600,N,8,1") {
    const int32_t handle = Comm_oeffnen_32(Port, slave_ + ":" + Line);
    EXPECT_GE(handle, 0) << Line << ": " << Port.LastOpenError();
    return handle;
  }
  // Bytes reach the slave's queue a moment after the master took them; waits for them, with a
  // deadline far beyond what even a loaded machine needs.
  bool AwaitBytes(int32_t Handle, int32_t Count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (port_->BytesWaiting(Handle) < Count) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      Comm_warten_32(*port_, Handle, 10'000);
    }
    return true;
  }

  int master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  std::string slave_ = ::grantpt(master_) || ::unlockpt(master_) ? "" : ::ptsname(master_);
  std::unique_ptr<SerialBackend> port_ = MakeSystemSerialBackend();
};

TEST_F(SerialPty, OpenSaysWhyItFailedOrTakesThePortRawAndExclusively) {
  const std::pair<std::string, std::string> cases[] = {
      {slave_ + ":57600,X,8,1", "bad line settings '57600,X,8,1'"},
      {slave_ + ":57601,N,8,1", "bad line settings '57601,N,8,1'"},  // parses, but no such rate
      {slave_, ""},  // no ":" never reaches the system
      {":57600,N,8,1", "No such file or directory"},
      {"/dev/palimbo-no-such-port:57600", "No such file or directory"},
      {"/dev/null:57600,N,8,1", "Inappropriate ioctl for device"},
  };
  for (const auto& [settings, reason] : cases) {
    const auto port = MakeSystemSerialBackend();
    EXPECT_EQ(Comm_oeffnen_32(*port, settings), -1) << settings;
    EXPECT_EQ(port->LastOpenError(), reason) << settings;
  }
  // These opens also show that no failed open kept the port.
  const auto otherProgram = MakeSystemSerialBackend();
  for (const auto& [line, speed] : {std::pair<std::string, speed_t>{"57600,N,8,1", B57600},
                                    {"1200,M,7,2", B1200},
                                    {"baud=19200 parity=e", B19200}}) {
    int32_t handle = OpenPort(*port_, line);
    termios tio{};
    ASSERT_EQ(::tcgetattr(handle, &tio), 0) << line;
    EXPECT_TRUE(cfgetispeed(&tio) == speed && cfgetospeed(&tio) == speed) << line;
    EXPECT_FALSE((tio.c_lflag & (ICANON | ECHO | ISIG)) || (tio.c_iflag & (ICRNL | IXON)) ||
                 (tio.c_oflag & OPOST));
    EXPECT_EQ(tio.c_cflag & (CLOCAL | CREAD | CRTSCTS), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(Comm_oeffnen_32(*otherProgram, slave_ + ":57600"), -1);
    EXPECT_EQ(otherProgram->LastOpenError(), "Device or resource busy");
    Comm_close_32(*port_, handle);
    EXPECT_EQ(handle, -1);
  }
  // The pseudo-terminal lives on; its exclusive flag must not keep out a program without root.
  int exclusive = 1;
  const int probe = ::open(slave_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  EXPECT_EQ(::ioctl(probe, TIOCGEXCL, &exclusive), 0);
  EXPECT_EQ(exclusive, 0);
  ::close(probe);
}

TEST_F(SerialPty, AllByteValuesPassBothWaysAndAWriteNobodyTakesGivesUp) {
  int32_t handle = OpenPort(*port_);
  std::string bytes = "\r\n\r", buffer = "old text from the caller";
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  ASSERT_EQ(::write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ASSERT_TRUE(AwaitBytes(handle, 259));
  EXPECT_NE(Comm_lesen_32(*port_, handle, buffer), 0);
  EXPECT_EQ(buffer, bytes);
  EXPECT_EQ(Comm_lesen_32(*port_, handle, buffer), 0);
  EXPECT_EQ(buffer, "");

  // More than the pseudo-terminal holds: the write waits for the module to read.
  std::string many, received;
  for (int i = 0; i < 100; ++i) many += bytes;
  std::thread module([&] {
    char chunk[4096];
    pollfd in{master_, POLLIN, 0};
    for (ssize_t n = 1; n > 0 && received.size() < many.size() && ::poll(&in, 1, 10'000) > 0;) {
      if ((n = ::read(master_, chunk, sizeof(chunk))) > 0) received.append(chunk, n);
    }
  });
  EXPECT_EQ(Comm_schreiben_32(*port_, handle, many), static_cast<int16_t>(many.size()));
  module.join();
  EXPECT_EQ(received, many);
  EXPECT_EQ(port_->LostReason(), "");

  // A module that takes nothing: the write gives up, and the port is closed for it.
  Comm_schreiben_32(*port_, handle, std::string(1 << 20, 'x'));
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(port_->LostReason(), "the port took no data for 2 s");
}

// The module's end goes away, as when an adapter is pulled out: the first look or write
// notices, the backend closes the port and keeps the system's message.
struct LossCase {
  const char* Name;
  std::string PendingBytes;  // the module sent these before it went
  bool WaitFirst;            // a wait on the port comes before the look
  bool WriteFirst;           // a write notices, not a look
};

void PrintTo(const LossCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class SerialPtyLoss : public SerialPty, public ::testing::WithParamInterface<LossCase> {};

TEST_P(SerialPtyLoss, NoticedClosedAndExplained) {
  const LossCase& c = GetParam();
  int32_t handle = OpenPort(*port_);
  const int32_t opened = handle;
  if (!c.PendingBytes.empty()) {
    ASSERT_EQ(::write(master_, c.PendingBytes.data(), c.PendingBytes.size()),
              static_cast<ssize_t>(c.PendingBytes.size()));
    ASSERT_TRUE(AwaitBytes(handle, static_cast<int32_t>(c.PendingBytes.size())));
  }
  ::close(master_);
  master_ = -1;
  if (c.WaitFirst) Comm_warten_32(*port_, handle, 4'000'000);
  std::string buffer = "old";
  if (c.WriteFirst) {
    EXPECT_EQ(Comm_schreiben_32(*port_, handle, "i"), 0);
  } else {
    EXPECT_EQ(port_->BytesWaiting(handle), -1);
    EXPECT_EQ(Comm_lesen_32(*port_, handle, buffer), 0);
    EXPECT_EQ(buffer, "");
  }
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(port_->LostReason(), "Input/output error");
  // The number the port had may now belong to another file; closing the lost port leaves it.
  ASSERT_EQ(::dup2(STDERR_FILENO, opened), opened);
  port_->Close(opened);
  EXPECT_NE(::fcntl(opened, F_GETFD), -1);
  EXPECT_EQ(port_->BytesWaiting(opened), 0) << "a closed loss is forgotten";
  ::close(opened);
  // A new open starts without the old loss.
  EXPECT_EQ(Comm_oeffnen_32(*port_, "/dev/palimbo-no-such-port:57600"), -1);
  EXPECT_EQ(port_->LostReason(), "");
}

INSTANTIATE_TEST_SUITE_P(, SerialPtyLoss,
                         ::testing::Values(LossCase{"LookNotices", "", false, false},
                                           LossCase{"LookAfterAWaitNotices", "", true, false},
                                           LossCase{"BytesLeftAreLostWithThePort", "abc", false,
                                                    false},
                                           LossCase{"WriteNotices", "", false, true}),
                         [](const auto& Info) { return std::string(Info.param.Name); });

}  // namespace
}  // namespace palimbo
