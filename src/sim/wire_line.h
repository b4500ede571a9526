#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace palimbo::sim {

/// The serial line of a real installation: its speed, and the USB adapter at the tool's end.
struct WireSettings {
  int32_t Baud = 57600;  ///< 10 bits a byte: start bit, 8 data bits, stop bit
  /// The adapter's latency timer: what it has received waits this long for company before it
  /// goes to the tool (16 ms by default, 1 ms in low-latency mode). 0 hands each byte on alone.
  int64_t LatencyMicros = 16'000;
  /// The adapter hands on at once when this many bytes have gathered (a 64-byte USB packet
  /// less its two status bytes).
  size_t PacketBytes = 62;
};

/// Time on the wire of `Count` bytes, one after the other, at `Baud`.
inline int64_t WireMicros(int64_t Count, int32_t Baud) {
  return Count * 10'000'000 / Baud;
}

/// The direction from the tool to the module: what the tool writes leaves at once unless the
/// line is still busy, and arrives when its last byte is through.
class ToModuleWire {
 public:
  explicit ToModuleWire(int32_t Baud) : baud_(Baud) {}
  /// `Count` bytes were written at `WrittenMicros`; returns when the last of them arrives.
  int64_t Carry(int64_t WrittenMicros, size_t Count);

 private:
  int32_t baud_;
  int64_t free_us_ = 0;  // when the last byte written so far has arrived
};

/// The direction from the module to the tool, through the adapter.
///
/// The module's bytes leave one after the other at line speed. The adapter holds what it has
/// received until its latency timer runs out, counted from the first byte it holds, or until
/// a packet's worth has gathered; then it hands all of it to the tool at once.
class ToToolWire {
 public:
  explicit ToToolWire(WireSettings Settings) : settings_(Settings) {}

  /// The module sends `Bytes`, starting at `AtMicros` or when the line is free, if later.
  void Send(int64_t AtMicros, std::string_view Bytes);
  /// When the adapter next hands bytes to the tool; INT64_MAX when none are on their way.
  int64_t NextHandover() const;
  /// Appends to `Out` what the adapter has handed on by `NowMicros`.
  void TakeHandedOver(int64_t NowMicros, std::string& Out);
  /// Forgets every byte on the line and in the adapter, as when the tool closes the port.
  void Clear() { bytes_.clear(); }
  bool Empty() const { return bytes_.empty(); }

 private:
  struct TimedByte {
    int64_t ArrivalMicros;  // at the adapter
    char Byte;
  };
  WireSettings settings_;
  int64_t free_us_ = 0;  // when the last byte sent so far has reached the adapter
  std::deque<TimedByte> bytes_;
};

}  // namespace palimbo::sim
