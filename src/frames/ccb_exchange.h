#pragma once

#include <cstdint>
#include <string>

#include "frames/link.h"

namespace palimbo {

/// Answer code at the head of every positive CCB answer.
inline constexpr uint8_t CCBAnswer = 140;

/// Carries out one command of the CCB protocol: frames it, sends it up to ten times and waits
/// `WaitForAnswer` ms each time for the positive answer (140, echo, number).
///
/// Returns True for a positive answer; `CRC` then holds its number, all bytes behind the echo
/// taken big-endian, 0 when there are none. Returns False after ten tries, when it finds
/// `Cancel` set, or for a number beyond 31 bits; `CRC` then keeps its value.
/// Pumps events while it waits; logs and draws nothing.
bool CCBSendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                                int16_t WaitForAnswer, int32_t& CRC);

}  // namespace palimbo
