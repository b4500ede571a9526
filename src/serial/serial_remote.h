#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "serial/serial_backend.h"

namespace palimbo {

/// A port behind a network serial server: `rfc2217://HOST:PORT` speaks Telnet with
/// COM-PORT-OPTION, which carries the line settings and the purge; `socket://HOST:PORT` is a
/// raw TCP stream whose line settings the server fixes. HOST may be a name, an IPv4 address
/// or an IPv6 address in brackets.
struct RemotePortUrl {
  bool Telnet = false;
  std::string Host;
  std::string Port;
};

/// The parts of a network port's name; nothing, and why in `Error`, for a name that is not one.
std::optional<RemotePortUrl> ParseRemotePortUrl(std::string_view Name, std::string& Error);

/// True when `Name` starts as a network port's name does ("rfc2217:" or "socket:", in any case).
bool IsRemotePortName(std::string_view Name);

/// Splits a network port's setting string into the port's name and the line settings. A
/// setting string is cut at its first ":", which in "rfc2217://HOST:PORT:57600,N,8,1" falls
/// behind the scheme; this puts the name together again. Nothing for another kind of port.
std::optional<std::pair<std::string, std::string>> SplitRemoteSetting(const std::string& PortName,
                                                                      const std::string& Rest);

/// The ports of network serial servers, with the serial layer's contract: line settings sent
/// and their refusal reported at `Open`, the server's queues purged on opening, 0xFF doubled on
/// the wire and undone, and a connection that goes away reported as a lost port.
std::unique_ptr<SerialBackend> MakeRemoteSerialBackend();

}  // namespace palimbo
