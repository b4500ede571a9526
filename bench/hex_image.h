#pragma once

// Firmware files for the benchmarks: an image of any length up to the largest the reader
// takes, as Intel HEX text.

#include <algorithm>
#include <string>

#include "image/hex_file.h"

namespace palimbo::bench {

/// One record: byte count, address, type and data, with its checksum behind.
inline std::string HexRecord(int Type, int Address, const std::string& Data, const char* LineEnd) {
  std::string bytes;
  bytes += static_cast<char>(Data.size());
  bytes += static_cast<char>(Address >> 8);
  bytes += static_cast<char>(Address & 0xFF);
  bytes += static_cast<char>(Type);
  bytes += Data;
  unsigned sum = 0;
  for (const char c : bytes) sum += static_cast<unsigned char>(c);
  bytes += static_cast<char>((~sum + 1) & 0xFF);
  std::string record = ":";
  record += MakeHex(bytes);
  record += LineEnd;
  return record;
}

/// Bytes that look like firmware and differ from page to page.
inline std::string BenchImage(size_t Length) {
  std::string image(Length, '\0');
  for (size_t i = 0; i < Length; ++i) image[i] = static_cast<char>(i * 37 + i / 251);
  return image;
}

/// `Image` in records of 16 bytes, crossing 0xFFFF through a segment record.
inline std::string HexText(const std::string& Image, const char* LineEnd = "\r\n") {
  std::string text;
  for (size_t index = 0; index < Image.size(); index += 16) {
    if (index == 0x10000) text += HexRecord(2, 0, std::string("\x10\x00", 2), LineEnd);
    const size_t count = std::min<size_t>(16, Image.size() - index);
    text += HexRecord(0, static_cast<int>(index & 0xFFFF), Image.substr(index, count), LineEnd);
  }
  return text + HexRecord(1, 0, "", LineEnd);
}

/// The largest image the reader takes: 100001 bytes.
inline std::string MaxImage() {
  return BenchImage(static_cast<size_t>(kImageMaxIndex) + 1);
}

}  // namespace palimbo::bench
