#include "sim/wire_line.h"

#include <algorithm>
#include <limits>

namespace palimbo::sim {

int64_t ToModuleWire::Carry(int64_t WrittenMicros, size_t Count) {
  const int64_t start = std::max(WrittenMicros, free_us_);
  free_us_ = start + WireMicros(static_cast<int64_t>(Count), baud_);
  return free_us_;
}

void ToToolWire::Send(int64_t AtMicros, std::string_view Bytes) {
  if (Bytes.empty()) return;
  const int64_t start = std::max(AtMicros, free_us_);
  for (size_t i = 0; i < Bytes.size(); ++i) {
    bytes_.push_back({start + WireMicros(static_cast<int64_t>(i) + 1, settings_.Baud), Bytes[i]});
  }
  free_us_ = bytes_.back().ArrivalMicros;
}

int64_t ToToolWire::NextHandover() const {
  if (bytes_.empty()) return std::numeric_limits<int64_t>::max();
  // Whatever stands first arrived in an empty adapter, so the timer runs from its arrival.
  int64_t due = bytes_.front().ArrivalMicros + settings_.LatencyMicros;
  const size_t packet = std::max<size_t>(settings_.PacketBytes, 1);
  if (bytes_.size() >= packet) due = std::min(due, bytes_[packet - 1].ArrivalMicros);
  return due;
}

void ToToolWire::TakeHandedOver(int64_t NowMicros, std::string& Out) {
  for (int64_t due = NextHandover(); due <= NowMicros; due = NextHandover()) {
    while (!bytes_.empty() && bytes_.front().ArrivalMicros <= due) {
      Out += bytes_.front().Byte;
      bytes_.pop_front();
    }
  }
}

}  // namespace palimbo::sim
