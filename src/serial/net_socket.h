#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace palimbo {

/// A connected TCP stream of the platform (BSD sockets or Winsock, chosen at build time), in
/// non-blocking mode with TCP_NODELAY, so that a short request leaves at once.
///
/// Every call returns at once but `Connect` and `Wait`, which wait at most what they are given.
class NetSocket {
 public:
  /// Resolves `Host` and connects to `Port` within `TimeoutMs`; nothing and the reason in
  /// `Error` when no address answers.
  static std::optional<NetSocket> Connect(const std::string& Host, const std::string& Port,
                                          int32_t TimeoutMs, std::string& Error);

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
