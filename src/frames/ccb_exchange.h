#pragma once

#include <cstdint>
#include <string>

#include "frames/link.h"
#include "frames/rx_queue.h"

namespace palimbo {

/// Answer code at the head of every positive CCB answer.
inline constexpr uint8_t CCBAnswer = 140;

/// The number of a positive answer whose number does not fit in 31 bits. No 16-bit CRC
/// equals it, so a block answered so goes on and a check answered so starts over.
inline constexpr int32_t kNumberOutOfRange = -1;

/// Carries out one command of the CCB protocol: frames it, sends it up to ten times and waits
/// `WaitForAnswer` ms each time for the positive answer (140, echo, number).
///
/// Returns True for a positive answer; `CRC` then holds its number, all bytes behind the echo
/// taken big-endian, 0 when there are none and `kNumberOutOfRange` when it exceeds 31 bits;
/// `Link.LastAnswerTick` takes the tick it was found. Returns False after ten tries or when
/// it finds `Cancel` set; `CRC` then keeps its value.
/// Pumps events while it waits; logs and draws nothing.
bool CCBSendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                                int16_t WaitForAnswer, int32_t& CRC);

/// The same, receiving into `RxBuffer`, which is emptied first and left as the call leaves it,
/// so that a caller can see what the call held (its peak size under a flood, for one).
bool CCBSendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                                int16_t WaitForAnswer, int32_t& CRC, RxQueue& RxBuffer);

}  // namespace palimbo
