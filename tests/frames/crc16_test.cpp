#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frames/crc16.h"

namespace palimbo {
namespace {

TEST(Crc16, VectorsFromStart) {
  const std::vector<std::pair<std::string, int32_t>> cases = {
      {"", 0xFFFF},          {std::string(1, '\x00'), 0x36A9},
      {"\xFF", 0x00FF},      {"a", 0x4E56},
      {"ab", 0x6A83},        {"abc", 0xAA7F},
      {"123456789", 0x912E}, {"\x01\x8A", 0x4CE5},
  };
  for (const auto& [bytes, expected] : cases) {
    int32_t crc = kCrcStart;
    for (const char c : bytes) crc = UpdateCRC16(crc, static_cast<uint8_t>(c));
    EXPECT_EQ(crc, expected) << "bytes: " << bytes.size();
    EXPECT_EQ(Crc16Of(bytes), expected) << "bytes: " << bytes.size();
  }
}

TEST(Crc16, StepsFromOtherValues) {
  struct Case {
    int32_t Crc;
    uint8_t Zeichen;
    int32_t Expected;
  };
  for (const Case& c : {Case{0, 0x00, 0}, Case{0, 0x01, 0x5AFB}, Case{0, 0x80, 0x8811}}) {
    EXPECT_EQ(UpdateCRC16(c.Crc, c.Zeichen), c.Expected) << c.Crc << "," << int{c.Zeichen};
  }
}

}  // namespace
}  // namespace palimbo
