#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "image/hex_file.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;

class ReadHexFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::path(::testing::TempDir()) / (std::string("palimbo_image_") + info->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string Write(const std::string& Name, const std::string& Bytes) {
    const fs::path path = dir_ / Name;
    std::ofstream(path, std::ios::binary) << Bytes;
    return path.string();
  }

  fs::path dir_;
};

TEST_F(ReadHexFileTest, ReadsBytesUnchanged) {
  // CR-only line ends and a bare CR in front of a later CR LF must survive the file read.
  const std::vector<std::string> texts = {
      ":02000000AABB99\r\n:0100100011DE\r\n:00000001FF\r\n",
      ":0100000055AA\r:01000100AA54\r:000000FF01",
      ":0100000055AA\r:01000100AA54\r\n",
      "",
  };
  for (size_t i = 0; i < texts.size(); ++i) {
    bool fromFile = false;
    bool fromText = false;
    const HexReadResult file =
        ReadHexFile(Write("f" + std::to_string(i) + ".hex", texts[i]), fromFile);
    const HexReadResult text = ReadHexText(texts[i], fromText);
    EXPECT_TRUE(file.Ok()) << file.Reason;
    EXPECT_EQ(file.FirmwareString, text.FirmwareString) << i;
    EXPECT_EQ(fromFile, fromText) << i;
  }
}

TEST_F(ReadHexFileTest, FailuresSayWhy) {
  const std::string missing = (dir_ / "missing.hex").string();
  const std::string bad = Write("bad.hex", ":0100000055AA\r\n\r\n:0100000055AB\r\n");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {missing, "cannot open file: No such file or directory"},
      {"", "cannot open file: No such file or directory"},
      {dir_.string(), "cannot open file: Is a directory"},
      {bad, "line 3: checksum mismatch"},
  };
  for (const auto& [name, reason] : cases) {
    bool encrypted = false;
    const HexReadResult result = ReadHexFile(name, encrypted);
    EXPECT_EQ(result.Reason, reason) << name;
    EXPECT_TRUE(result.FirmwareString.empty()) << name;
  }
}

TEST(ExampleFiles, ReadAsShipped) {
  const fs::path dir = PALIMBO_EXAMPLES_DIR;
  bool encrypted = false;
  const HexReadResult plain = ReadHexFile((dir / "example.hex").string(), encrypted);
  ASSERT_TRUE(plain.Ok()) << plain.Reason;
  EXPECT_FALSE(encrypted);
  EXPECT_GE(plain.FirmwareString.size(), 6u * 1024);
  EXPECT_LE(plain.FirmwareString.size(), 8u * 1024);
  EXPECT_NE(plain.FirmwareString.find("Palimbo example firmware"), std::string::npos);

  const HexReadResult marked = ReadHexFile((dir / "example_encrypted.hex").string(), encrypted);
  ASSERT_TRUE(marked.Ok()) << marked.Reason;
  EXPECT_TRUE(encrypted);
  EXPECT_FALSE(marked.FirmwareString.empty());
}

}  // namespace
}  // namespace palimbo
