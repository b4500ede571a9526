#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "image/hex_file.h"

namespace {

using palimbo::MakeHex;

// One record: byte count, address, type and data, with its checksum behind.
std::string Record(int Type, int Address, const std::string& Data, const char* LineEnd) {
  std::string bytes;
  bytes += static_cast<char>(Data.size());
  bytes += static_cast<char>(Address >> 8);
  bytes += static_cast<char>(Address & 0xFF);
  bytes += static_cast<char>(Type);
  bytes += Data;
  unsigned sum = 0;
  for (const char c : bytes) sum += static_cast<unsigned char>(c);
  bytes += static_cast<char>((~sum + 1) & 0xFF);
  return ":" + MakeHex(bytes) + LineEnd;
}

// A full image of 100001 bytes in records of 16, crossing 0xFFFF through a segment record.
std::string MaxImageText(const char* LineEnd) {
  std::string text;
  std::string data(16, '\0');
  for (int index = 0; index <= palimbo::kImageMaxIndex; index += 16) {
    if (index == 0x10000) text += Record(2, 0, std::string("\x10\x00", 2), LineEnd);
    const int count = std::min(16, palimbo::kImageMaxIndex + 1 - index);
    for (int k = 0; k < count; ++k) data[k] = static_cast<char>((index + k) * 37);
    text += Record(0, index & 0xFFFF, data.substr(0, count), LineEnd);
  }
  return text + Record(1, 0, "", LineEnd);
}

void CheckImage(benchmark::State& State, const palimbo::HexReadResult& Result) {
  if (!Result.Ok() || Result.FirmwareString.size() != palimbo::kImageMaxIndex + 1) {
    State.SkipWithError("the image did not read back in full");
  }
}

void BM_ReadHexText(benchmark::State& State, const char* LineEnd) {
  const std::string text = MaxImageText(LineEnd);
  bool encrypted = false;
  CheckImage(State, palimbo::ReadHexText(text, encrypted));
  for (auto _ : State) {
    auto result = palimbo::ReadHexText(text, encrypted);
    benchmark::DoNotOptimize(result);
  }
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) *
                          static_cast<int64_t>(text.size()));
}
BENCHMARK_CAPTURE(BM_ReadHexText, crlf, "\r\n")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ReadHexText, lf, "\n")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ReadHexText, cr, "\r")->Unit(benchmark::kMicrosecond);

void BM_ReadHexFile(benchmark::State& State) {
  const std::string text = MaxImageText("\r\n");
  const auto path = std::filesystem::temp_directory_path() / "palimbo_bench_max_image.hex";
  std::ofstream(path, std::ios::binary) << text;
  bool encrypted = false;
  CheckImage(State, palimbo::ReadHexFile(path.string(), encrypted));
  for (auto _ : State) {
    auto result = palimbo::ReadHexFile(path.string(), encrypted);
    benchmark::DoNotOptimize(result);
  }
  State.SetBytesProcessed(static_cast<int64_t>(State.iterations()) *
                          static_cast<int64_t>(text.size()));
  std::filesystem::remove(path);
}
BENCHMARK(BM_ReadHexFile)->Unit(benchmark::kMicrosecond);

}  // namespace
