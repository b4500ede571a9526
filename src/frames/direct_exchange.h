#pragma once

#include <cstdint>
#include <string>

#include "frames/link.h"
#include "frames/rx_queue.h"

namespace palimbo {

/// Carries out one command of the direct protocol: frames it, sends it up to ten times and
/// waits `WaitForAnswer` ms each time for the positive answer ("R", echo, 1).
///
/// Returns True for a positive answer; `Status` then takes the answer's 16-bit value if it
/// carries one, and `Link.LastAnswerTick` the tick it was found. Returns False after ten tries or
/// when it finds `Cancel` set, leaving `Status` alone. Pumps events while it waits; logs and draws
/// nothing.
bool SendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                             int16_t WaitForAnswer, int32_t& Status);

/// The same, receiving into `RxBuffer`, which is emptied first and left as the call leaves it,
/// so that a caller can see what the call held (its peak size under a flood, for one).
bool SendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                             int16_t WaitForAnswer, int32_t& Status, RxQueue& RxBuffer);

}  // namespace palimbo
