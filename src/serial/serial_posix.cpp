#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <vector>

#include "serial/line_settings.h"
#include "serial/serial_backend.h"

namespace palimbo {
namespace {

// A port that takes no data for this long is dead for the write that waits on it.
constexpr auto kWriteTimeout = std::chrono::milliseconds(2000);

#ifdef CMSPAR
constexpr tcflag_t kMarkSpaceParity = CMSPAR;
#else
constexpr tcflag_t kMarkSpaceParity = 0;  // no mark or space parity on this system
#endif

#ifdef CRTSCTS
constexpr tcflag_t kHardwareFlow = CRTSCTS;
#else
constexpr tcflag_t kHardwareFlow = 0;
#endif

struct BaudRate {
  int32_t Rate;
  speed_t Speed;
};

constexpr BaudRate kBaudRates[] = {
    {50, B50},           {75, B75},     {110, B110},   {134, B134},     {150, B150},
    {200, B200},         {300, B300},   {600, B600},   {1200, B1200},   {1800, B1800},
    {2400, B2400},       {4800, B4800}, {9600, B9600}, {19200, B19200}, {38400, B38400},
#ifdef B57600
    {57600, B57600},
#endif
#ifdef B115200
    {115200, B115200},
#endif
#ifdef B230400
    {230400, B230400},
#endif
#ifdef B460800
    {460800, B460800},
#endif
#ifdef B500000
    {500000, B500000},
#endif
#ifdef B576000
    {576000, B576000},
#endif
#ifdef B921600
    {921600, B921600},
#endif
#ifdef B1000000
    {1000000, B1000000},
#endif
#ifdef B1152000
    {1152000, B1152000},
#endif
#ifdef B1500000
    {1500000, B1500000},
#endif
#ifdef B2000000
    {2000000, B2000000},
#endif
#ifdef B2500000
    {2500000, B2500000},
#endif
#ifdef B3000000
    {3000000, B3000000},
#endif
#ifdef B3500000
    {3500000, B3500000},
#endif
#ifdef B4000000
    {4000000, B4000000},
#endif
};

// Input and output processing that would change bytes or hold them back.
constexpr tcflag_t kCookedInput =
    IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXOFF | IXANY | INPCK;
constexpr tcflag_t kCookedLocal = ECHO | ECHONL | ICANON | ISIG | IEXTEN;

// Raw mode, and the frame as the text asks; what the text leaves out keeps the port's value.
bool ApplyLineSettings(const LineSettings& Wanted, termios& Tio) {
  Tio.c_iflag &= ~kCookedInput;
  Tio.c_oflag &= ~OPOST;
  Tio.c_lflag &= ~kCookedLocal;
  Tio.c_cflag |= CLOCAL | CREAD;
  Tio.c_cflag &= ~kHardwareFlow;
  Tio.c_cc[VMIN] = 0;
  Tio.c_cc[VTIME] = 0;

  if (Wanted.Baud) {
    const auto* rate = std::find_if(std::begin(kBaudRates), std::end(kBaudRates),
                                    [&](const BaudRate& b) { return b.Rate == *Wanted.Baud; });
    if (rate == std::end(kBaudRates)) return false;
    cfsetispeed(&Tio, rate->Speed);
    cfsetospeed(&Tio, rate->Speed);
  }
  if (Wanted.Parity) {
    // Parity errors are not checked on input (no INPCK): the byte arrives as it was received.
    Tio.c_cflag &= ~(PARENB | PARODD | kMarkSpaceParity);
    switch (*Wanted.Parity) {
      case ParityKind::None:
        break;
      case ParityKind::Even:
        Tio.c_cflag |= PARENB;
        break;
      case ParityKind::Odd:
        Tio.c_cflag |= PARENB | PARODD;
        break;
      case ParityKind::Mark:
        if (kMarkSpaceParity == 0) return false;
        Tio.c_cflag |= PARENB | PARODD | kMarkSpaceParity;
        break;
      case ParityKind::Space:
        if (kMarkSpaceParity == 0) return false;
        Tio.c_cflag |= PARENB | kMarkSpaceParity;
        break;
    }
  }
  if (Wanted.DataBits) {
    static constexpr tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
    Tio.c_cflag = (Tio.c_cflag & ~CSIZE) | kSizes[*Wanted.DataBits - 5];
  }
  if (Wanted.StopBits) {
    // Termios has no 1.5; a UART sends 1.5 stop bits for CSTOPB at 5 data bits, where 1.5 exists.
    if (*Wanted.StopBits == StopKind::One) {
      Tio.c_cflag &= ~CSTOPB;
    } else {
      Tio.c_cflag |= CSTOPB;
    }
  }
  return true;
}

// The frame bits (size, parity, stop) are left out: a pseudo-terminal has no line and keeps
// 8 bits without parity whatever it is told, which changes no byte that passes.
bool RawModeTaken(const termios& Wanted, const termios& Got) {
  return (Got.c_iflag & kCookedInput) == 0 && (Got.c_oflag & OPOST) == 0 &&
         (Got.c_lflag & kCookedLocal) == 0 &&
         (Got.c_cflag & (CLOCAL | CREAD)) == (CLOCAL | CREAD) &&
         (Got.c_cflag & kHardwareFlow) == 0 && cfgetispeed(&Got) == cfgetispeed(&Wanted) &&
         cfgetospeed(&Got) == cfgetospeed(&Wanted);
}

// Errors by which a port tells that it is gone: a USB adapter pulled out, a line hung up.
bool IsLossError(int Error) {
  return Error == EIO || Error == ENXIO || Error == ENODEV;
}

class PosixSerialBackend final : public SerialBackend {
 public:
  PosixSerialBackend() = default;
  PosixSerialBackend(const PosixSerialBackend&) = delete;
  PosixSerialBackend& operator=(const PosixSerialBackend&) = delete;
  ~PosixSerialBackend() override {
    while (!open_fds_.empty()) Close(open_fds_.back());
  }

  int32_t Open(const std::string& PortName, const std::string& LineSettingsText) override;
  std::string LastOpenError() const override { return last_error_; }
  std::string LostReason() const override { return lost_reason_; }
  int32_t BytesWaiting(int32_t Handle) override;
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override;
  int32_t Write(int32_t Handle, const std::string& Data) override;
  void Close(int32_t Handle) override;
  void RaiseDtr(int32_t Handle) override;
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override;

 private:
  bool IsOpen(int32_t Handle) const {
    return Handle >= 0 && std::find(open_fds_.begin(), open_fds_.end(), Handle) != open_fds_.end();
  }
  bool IsLost(int32_t Handle) const {
    return Handle >= 0 && std::find(lost_fds_.begin(), lost_fds_.end(), Handle) != lost_fds_.end();
  }
  int32_t FailOpen(int Fd, std::string Reason) {
    if (Fd >= 0) ::close(Fd);
    last_error_ = std::move(Reason);
    return -1;
  }
  // Closes a port that has gone away and keeps why; its handle reads as lost until closed.
  // `FdStillOpen` is false when the system no longer knows the descriptor.
  void Lose(int32_t Handle, std::string Reason, bool FdStillOpen = true);

  std::vector<int> open_fds_;
  std::vector<int> lost_fds_;
  std::string last_error_;
  std::string lost_reason_;
};

int32_t PosixSerialBackend::Open(const std::string& PortName, const std::string& LineSettingsText) {
  lost_reason_.clear();
  const std::string badSettings = "bad line settings '" + LineSettingsText + "'";
  // A text that does not parse fails before the device is touched, so opening raises no DTR.
  const auto wanted = ParseLineSettings(LineSettingsText);
  if (!wanted) return FailOpen(-1, badSettings);

  const int fd = ::open(PortName.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return FailOpen(-1, std::strerror(errno));
  // The lock keeps out every other open, also one in this process or by root, whom TIOCEXCL
  // lets through.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    return FailOpen(fd, std::strerror(errno == EWOULDBLOCK ? EBUSY : errno));
  }

  termios tio{};
  if (::tcgetattr(fd, &tio) != 0) return FailOpen(fd, std::strerror(errno));
  if (!ApplyLineSettings(*wanted, tio)) return FailOpen(fd, badSettings);
  if (::tcsetattr(fd, TCSANOW, &tio) != 0) return FailOpen(fd, std::strerror(errno));
  termios taken{};
  if (::tcgetattr(fd, &taken) != 0) return FailOpen(fd, std::strerror(errno));
  if (!RawModeTaken(tio, taken)) {
    return FailOpen(fd, "port refused line settings '" + LineSettingsText + "'");
  }

  // Only a holder of the lock may set this, so no other holder's flag gets cleared on close.
  ::ioctl(fd, TIOCEXCL);
  open_fds_.push_back(fd);
  // A new descriptor may carry the number of one that went away before.
  std::erase(lost_fds_, fd);
  return fd;
}

void PosixSerialBackend::Lose(int32_t Handle, std::string Reason, bool FdStillOpen) {
  if (FdStillOpen) {
    ::ioctl(Handle, TIOCNXCL);
    ::flock(Handle, LOCK_UN);
    ::close(Handle);
  }
  std::erase(open_fds_, Handle);
  lost_fds_.push_back(Handle);
  lost_reason_ = std::move(Reason);
}

int32_t PosixSerialBackend::BytesWaiting(int32_t Handle) {
  if (IsLost(Handle)) return -1;
  if (!IsOpen(Handle)) return 0;
  int count = 0;
  if (::ioctl(Handle, FIONREAD, &count) != 0) {
    // A hung-up terminal answers every request with EIO; other failures are no verdict.
    if (!IsLossError(errno)) return 0;
    Lose(Handle, std::strerror(errno));
    return -1;
  }
  if (count > 0) return count;
  // Systems whose hung-up terminals still answer FIONREAD tell it by poll.
  pollfd probe{Handle, POLLIN, 0};
  if (::poll(&probe, 1, 0) <= 0) return 0;
  if ((probe.revents & POLLNVAL) != 0) {
    Lose(Handle, "port no longer open", /*FdStillOpen=*/false);
  } else if ((probe.revents & POLLHUP) != 0) {
    Lose(Handle, "line hung up");
  } else if ((probe.revents & POLLERR) != 0) {
    Lose(Handle, "port error");
  } else {
    return 0;
  }
  return -1;
}

int16_t PosixSerialBackend::Read(int32_t Handle, int32_t Count, std::string& Buffer) {
  Buffer.clear();
  if (!IsOpen(Handle)) return 0;
  Buffer.resize(static_cast<size_t>(std::max(Count, 0)));
  size_t got = 0;
  while (got < Buffer.size()) {
    const ssize_t n = ::read(Handle, Buffer.data() + got, Buffer.size() - got);
    if (n > 0) {
      got += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && IsLossError(errno)) {
      // Bytes read before the loss are still delivered; the next look reports the loss.
      Lose(Handle, std::strerror(errno));
      if (got == 0) {
        Buffer.clear();
        return 0;
      }
      break;
    } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && got == 0) {
      Buffer.clear();
      return 0;
    } else {
      break;
    }
  }
  Buffer.resize(got);
  return 1;
}

int32_t PosixSerialBackend::Write(int32_t Handle, const std::string& Data) {
  if (!IsOpen(Handle)) return 0;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + kWriteTimeout;
  size_t done = 0;
  while (done < Data.size()) {
    const ssize_t n = ::write(Handle, Data.data() + done, Data.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && IsLossError(errno)) {
      Lose(Handle, std::strerror(errno));
      break;
    }
    // Any other failure ends the write too, and the caller closes the port for it.
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      lost_reason_ = std::strerror(errno);
      break;
    }

    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      lost_reason_ =
          "the port took no data for " + std::to_string(kWriteTimeout.count() / 1000) + " s";
      break;
    }
    pollfd waitOut{Handle, POLLOUT, 0};
    ::poll(&waitOut, 1, static_cast<int>(left));
  }
  return static_cast<int32_t>(std::min<size_t>(done, std::numeric_limits<int32_t>::max()));
}

void PosixSerialBackend::Close(int32_t Handle) {
  // The descriptor of a lost port is closed already; its number may belong to another file.
  if (std::erase(lost_fds_, Handle) != 0) return;
  const auto it = std::find(open_fds_.begin(), open_fds_.end(), Handle);
  if (it == open_fds_.end()) return;
  // A pseudo-terminal outlives its slave's close; the flag would keep later opens out.
  ::ioctl(Handle, TIOCNXCL);
  ::flock(Handle, LOCK_UN);
  ::close(Handle);
  open_fds_.erase(it);
}

void PosixSerialBackend::RaiseDtr(int32_t Handle) {
  if (!IsOpen(Handle)) return;
  int bits = TIOCM_DTR;
  // A pseudo-terminal has no modem lines and refuses this; nothing depends on it.
  ::ioctl(Handle, TIOCMBIS, &bits);
}

void PosixSerialBackend::WaitForInput(int32_t Handle, int32_t MaxMicros) {
  if (!IsOpen(Handle) || MaxMicros <= 0) return;
  pollfd waitIn{Handle, POLLIN, 0};
  const timespec limit{MaxMicros / 1'000'000, static_cast<long>(MaxMicros % 1'000'000) * 1000};
  // An interrupted wait just ends early; the callers poll in a loop anyway.
  ::ppoll(&waitIn, 1, &limit, nullptr);
}

}  // namespace

std::unique_ptr<SerialBackend> MakeLocalSerialBackend() {
  return std::make_unique<PosixSerialBackend>();
}

}  // namespace palimbo
