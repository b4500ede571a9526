#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace palimbo {

/// One address a name stands for, as the system's connect takes it.
struct SocketAddress {
  int Family = 0;
  int Type = 0;
  int Protocol = 0;
  std::string Bytes;  ///< the system's socket address structure
};

/// Looks up the addresses of `Host` and `Port`; may take as long as the name service does.
/// With `Address` the host is an IP address and is read as one, never looked up as a name;
/// without it the host is a name, and one that the system would read as an address is
/// refused. Nothing, and why in `Error`, when the host has no address.
using Resolver = std::function<std::vector<SocketAddress>(
    const std::string& Host, const std::string& Port, bool Address, std::string& Error)>;

/// The system's name service (getaddrinfo).
std::vector<SocketAddress> ResolveWithSystem(const std::string& Host, const std::string& Port,
                                             bool Address, std::string& Error);

/// What a connect may wait for, and who may stop it.
struct ConnectLimits {
  /// For the name lookup, and again for each address it gives.
  int32_t TimeoutMs = 5000;
  /// Asked at least every 50 ms while the connect waits; true ends it with `kConnectCancelled`.
  std::function<bool()> Interrupted;
  Resolver Resolve = ResolveWithSystem;
};

/// The `Error` of a connect that `ConnectLimits::Interrupted` stopped.
inline constexpr const char* kConnectCancelled = "cancelled";

/// A connected TCP stream of the platform (BSD sockets or Winsock, chosen at build time), in
/// non-blocking mode with TCP_NODELAY, so that a short request leaves at once.
///
/// Every call returns at once but `Connect` and `Wait`, which wait at most what they are given.
class NetSocket {
 public:
  /// Resolves `Host` and connects to `Port` within the limits; nothing and the reason in
  /// `Error` when no address answers. A host of digits and dots, or with a ":", is an address. A
  /// name service that does not answer in time is left to finish on its own thread.
  static std::optional<NetSocket> Connect(const std::string& Host, const std::string& Port,
                                          const ConnectLimits& Limits, std::string& Error);

  NetSocket(NetSocket&& Other) noexcept;
  NetSocket& operator=(NetSocket&& Other) noexcept;
  NetSocket(const NetSocket&) = delete;
  NetSocket& operator=(const NetSocket&) = delete;
  ~NetSocket();

  /// Sends what the system takes now: the count (0 when its buffer is full), or -1 with the
  /// reason in `Error` when the connection is gone.
  int64_t Send(const char* Data, size_t Count, std::string& Error);
  /// Receives what has arrived, at most `Count`: the count (0 when nothing is there), or -1
  /// with the reason in `Error` when the peer has closed or the connection is gone.
  int64_t Receive(char* Buffer, size_t Count, std::string& Error);
  /// Waits until the stream can be read (or written, with `ForWrite`) or `MaxMicros` passed.
  void Wait(bool ForWrite, int32_t MaxMicros);

 private:
  static constexpr intptr_t kNoSocket = -1;  // the handle of a socket that was moved away

  explicit NetSocket(intptr_t Handle) : handle_(Handle) {}
  void Release();

  intptr_t handle_;
};

}  // namespace palimbo
