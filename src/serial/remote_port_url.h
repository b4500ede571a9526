#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "serial/tls_stream.h"

namespace palimbo {

/// A port behind a network serial server: `rfc2217://HOST:PORT` speaks Telnet with
/// COM-PORT-OPTION, which carries the line settings and the purge; `socket://HOST:PORT` is a
/// raw TCP stream whose line settings the server fixes. HOST is a name, an IPv4 address of
/// four decimal numbers or an IPv6 address in brackets, and stands for exactly what it says.
struct RemotePortUrl {
  bool Telnet = false;
  bool Tls = false;  ///< `rfc2217+tls://` and `socket+tls://`: the connection is secured
  std::string Host;
  std::string Port;
  TlsFiles Files;  ///< from the query of a secured port: `?ca=FILE&cert=FILE&key=FILE`, %XX decoded
};

/// The parts of a network port's name; nothing, and why in `Error`, for a name that is not one.
std::optional<RemotePortUrl> ParseRemotePortUrl(std::string_view Name, std::string& Error);

/// What is wrong with a port's name where it is a URL: an unknown scheme, its form, and for a
/// secured port its files; empty for a good URL and for any other port's name. Front ends ask
/// it before anything opens, so that a wrong URL is a wrong argument.
std::string PortNameProblem(std::string_view Name);

/// True when `Name` is a URL ("SCHEME://", any scheme) or starts as a network port's name does
/// ("rfc2217:" or "socket:", in any case): such a name is for the network ports to take or refuse.
bool IsRemotePortName(std::string_view Name);

}  // namespace palimbo
