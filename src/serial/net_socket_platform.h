// The few socket calls whose bodies differ between the systems; net_socket_posix.cpp or
// net_socket_win32.cpp holds them. A handle is the system's socket, -1 for none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "serial/net_socket.h"

namespace palimbo::socket_os {

/// The system's lookup of `Host`; with `Address` only a numeric address is taken.
std::vector<SocketAddress> Resolve(const std::string& Host, const std::string& Port, bool Address,
                                   std::string& Error);

/// Starts a non-blocking connect to `Address`: the socket, or -1 and the reason.
intptr_t StartConnect(const SocketAddress& Address, std::string& Error);
/// Waits at most `MaxMicros` for the connect to finish: 1 connected (with TCP_NODELAY set),
/// 0 still waiting, -1 failed with the reason in `Error`.
int FinishConnect(intptr_t Handle, int32_t MaxMicros, std::string& Error);
void CloseSocket(intptr_t Handle);

}  // namespace palimbo::socket_os
