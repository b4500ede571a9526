#include "serial/remote_port_url.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <vector>

namespace palimbo {

namespace {

// The schemes of network ports.
struct RemoteScheme {
  std::string_view Name;
  bool Telnet;
  bool Tls;
};
constexpr RemoteScheme kSchemes[] = {{"rfc2217", true, false},
                                     {"socket", false, false},
                                     {"rfc2217+tls", true, true},
                                     {"socket+tls", false, true}};

constexpr const char* kIpv4Form =
    "four numbers from 0 to 255 without leading zeros, as in 192.168.1.20";

bool SameNoCase(std::string_view A, std::string_view B) {
  return A.size() == B.size() && std::equal(A.begin(), A.end(), B.begin(), [](char X, char Y) {
           return std::tolower(static_cast<unsigned char>(X)) ==
                  std::tolower(static_cast<unsigned char>(Y));
         });
}

bool AllDigits(std::string_view Text) {
  return !Text.empty() &&
         std::all_of(Text.begin(), Text.end(), [](char C) { return C >= '0' && C <= '9'; });
}

int HexValue(char C) {
  if (C >= '0' && C <= '9') return C - '0';
  if (C >= 'a' && C <= 'f') return C - 'a' + 10;
  if (C >= 'A' && C <= 'F') return C - 'A' + 10;
  return -1;
}

// The scheme of a name written "SCHEME://...": a letter, then letters, digits, "+", "-" and
// "."; empty for a name that is no URL.
std::string_view UrlScheme(std::string_view Name) {
  const size_t end = Name.find("://");
  if (end == std::string_view::npos || end == 0 ||
      !std::isalpha(static_cast<unsigned char>(Name.front()))) {
    return {};
  }
  const std::string_view scheme = Name.substr(0, end);
  const bool good = std::all_of(scheme.begin(), scheme.end(), [](char C) {
    return std::isalnum(static_cast<unsigned char>(C)) || C == '+' || C == '-' || C == '.';
  });
  return good ? scheme : std::string_view();
}

// The pieces of `Text` between the `Separator`s, empty ones too.
std::vector<std::string_view> Split(std::string_view Text, char Separator) {
  std::vector<std::string_view> parts;
  for (size_t at = 0;;) {
    const size_t next = Text.find(Separator, at);
    parts.push_back(Text.substr(at, next - at));
    if (next == std::string_view::npos) return parts;
    at = next + 1;
  }
}

// `Value` with each %XX replaced by its byte; empty when it could, else what is wrong.
std::string PercentDecode(std::string_view Value, std::string& Decoded) {
  for (size_t at = 0; at < Value.size(); ++at) {
    if (Value[at] != '%') {
      Decoded += Value[at];
      continue;
    }
    const int high = at + 1 < Value.size() ? HexValue(Value[at + 1]) : -1;
    const int low = at + 2 < Value.size() ? HexValue(Value[at + 2]) : -1;
    if (high < 0 || low < 0) {
      return "bad escape '" + std::string(Value.substr(at, 3)) +
             "': write % and two hex digits, as %20 for a blank";
    }
    // A file name ends at its first zero byte, so a name holding one names another file.
    if (high == 0 && low == 0) return "%00 names no file";
    Decoded += static_cast<char>(high * 16 + low);
    at += 2;
  }
  return {};
}

// Takes the files of a secured port from the URL's query, "ca=FILE&cert=FILE&key=FILE";
// empty when it could, else what is wrong.
std::string TakeTlsQuery(std::string_view Query, TlsFiles& Files) {
  for (const std::string_view pair : Split(Query, '&')) {
    const size_t equals = pair.find('=');
    const std::string_view key = pair.substr(0, equals);
    std::string* field = key == "ca"     ? &Files.CaFile
                         : key == "cert" ? &Files.CertFile
                         : key == "key"  ? &Files.KeyFile
                                         : nullptr;
    if (field == nullptr) return "'" + std::string(pair) + "' is none of ca=, cert=, key=";
    std::string value;
    const std::string why =
        PercentDecode(equals == std::string_view::npos ? "" : pair.substr(equals + 1), value);
    if (!why.empty()) return std::string(key) + "=: " + why;
    if (value.empty()) return std::string(key) + "= names no file";
    *field = std::move(value);
  }
  return {};
}

// A decimal number from 0 to 255 as an address part, "0" alone or without a leading zero.
bool IsAddressPart(std::string_view Part) {
  if (!AllDigits(Part) || Part.size() > 3 || (Part.size() > 1 && Part.front() == '0')) {
    return false;
  }
  int value = 0;
  for (const char c : Part) value = value * 10 + (c - '0');
  return value <= 255;
}

// Four address parts between dots, as the resolver's every other reading differs.
bool IsIpv4(std::string_view Text) {
  const auto parts = Split(Text, '.');
  return parts.size() == 4 && std::all_of(parts.begin(), parts.end(), IsAddressPart);
}

// Eight groups of up to four hex digits, a "::" once for a run of zero groups (a second one
// leaves an empty group behind the first), and the last two groups perhaps written as an IPv4
// address.
bool IsIpv6(std::string_view Text) {
  const size_t gap = Text.find("::");
  size_t groups = 0;
  const auto countGroups = [&](std::string_view Part, bool MayEndInIpv4) {
    if (Part.empty()) return true;
    const auto parts = Split(Part, ':');
    for (size_t i = 0; i < parts.size(); ++i) {
      if (MayEndInIpv4 && i + 1 == parts.size() && IsIpv4(parts[i])) {
        groups += 2;
      } else if (parts[i].empty() || parts[i].size() > 4 ||
                 !std::all_of(parts[i].begin(), parts[i].end(),
                              [](char C) { return HexValue(C) >= 0; })) {
        return false;
      } else {
        ++groups;
      }
    }
    return true;
  };
  if (gap == std::string_view::npos) return countGroups(Text, true) && groups == 8;
  return countGroups(Text.substr(0, gap), false) && countGroups(Text.substr(gap + 2), true) &&
         groups <= 7;
}

// What is wrong with `Host` (without brackets) as one host; empty for a good one. A resolver
// reads "127.1", "0x7f.1" and "2130706433" as addresses, so a name never looks like a number
// and an address has exactly one way of being written.
std::string HostProblem(std::string_view Host) {
  const std::string quoted = "host '" + std::string(Host) + "'";
  if (Host.find_first_not_of("0123456789.") == std::string_view::npos) {
    return IsIpv4(Host) ? "" : quoted + " is not an IPv4 address: write " + kIpv4Form;
  }
  const auto labels = Split(Host, '.');
  const bool letters = std::all_of(labels.begin(), labels.end(), [](std::string_view L) {
    return !L.empty() && std::all_of(L.begin(), L.end(), [](char C) {
      return std::isalnum(static_cast<unsigned char>(C)) || C == '-';
    });
  });
  if (!letters) return quoted + " is not a name, an IPv4 address or an [IPv6] address";
  if (AllDigits(labels.back()) || SameNoCase(Host.substr(0, 2), "0x")) {
    return quoted + " reads as a number, not a name: write an IPv4 address as " + kIpv4Form;
  }
  return {};
}

}  // namespace

bool IsRemotePortName(std::string_view Name) {
  return !UrlScheme(Name).empty() ||
         std::any_of(std::begin(kSchemes), std::end(kSchemes), [&](const RemoteScheme& S) {
           return SameNoCase(Name.substr(0, S.Name.size() + 1), std::string(S.Name) + ":");
         });
}

std::optional<RemotePortUrl> ParseRemotePortUrl(std::string_view Name, std::string& Error) {
  const std::string quoted = "'" + std::string(Name) + "'";
  const std::string_view written = UrlScheme(Name);
  const auto scheme =
      std::find_if(std::begin(kSchemes), std::end(kSchemes),
                   [&](const RemoteScheme& S) { return SameNoCase(written, S.Name); });
  if (scheme == std::end(kSchemes)) {
    Error = written.empty()
                ? quoted +
                      " is no network port: write rfc2217://HOST:PORT or "
                      "socket://HOST:PORT, with +tls behind the scheme for a secured one"
                : quoted + ": unknown scheme '" + std::string(written) +
                      "': the known ones are rfc2217, socket, rfc2217+tls and socket+tls";
    return std::nullopt;
  }
  const std::string form = std::string(scheme->Name) + "://";
  std::string_view rest = Name.substr(written.size() + 3);
  RemotePortUrl url;
  // A secured port takes its files as the URL's query.
  const size_t query = scheme->Tls ? rest.find('?') : std::string_view::npos;
  if (query != std::string_view::npos) {
    if (const std::string why = TakeTlsQuery(rest.substr(query + 1), url.Files); !why.empty()) {
      Error = quoted + ": " + why;
      return std::nullopt;
    }
    rest = rest.substr(0, query);
  }
  const size_t end = rest.find_first_of("/?#");
  if (end != std::string_view::npos) {
    Error = quoted + " has '" + std::string(rest.substr(end)) + "' behind the port: write " + form +
            "HOST:PORT";
    return std::nullopt;
  }
  // The port follows the last ":", or the bracket that closes an IPv6 address.
  const size_t close = rest.starts_with('[') ? rest.find(']') : std::string_view::npos;
  const size_t colon = close != std::string_view::npos
                           ? (rest.substr(close + 1).starts_with(':') ? close + 1 : rest.size())
                           : std::min(rest.rfind(':'), rest.size());
  std::string_view host = rest.substr(0, colon);
  const std::string_view port = rest.substr(std::min(colon + 1, rest.size()));
  if (host.empty()) {
    Error = quoted + " has no host: write " + form + "HOST:PORT";
    return std::nullopt;
  }
  if (port.empty()) {
    Error =
        quoted + " has no port: write " + form + "HOST:PORT, as in " + form + "192.168.1.20:3001";
    return std::nullopt;
  }
  const bool bracketed = host.front() == '[' && host.back() == ']';
  if (bracketed) host = host.substr(1, host.size() - 2);
  const std::string why =
      bracketed ? (IsIpv6(host) ? "" : "host '[" + std::string(host) + "]' is not an IPv6 address")
                : HostProblem(host);
  if (!why.empty()) {
    Error = quoted + ": " + why;
    return std::nullopt;
  }
  if (!AllDigits(port)) {
    Error = quoted + ": port '" + std::string(port) + "' is not a number from 1 to 65535";
    return std::nullopt;
  }
  // Long enough to stand above the range, short enough to stay an int.
  int value = 1'000'000;
  if (port.size() <= 6) {
    value = 0;
    for (const char c : port) value = value * 10 + (c - '0');
  }
  if (value < 1 || value > 65535) {
    Error = quoted + ": port " + std::string(port) + " is not from 1 to 65535";
    return std::nullopt;
  }
  url.Telnet = scheme->Telnet;
  url.Tls = scheme->Tls;
  url.Host = host;
  url.Port = std::to_string(value);
  return url;
}

std::string PortNameProblem(std::string_view Name) {
  if (!IsRemotePortName(Name)) return {};
  std::string error;
  const auto url = ParseRemotePortUrl(Name, error);
  if (!url) return error;
  if (!url->Tls) return {};
  error = CheckTlsFiles(url->Files);
  return error.empty() ? error : "'" + std::string(Name) + "': " + error;
}

}  // namespace palimbo
