#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "serial/clock.h"
#include "serial/serial_backend.h"

namespace palimbo {

/// A port that writes every chunk that passes the wire to a trace, one line a chunk:
/// milliseconds since the trace started, ">" for written or "<" for read, and the bytes in
/// upper-case hexadecimal separated by blanks, e.g. "1234 > 55 05 43 00 00 01 00 44 89".
///
/// Everything else goes to the wrapped port unchanged. Reads that give nothing and writes the
/// port takes nothing of leave no line; a short write shows only the bytes taken. Each line is
/// flushed at once, so a trace survives a crash.
class TraceBackend final : public SerialBackend {
 public:
  /// The trace starts now, by `TraceClock`; `Out` must outlive this object.
  TraceBackend(SerialBackend& Inner, Clock& TraceClock, std::ostream& Out);

  int32_t Open(const std::string& PortName, const std::string& LineSettings) override;
  std::string LastOpenError() const override;
  std::string LostReason() const override;
  std::string ServerFingerprint() const override { return inner_.ServerFingerprint(); }
  int32_t BytesWaiting(int32_t Handle) override;
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override;
  int32_t Write(int32_t Handle, const std::string& Data) override;
  void Close(int32_t Handle) override;
  void RaiseDtr(int32_t Handle) override;
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override;
  void SetOpenInterrupt(std::function<bool()> Interrupted) override;

  /// The system's message for the first chunk that did not reach the trace (a full disk);
  /// empty while every chunk did.
  std::string WriteError() const { return write_error_; }

 private:
  void TraceChunk(char Direction, const char* Bytes, size_t Count);

  SerialBackend& inner_;
  Clock& clock_;
  std::ostream& out_;
  int64_t start_;
  std::string write_error_;
};

}  // namespace palimbo
