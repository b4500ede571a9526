#include <winsock2.h>

#include <wincrypt.h>
#include <ws2tcpip.h>

#include "serial/tls_trust.h"

namespace palimbo {

std::string LoadSystemTrust(mbedtls_x509_crt& Chain) {
  const HCERTSTORE store = ::CertOpenSystemStoreA(0, "ROOT");
  if (store == nullptr)
    return "the system's store of trusted roots cannot be opened: give ?ca=FILE";
  int taken = 0;
  for (PCCERT_CONTEXT c = ::CertEnumCertificatesInStore(store, nullptr); c != nullptr;
       c = ::CertEnumCertificatesInStore(store, c)) {
    taken += mbedtls_x509_crt_parse_der(&Chain, c->pbCertEncoded, c->cbCertEncoded) == 0;
  }
  ::CertCloseStore(store, 0);
  return taken > 0 ? std::string() : "no trusted roots in the system's store: give ?ca=FILE";
}

bool ParseIpAddress(const std::string& Text, unsigned char* Bytes, int Size) {
  return ::InetPtonA(Size == 4 ? AF_INET : AF_INET6, Text.c_str(), Bytes) == 1;
}

}  // namespace palimbo
