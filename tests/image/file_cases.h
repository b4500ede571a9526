#pragma once

// Firmware files made by a test, or paths it names, and what reading them gives.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "support/temp_file.h"

namespace palimbo::testing {

struct FileCase {
  const char* Name;
  std::function<std::string()> Make;  ///< gives the path to read
  std::string Reason;                 ///< what the read says; empty for a good read
};

class ReadHexFileCase : public ::testing::TestWithParam<FileCase> {};

inline std::string CaseName(const ::testing::TestParamInfo<FileCase>& Info) {
  return Info.param.Name;
}

/// A file of `Size` bytes that takes no room on disk: a hole, read as zeros.
inline std::string SparseFile(const std::string& Name, uintmax_t Size) {
  const std::string path = WriteTempFile(Name, "");
  std::filesystem::resize_file(path, Size);
  return path;
}

}  // namespace palimbo::testing
