#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "serial/serial_backend.h"
#include "serial/tls_stream.h"

namespace palimbo {

/// A port behind a network serial server: `rfc2217://HOST:PORT` speaks Telnet with
/// COM-PORT-OPTION, which carries the line settings and the purge; `socket://HOST:PORT` is a
/// raw TCP stream whose line settings the server fixes. HOST may be a name, an IPv4 address
/// or an IPv6 address in brackets.
struct RemotePortUrl {
  bool Telnet = false;
  bool Tls = false;  ///< `rfc2217+tls://` and `socket+tls://`: the connection is secured
  std::string Host;
  std::string Port;
  TlsFiles Files;  ///< from the query of a secured port: `?ca=FILE&cert=FILE&key=FILE`
};

/// The parts of a network port's name; nothing, and why in `Error`, for a name that is not one.
std::optional<RemotePortUrl> ParseRemotePortUrl(std::string_view Name, std::string& Error);

/// What is wrong with a port's name where it is a network port's URL: its form, and for a
/// secured port its files; empty for a good URL and for any other port's name. Front ends ask
/// it before anything opens, so that a wrong URL is a wrong argument.
std::string PortNameProblem(std::string_view Name);

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
