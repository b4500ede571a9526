#pragma once

#include <cstdint>
#include <string>

#include "serial/serial_backend.h"

namespace palimbo {

/// Function code of `EscapeCommFunction` that raises DTR.
inline constexpr int32_t SETDTR = 5;

/// Opens the port of a setting string "NAME:57600,N,8,1"; NAME may itself hold ":", as in
/// "/dev/serial/by-path/pci-0000:00:14.0-usb-0:1.4:1.0-port0". Returns the handle, or -1 when
/// the string has no ":", the port cannot be opened or the line settings are bad.
int32_t Comm_oeffnen_32(SerialBackend& Port, const std::string& Settings);

/// Replaces `Buffer` by every byte waiting, possibly none. Never waits.
/// Returns 0 when nothing was waiting, else the system read's status. A port that has gone
/// away is closed, which leaves `Handle` at -1.
int16_t Comm_lesen_32(SerialBackend& Port, int32_t& Handle, std::string& Buffer);

/// Writes `Data` in one call. A short write closes the port and leaves `Handle` at -1.
/// Returns the number of bytes written.
int16_t Comm_schreiben_32(SerialBackend& Port, int32_t& Handle, const std::string& Data);

/// Closes the port and leaves `Handle` at -1. Always True; closing twice is harmless.
bool Comm_close_32(SerialBackend& Port, int32_t& Handle);

/// Waits on the port until input arrives, at most `MaxMicros`. Lets polling loops idle
/// without burning a core while still seeing an answer at once.
void Comm_warten_32(SerialBackend& Port, int32_t Handle, int32_t MaxMicros);

/// The platform call that sets a modem line; only `SETDTR` is used. The result is not looked at.
void EscapeCommFunction(SerialBackend& Port, int32_t Handle, int32_t Function);

/// True when `PortHandle` is 0 or more.
inline bool IsPortOpen(int32_t PortHandle) {
  return PortHandle >= 0;
}

}  // namespace palimbo
