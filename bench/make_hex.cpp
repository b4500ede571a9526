// Writes an Intel HEX file of BYTES bytes that look like firmware, for the shell benchmarks.

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "support/firmware_file.h"

int main(int argc, char** argv) {
  char* end = nullptr;
  const long length = argc == 3 ? std::strtol(argv[2], &end, 10) : -1;
  if (length < 0 || end == nullptr || *end != '\0') {
    std::cerr << "usage: palimbo_make_hex OUT BYTES\n";
    return 2;
  }
  const auto image = palimbo::testing::TestImage(static_cast<size_t>(length));
  std::ofstream out(argv[1], std::ios::binary);
  out << palimbo::testing::HexOf(image, false, "\n");
  return out.flush() ? 0 : 1;
}
