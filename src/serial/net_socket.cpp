#include "serial/net_socket.h"

// Ownership of the connection; only its release differs between the systems.

namespace palimbo {

NetSocket::NetSocket(NetSocket&& Other) noexcept : handle_(Other.handle_) {
  Other.handle_ = kNoSocket;
}

NetSocket& NetSocket::operator=(NetSocket&& Other) noexcept {
  if (this != &Other) {
    Release();
    handle_ = Other.handle_;
    Other.handle_ = kNoSocket;
  }
  return *this;
}

NetSocket::~NetSocket() {
  Release();
}

}  // namespace palimbo
