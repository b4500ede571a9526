#include "serial/tls_stream.h"

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/sha256.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "serial/tls_trust.h"

namespace palimbo {

namespace {

using SteadyTime = std::chrono::steady_clock;

// How often a handshake that waits for the server looks at the operator's cancel.
constexpr int32_t kInterruptLookMicros = 50'000;

std::string MbedMessage(int Code) {
  char text[160];
  mbedtls_strerror(Code, text, sizeof text);
  return text;
}

std::string HexOf(const unsigned char* Bytes, size_t Count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < Count; ++i) {
    text += kDigits[Bytes[i] >> 4];
    text += kDigits[Bytes[i] & 15];
  }
  return text;
}

// The four or sixteen bytes of an IP address written as text; empty for a name.
std::string AddressBytes(const std::string& Host) {
  unsigned char bytes[16];
  if (ParseIpAddress(Host, bytes, 4)) return std::string(reinterpret_cast<char*>(bytes), 4);
  if (ParseIpAddress(Host, bytes, 16)) return std::string(reinterpret_cast<char*>(bytes), 16);
  return {};
}

const char* AlertName(int Alert) {
  switch (Alert) {
    case MBEDTLS_SSL_ALERT_MSG_HANDSHAKE_FAILURE:
      return "handshake failure";
    case MBEDTLS_SSL_ALERT_MSG_BAD_CERT:
      return "bad certificate";
    case MBEDTLS_SSL_ALERT_MSG_CERT_UNKNOWN:
      return "certificate unknown";
    case MBEDTLS_SSL_ALERT_MSG_UNKNOWN_CA:
      return "unknown CA";
    case MBEDTLS_SSL_ALERT_MSG_PROTOCOL_VERSION:
      return "protocol version";
    case 116:
      return "certificate required";
    default:
      return "alert";
  }
}

// An address of a certificate as people write it: 10.0.0.1, or IPv6 in groups of hex.
std::string AddressText(const std::string& Bytes) {
  std::string text;
  if (Bytes.size() == 4) {
    for (const char b : Bytes)
      text += (text.empty() ? "" : ".") + std::to_string(static_cast<uint8_t>(b));
    return text;
  }
  char group[8];
  for (size_t i = 0; i + 1 < Bytes.size(); i += 2) {
    std::snprintf(group, sizeof group, "%x",
                  static_cast<uint8_t>(Bytes[i]) * 256 + static_cast<uint8_t>(Bytes[i + 1]));
    text += (text.empty() ? "" : ":") + std::string(group);
  }
  return text;
}

}  // namespace

// Everything Mbed TLS keeps for one connection; it never moves once made.
struct TlsStream::State {
  NetSocket* Socket = nullptr;
  std::string Host;
  std::string Address;  // the host's address bytes when the URL names it by address
  std::string IssuerOfServer;
  std::string NamesOfServer;
  mbedtls_entropy_context Entropy;
  mbedtls_ctr_drbg_context Random;
  mbedtls_x509_crt Ca;
  mbedtls_x509_crt Cert;
  mbedtls_pk_context Key;
  mbedtls_ssl_config Config;
  mbedtls_ssl_context Ssl;

  State() {
    mbedtls_entropy_init(&Entropy);
    mbedtls_ctr_drbg_init(&Random);
    mbedtls_x509_crt_init(&Ca);
    mbedtls_x509_crt_init(&Cert);
    mbedtls_pk_init(&Key);
    mbedtls_ssl_config_init(&Config);
    mbedtls_ssl_init(&Ssl);
  }
  ~State() {
    mbedtls_ssl_free(&Ssl);
    mbedtls_ssl_config_free(&Config);
    mbedtls_pk_free(&Key);
    mbedtls_x509_crt_free(&Cert);
    mbedtls_x509_crt_free(&Ca);
    mbedtls_ctr_drbg_free(&Random);
    mbedtls_entropy_free(&Entropy);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  static int Send(void* Self, const unsigned char* Data, size_t Count) {
    std::string error;
    const int64_t n =
        static_cast<State*>(Self)->Socket->Send(reinterpret_cast<const char*>(Data), Count, error);
    if (n < 0) return MBEDTLS_ERR_NET_CONN_RESET;
    return n == 0 ? MBEDTLS_ERR_SSL_WANT_WRITE : static_cast<int>(n);
  }
  static int Receive(void* Self, unsigned char* Buffer, size_t Count) {
    std::string error;
    const int64_t n =
        static_cast<State*>(Self)->Socket->Receive(reinterpret_cast<char*>(Buffer), Count, error);
    if (n < 0) return MBEDTLS_ERR_NET_CONN_RESET;
    return n == 0 ? MBEDTLS_ERR_SSL_WANT_READ : static_cast<int>(n);
  }

  std::string Failure(int Status, bool GaveCertificate) const;

  // Notes who issued the server's certificate and for whom, for the messages; accepts an
  // address the certificate names among its IP addresses, which Mbed TLS does not look at.
  static int Verify(void* Self, mbedtls_x509_crt* Crt, int Depth, uint32_t* Flags) {
    auto& s = *static_cast<State*>(Self);
    if (Depth != 0) return 0;
    char dn[256];
    if (mbedtls_x509_dn_gets(dn, sizeof dn, &Crt->issuer) > 0) s.IssuerOfServer = dn;
    s.NamesOfServer.clear();
    for (const mbedtls_x509_sequence* n = &Crt->subject_alt_names; n != nullptr; n = n->next) {
      const auto& name = n->buf;
      if (name.p == nullptr) continue;
      const int kind = name.tag & MBEDTLS_ASN1_TAG_VALUE_MASK;
      const std::string value(reinterpret_cast<const char*>(name.p), name.len);
      if (kind == 2 || kind == 7) {
        s.NamesOfServer +=
            (s.NamesOfServer.empty() ? "" : ", ") + (kind == 2 ? value : AddressText(value));
      }
      if (kind == 7 && !s.Address.empty() && value == s.Address)
        *Flags &= ~MBEDTLS_X509_BADCERT_CN_MISMATCH;
    }
    return 0;
  }
};

// What a failed handshake means to the operator, and what to do about it.
std::string TlsStream::State::Failure(int Status, bool GaveCertificate) const {
  const State& S = *this;
  if (Status == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED) {
    const uint32_t flags = mbedtls_ssl_get_verify_result(&S.Ssl);
    if ((flags & ~MBEDTLS_X509_BADCERT_CN_MISMATCH) == 0) {
      return "the server's certificate is for " +
             (S.NamesOfServer.empty() ? std::string("another name") : S.NamesOfServer) + ", not " +
             S.Host + ": name the server as its certificate does";
    }
    if (flags & (MBEDTLS_X509_BADCERT_EXPIRED | MBEDTLS_X509_BADCERT_FUTURE)) {
      return "the server's certificate is out of its validity period";
    }
    return "the server's certificate is not trusted: it was issued by " +
           (S.IssuerOfServer.empty() ? std::string("an unknown authority") : S.IssuerOfServer) +
           ", which the given CA does not vouch for";
  }
  if (Status == MBEDTLS_ERR_SSL_FATAL_ALERT_MESSAGE) {
    const int alert = S.Ssl.in_msg != nullptr ? S.Ssl.in_msg[1] : 0;
    const std::string said = std::string(" (TLS alert: ") + AlertName(alert) + ")";
    if (GaveCertificate) return "the server refused our certificate" + said;
    return "the server asks for a client certificate: give cert=FILE&key=FILE" + said;
  }
  if (Status == MBEDTLS_ERR_NET_CONN_RESET || Status == MBEDTLS_ERR_SSL_CONN_EOF) {
    // A server that checks its clients may hang up on one it does not admit without a word.
    if (S.Ssl.client_auth != 0 && GaveCertificate) {
      return "the server refused our certificate: it closed the connection in the TLS handshake";
    }
    if (S.Ssl.client_auth != 0) {
      return "the server asks for a client certificate: give cert=FILE&key=FILE";
    }
    return "the server closed the connection during the TLS handshake";
  }
  if (Status == MBEDTLS_ERR_SSL_INVALID_RECORD || Status == MBEDTLS_ERR_SSL_BAD_HS_SERVER_HELLO ||
      Status == MBEDTLS_ERR_SSL_UNEXPECTED_MESSAGE || Status == MBEDTLS_ERR_SSL_BAD_INPUT_DATA) {
    return "the server does not speak TLS; without +tls in the URL the port is not secured";
  }
  return "TLS handshake failed: " + MbedMessage(Status);
}

std::string CheckTlsFiles(const TlsFiles& Files) {
  if (Files.CertFile.empty() != Files.KeyFile.empty()) {
    return "a client certificate wants its key and a key its certificate: give cert= and key=";
  }
  mbedtls_x509_crt crt;
  mbedtls_pk_context key;
  mbedtls_x509_crt_init(&crt);
  mbedtls_pk_init(&key);
  std::string error;
  int status = 0;
  if (!Files.CaFile.empty() &&
      (status = mbedtls_x509_crt_parse_file(&crt, Files.CaFile.c_str())) != 0) {
    error = "CA file " + Files.CaFile + ": " + MbedMessage(status);
  } else if (!Files.CertFile.empty()) {
    mbedtls_x509_crt_free(&crt);
    mbedtls_x509_crt_init(&crt);
    if ((status = mbedtls_x509_crt_parse_file(&crt, Files.CertFile.c_str())) != 0) {
      error = "certificate file " + Files.CertFile + ": " + MbedMessage(status);
    } else if ((status = mbedtls_pk_parse_keyfile(&key, Files.KeyFile.c_str(), nullptr)) != 0) {
      error = "key file " + Files.KeyFile + ": " + MbedMessage(status);
    } else if (mbedtls_pk_check_pair(&crt.pk, &key) != 0) {
      error = "key file " + Files.KeyFile + " does not belong to certificate " + Files.CertFile;
    }
  }
  mbedtls_pk_free(&key);
  mbedtls_x509_crt_free(&crt);
  return error;
}

TlsStream::TlsStream(std::unique_ptr<State> S) : state_(std::move(S)) {
  const mbedtls_x509_crt* peer = mbedtls_ssl_get_peer_cert(&state_->Ssl);
  if (peer == nullptr) return;
  unsigned char digest[32];
  mbedtls_sha256_ret(peer->raw.p, peer->raw.len, digest, 0);
  fingerprint_ = HexOf(digest, sizeof digest);
}

bool TlsStream::ServerAskedForCertificate() const {
  return state_->Ssl.client_auth != 0;
}

TlsStream::~TlsStream() {
  // A polite goodbye, if the socket takes it now; nobody waits for the server's.
  mbedtls_ssl_close_notify(&state_->Ssl);
}

std::unique_ptr<TlsStream> TlsStream::Handshake(NetSocket& Socket, const std::string& Host,
                                                const TlsFiles& Files, int32_t TimeoutMs,
                                                const std::function<bool()>& Interrupted,
                                                std::string& Error) {
  if (Error = CheckTlsFiles(Files); !Error.empty()) return nullptr;
  auto s = std::make_unique<State>();
  s->Socket = &Socket;
  s->Host = Host;
  s->Address = AddressBytes(Host);
  static constexpr char kPersonal[] = "palimbo";
  int status = mbedtls_ctr_drbg_seed(&s->Random, mbedtls_entropy_func, &s->Entropy,
                                     reinterpret_cast<const unsigned char*>(kPersonal),
                                     sizeof kPersonal - 1);
  if (status != 0) {
    Error = "no random numbers for TLS: " + MbedMessage(status);
    return nullptr;
  }
  if (Files.CaFile.empty()) {
    Error = LoadSystemTrust(s->Ca);
  } else if ((status = mbedtls_x509_crt_parse_file(&s->Ca, Files.CaFile.c_str())) != 0) {
    Error = "CA file " + Files.CaFile + ": " + MbedMessage(status);
  }
  if (!Error.empty()) return nullptr;
  mbedtls_ssl_config_defaults(&s->Config, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                              MBEDTLS_SSL_PRESET_DEFAULT);
  mbedtls_ssl_conf_min_version(&s->Config, MBEDTLS_SSL_MAJOR_VERSION_3,
                               MBEDTLS_SSL_MINOR_VERSION_3);
  mbedtls_ssl_conf_authmode(&s->Config, MBEDTLS_SSL_VERIFY_REQUIRED);
  mbedtls_ssl_conf_ca_chain(&s->Config, &s->Ca, nullptr);
  mbedtls_ssl_conf_rng(&s->Config, mbedtls_ctr_drbg_random, &s->Random);
  mbedtls_ssl_conf_verify(&s->Config, &State::Verify, s.get());
  if (!Files.CertFile.empty()) {
    mbedtls_x509_crt_parse_file(&s->Cert, Files.CertFile.c_str());
    mbedtls_pk_parse_keyfile(&s->Key, Files.KeyFile.c_str(), nullptr);
    mbedtls_ssl_conf_own_cert(&s->Config, &s->Cert, &s->Key);
  }
  if ((status = mbedtls_ssl_setup(&s->Ssl, &s->Config)) != 0 ||
      (status = mbedtls_ssl_set_hostname(&s->Ssl, Host.c_str())) != 0) {
    Error = "cannot set up TLS: " + MbedMessage(status);
    return nullptr;
  }
  mbedtls_ssl_set_bio(&s->Ssl, s.get(), &State::Send, &State::Receive, nullptr);

  const auto deadline = SteadyTime::now() + std::chrono::milliseconds(TimeoutMs);
  while ((status = mbedtls_ssl_handshake(&s->Ssl)) != 0) {
    if (status != MBEDTLS_ERR_SSL_WANT_READ && status != MBEDTLS_ERR_SSL_WANT_WRITE) {
      Error = s->Failure(status, !Files.CertFile.empty());
      return nullptr;
    }
    if (Interrupted && Interrupted()) {
      Error = "cancelled";
      return nullptr;
    }
    if (SteadyTime::now() >= deadline) {
      Error = "the server did not finish the TLS handshake within " +
              std::to_string(TimeoutMs / 1000) + " s: does it speak TLS?";
      return nullptr;
    }
    Socket.Wait(status == MBEDTLS_ERR_SSL_WANT_WRITE, kInterruptLookMicros);
  }
  return std::unique_ptr<TlsStream>(new TlsStream(std::move(s)));
}

int64_t TlsStream::Send(const char* Data, size_t Count, std::string& Error) {
  const int n =
      mbedtls_ssl_write(&state_->Ssl, reinterpret_cast<const unsigned char*>(Data), Count);
  if (n >= 0) return n;
  if (n == MBEDTLS_ERR_SSL_WANT_WRITE || n == MBEDTLS_ERR_SSL_WANT_READ) return 0;
  Error = MbedMessage(n);
  return -1;
}

int64_t TlsStream::Receive(char* Buffer, size_t Count, std::string& Error) {
  const int n = mbedtls_ssl_read(&state_->Ssl, reinterpret_cast<unsigned char*>(Buffer), Count);
  if (n > 0) return n;
  if (n == MBEDTLS_ERR_SSL_WANT_READ || n == MBEDTLS_ERR_SSL_WANT_WRITE) return 0;
  if (n == 0 || n == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY) {
    Error = "connection closed by the server";
  } else if (n == MBEDTLS_ERR_SSL_FATAL_ALERT_MESSAGE) {
    Error =
        "the server ended the TLS session (alert " + std::to_string(state_->Ssl.in_msg[1]) + ")";
  } else {
    Error = MbedMessage(n);
  }
  return -1;
}

}  // namespace palimbo
