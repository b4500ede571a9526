#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "image/hex_file.h"
#include "support/firmware_file.h"

namespace {

// A full image of 100001 bytes in records of 16, crossing 0xFFFF through a segment record.
std::string MaxImageText(const char* LineEnd) {
  using palimbo::testing::HexOf, palimbo::testing::TestImage;
  return HexOf(TestImage(palimbo::kImageMaxIndex + 1), false, LineEnd);
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
