#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "serial/net_socket.h"
#include "serial/net_socket_platform.h"
#include "serial/system_message.h"

// Every socket, and every name lookup while it runs, holds its own reference on Winsock,
// which the system counts.

namespace palimbo {

namespace {

timeval TimevalOf(int32_t Micros) {
  return timeval{static_cast<long>(Micros / 1'000'000), static_cast<long>(Micros % 1'000'000)};
}

bool StartWinsock(std::string& Error) {
  WSADATA data;
  const int started = ::WSAStartup(MAKEWORD(2, 2), &data);
  if (started != 0) Error = SystemMessage(started);
  return started == 0;
}

}  // namespace

namespace socket_os {

std::vector<SocketAddress> Resolve(const std::string& Host, const std::string& Port, bool Address,
                                   std::string& Error) {
  if (!StartWinsock(Error)) return {};
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  hints.ai_flags = Address ? AI_NUMERICHOST : 0;
  addrinfo* found = nullptr;
  const int status = ::getaddrinfo(Host.c_str(), Port.c_str(), &hints, &found);
  std::vector<SocketAddress> addresses;
  if (status != 0) {
    Error = SystemMessage(status);
  } else {
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
      addresses.push_back({a->ai_family, a->ai_socktype, a->ai_protocol,
                           std::string(reinterpret_cast<const char*>(a->ai_addr), a->ai_addrlen)});
    }
    ::freeaddrinfo(found);
  }
  ::WSACleanup();
  return addresses;
}

intptr_t StartConnect(const SocketAddress& Address, std::string& Error) {
  sockaddr_storage target{};
  const size_t length = std::min(Address.Bytes.size(), sizeof target);
  std::memcpy(&target, Address.Bytes.data(), length);
  if (!StartWinsock(Error)) return -1;
  const SOCKET s = ::socket(Address.Family, Address.Type, Address.Protocol);
  if (s == INVALID_SOCKET) {
    Error = SystemMessage(::WSAGetLastError());
    ::WSACleanup();
    return -1;
  }
  u_long nonBlocking = 1;
  ::ioctlsocket(s, FIONBIO, &nonBlocking);
  if (::connect(s, reinterpret_cast<const sockaddr*>(&target), static_cast<int>(length)) != 0) {
    const int err = ::WSAGetLastError();
    if (err != WSAEWOULDBLOCK) {
      Error = SystemMessage(err);
      CloseSocket(static_cast<intptr_t>(s));
      return -1;
    }
  }
  return static_cast<intptr_t>(s);
}

int FinishConnect(intptr_t Handle, int32_t MaxMicros, std::string& Error) {
  const SOCKET s = static_cast<SOCKET>(Handle);
  fd_set writable, failed;
  FD_ZERO(&writable);
  FD_ZERO(&failed);
  FD_SET(s, &writable);
  FD_SET(s, &failed);
  timeval limit = TimevalOf(MaxMicros);
  const int ready = ::select(0, nullptr, &writable, &failed, &limit);
  if (ready == 0) return 0;
  int err = ready < 0 ? ::WSAGetLastError() : 0;
  int length = sizeof err;
  if (err == 0 &&
      ::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &length) != 0) {
    err = ::WSAGetLastError();
  }
  if (err != 0) {
    Error = SystemMessage(err);
    return -1;
  }
  const BOOL on = TRUE;
  ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  return 1;
}

void CloseSocket(intptr_t Handle) {
  ::closesocket(static_cast<SOCKET>(Handle));
  ::WSACleanup();
}

}  // namespace socket_os

int64_t NetSocket::Send(const char* Data, size_t Count, std::string& Error) {
  const int chunk = static_cast<int>(Count > INT_MAX ? INT_MAX : Count);
  const int n = ::send(static_cast<SOCKET>(handle_), Data, chunk, 0);
  if (n >= 0) return n;
  const int err = ::WSAGetLastError();
  if (err == WSAEWOULDBLOCK) return 0;
  Error = SystemMessage(err);
  return -1;
}

int64_t NetSocket::Receive(char* Buffer, size_t Count, std::string& Error) {
  const int chunk = static_cast<int>(Count > INT_MAX ? INT_MAX : Count);
  const int n = ::recv(static_cast<SOCKET>(handle_), Buffer, chunk, 0);
  if (n > 0) return n;
  if (n == 0) {
    Error = "connection closed by the server";
    return -1;
  }
  const int err = ::WSAGetLastError();
  if (err == WSAEWOULDBLOCK) return 0;
  Error = SystemMessage(err);
  return -1;
}

void NetSocket::Wait(bool ForWrite, int32_t MaxMicros) {
  if (MaxMicros <= 0) return;
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(static_cast<SOCKET>(handle_), &ready);
  timeval limit = TimevalOf(MaxMicros);
  ::select(0, ForWrite ? nullptr : &ready, ForWrite ? &ready : nullptr, nullptr, &limit);
}

}  // namespace palimbo
