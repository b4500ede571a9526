#pragma once

#include <cstdint>
#include <string_view>

namespace palimbo {

/// Start value of every running CRC; there is no final step.
inline constexpr int32_t kCrcStart = 65535;

/// Folds one byte into the running CRC: right-shifting, constant 0x8811, no final XOR.
int32_t UpdateCRC16(int32_t CRC, uint8_t Zeichen);

/// The CRC from 65535 over all of `Bytes`, in order.
int32_t Crc16Of(std::string_view Bytes);

}  // namespace palimbo
