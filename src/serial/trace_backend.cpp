#include "serial/trace_backend.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace palimbo {

TraceBackend::TraceBackend(SerialBackend& Inner, Clock& TraceClock, std::ostream& Out)
    : inner_(Inner), clock_(TraceClock), out_(Out), start_(TraceClock.GetTickCount()) {}

int32_t TraceBackend::Open(const std::string& PortName, const std::string& LineSettings) {
  return inner_.Open(PortName, LineSettings);
}

std::string TraceBackend::LastOpenError() const {
  return inner_.LastOpenError();
}

std::string TraceBackend::LostReason() const {
  return inner_.LostReason();
}

int32_t TraceBackend::BytesWaiting(int32_t Handle) {
  return inner_.BytesWaiting(Handle);
}

int16_t TraceBackend::Read(int32_t Handle, int32_t Count, std::string& Buffer) {
  const int16_t status = inner_.Read(Handle, Count, Buffer);
  TraceChunk('<', Buffer.data(), Buffer.size());
  return status;
}

int32_t TraceBackend::Write(int32_t Handle, const std::string& Data) {
  const int32_t written = inner_.Write(Handle, Data);
  const size_t taken = std::min(Data.size(), static_cast<size_t>(std::max(written, 0)));
  TraceChunk('>', Data.data(), taken);
  return written;
}

void TraceBackend::Close(int32_t Handle) {
  inner_.Close(Handle);
}

void TraceBackend::RaiseDtr(int32_t Handle) {
  inner_.RaiseDtr(Handle);
}

void TraceBackend::WaitForInput(int32_t Handle, int32_t MaxMicros) {
  inner_.WaitForInput(Handle, MaxMicros);
}

void TraceBackend::SetOpenInterrupt(std::function<bool()> Interrupted) {
  inner_.SetOpenInterrupt(std::move(Interrupted));
}

void TraceBackend::TraceChunk(char Direction, const char* Bytes, size_t Count) {
  if (Count == 0) return;
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string line = std::to_string(clock_.GetTickCount() - start_);
  line.reserve(line.size() + 2 + Count * 3 + 1);
  line += ' ';
  line += Direction;
  for (size_t i = 0; i < Count; ++i) {
    const auto byte = static_cast<unsigned char>(Bytes[i]);
    line += ' ';
    line += kDigits[byte >> 4];
    line += kDigits[byte & 0x0F];
  }
  line += '\n';
  out_ << line << std::flush;
  if (!out_ && write_error_.empty()) {
    write_error_ = errno != 0 ? std::strerror(errno) : "write error";
  }
}

}  // namespace palimbo
