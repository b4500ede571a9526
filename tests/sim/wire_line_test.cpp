#include "sim/wire_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace palimbo::sim {
namespace {

struct Sent {
  int64_t AtMicros;
  size_t Count;
};
struct Handed {
  int64_t AtMicros;
  std::string Bytes;
  bool operator==(const Handed&) const = default;
};

void PrintTo(const Handed& H, std::ostream* Out) {
  *Out << H.Bytes.size() << " bytes at " << H.AtMicros;
}

// Letters in order, so that each handover shows which bytes it carried.
std::string Letters(size_t From, size_t Count) {
  std::string out;
  for (size_t i = From; i < From + Count; ++i) out += static_cast<char>('A' + i % 26);
  return out;
}

// Byte k of an answer reaches the adapter WireMicros(k) after it began: 173, 347, 520, 694,
// 868, 1041, 1215, 1388, 1562 µs for the first nine at 57600 baud.
struct ToToolCase {
  const char* Name;
  int64_t LatencyMicros;
  std::vector<Sent> Sends;
  std::vector<Handed> Expected;
};

TEST(WireLineTest, AdapterHandsOnWhenItsTimerRunsOutOrAPacketIsFull) {
  const ToToolCase cases[] = {
      {"short answer waits out the timer", 16'000, {{0, 9}}, {{16'173, Letters(0, 9)}}},
      {"no latency: byte by byte", 0, {{100, 3}}, {{273, "A"}, {447, "B"}, {620, "C"}}},
      {"timer shorter than the answer",
       1'000,
       {{0, 9}},
       {{1'173, Letters(0, 6)}, {2'215, Letters(6, 3)}}},
      // 62 bytes are through after 10763 µs, 124 after 21527; the 125th at 21701 starts a timer.
      {"long answer in packets",
       16'000,
       {{0, 137}},
       {{10'763, Letters(0, 62)}, {21'527, Letters(62, 62)}, {37'701, Letters(124, 13)}}},
      {"second answer queues behind the first",
       16'000,
       {{0, 2}, {100, 1}},
       {{16'173, Letters(0, 3)}}},
      {"answers far apart", 1'000, {{0, 1}, {5'000, 1}}, {{1'173, "A"}, {6'173, "B"}}},
  };
  for (const ToToolCase& c : cases) {
    ToToolWire wire({57600, c.LatencyMicros, 62});
    size_t next = 0;
    for (const Sent& s : c.Sends) {
      wire.Send(s.AtMicros, Letters(next, s.Count));
      next += s.Count;
    }
    std::vector<Handed> got;
    while (!wire.Empty()) {
      const int64_t due = wire.NextHandover();
      std::string bytes;
      wire.TakeHandedOver(due - 1, bytes);
      EXPECT_EQ(bytes, "") << c.Name << ": nothing before " << due;
      wire.TakeHandedOver(due, bytes);
      got.push_back({due, bytes});
    }
    EXPECT_EQ(got, c.Expected) << c.Name;
  }
}

}  // namespace
}  // namespace palimbo::sim
