#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
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

/// The whole content of the file at `Path`, empty where there is none.
inline std::string ReadAll(const std::filesystem::path& Path) {
  std::ifstream in(Path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// Writes `Content` to a fresh file in the test's temporary folder and gives its path.
inline std::string WriteTempFile(const std::string& Name, const std::string& Content) {
  const auto path = TestFolder() / Name;
  std::ofstream(path, std::ios::binary) << Content;
  return path.string();
}

}  // namespace palimbo::testing
