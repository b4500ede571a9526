#pragma once

#include <climits>
#include <cstdint>
#include <string>
#include <string_view>

#include "frames/link.h"
#include "frames/rx_queue.h"

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
HeadFrame CheckHeadFrame(std::string_view RxBuffer, int& L);

/// Takes the frame at the head of `RxBuffer`: a bad one loses its first byte only, a valid one
/// is removed whole and its payload goes to `Payload`. An incomplete one stays as it is.
HeadFrame TakeHeadFrame(RxQueue& RxBuffer, std::string& Payload);

/// A number as four bytes, most significant first.
std::string BigEndian32(uint32_t Value);

/// A tick before which no receive pass waits: the pass must go on at once.
inline constexpr int64_t kNoWait = INT64_MIN;

/// Up to which tick a receive pass may wait on the port. It may only while the pass could do
/// nothing but read: the last pass took no byte from the buffer (`Settled`), `Cancel` is not
/// set, and the buffer is empty or its silence rule is not due yet. It never waits past the rule's
/// tick nor past `TryEnd`, so that a wait never changes what the rules do with the bytes.
int64_t PassWaitDeadline(Link& Link, const RxQueue& RxBuffer, int64_t LastByteTime, int64_t TryEnd,
                         bool Settled);

/// Waits on the port for input: at most the link's idle wait, never past `Deadline`, not at
/// all with an idle wait of 0 or `kNoWait`. On a closed port it sleeps a few milliseconds on
/// the link's clock instead, so that a loop there idles too.
void WaitBefore(Link& Link, int64_t Deadline);

/// One read of a receive pass. When nothing has arrived and `Deadline` lies ahead, it waits on
/// the port (at most the link's idle wait, never past `Deadline`) and reads once more, so a
/// polling loop idles instead of spinning.
void ReadPass(Link& Link, std::string& Chunk, int64_t Deadline);

/// The inactivity rule shared by both exchanges: after more than 60 ms without a byte, one
/// byte a pass goes from the head of the buffer.
void DropAfterSilence(Link& Link, int64_t LastByteTime, RxQueue& RxBuffer);

}  // namespace palimbo
