#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace palimbo::testing {

/// The running test's own folder under the temporary folder, created on demand.
inline std::filesystem::path TestFolder() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::filesystem::path dir = std::filesystem::path(::testing::TempDir()) / "palimbo" /
                              (std::string(info->test_suite_name()) + "." + info->name());
  std::filesystem::create_directories(dir);
  return dir;
}

/// A fresh, empty folder of the running test, removed with everything in it.
struct TempDir {
  std::string Path = MakeFresh();
  ~TempDir() { std::filesystem::remove_all(Path); }

  static std::string MakeFresh() {
    const auto dir = TestFolder() / "fresh";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir.string();
  }
};

/// Writes `Content` to a fresh file in the test's temporary folder and gives its path.
inline std::string WriteTempFile(const std::string& Name, const std::string& Content) {
  const auto path = TestFolder() / Name;
  std::ofstream(path, std::ios::binary) << Content;
  return path.string();
}

/// An Intel HEX text of `Image`, 16 bytes a record, with an end-of-file record.
inline std::string HexOf(const std::string& Image, bool Marker = false) {
  static const char* digits = "0123456789ABCDEF";
  std::string text;
  auto byte = [&](int b) {
    text += digits[(b >> 4) & 15];
    text += digits[b & 15];
  };
  if (Marker) text += ":000000FF01\r\n";
  for (size_t at = 0; at < Image.size(); at += 16) {
    const size_t n = std::min<size_t>(16, Image.size() - at);
    int sum = static_cast<int>(n) + static_cast<int>(at >> 8 & 255) + static_cast<int>(at & 255);
    text += ':';
    byte(static_cast<int>(n));
    byte(static_cast<int>(at >> 8 & 255));
    byte(static_cast<int>(at & 255));
    byte(0);
    for (size_t i = 0; i < n; ++i) {
      const int b = static_cast<unsigned char>(Image[at + i]);
      sum += b;
      byte(b);
    }
    byte((256 - (sum & 255)) & 255);
    text += "\r\n";
  }
  return text + ":00000001FF\r\n";
}

}  // namespace palimbo::testing
