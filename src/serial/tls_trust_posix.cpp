#include <arpa/inet.h>

#include "serial/tls_trust.h"

namespace palimbo {

std::string LoadSystemTrust(mbedtls_x509_crt& Chain) {
  // Debian's ca-certificates: one file that holds every trusted authority.
  static constexpr char kBundle[] = "/etc/ssl/certs/ca-certificates.crt";
  if (mbedtls_x509_crt_parse_file(&Chain, kBundle) < 0 || Chain.raw.p == nullptr) {
    return std::string("no trusted authorities in ") + kBundle +
           ": give the server's CA as ?ca=FILE";
  }
  return {};
}

bool ParseIpAddress(const std::string& Text, unsigned char* Bytes, int Size) {
  return inet_pton(Size == 4 ? AF_INET : AF_INET6, Text.c_str(), Bytes) == 1;
}

}  // namespace palimbo
