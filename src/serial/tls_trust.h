#pragma once

#include <mbedtls/x509_crt.h>

#include <string>

namespace palimbo {

/// Adds the system's trusted certificate authorities to `Chain`: the CA bundle of the
/// distribution, or Windows' store of trusted roots. Empty when it found some, else why not.
std::string LoadSystemTrust(mbedtls_x509_crt& Chain);

/// The address bytes (`Size` 4 for IPv4, 16 for IPv6) of an address written as text; false
/// for any other text, such as a host name.
bool ParseIpAddress(const std::string& Text, unsigned char* Bytes, int Size);

}  // namespace palimbo
