#include "serial/tls_stream.h"

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/sha256.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

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

struct AlertText {
  int Code;
  const char* Name;
  bool Refusal;  // the server's word on our certificate, or on its lack
};
constexpr AlertText kAlerts[] = {
    {MBEDTLS_SSL_ALERT_MSG_UNEXPECTED_MESSAGE, "unexpected message", false},
    {MBEDTLS_SSL_ALERT_MSG_HANDSHAKE_FAILURE, "handshake failure", false},
    {MBEDTLS_SSL_ALERT_MSG_BAD_CERT, "bad certificate", true},
    {MBEDTLS_SSL_ALERT_MSG_UNSUPPORTED_CERT, "unsupported certificate", true},
    {MBEDTLS_SSL_ALERT_MSG_CERT_REVOKED, "certificate revoked", true},
    {MBEDTLS_SSL_ALERT_MSG_CERT_EXPIRED, "certificate expired", true},
    {MBEDTLS_SSL_ALERT_MSG_CERT_UNKNOWN, "certificate unknown", true},
    {MBEDTLS_SSL_ALERT_MSG_ILLEGAL_PARAMETER, "illegal parameter", false},
    {MBEDTLS_SSL_ALERT_MSG_UNKNOWN_CA, "unknown CA", true},
    {MBEDTLS_SSL_ALERT_MSG_ACCESS_DENIED, "access denied", true},
    {MBEDTLS_SSL_ALERT_MSG_DECODE_ERROR, "decode error", false},
    {MBEDTLS_SSL_ALERT_MSG_DECRYPT_ERROR, "decrypt error", false},
    {MBEDTLS_SSL_ALERT_MSG_PROTOCOL_VERSION, "protocol version", false},
    {MBEDTLS_SSL_ALERT_MSG_INSUFFICIENT_SECURITY, "insufficient security", false},
    {MBEDTLS_SSL_ALERT_MSG_INTERNAL_ERROR, "internal error", false},
    {MBEDTLS_SSL_ALERT_MSG_UNRECOGNIZED_NAME, "unrecognized name", false},
    {116, "certificate required", true},  // TLS 1.3's, which Mbed TLS 2.28 does not name
};

const AlertText& AlertOf(int Code) {
  static constexpr AlertText kOther{0, "alert", false};
  for (const AlertText& a : kAlerts) {
    if (a.Code == Code) return a;
  }
  return kOther;
}

// The reason a file cannot be read, in the system's words; empty when it can.
std::string Unreadable(const std::string& File) {
  std::error_code error;
  if (std::filesystem::is_directory(File, error)) return "is a folder";
  std::FILE* f = std::fopen(File.c_str(), "rb");
  if (f == nullptr) return std::strerror(errno);
  std::fclose(f);
  return {};
}

// Whether `File` holds a private key, under a passphrase or not.
bool HoldsKey(const std::string& File) {
  mbedtls_pk_context key;
  mbedtls_pk_init(&key);
  const int status = mbedtls_pk_parse_keyfile(&key, File.c_str(), nullptr);
  mbedtls_pk_free(&key);
  return status == 0 || status == MBEDTLS_ERR_PK_PASSWORD_REQUIRED;
}

// Reads the certificates of `File` into `Chain`; empty when it did, else what is wrong with it.
std::string LoadCertificates(const char* Role, const std::string& File, mbedtls_x509_crt& Chain) {
  if (std::string why = Unreadable(File); !why.empty()) return Role + (" " + File) + ": " + why;
  if (mbedtls_x509_crt_parse_file(&Chain, File.c_str()) == 0) return {};
  if (HoldsKey(File)) return File + " holds a private key, not a certificate";
  return Role + (" " + File) + " holds no certificate (PEM or DER)";
}

// Reads the private key of `File` into `Key`; empty when it did, else what is wrong with it.
std::string LoadKey(const std::string& File, mbedtls_pk_context& Key) {
  if (std::string why = Unreadable(File); !why.empty()) return "key file " + File + ": " + why;
  const int status = mbedtls_pk_parse_keyfile(&Key, File.c_str(), nullptr);
  if (status == 0) return {};
  if (status == MBEDTLS_ERR_PK_PASSWORD_REQUIRED) {
    return "the key in " + File + " is protected by a passphrase; give it without one";
  }
  mbedtls_x509_crt crt;
  mbedtls_x509_crt_init(&crt);
  const bool certificate = mbedtls_x509_crt_parse_file(&crt, File.c_str()) == 0;
  mbedtls_x509_crt_free(&crt);
  if (certificate) return File + " holds a certificate, not a key";
  return "key file " + File + " holds no private key (PEM or DER)";
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
  std::string CaFile;   // empty: the system's trust store
  std::string IssuerOfServer;
  std::string NamesOfServer;
  std::string AddressesOfServer;
  int LastAlert = -1;  // the last fatal alert the server sent
  // The bytes handed to Mbed TLS whose record is not yet out: it wants them again, unchanged.
  std::string Pending;
  // Bytes that went out while their sender was told to try later, until it offers them again.
  std::vector<std::string> Unclaimed;
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

  std::string Failure(int Status, bool GaveCertificate);
  // Why Mbed TLS failed a write or a read, told by the alert when the server sent one.
  std::string Ended(int Status) {
    if (Status != MBEDTLS_ERR_SSL_FATAL_ALERT_MESSAGE) return MbedMessage(Status);
    LastAlert = Ssl.in_msg != nullptr ? Ssl.in_msg[1] : 0;
    return std::string("the server ended the TLS session (TLS alert: ") + AlertOf(LastAlert).Name +
           ")";
  }

  // Notes who issued the server's certificate and for whom, for the messages; an address
  // matches only the certificate's IP address entries, never a name entry or the CN.
  static int Verify(void* Self, mbedtls_x509_crt* Crt, int Depth, uint32_t* Flags) {
    auto& s = *static_cast<State*>(Self);
    if (Depth != 0) return 0;
    char dn[256];
    if (mbedtls_x509_dn_gets(dn, sizeof dn, &Crt->issuer) > 0) s.IssuerOfServer = dn;
    s.NamesOfServer.clear();
    s.AddressesOfServer.clear();
    bool named = false;
    for (const mbedtls_x509_sequence* n = &Crt->subject_alt_names; n != nullptr; n = n->next) {
      const auto& name = n->buf;
      if (name.p == nullptr) continue;
      const int kind = name.tag & MBEDTLS_ASN1_TAG_VALUE_MASK;
      const std::string value(reinterpret_cast<const char*>(name.p), name.len);
      if (kind == 7) {
        s.AddressesOfServer += (s.AddressesOfServer.empty() ? "" : ", ") + AddressText(value);
        named = named || value == s.Address;
      }
      if (kind == 2 || kind == 7) {
        s.NamesOfServer +=
            (s.NamesOfServer.empty() ? "" : ", ") + (kind == 2 ? value : AddressText(value));
      }
    }
    if (!s.Address.empty()) {
      *Flags = named ? *Flags & ~MBEDTLS_X509_BADCERT_CN_MISMATCH
                     : *Flags | MBEDTLS_X509_BADCERT_CN_MISMATCH;
    }
    return 0;
  }
};

// What a failed handshake means to the operator, and what to do about it.
std::string TlsStream::State::Failure(int Status, bool GaveCertificate) {
  if (Status == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED) {
    const uint32_t flags = mbedtls_ssl_get_verify_result(&Ssl);
    if ((flags & ~MBEDTLS_X509_BADCERT_CN_MISMATCH) == 0 && !Address.empty()) {
      return "the server's certificate does not name " + Host +
             " among its IP addresses (it names " +
             (AddressesOfServer.empty() ? std::string("none") : AddressesOfServer) + ")";
    }
    if ((flags & ~MBEDTLS_X509_BADCERT_CN_MISMATCH) == 0) {
      return "the server's certificate is for " +
             (NamesOfServer.empty() ? std::string("another name") : NamesOfServer) + ", not " +
             Host + ": name the server as its certificate does";
    }
    if (flags & (MBEDTLS_X509_BADCERT_EXPIRED | MBEDTLS_X509_BADCERT_FUTURE)) {
      return "the server's certificate is out of its validity period";
    }
    return "the server's certificate is not trusted: it was issued by " +
           (IssuerOfServer.empty() ? std::string("an unknown authority") : IssuerOfServer) +
           (CaFile.empty() ? ", which the system's trust store does not vouch for"
                           : ", which the CA in " + CaFile + " does not vouch for");
  }
  if (Status == MBEDTLS_ERR_SSL_FATAL_ALERT_MESSAGE) {
    LastAlert = Ssl.in_msg != nullptr ? Ssl.in_msg[1] : 0;
    const AlertText& alert = AlertOf(LastAlert);
    const std::string said = std::string(" (TLS alert: ") + alert.Name + ")";
    // Refusing a client without a certificate, a TLS 1.2 server says only "handshake failure".
    if (alert.Refusal ||
        (LastAlert == MBEDTLS_SSL_ALERT_MSG_HANDSHAKE_FAILURE && Ssl.client_auth != 0)) {
      return GaveCertificate
                 ? "the server does not admit our certificate" + said
                 : "the server asks for a client certificate: give cert=FILE&key=FILE" + said;
    }
    switch (LastAlert) {
      case MBEDTLS_SSL_ALERT_MSG_PROTOCOL_VERSION:
        return "the server and we share no TLS version (we speak TLS 1.2)" + said;
      case MBEDTLS_SSL_ALERT_MSG_HANDSHAKE_FAILURE:
      case MBEDTLS_SSL_ALERT_MSG_INSUFFICIENT_SECURITY:
        return "the server and we share no cipher suite or key exchange" + said;
      case MBEDTLS_SSL_ALERT_MSG_UNRECOGNIZED_NAME:
        return "the server does not answer to the name " + Host + said;
      default:
        return "the server broke off the TLS handshake" + said;
    }
  }
  if (Status == MBEDTLS_ERR_NET_CONN_RESET || Status == MBEDTLS_ERR_SSL_CONN_EOF) {
    // A server that checks its clients may hang up on one it does not admit without a word.
    if (Ssl.client_auth != 0 && GaveCertificate) {
      return "the server does not admit our certificate: it closed the connection in the TLS "
             "handshake";
    }
    if (Ssl.client_auth != 0) {
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
  if (!Files.CaFile.empty()) error = LoadCertificates("CA file", Files.CaFile, crt);
  if (error.empty() && !Files.CertFile.empty()) {
    mbedtls_x509_crt_free(&crt);
    mbedtls_x509_crt_init(&crt);
    if ((error = LoadCertificates("certificate file", Files.CertFile, crt)).empty() &&
        (error = LoadKey(Files.KeyFile, key)).empty() &&
        mbedtls_pk_check_pair(&crt.pk, &key) != 0) {
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

bool TlsStream::ServerRefusedUs() const {
  return AlertOf(state_->LastAlert).Refusal;
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
  s->CaFile = Files.CaFile;
  static constexpr char kPersonal[] = "palimbo";
  int status = mbedtls_ctr_drbg_seed(&s->Random, mbedtls_entropy_func, &s->Entropy,
                                     reinterpret_cast<const unsigned char*>(kPersonal),
                                     sizeof kPersonal - 1);
  if (status != 0) {
    Error = "no random numbers for TLS: " + MbedMessage(status);
    return nullptr;
  }
  Error = Files.CaFile.empty() ? LoadSystemTrust(s->Ca)
                               : LoadCertificates("CA file", Files.CaFile, s->Ca);
  if (Error.empty() && !Files.CertFile.empty() &&
      (Error = LoadCertificates("certificate file", Files.CertFile, s->Cert)).empty()) {
    Error = LoadKey(Files.KeyFile, s->Key);
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
  if (!Files.CertFile.empty()) mbedtls_ssl_conf_own_cert(&s->Config, &s->Cert, &s->Key);
  // A name goes out as SNI and Mbed TLS checks it; an address goes nowhere, Verify checks it.
  const char* sni = s->Address.empty() ? Host.c_str() : nullptr;
  if ((status = mbedtls_ssl_setup(&s->Ssl, &s->Config)) != 0 ||
      (status = mbedtls_ssl_set_hostname(&s->Ssl, sni)) != 0) {
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
  State& s = *state_;
  const auto write = [&s](const char* Bytes, size_t Size) {
    return mbedtls_ssl_write(&s.Ssl, reinterpret_cast<const unsigned char*>(Bytes), Size);
  };
  if (!s.Pending.empty()) {
    const int n = write(s.Pending.data(), s.Pending.size());
    if (n == MBEDTLS_ERR_SSL_WANT_WRITE || n == MBEDTLS_ERR_SSL_WANT_READ) return 0;
    if (n < 0) {
      Error = s.Ended(n);
      return -1;
    }
    s.Unclaimed.push_back(std::move(s.Pending));
    s.Pending.clear();
  }
  // What went out already counts as taken when its sender offers it again.
  for (auto out = s.Unclaimed.begin(); out != s.Unclaimed.end(); ++out) {
    const size_t same = std::min(Count, out->size());
    if (same == 0 || std::memcmp(Data, out->data(), same) != 0) continue;
    out->erase(0, same);
    if (out->empty()) s.Unclaimed.erase(out);
    return static_cast<int64_t>(same);
  }
  if (Count == 0) return 0;
  const int most = mbedtls_ssl_get_max_out_record_payload(&s.Ssl);
  const size_t size = most > 0 ? std::min(Count, static_cast<size_t>(most)) : Count;
  const int n = write(Data, size);
  if (n >= 0) return n;
  if (n == MBEDTLS_ERR_SSL_WANT_WRITE) s.Pending.assign(Data, size);
  if (n == MBEDTLS_ERR_SSL_WANT_WRITE || n == MBEDTLS_ERR_SSL_WANT_READ) return 0;
  Error = s.Ended(n);
  return -1;
}

int64_t TlsStream::Receive(char* Buffer, size_t Count, std::string& Error) {
  const int n = mbedtls_ssl_read(&state_->Ssl, reinterpret_cast<unsigned char*>(Buffer), Count);
  if (n > 0) return n;
  if (n == MBEDTLS_ERR_SSL_WANT_READ || n == MBEDTLS_ERR_SSL_WANT_WRITE) return 0;
  Error = n == 0 || n == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY ? "connection closed by the server"
                                                           : state_->Ended(n);
  return -1;
}

}  // namespace palimbo
