#pragma once

// Firmware for the tests and the benchmarks: one image generator and one Intel HEX writer, so
// that all of them feed the reader the same kind of file. Free of the test framework, so that
// the benchmarks' programs can include it too.

#include <algorithm>
#include <cstddef>
#include <string>

namespace palimbo::testing {

/// Bytes that look like firmware and differ from page to page.
inline std::string TestImage(size_t Length) {
  std::string image(Length, '\0');
  for (size_t i = 0; i < Length; ++i) image[i] = static_cast<char>((i * 7 + i / 251 + 3) & 255);
  return image;
}

/// One record: byte count, address, type and data, with its checksum behind.
inline std::string HexRecord(unsigned Type, unsigned Address, const std::string& Data,
                             const char* LineEnd = "\r\n") {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string record = ":";
  unsigned sum = 0;
  auto put = [&](unsigned Byte) {
    Byte &= 255;
    sum += Byte;
    record += kDigits[Byte >> 4];
    record += kDigits[Byte & 15];
  };
  put(static_cast<unsigned>(Data.size()));
  put(Address >> 8);
  put(Address);
  put(Type);
  for (const char c : Data) put(static_cast<unsigned char>(c));
  put(256 - (sum & 255));
  return record + LineEnd;
}

/// `Image` from address 0 in records of 16 bytes, a segment record at each 64 KiB and an
/// end-of-file record. `Marker` puts the encryption marker record first.
inline std::string HexOf(const std::string& Image, bool Marker = false,
                         const char* LineEnd = "\r\n") {
  std::string text = Marker ? HexRecord(0xFF, 0, "", LineEnd) : "";
  for (size_t at = 0; at < Image.size(); at += 16) {
    if (at > 0 && at % 0x10000 == 0) {
      const auto segment = static_cast<char>(at >> 16 << 4);
      text += HexRecord(2, 0, std::string{segment, '\0'}, LineEnd);
    }
    const size_t count = std::min<size_t>(16, Image.size() - at);
    text += HexRecord(0, static_cast<unsigned>(at & 0xFFFF), Image.substr(at, count), LineEnd);
  }
  return text + HexRecord(1, 0, "", LineEnd);
}

}  // namespace palimbo::testing
