#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace palimbo::testing {

// A TCP port of the loopback address that nobody uses at this moment.
inline int FreePort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(s, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  close(s);
  return ntohs(address.sin_port);
}

}  // namespace palimbo::testing
