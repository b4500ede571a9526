#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <utility>

#include "image/file_cases.h"
#include "image/file_read.h"
#include "image/hex_file.h"
#include "image/hostile_corpus.h"

namespace palimbo {
namespace {

// Good records used throughout: 0x55 at 0, 0xAA at 1, end of file.
const std::string A = ":0100000055AA", B = ":01000100AA54", Eof = ":00000001FF";
// Type 2 records: segment 0x0100 (base 0x1000), segment 0x1000 (base 0x10000), and one whose
// byte count is not 2, which sets the base back to 0.
const std::string Seg100 = ":020000020100FB\r\n", Seg1000 = ":020000021000EC\r\n";
const std::string SegOther = ":03000002010000FA\r\n";
const std::string kWorkedExample = ":02000000AABB99\r\n:0100100011DE\r\n:00000001FF\r\n";
// Type 4 records: upper address 0x0800 (another target's memory map) and 0x0000.
const std::string Linear800 = ":020000040800F2\r\n", Linear0 = ":020000040000FA\r\n";
const std::string kLinearNote =
    "extended linear address 0x0800 (type 4): its data land at their 16-bit addresses";
const std::string kBehindEndNote =
    "data behind the end-of-file record: they are read into the image";

std::string Zeros(size_t Count) {
  return std::string(Count * 2, '0');
}

struct ReadCase {
  const char* Name;
  std::string Text;
  std::string ImageHex;  // the image as MakeHex gives it
  std::string Reason;    // empty for a good read
  bool Encrypted = false;
  std::string Notes = "";  // the notes' texts, one a line
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
    {"ThreeBytesWithGoodChecksum", ":0100FF", "", "line 1: record shorter than 4 bytes"},
    {"ChecksumLineNumber", A + "\r\n" + B + "\r\n:0100020077FF", "", "line 3: checksum mismatch"},
    // The whole checksum byte counts: its lowest and its highest bit alone refuse.
    {"ChecksumLowBit", ":0100000055AB", "", "line 1: checksum mismatch"},
    {"ChecksumHighBit", ":01000000552A", "", "line 1: checksum mismatch"},
    // An odd count of record bytes takes the trailing blank as a byte 0x00: here the checksum.
    // Any first character is the record mark, and the end of file record ends nothing.
    {"AnyMarkRecordsBehindEof", "X" + A.substr(1) + "\r\n" + Eof + "\r\n" + B, "55AA", "", false,
     "line 3: " + kBehindEndNote + "\n"},
    {"EofTrailingBlank", A + "\r\n:00000001FF ", "55", ""},
    {"ByteCountIgnored", ":0500000055A6", "55", ""},
    {"TypeIsChecksum", ":FF010000", Zeros(256), ""},
    {"Overlap", ":040000001122334452\r\n:02000100AABB98", "11AABB44", ""},
    {"NoWrapPast0xFFFF", ":04FFFE001122334455", Zeros(0xFFFE) + "11223344", ""},
    {"Segment", Seg100 + A, Zeros(0x1000) + "55", ""},
    {"SegmentReset", Seg100 + SegOther + A, "55", ""},
    {"LastIndex", Seg1000 + ":0186A0005584", Zeros(100000) + "55", ""},
    {"PastLastIndex", Seg1000 + ":0186A1005583", "", "line 2: data beyond address 100000"},
    // An empty record stretches the image up to its address, the buffer's end at most.
    {"EmptyRecordAtTheEnd", Seg1000 + ":0086A100D9", Zeros(100001), ""},
    {"EmptyRecordPastTheEnd", Seg1000 + ":0086A200D8", "", "line 2: data beyond address 100000"},
    {"Marker", ":000000FF01\r\n" + A, "55", "", true},
    // Start addresses (types 3, 5) and the linear address (type 4) leave the segment's base.
    {"OtherTypesKeepTheBase", Seg100 + ":0400000300003800C1\r\n:020000040001F9\r\n"
     ":04000005000000CD2A\r\n" + A, Zeros(0x1000) + "55", "", false,
     "line 3: extended linear address 0x0001 (type 4): its data land at their 16-bit addresses\n"},
    // Notes name what hints at another target; only the first data record behind an end counts.
    {"LinearAddressZeroNoNote", Linear0 + A, "55", ""},
    {"NotesInLineOrder", Linear800 + A + "\r\n" + Eof + "\r\n" + Eof + "\r\n" + B + "\r\n" + A,
     "55AA", "", false, "line 1: " + kLinearNote + "\nline 5: " + kBehindEndNote + "\n"},
    {"NoNotesOnFailure", Linear800 + Eof + "\r\n:0100020077FF", "", "line 3: checksum mismatch"},
    // Only a segment record of exactly two data bytes sets the base; any other resets it.
    {"SegmentThreeDataBytes", Seg100 + ":02000002010000FB\r\n" + A, "55", ""},
    {"SegmentOneDataByte", Seg100 + ":0200000201FB\r\n" + A, "55", ""},
    {"SegmentNoDataBytes", Seg100 + ":02000002FC\r\n" + A, "55", ""},
    {"SegmentNotAtZero", Seg100 + ":020010020100EB\r\n" + A, "55", ""},
    // An LF before a later CR LF joins the segment and a data record into one line whose
    // checksum fits; it must not move the data to 0x1000.
    {"SegmentJoinedByMixedEnds", ":020000020100FB\n" + A + "\r\n" + B, "00AA", ""},
    {"SegmentResetByJoinedLine", Seg100 + ":020000020100FB\n" + A + "\r\n" + B, "00AA", ""},
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
    std::string notes;
    for (const HexNote& note : result.Notes) notes += HexNoteText(note) + "\n";
    EXPECT_EQ(notes, c.Notes);
  }
  bool encrypted = true;
  ReadHexText(A, encrypted);
  EXPECT_TRUE(encrypted) << "a file without the marker clears it";
}

using testing::FileCase;
using testing::ReadHexFileCase;

TEST_P(ReadHexFileCase, ReadsOrSaysWhyNot) {
  bool encrypted = false;
  const std::string path = GetParam().Make();
  const HexReadResult result = ReadHexFile(path, encrypted);
  EXPECT_EQ(result.Reason, GetParam().Reason);
  if (!result.Ok()) {
    EXPECT_TRUE(result.FirmwareString.empty());
  }
  // The digest costs a pass over the file, so only a read that asks for it pays.
  EXPECT_EQ(result.FileSha256, "");
  EXPECT_EQ(ReadHexFile(path, encrypted, FileDigest::Sha256).FileSha256.size(),
            result.Ok() ? 64u : 0u);
}

constexpr uintmax_t kMiB = uintmax_t{1} << 20;

INSTANTIATE_TEST_SUITE_P(
    Portable, ReadHexFileCase,
    ::testing::Values(
        FileCase{"Regular", [] { return testing::WriteTempFile("a.hex", A); }, ""},
        FileCase{"Missing", [] { return testing::WriteTempFile("a.hex", "") + ".missing"; },
                 "cannot open file: No such file or directory"},
        FileCase{"EmptyName", [] { return std::string(); },
                 "cannot open file: No such file or directory"},
        FileCase{"Directory", [] { return testing::TestFolder().string(); },
                 "not a regular file (a directory)"},
        FileCase{"OneByteOverTheLimit",
                 [] { return testing::SparseFile("big.hex", 16 * kMiB + 1); },
                 "file larger than 16 MiB"},
        // A file of exactly the limit is read: its zeros make one record that runs off the end.
        FileCase{"AtTheLimit", [] { return testing::SparseFile("big.hex", 16 * kMiB); },
                 "line 1: data beyond address 100000"}),
    testing::CaseName);

TEST(ReadRegularFile, NeverHoldsMoreThanTheLimit) {
  const std::string ten = testing::WriteTempFile("ten", "0123456789");
  const std::string empty = testing::WriteTempFile("empty", "");
  struct Row {
    const std::string& Path;
    size_t Limit;
    FileProblem Problem;
    const char* Bytes;
  };
  const Row rows[] = {{ten, 10, FileProblem::None, "0123456789"},
                      {ten, 9, FileProblem::TooLarge, ""},
                      {empty, 0, FileProblem::None, ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.Path + " limit " + std::to_string(row.Limit));
    const FileBytes file = ReadRegularFile(row.Path, row.Limit);
    EXPECT_EQ(file.Problem, row.Problem) << file.Detail;
    EXPECT_EQ(file.Bytes, row.Bytes);
  }
}

TEST(ReadHexFile, HostileCorpusFailsWithItsReason) {
  const auto corpus = testing::HostileCorpus();
  std::set<std::string> listed;
  for (const auto& file : corpus) {
    SCOPED_TRACE(file.Path);
    listed.insert(std::filesystem::path(file.Path).filename().string());
    bool encrypted = false;
    const HexReadResult result = ReadHexFile(file.Path, encrypted);
    EXPECT_EQ(result.Reason, file.Reason);
    EXPECT_TRUE(result.FirmwareString.empty());
  }
  // A file added to the folder without its reason would go untested.
  for (const auto& entry : std::filesystem::directory_iterator(testing::HostileCorpusDir())) {
    const std::string name = entry.path().filename().string();
    if (name != "reasons.txt") {
      EXPECT_EQ(listed.count(name), 1u) << name << " has no reason";
    }
  }
  EXPECT_GE(corpus.size(), 8u);
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
