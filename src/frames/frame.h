#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "frames/link.h"

namespace palimbo {

/// Start bytes of the two bootloader frames.
inline constexpr uint8_t kDirectStartByte = 0x55;  // "U"
inline constexpr uint8_t kCcbStartByte = 0x53;     // "S"

/// A whole frame: start byte, length, command byte and data field, CRC high and low.
/// The CRC runs from 65535 over the length byte and the payload.
std::string BuildFrame(uint8_t StartByte, uint8_t CommandByte, std::string_view CommandString);

/// What stands at the head of a receive buffer that begins a frame.
enum class HeadFrame {
  Incomplete,  ///< fewer than L + 4 bytes so far (two bytes or fewer always count as this)
  BadCrc,      ///< complete, but the CRC does not fit
  Valid,       ///< complete and sound; its payload is `RxBuffer.substr(2, L)`
};

/// Looks at the frame at the head of `RxBuffer` without changing it; `L` gets its length byte.
HeadFrame CheckHeadFrame(const std::string& RxBuffer, int& L);

/// Takes the frame at the head of `RxBuffer`: a bad one loses its first byte only, a valid one
/// is removed whole and its payload goes to `Payload`. An incomplete one stays as it is.
HeadFrame TakeHeadFrame(std::string& RxBuffer, std::string& Payload);

/// A number as four bytes, most significant first.
std::string BigEndian32(uint32_t Value);

/// One read of a receive pass. When nothing has arrived it waits on the port for at most the
/// link's idle wait and reads once more, so a polling loop idles instead of spinning.
void ReadPass(Link& Link, std::string& Chunk);

/// The inactivity rule shared by both exchanges: after more than 60 ms without a byte, one
/// byte a pass goes from the head of the buffer.
void DropAfterSilence(Link& Link, int64_t LastByteTime, std::string& RxBuffer);

}  // namespace palimbo
