#include "sim/sim_line.h"

#include <algorithm>
#include <limits>

namespace palimbo::sim {

SimLine::SimLine(VirtualClock& Clock, ModulePeer& Module, std::string PortName)
    : clock_(Clock), module_(Module), port_name_(std::move(PortName)) {}

int32_t SimLine::Open(const std::string& PortName, const std::string& LineSettings) {
  lost_reason_.clear();
  if (PortName != port_name_ || cut_) {
    last_error_ = "No such file or directory";
    return -1;
  }
  if (open_) {
    last_error_ = "Device or resource busy";
    return -1;
  }
  if (LineSettings.empty()) {
    last_error_ = "Invalid argument";
    return -1;
  }
  open_ = true;
  lost_ = false;
  ++open_count_;
  rx_.clear();
  return kHandle;
}

void SimLine::Schedule(const std::vector<Emission>& Out) {
  for (const auto& emission : Out) {
    const int64_t start = std::max(emission.AtMicros, to_tool_free_us_);
    const auto count = static_cast<int64_t>(emission.Bytes.size());
    for (int64_t i = 0; i < count; ++i) {
      to_tool_.push_back({start + WireMicros(packets_ ? count : i + 1), emission.Bytes[i]});
    }
    if (!emission.Bytes.empty()) to_tool_free_us_ = to_tool_.back().AtMicros;
    sent_ += emission.Bytes;
  }
}

int64_t SimLine::NextEventMicros() const {
  int64_t next = std::numeric_limits<int64_t>::max();
  if (!to_module_.empty()) next = to_module_.front().AtMicros;
  if (!to_tool_.empty()) next = std::min(next, to_tool_.front().AtMicros);
  return next;
}

void SimLine::Sync() {
  const int64_t now = clock_.NowMicros();
  std::vector<Emission> out;
  while (NextEventMicros() <= now) {
    const bool moduleFirst =
        !to_module_.empty() &&
        (to_tool_.empty() || to_module_.front().AtMicros <= to_tool_.front().AtMicros);
    if (moduleFirst) {
      Chunk chunk = std::move(to_module_.front());
      to_module_.pop_front();
      out.clear();
      module_.Receive(chunk.Bytes, chunk.AtMicros, out);
      Schedule(out);
    } else {
      // A closed port hears nothing; what the module sends meanwhile is lost.
      if (open_) rx_ += to_tool_.front().Byte;
      to_tool_.pop_front();
    }
  }
}

void SimLine::CutAfterBytes(int64_t Count, std::string Reason) {
  cut_after_ = std::max<int64_t>(Count, 0);
  cut_reason_ = std::move(Reason);
  if (cut_after_ == 0) cut_ = true;
}

void SimLine::Lose() {
  open_ = false;
  lost_ = true;
  rx_.clear();
  lost_reason_ = cut_reason_;
}

int32_t SimLine::BytesWaiting(int32_t Handle) {
  ++looks_;
  clock_.AdvanceMicros(pass_cost_us_);
  Sync();
  if (Valid(Handle) && cut_) Lose();
  if (lost_ && Handle == kHandle) return -1;
  return Valid(Handle) ? static_cast<int32_t>(rx_.size()) : 0;
}

int16_t SimLine::Read(int32_t Handle, int32_t Count, std::string& Buffer) {
  Buffer.clear();
  if (!Valid(Handle)) return 0;
  const size_t n = std::min(rx_.size(), static_cast<size_t>(std::max(Count, 0)));
  Buffer = rx_.substr(0, n);
  rx_.erase(0, n);
  return 1;
}

int32_t SimLine::Write(int32_t Handle, const std::string& Data) {
  if (!Valid(Handle)) return 0;
  Sync();
  auto count = static_cast<int32_t>(Data.size());
  if (cut_after_ >= 0) {
    count = static_cast<int32_t>(std::min<int64_t>(count, cut_after_));
    cut_after_ -= count;
    if (cut_after_ == 0) cut_ = true;
    if (count < static_cast<int32_t>(Data.size())) Lose();
  }
  if (count == 0) return 0;
  const int64_t now = clock_.NowMicros();
  written_.push_back({now, Data.substr(0, count)});
  const int64_t start = std::max(now, to_module_free_us_);
  to_module_free_us_ = start + WireMicros(count);
  to_module_.push_back({to_module_free_us_, Data.substr(0, count)});
  return count;
}

void SimLine::Close(int32_t Handle) {
  if (lost_ && Handle == kHandle) lost_ = false;
  if (!Valid(Handle)) return;
  Sync();
  open_ = false;
  rx_.clear();
}

void SimLine::RaiseDtr(int32_t Handle) {
  if (!Valid(Handle)) return;
  ++dtr_count_;
  module_.DtrRaised(clock_.NowMicros());
}

void SimLine::WaitForInput(int32_t Handle, int32_t MaxMicros) {
  if (!Valid(Handle)) return;
  const int64_t until = clock_.NowMicros() + std::max(MaxMicros, 0);
  for (;;) {
    Sync();
    if (!rx_.empty()) return;
    const int64_t next = NextEventMicros();
    if (next > until) {
      clock_.AdvanceTo(until);
      return;
    }
    clock_.AdvanceTo(next);
  }
}

}  // namespace palimbo::sim
