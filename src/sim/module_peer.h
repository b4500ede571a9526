#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace palimbo::sim {

/// Bytes the module puts on the line, not before `AtMicros`.
struct Emission {
  int64_t AtMicros = 0;
  std::string Bytes;
};

/// The far end of a serial line: a module that hears bytes and answers with timed emissions.
/// Hosts (the virtual line, the pseudo-terminal) feed it in the order the bytes arrive.
class ModulePeer {
 public:
  virtual ~ModulePeer() = default;
  /// `Bytes` reached the module at `NowMicros`; answers are appended to `Out`, in order.
  virtual void Receive(std::string_view Bytes, int64_t NowMicros, std::vector<Emission>& Out) = 0;
  /// The tool raised DTR.
  virtual void DtrRaised(int64_t /*NowMicros*/) {}
};

}  // namespace palimbo::sim
