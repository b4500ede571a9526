#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "serial/net_socket.h"

namespace palimbo {

namespace {

// Tries one resolved address; the socket, or -1 with the reason.
int ConnectOne(const addrinfo& Address, int32_t TimeoutMs, std::string& Error) {
  const int fd = ::socket(Address.ai_family, Address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                          Address.ai_protocol);
  if (fd < 0) {
    Error = std::strerror(errno);
    return -1;
  }
  int err = 0;
  if (::connect(fd, Address.ai_addr, Address.ai_addrlen) != 0) {
    err = errno;
    if (err == EINPROGRESS) {
      pollfd out{fd, POLLOUT, 0};
      const int ready = ::poll(&out, 1, TimeoutMs);
      socklen_t length = sizeof err;
      if (ready <= 0) {
        err = ETIMEDOUT;
      } else if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &length) != 0) {
        err = errno;
      }
    }
  }
  if (err != 0) {
    Error = std::strerror(err);
    ::close(fd);
    return -1;
  }
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

}  // namespace

std::optional<NetSocket> NetSocket::Connect(const std::string& Host, const std::string& Port,
                                            int32_t TimeoutMs, std::string& Error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int status = ::getaddrinfo(Host.c_str(), Port.c_str(), &hints, &found);
  if (status != 0) {
    Error = ::gai_strerror(status);
    return std::nullopt;
  }
  int fd = -1;
  for (const addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
    fd = ConnectOne(*a, TimeoutMs, Error);
  }
  ::freeaddrinfo(found);
  if (fd < 0) return std::nullopt;
  return NetSocket(fd);
}

void NetSocket::Release() {
  if (handle_ != kNoSocket) ::close(static_cast<int>(handle_));
  handle_ = kNoSocket;
}

int64_t NetSocket::Send(const char* Data, size_t Count, std::string& Error) {
  for (;;) {
    // No SIGPIPE for a peer that has gone: the caller learns it from the result.
    const ssize_t n = ::send(static_cast<int>(handle_), Data, Count, MSG_NOSIGNAL);
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    Error = std::strerror(errno);
    return -1;
  }
}

int64_t NetSocket::Receive(char* Buffer, size_t Count, std::string& Error) {
  for (;;) {
    const ssize_t n = ::recv(static_cast<int>(handle_), Buffer, Count, 0);
    if (n > 0) return n;
    if (n == 0) {
      Error = "connection closed by the server";
      return -1;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    Error = std::strerror(errno);
    return -1;
  }
}

void NetSocket::Wait(bool ForWrite, int32_t MaxMicros) {
  if (MaxMicros <= 0) return;
  pollfd ready{static_cast<int>(handle_), static_cast<short>(ForWrite ? POLLOUT : POLLIN), 0};
  const timespec limit{MaxMicros / 1'000'000, static_cast<long>(MaxMicros % 1'000'000) * 1000};
  // An interrupted wait just ends early; the callers loop anyway.
  ::ppoll(&ready, 1, &limit, nullptr);
}

}  // namespace palimbo
