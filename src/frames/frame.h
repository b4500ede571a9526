#pragma once

#include <climits>
#include <cstdint>
#include <functional>
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

/// What a protocol's look at the receive buffer found in one pass.
enum class PassFind {
  Nothing,   ///< the wait goes on
  EndOfTry,  ///< a frame that ends the try: this pass is its last, the request goes out again
  Positive,  ///< the answer: the exchange returns True at once
};

/// Where a try writes its request: before its 5 ms sleep and the drain, losing what arrives in
/// them (direct), or after them, keeping an answer that comes right behind the write (CCB).
enum class WriteOrder { BeforeTheDrain, AfterTheDrain };

/// The tries of both exchanges: up to ten, each writing `Frame` and then running receive passes
/// for `WaitForAnswer` ms, until `Look` finds the positive answer (True, and the link's
/// `LastAnswerTick` set) or `Cancel` is found set (False). `RxBuffer` is emptied first and kept
/// from one try to the next; `Look` takes frames and bytes from its head.
bool RunTries(Link& Link, const std::string& Frame, WriteOrder Order, int16_t WaitForAnswer,
              RxQueue& RxBuffer, const std::function<PassFind(RxQueue&)>& Look);

/// The inactivity rule shared by both exchanges: after more than 60 ms without a byte, one
/// byte a pass goes from the head of the buffer.
void DropAfterSilence(Link& Link, int64_t LastByteTime, RxQueue& RxBuffer);

}  // namespace palimbo
