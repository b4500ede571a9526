#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "serial/net_socket.h"

namespace palimbo {

/// What a secured network port is given: the CA that the server's certificate must chain to
/// (empty: the system's trust store), and the client's own certificate and key (PEM), both or
/// neither.
struct TlsFiles {
  std::string CaFile;
  std::string CertFile;
  std::string KeyFile;
};

/// Checks that the files of a secured port can be read and belong together (the key matches
/// its certificate); empty when they do, else what is wrong with which file.
std::string CheckTlsFiles(const TlsFiles& Files);

/// A TLS client (Debian's Mbed TLS) over a connected socket, with the socket's contract: every
/// call returns at once but the handshake, which waits at most what it is given.
///
/// The server's certificate is checked against the CA and the host name; nothing turns the
/// check off.
class TlsStream {
 public:
  /// Shakes hands with the server on `Socket` (which must outlive the stream) as `Host`,
  /// asking `Interrupted` at least every 50 ms; nothing, and why in `Error`, when the server is
  /// not trusted, refuses us, or does not speak TLS, when `TimeoutMs` pass, or when interrupted
  /// ("cancelled").
  static std::unique_ptr<TlsStream> Handshake(NetSocket& Socket, const std::string& Host,
                                              const TlsFiles& Files, int32_t TimeoutMs,
                                              const std::function<bool()>& Interrupted,
                                              std::string& Error);
  ~TlsStream();
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;

  /// As `NetSocket::Send`, the data encrypted. After a 0, offer the same bytes again: a record
  /// that waits for the socket goes out first, and its bytes count as taken then, once.
  int64_t Send(const char* Data, size_t Count, std::string& Error);
  /// As `NetSocket::Receive`, the data decrypted.
  int64_t Receive(char* Buffer, size_t Count, std::string& Error);
  /// The server asked for a client certificate in the handshake.
  bool ServerAskedForCertificate() const;
  /// The server's last alert spoke of our certificate, or of its lack.
  bool ServerRefusedUs() const;
  /// The SHA-256 of the server's certificate, as `sha256sum` prints a digest.
  std::string ServerFingerprint() const { return fingerprint_; }

 private:
  struct State;
  explicit TlsStream(std::unique_ptr<State> S);

  std::unique_ptr<State> state_;
  std::string fingerprint_;
};

}  // namespace palimbo
