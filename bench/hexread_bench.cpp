// The whole-process time of `palimbo-cli hex2bin` against binutils' `objcopy -I ihex -O binary`
// on the largest image the reader takes, after checking that both write the same bytes.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "image/hex_file.h"
#include "support/firmware_file.h"
#include "timed_run.h"

namespace {

using namespace palimbo;

constexpr const char* kUsage =
    "Usage: palimbo_hexread_bench --cli PATH [--runs N] [--objcopy PATH]\n"
    "Writes the largest image (100001 bytes) as Intel HEX, checks that PATH hex2bin and\n"
    "objcopy -I ihex -O binary make the same file of it, then runs the two N times in turn\n"
    "(default 21) and prints the median whole-process times and their ratio.\n";

std::string ReadFile(const std::string& Path) {
  std::ifstream in(Path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

[[noreturn]] void Fail(const std::string& Problem) {
  std::cerr << "palimbo_hexread_bench: " << Problem << "\n";
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  std::string cli;
  std::string objcopy = "objcopy";
  int runs = 21;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--cli") {
      cli = argv[i + 1];
    } else if (name == "--objcopy") {
      objcopy = argv[i + 1];
    } else if (name == "--runs") {
      runs = std::max(1, std::atoi(argv[i + 1]));
    } else {
      std::cerr << kUsage;
      return 2;
    }
  }
  if (cli.empty() || argc % 2 == 0) {
    std::cerr << kUsage;
    return 2;
  }

  char dirTemplate[] = "/tmp/palimbo-hexread-bench-XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) Fail("cannot make a temporary folder");
  const std::filesystem::path dir = dirTemplate;
  const std::string image = testing::TestImage(kImageMaxIndex + 1);
  const std::string hex = (dir / "max.hex").string();
  const std::string fromCli = (dir / "cli.bin").string();
  const std::string fromObjcopy = (dir / "objcopy.bin").string();
  std::ofstream(hex, std::ios::binary) << testing::HexOf(image);

  const std::vector<std::string> a = {cli, "hex2bin", hex, fromCli};
  const std::vector<std::string> b = {objcopy, "-I", "ihex", "-O", "binary", hex, fromObjcopy};
  if (bench::RunTimed(a).ExitStatus != 0) Fail("hex2bin failed");
  if (bench::RunTimed(b).ExitStatus != 0) Fail("objcopy failed");
  const std::string cliBytes = ReadFile(fromCli), objcopyBytes = ReadFile(fromObjcopy);
  if (cliBytes != image) Fail("hex2bin did not write the image");
  if (objcopyBytes != cliBytes) Fail("objcopy and hex2bin differ");

  // In turn, so that a drift in the machine's speed touches both alike.
  std::vector<double> wallA, wallB, cpuA, cpuB, ratios, peakA, peakB;
  for (int i = 0; i < runs; ++i) {
    const bench::TimedRun ra = bench::RunTimed(a);
    const bench::TimedRun rb = bench::RunTimed(b);
    if (ra.ExitStatus != 0 || rb.ExitStatus != 0) Fail("a run failed");
    wallA.push_back(ra.WallSeconds);
    wallB.push_back(rb.WallSeconds);
    cpuA.push_back(ra.CpuSeconds);
    cpuB.push_back(rb.CpuSeconds);
    peakA.push_back(static_cast<double>(ra.PeakKiB) / 1024);
    peakB.push_back(static_cast<double>(rb.PeakKiB) / 1024);
    ratios.push_back(ra.WallSeconds / rb.WallSeconds);
  }
  std::filesystem::remove_all(dir);

  std::printf(
      "Image of %zu bytes, %zu bytes of HEX; outputs equal byte for byte; %d runs each.\n\n",
      image.size(), testing::HexOf(image).size(), runs);
  std::printf(
      "| command | median wall ms | median CPU ms | median peak MiB |\n"
      "|---|---:|---:|---:|\n"
      "| palimbo-cli hex2bin | %.2f | %.2f | %.2f |\n"
      "| objcopy -I ihex -O binary | %.2f | %.2f | %.2f |\n\n",
      1000 * bench::Median(wallA), 1000 * bench::Median(cpuA), bench::Median(peakA),
      1000 * bench::Median(wallB), 1000 * bench::Median(cpuB), bench::Median(peakB));
  std::printf("Ratio of the medians: %.3f; median of the run-by-run ratios: %.3f\n",
              bench::Median(wallA) / bench::Median(wallB), bench::Median(ratios));
  return 0;
}
