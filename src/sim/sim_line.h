#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "serial/serial_backend.h"
#include "sim/module_peer.h"
#include "sim/virtual_clock.h"

namespace palimbo::sim {

/// A serial line on virtual time between the tool and a simulated module.
///
/// Bytes take their wire time at 57600 baud, 10 bits a byte, in both directions. Reading and
/// waiting advance the virtual clock, so polling loops run on it exactly as on a real port.
class SimLine final : public SerialBackend {
 public:
  struct Chunk {
    int64_t AtMicros;
    std::string Bytes;
  };

  SimLine(VirtualClock& Clock, ModulePeer& Module, std::string PortName = "SIM");

  int32_t Open(const std::string& PortName, const std::string& LineSettings) override;
  std::string LastOpenError() const override { return last_error_; }
  std::string LostReason() const override { return lost_reason_; }
  int32_t BytesWaiting(int32_t Handle) override;
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override;
  int32_t Write(int32_t Handle, const std::string& Data) override;
  void Close(int32_t Handle) override;
  void RaiseDtr(int32_t Handle) override;
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override;

  /// Every chunk the tool wrote, with the time of the write.
  const std::vector<Chunk>& Written() const { return written_; }
  /// Every byte the module sent, in order, whether or not the tool read it.
  const std::string& Sent() const { return sent_; }
  /// The line carries `Count` more bytes from the tool and is then cut, as when the adapter
  /// is pulled out: the write that reaches the mark takes only the bytes up to it, the port
  /// is gone with `Reason` (the next look or write finds it), and it cannot be opened again.
  /// What the module sends from then on is lost.
  void CutAfterBytes(int64_t Count, std::string Reason = "Input/output error");
  /// Deliver each emission of the module at once when its last byte is through, as a USB
  /// adapter hands over whole packets, instead of byte by byte.
  void SetPacketDelivery(bool On) { packets_ = On; }
  /// Virtual cost of one look at the port, so that every receive pass moves time on.
  void SetPassCostMicros(int64_t Micros) { pass_cost_us_ = Micros; }
  bool IsOpen() const { return open_; }
  int OpenCount() const { return open_count_; }
  int DtrCount() const { return dtr_count_; }
  /// How often the tool asked for the bytes waiting: its polling rate, open port or not.
  int64_t Looks() const { return looks_; }

  /// Wire time of `Count` bytes at 57600 baud.
  static int64_t WireMicros(int64_t Count) { return Count * 10'000'000 / 57600; }

 private:
  struct TimedByte {
    int64_t AtMicros;
    char Byte;
  };
  void Sync();
  int64_t NextEventMicros() const;
  void Schedule(const std::vector<Emission>& Out);
  bool Valid(int32_t Handle) const { return open_ && Handle == kHandle; }
  void Lose();

  static constexpr int32_t kHandle = 3;
  VirtualClock& clock_;
  ModulePeer& module_;
  std::string port_name_;
  std::string last_error_;
  bool open_ = false;
  int open_count_ = 0;
  int dtr_count_ = 0;
  int64_t looks_ = 0;
  int64_t cut_after_ = -1;  // bytes the line still carries before the cut; -1 for no cut
  bool cut_ = false;
  bool lost_ = false;  // the port went away and its handle is not closed yet
  std::string cut_reason_;
  std::string lost_reason_;
  bool packets_ = false;
  int64_t pass_cost_us_ = 5;
  int64_t to_module_free_us_ = 0;
  int64_t to_tool_free_us_ = 0;
  std::deque<Chunk> to_module_;    // written chunks, keyed by the arrival of their last byte
  std::deque<TimedByte> to_tool_;  // module bytes, keyed by their arrival
  std::string rx_;                 // arrived at the tool and not yet read
  std::vector<Chunk> written_;
  std::string sent_;
};

}  // namespace palimbo::sim
