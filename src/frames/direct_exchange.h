#pragma once

#include <cstdint>
#include <string>

#include "frames/link.h"

namespace palimbo {

/// Carries out one command of the direct protocol: frames it, sends it up to ten times and
/// waits `WaitForAnswer` ms each time for the positive answer ("R", echo, 1).
///
/// Returns True for a positive answer; `Status` then takes the answer's 16-bit value if it
/// carries one. Returns False after ten tries or when it finds `Cancel` set, leaving `Status`
/// alone. Pumps events while it waits; logs and draws nothing.
bool SendCommandAndGetAnswer(Link& Link, int16_t CommandByte, const std::string& CommandString,
                             int16_t WaitForAnswer, int32_t& Status);

}  // namespace palimbo
