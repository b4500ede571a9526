#include "image/file_digest.h"

#include <mbedtls/sha256.h>

#include <cstdint>

namespace palimbo {

std::string Sha256Hex(std::string_view Bytes) {
  unsigned char digest[32];
  // Cannot fail for SHA-256 proper (the second argument 0 picks it, not SHA-224).
  mbedtls_sha256_ret(reinterpret_cast<const unsigned char*>(Bytes.data()), Bytes.size(), digest, 0);
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : digest) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace palimbo
