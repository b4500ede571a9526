// The exchanges' receive buffer against a plain string doing the same.
#include <gtest/gtest.h>

#include <algorithm>

#include "frames/rx_queue.h"

namespace palimbo {
namespace {

struct QueueCase {
  const char* Name;
  size_t Chunk;  // bytes appended a round
  size_t Drop;   // bytes dropped from the front a round
  int Rounds;
};

void PrintTo(const QueueCase& C, std::ostream* Out) {
  *Out << C.Name;
}

class RxQueueRounds : public ::testing::TestWithParam<QueueCase> {};

TEST_P(RxQueueRounds, HoldsWhatAStringWouldAndMovesNoMoreThanItDropped) {
  const QueueCase& c = GetParam();
  RxQueue queue;
  std::string model;
  size_t peak = 0, dropped = 0;
  for (int round = 0; round < c.Rounds; ++round) {
    std::string chunk(c.Chunk, '\0');
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(round * 31 + i);
    queue.Append(chunk);
    model += chunk;
    peak = std::max(peak, model.size());
    const size_t drop = std::min(c.Drop, model.size());
    queue.DropFront(c.Drop);
    model.erase(0, drop);
    dropped += drop;
    ASSERT_EQ(queue.View(), model) << "round " << round;
    ASSERT_EQ(queue.size(), model.size());
    if (!model.empty()) {
      ASSERT_EQ(queue[0], static_cast<uint8_t>(model[0]));
    }
  }
  EXPECT_EQ(queue.PeakSize(), peak);
  // Each byte moved stands for one dropped before it: linear work however long it runs.
  EXPECT_LE(queue.BytesMoved(), dropped);
  queue.clear();
  EXPECT_TRUE(queue.empty());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(, RxQueueRounds, ::testing::Values(
    QueueCase{"GrowsWithoutDrops", 7, 0, 300},
    QueueCase{"OneInOneOut", 1, 1, 1000},
    QueueCase{"DropsOneOfEveryChunk", 5, 1, 2000},    // the flood: one byte a pass goes
    QueueCase{"DropsMoreThanItHolds", 3, 10, 100},
    QueueCase{"DrainsAFrameAtATime", 137, 137, 50},
    QueueCase{"DropsMostOfEachChunk", 64, 63, 1000}),
    [](const auto& Info) { return std::string(Info.param.Name); });
// clang-format on

}  // namespace
}  // namespace palimbo
