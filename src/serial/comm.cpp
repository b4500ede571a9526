#include "serial/comm.h"

namespace palimbo {

int32_t Comm_oeffnen_32(SerialBackend& Port, const std::string& Settings) {
  // Line settings never hold a ":", but port names may (Linux's stable names, network URLs):
  // the settings are what follows the last one.
  const auto colon = Settings.rfind(':');
  if (colon == std::string::npos) return -1;
  const int32_t handle = Port.Open(Settings.substr(0, colon), Settings.substr(colon + 1));
  return handle >= 0 ? handle : -1;
}

int16_t Comm_lesen_32(SerialBackend& Port, int32_t& Handle, std::string& Buffer) {
  Buffer.clear();
  const int32_t waiting = Port.BytesWaiting(Handle);
  // A port that has gone away is closed here, as a short write closes it.
  if (waiting < 0) Comm_close_32(Port, Handle);
  if (waiting <= 0) return 0;
  return Port.Read(Handle, waiting, Buffer);
}

int16_t Comm_schreiben_32(SerialBackend& Port, int32_t& Handle, const std::string& Data) {
  const int32_t written = Port.Write(Handle, Data);
  // A port that takes less than it was given is gone for this job; the exchanges then time out.
  if (written < static_cast<int32_t>(Data.size())) Comm_close_32(Port, Handle);
  return static_cast<int16_t>(written);
}

bool Comm_close_32(SerialBackend& Port, int32_t& Handle) {
  if (Handle >= 0) Port.Close(Handle);
  Handle = -1;
  return true;
}

void Comm_warten_32(SerialBackend& Port, int32_t Handle, int32_t MaxMicros) {
  if (Handle >= 0 && MaxMicros > 0) Port.WaitForInput(Handle, MaxMicros);
}

void EscapeCommFunction(SerialBackend& Port, int32_t Handle, int32_t Function) {
  if (Function == SETDTR && Handle >= 0) Port.RaiseDtr(Handle);
}

}  // namespace palimbo
