#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <utility>

#include "image/hex_file.h"

namespace palimbo {
namespace {

// Good records used throughout: 0x55 at 0, 0xAA at 1, end of file.
const std::string A = ":0100000055AA", B = ":01000100AA54", Eof = ":00000001FF";
// Type 2 records: segment 0x0100 (base 0x1000), segment 0x1000 (base 0x10000), and one whose
// byte count is not 2, which sets the base back to 0.
const std::string Seg100 = ":020000020100FB\r\n", Seg1000 = ":020000021000EC\r\n";
const std::string SegOther = ":03000002010000FA\r\n";
const std::string kWorkedExample = ":02000000AABB99\r\n:0100100011DE\r\n:00000001FF\r\n";

std::string Zeros(size_t Count) {
  return std::string(Count * 2, '0');
}

struct ReadCase {
  const char* Name;
  std::string Text;
  std::string ImageHex;  // the image as MakeHex gives it
  std::string Reason;    // empty for a good read
  bool Encrypted = false;
};

// clang-format off
const ReadCase kReadCases[] = {
    // The first CR LF ends a line; only where none is left does a CR, and only then an LF.
    {"CrLfLastLineWithoutEnd", A + "\r\n" + B, "55AA", ""},
    {"CrOnly", A + "\r" + B + "\r" + Eof + "\r", "55AA", ""},
    {"LfOnly", A + "\n" + B + "\n" + Eof + "\n", "55AA", ""},
    // The joined line passes its checksum, and every byte behind the type counts as data.
    {"BareCrBeforeCrLf", A + "\r" + B + "\r\n", "55AA0001000100AA", ""},
    {"BareLfBeforeCrLf", A + "\n" + B + "\r\n" + Eof, "55AA0001000100AA", ""},
    {"CrBeforeLf", A + "\n" + B + "\r", "55AA0001000100AA", ""},
    {"BlankLines", "   \r\n\r\n" + A + "\r\n \r\n\r\n" + B + "\r\n  ", "55AA", ""},
    {"WorkedExample", kWorkedExample, "AABB" + Zeros(14) + "11", ""},
    // Blank lines count, and a line holds what the cut left in it.
    {"ShortLineNumber", "\r\n  \r\n" + A + "\r" + B + "\r\n:\n", "",
     "line 4: record shorter than 4 bytes"},
    {"ChecksumLineNumber", A + "\r\n" + B + "\r\n:0100020077FF", "", "line 3: checksum mismatch"},
    // An odd count of record bytes takes the trailing blank as a byte 0x00: here the checksum.
    // Any first character is the record mark, and the end of file record ends nothing.
    {"AnyMarkRecordsBehindEof", "X" + A.substr(1) + "\r\n" + Eof + "\r\n" + B, "55AA", ""},
    {"EofTrailingBlank", A + "\r\n:00000001FF ", "55", ""},
    {"ByteCountIgnored", ":0500000055A6", "55", ""},
    {"TypeIsChecksum", ":FF010000", Zeros(256), ""},
    {"Overlap", ":040000001122334452\r\n:02000100AABB98", "11AABB44", ""},
    {"NoWrapPast0xFFFF", ":04FFFE001122334455", Zeros(0xFFFE) + "11223344", ""},
    {"Segment", Seg100 + A, Zeros(0x1000) + "55", ""},
    {"SegmentReset", Seg100 + SegOther + A, "55", ""},
    {"LastIndex", Seg1000 + ":0186A0005584", Zeros(100000) + "55", ""},
    {"PastLastIndex", Seg1000 + ":0186A1005583", "", "line 2: data beyond address 100000"},
    {"Marker", ":000000FF01\r\n" + A, "55", "", true},
};
// clang-format on

TEST(ReadHexText, GivesImageOrReason) {
  for (const ReadCase& c : kReadCases) {
    SCOPED_TRACE(c.Name);
    bool encrypted = false;
    const HexReadResult result = ReadHexText(c.Text, encrypted);
    EXPECT_EQ(result.Reason, c.Reason);
    EXPECT_EQ(MakeHex(result.FirmwareString), c.ImageHex);
    EXPECT_EQ(encrypted, c.Encrypted);
  }
  bool encrypted = true;
  ReadHexText(A, encrypted);
  EXPECT_TRUE(encrypted) << "a file without the marker clears it";
}

TEST(ReadHexFile, ReadsOrSaysWhyNot) {
  const std::string path = ::testing::TempDir() + "palimbo-" + std::to_string(getpid()) + ".hex";
  std::ofstream(path, std::ios::binary) << kWorkedExample;
  bool encrypted = false;
  EXPECT_EQ(MakeHex(ReadHexFile(path, encrypted).FirmwareString), "AABB" + Zeros(14) + "11");
  std::remove(path.c_str());
  EXPECT_EQ(ReadHexFile(path, encrypted).Reason, "cannot open file: No such file or directory");
  EXPECT_EQ(ReadHexFile(::testing::TempDir(), encrypted).Reason,
            "cannot open file: Is a directory");
}

TEST(MakeBin, LengthsAndNonHexStop) {
  // An odd length rounds its half to the even neighbour; a non-hex digit ends its pair.
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},     {"1", ""},   {"123", "1203"}, {"12345", "1234"}, {"1Ed2Ff", "1ED2FF"},
      {"G1", "00"}, {"1G", "01"}};
  for (const auto& [text, hex] : cases) EXPECT_EQ(MakeHex(MakeBin(text)), hex) << text;
}

TEST(MakeHex, UpperCasePairs) {
  EXPECT_EQ(MakeHex(std::string("\x0A\xFF\x00", 3)), "0AFF00");
}

}  // namespace
}  // namespace palimbo
