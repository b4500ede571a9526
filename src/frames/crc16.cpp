#include "frames/crc16.h"

namespace palimbo {

int32_t UpdateCRC16(int32_t CRC, uint8_t Zeichen) {
  for (int bit = 0; bit < 8; ++bit) {
    const bool carry = ((CRC ^ Zeichen) & 1) != 0;
    CRC >>= 1;
    if (carry) CRC ^= 0x8811;
    Zeichen >>= 1;
  }
  return CRC;
}

int32_t Crc16Of(std::string_view Bytes) {
  int32_t crc = kCrcStart;
  for (const char c : Bytes) crc = UpdateCRC16(crc, static_cast<uint8_t>(c));
  return crc;
}

}  // namespace palimbo
