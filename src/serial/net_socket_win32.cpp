#include <winsock2.h>
#include <ws2tcpip.h>

#include <climits>

#include "serial/net_socket.h"

namespace palimbo {

namespace {

std::string SocketMessage(int Code) {
  char* text = nullptr;
  const DWORD length = ::FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, static_cast<DWORD>(Code), 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string message = length != 0 && text != nullptr ? std::string(text, length)
                                                       : "socket error " + std::to_string(Code);
  if (text != nullptr) ::LocalFree(text);
  while (!message.empty() && (message.back() == '\r' || message.back() == '\n' ||
                              message.back() == ' ' || message.back() == '.')) {
    message.pop_back();
  }
  return message;
}

timeval TimevalOf(int32_t Micros) {
  return timeval{static_cast<long>(Micros / 1'000'000), static_cast<long>(Micros % 1'000'000)};
}

// Tries one resolved address; the socket, or INVALID_SOCKET with the reason.
SOCKET ConnectOne(const addrinfo& Address, int32_t TimeoutMs, std::string& Error) {
  const SOCKET s = ::socket(Address.ai_family, Address.ai_socktype, Address.ai_protocol);
  if (s == INVALID_SOCKET) {
    Error = SocketMessage(::WSAGetLastError());
    return INVALID_SOCKET;
  }
  u_long nonBlocking = 1;
  ::ioctlsocket(s, FIONBIO, &nonBlocking);
  int err = 0;
  if (::connect(s, Address.ai_addr, static_cast<int>(Address.ai_addrlen)) != 0) {
    err = ::WSAGetLastError();
    if (err == WSAEWOULDBLOCK) {
      fd_set writable, failed;
      FD_ZERO(&writable);
      FD_ZERO(&failed);
      FD_SET(s, &writable);
      FD_SET(s, &failed);
      timeval limit = TimevalOf(TimeoutMs * 1000);
      const int ready = ::select(0, nullptr, &writable, &failed, &limit);
      int length = sizeof err;
      if (ready <= 0) {
        err = WSAETIMEDOUT;
      } else if (::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &length) !=
                 0) {
        err = ::WSAGetLastError();
      }
    }
  }
  if (err != 0) {
    Error = SocketMessage(err);
    ::closesocket(s);
    return INVALID_SOCKET;
  }
  const BOOL on = TRUE;
  ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  return s;
}

}  // namespace

std::optional<NetSocket> NetSocket::Connect(const std::string& Host, const std::string& Port,
                                            int32_t TimeoutMs, std::string& Error) {
  // Each socket holds its own reference on Winsock, which the system counts.
  WSADATA data;
  const int started = ::WSAStartup(MAKEWORD(2, 2), &data);
  if (started != 0) {
    Error = SocketMessage(started);
    return std::nullopt;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  const int status = ::getaddrinfo(Host.c_str(), Port.c_str(), &hints, &found);
  if (status != 0) {
    Error = SocketMessage(status);
    ::WSACleanup();
    return std::nullopt;
  }
  SOCKET s = INVALID_SOCKET;
  for (const addrinfo* a = found; a != nullptr && s == INVALID_SOCKET; a = a->ai_next) {
    s = ConnectOne(*a, TimeoutMs, Error);
  }
  ::freeaddrinfo(found);
  if (s == INVALID_SOCKET) {
    ::WSACleanup();
    return std::nullopt;
  }
  return NetSocket(static_cast<intptr_t>(s));
}

void NetSocket::Release() {
  if (handle_ == kNoSocket) return;
  ::closesocket(static_cast<SOCKET>(handle_));
  ::WSACleanup();
  handle_ = kNoSocket;
}

int64_t NetSocket::Send(const char* Data, size_t Count, std::string& Error) {
  const int chunk = static_cast<int>(Count > INT_MAX ? INT_MAX : Count);
  const int n = ::send(static_cast<SOCKET>(handle_), Data, chunk, 0);
  if (n >= 0) return n;
  const int err = ::WSAGetLastError();
  if (err == WSAEWOULDBLOCK) return 0;
  Error = SocketMessage(err);
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
  Error = SocketMessage(err);
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
