#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/hex_file.h"

namespace palimbo {
namespace {

// Good records used throughout: 0x55 at 0, 0xAA at 1, end of file.
const std::string A = ":0100000055AA";
const std::string B = ":01000100AA54";
const std::string Eof = ":00000001FF";

std::string Zeros(size_t Count) {
  return std::string(Count * 2, '0');
}

struct ReadCase {
  const char* Name;
  std::string Text;
  std::string ImageHex;  // expected image as MakeHex gives it
  std::string Reason;    // expected failure reason, empty for a good read
};

class ReadHexTextTest : public ::testing::TestWithParam<ReadCase> {};

TEST_P(ReadHexTextTest, GivesImageOrReason) {
  const ReadCase& c = GetParam();
  bool encrypted = false;
  const HexReadResult result = ReadHexText(c.Text, encrypted);
  EXPECT_EQ(result.Reason, c.Reason);
  EXPECT_EQ(MakeHex(result.FirmwareString), c.ImageHex);
}

std::string CaseName(const ::testing::TestParamInfo<ReadCase>& Info) {
  return Info.param.Name;
}

INSTANTIATE_TEST_SUITE_P(
    LineSplitting, ReadHexTextTest,
    ::testing::Values(
        ReadCase{"CrLf", A + "\r\n" + B + "\r\n" + Eof + "\r\n", "55AA", ""},
        ReadCase{"LfOnly", A + "\n" + B + "\n" + Eof + "\n", "55AA", ""},
        ReadCase{"CrOnly", A + "\r" + B + "\r" + Eof + "\r", "55AA", ""},
        ReadCase{"LastLineWithoutEnd", A + "\r\n" + B, "55AA", ""},
        // A bare CR or LF in front of a later CR LF stays inside the line; here the joined line
        // even passes its checksum, and every byte behind the type counts as data.
        ReadCase{"BareCrBeforeCrLf", A + "\r" + B + "\r\n", "55AA0001000100AA", ""},
        ReadCase{"BareLfBeforeCrLf", A + "\n" + B + "\r\n" + Eof, "55AA0001000100AA", ""},
        ReadCase{"CrBeforeLfWithoutCrLf", A + "\n" + B + "\r", "55AA0001000100AA", ""},
        ReadCase{"CrSplitsBeforeLf", A + "\r" + B + "\n", "55AA", ""},
        ReadCase{"LfCrIsTwoEnds", A + "\n\r" + B, "55AA", ""},
        ReadCase{"WorkedExample", ":02000000AABB99\r\n:0100100011DE\r\n:00000001FF\r\n",
                 "AABB" + Zeros(14) + "11", ""}),
    CaseName);

INSTANTIATE_TEST_SUITE_P(
    BlankLinesAndRecordMark, ReadHexTextTest,
    ::testing::Values(ReadCase{"EmptyText", "", "", ""},
                      ReadCase{"BlankLinesAnywhere",
                               "   \r\n\r\n" + A + "\r\n \r\n\r\n" + B + "\r\n  ", "55AA", ""},
                      ReadCase{"TabIsNoBlank", A + "\r\n\t\r\n" + B, "",
                               "line 2: record shorter than 4 bytes"},
                      // A leading blank takes the place of the record mark and shifts the digits.
                      ReadCase{"LeadingBlankIsTheMark", " " + A, "", "line 1: checksum mismatch"},
                      ReadCase{"AnyMark", "X0100000055AA", "55", ""},
                      ReadCase{"LowerCaseDigits", ":01000000ab54", "AB", ""}),
    CaseName);

INSTANTIATE_TEST_SUITE_P(
    Checksum, ReadHexTextTest,
    ::testing::Values(ReadCase{"EofWithTrailingBlank", A + "\r\n:00000001FF ", "55", ""},
                      // Odd record bytes: the blank adds a byte 0x00 that becomes the checksum.
                      ReadCase{"OddRecordTrailingBlank", ":020000001122CB ", "1122CB", ""},
                      ReadCase{"EvenRecordTrailingBlankLost", A + " ", "55", ""},
                      ReadCase{"ByteCountTooBig", ":0500000055A6", "55", ""},
                      ReadCase{"ByteCountZero", ":000000001122CD", "1122", ""},
                      // In a record of four bytes the type doubles as the checksum.
                      ReadCase{"FourByteRecord", ":FF010000", Zeros(256), ""},
                      ReadCase{"BadChecksum", ":0100000055AB", "", "line 1: checksum mismatch"},
                      ReadCase{"BadLineFailsWholeRead", A + "\r\n" + B + "\r\n:0100020077FF", "",
                               "line 3: checksum mismatch"},
                      ReadCase{"BadEofRecord", A + "\r\n:00000001FE", "",
                               "line 2: checksum mismatch"}),
    CaseName);

INSTANTIATE_TEST_SUITE_P(
    RecordTypes, ReadHexTextTest,
    ::testing::Values(
        ReadCase{"RecordsBehindEof", A + "\r\n" + Eof + "\r\n" + B, "55AA", ""},
        ReadCase{"LinearAddressIgnored", ":020000040001F9\r\n" + A, "55", ""},
        ReadCase{"StartAddressIgnored", ":0400000500000000F7\r\n" + A, "55", ""},
        ReadCase{"Segment", ":020000020100FB\r\n" + A, Zeros(0x1000) + "55", ""},
        ReadCase{"SegmentExtraData", ":02000002010011EA\r\n" + A, Zeros(0x1000) + "55", ""},
        ReadCase{"SegmentByteCountResets", ":020000020100FB\r\n:03000002010000FA\r\n" + A, "55",
                 ""},
        ReadCase{"SegmentAddressResets", ":020000020100FB\r\n:020010020100EB\r\n" + A, "55", ""},
        ReadCase{"SegmentShortDataResets", ":020000020100FB\r\n:0200000201FB\r\n" + A, "55", ""},
        ReadCase{"SegmentPastBuffer", ":02000002187074\r\n" + A, "",
                 "line 2: data beyond address 100000"}),
    CaseName);

INSTANTIATE_TEST_SUITE_P(
    AddressesAndLimits, ReadHexTextTest,
    ::testing::Values(
        ReadCase{"StartsAt0x1000", ":01100000559A", Zeros(0x1000) + "55", ""},
        ReadCase{"EmptyRecordStretches", ":00100000F0", Zeros(0x1000), ""},
        ReadCase{"NoWrapPast0xFFFF", ":04FFFE001122334455", Zeros(0xFFFE) + "11223344", ""},
        ReadCase{"Overlap", ":040000001122334452\r\n:02000100AABB98", "11AABB44", ""},
        ReadCase{"AnyOrder", B + "\r\n" + A, "55AA", ""},
        ReadCase{"LastIndexAccepted", ":020000021000EC\r\n:0186A0005584", Zeros(100000) + "55", ""},
        ReadCase{"OnePastLastFails", ":020000021000EC\r\n:0186A1005583", "",
                 "line 2: data beyond address 100000"},
        ReadCase{"RunsUpToLastIndex", ":020000021000EC\r\n:02869F001122A6", Zeros(99999) + "1122",
                 ""},
        ReadCase{"RunsPastLastIndex", ":020000021000EC\r\n:03869F0011223372", "",
                 "line 2: data beyond address 100000"},
        ReadCase{"EmptyRecordAtBufferEnd", ":020000021000EC\r\n:0086A100D9", Zeros(100001), ""},
        ReadCase{"EmptyRecordPastBufferEnd", ":020000021000EC\r\n:0086A200D8", "",
                 "line 2: data beyond address 100000"}),
    CaseName);

INSTANTIATE_TEST_SUITE_P(FailureLines, ReadHexTextTest,
                         ::testing::Values(ReadCase{"MarkAlone", ":", "",
                                                    "line 1: record shorter than 4 bytes"},
                                           ReadCase{"ThreeBytes", A + "\r\n:000000", "",
                                                    "line 2: record shorter than 4 bytes"},
                                           ReadCase{"BlankLinesCount", "\r\n  \r\n:\r\n", "",
                                                    "line 3: record shorter than 4 bytes"},
                                           // The first line holds a bare CR and is one line as cut.
                                           ReadCase{"LinesAsCut", A + "\r" + B + "\r\n:\n", "",
                                                    "line 2: record shorter than 4 bytes"}),
                         CaseName);

TEST(IsEncrypted, SetByMarkerAndNeverCleared) {
  struct Case {
    const char* Name;
    bool Before;
    std::string Text;
    bool After;
    bool Ok;
  };
  const std::vector<Case> cases = {
      {"MarkerAlone", false, ":000000FF01", true, true},
      {"MarkerBehindData", false, A + "\r\n" + Eof + "\r\n:000000FF01", true, true},
      {"MarkerDataNotRead", false, ":020000FF1122CC", true, true},
      {"BadMarkerChecksum", false, ":000000FF02", false, false},
      {"FailureAfterMarkerKeepsIt", false, ":000000FF01\r\n:", true, false},
      {"UnmarkedFileKeepsIt", true, A, true, true},
      {"UnmarkedFile", false, A, false, true},
  };
  for (const Case& c : cases) {
    bool encrypted = c.Before;
    const HexReadResult result = ReadHexText(c.Text, encrypted);
    EXPECT_EQ(encrypted, c.After) << c.Name;
    EXPECT_EQ(result.Ok(), c.Ok) << c.Name;
  }
  bool encrypted = false;
  EXPECT_EQ(MakeHex(ReadHexText(":000000FF01\r\n" + A, encrypted).FirmwareString), "55");
}

TEST(MakeBin, LengthsAndNonHexStop) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"1", ""},
      {"12", "12"},
      {"123", "1203"},
      {"12345", "1234"},
      {"1234567", "12345607"},
      {"123456789", "12345678"},
      {"123456789AB", "123456789A0B"},
      {"1Ed2FFff00", "1ED2FFFF00"},
      {"G1", "00"},
      {"1G", "01"},
      {" F", "00"},
      {"F ", "0F"},
      {"-1", "00"},
      {"\r:", "00"},
  };
  for (const auto& [text, hex] : cases) EXPECT_EQ(MakeHex(MakeBin(text)), hex) << text;
}

TEST(MakeHex, UpperCasePairsAndRoundTrip) {
  EXPECT_EQ(MakeHex(std::string("\x0A\xFF", 2)), "0AFF");
  EXPECT_EQ(MakeHex(std::string("\x00\x10", 2)), "0010");
  EXPECT_EQ(MakeHex(""), "");
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  const std::string hex = MakeHex(all);
  EXPECT_EQ(hex.substr(0x9A * 2, 4), "9A9B");
  EXPECT_EQ(MakeBin(hex), all);
}

}  // namespace
}  // namespace palimbo
