#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "serial/net_socket.h"
#include "serial/net_socket_platform.h"

namespace palimbo {

namespace {

timespec TimespecOf(int32_t Micros) {
  return timespec{Micros / 1'000'000, static_cast<long>(Micros % 1'000'000) * 1000};
}

}  // namespace

namespace socket_os {

std::vector<SocketAddress> Resolve(const std::string& Host, const std::string& Port, bool Address,
                                   std::string& Error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = Address ? AI_NUMERICHOST : 0;
  addrinfo* found = nullptr;
  const int status = ::getaddrinfo(Host.c_str(), Port.c_str(), &hints, &found);
  if (status != 0) {
    Error = status == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(status);
    return {};
  }
  std::vector<SocketAddress> addresses;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    addresses.push_back({a->ai_family, a->ai_socktype, a->ai_protocol,
                         std::string(reinterpret_cast<const char*>(a->ai_addr), a->ai_addrlen)});
  }
  ::freeaddrinfo(found);
  return addresses;
}

intptr_t StartConnect(const SocketAddress& Address, std::string& Error) {
  sockaddr_storage target{};
  const size_t length = std::min(Address.Bytes.size(), sizeof target);
  std::memcpy(&target, Address.Bytes.data(), length);
  const int fd =
      ::socket(Address.Family, Address.Type | SOCK_NONBLOCK | SOCK_CLOEXEC, Address.Protocol);
  if (fd < 0) {
    Error = std::strerror(errno);
    return -1;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), static_cast<socklen_t>(length)) ==
          0 ||
      errno == EINPROGRESS) {
    return fd;
  }
  Error = std::strerror(errno);
  ::close(fd);
  return -1;
}

int FinishConnect(intptr_t Handle, int32_t MaxMicros, std::string& Error) {
  const int fd = static_cast<int>(Handle);
  pollfd out{fd, POLLOUT, 0};
  const timespec limit = TimespecOf(MaxMicros);
  const int ready = ::ppoll(&out, 1, &limit, nullptr);
  if (ready == 0 || (ready < 0 && errno == EINTR)) return 0;
  int err = ready < 0 ? errno : 0;
  socklen_t length = sizeof err;
  if (err == 0 && ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &length) != 0) err = errno;
  if (err != 0) {
    Error = std::strerror(err);
    return -1;
  }
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return 1;
}

void CloseSocket(intptr_t Handle) {
  ::close(static_cast<int>(Handle));
}

}  // namespace socket_os

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
  const timespec limit = TimespecOf(MaxMicros);
  // An interrupted wait just ends early; the callers loop anyway.
  ::ppoll(&ready, 1, &limit, nullptr);
}

}  // namespace palimbo
