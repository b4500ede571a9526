// A station profile: each key into the request, each wrong value refused by its key's name.
#include <filesystem>

#include <gtest/gtest.h>

#include "production/profile.h"
#include "support/temp_file.h"

namespace palimbo {
namespace {

using testing::WriteTempFile;

const std::string kSha(64, 'a');

struct Row {
  const char* Name;
  std::string Text;
  std::string Error;  // a part of the message; empty when the profile is good
};

class ProfileTest : public ::testing::TestWithParam<Row> {};

TEST_P(ProfileTest, RefusesByTheKeysName) {
  const std::string path = WriteTempFile("station.json", GetParam().Text);
  std::string error;
  ReadProfile(path, error);
  EXPECT_NE(error.find("profile " + path + ": "), std::string::npos) << error;
  EXPECT_NE(error.find(GetParam().Error), std::string::npos) << error;
}

std::string With(const std::string& Keys) {
  return R"({"file": "fw.hex", "port": "COM3", )" + Keys + "}";
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, ProfileTest,
    ::testing::Values(
        Row{"NotJson", "{\"file\": ", "not JSON: parse error at line 1, column 10"},
        Row{"NotAnObject", "[1]", "expected a JSON object"},
        Row{"UnknownKey", With(R"("json": true)"),
            "unknown key 'json'; the keys are ask-unit, count, "},
        Row{"KeyTwice", R"({"file": "a.hex", "port": "COM3", "file": "b.hex"})",
            "'file' is given twice"},
        Row{"NoFile", R"({"port": "COM3"})", "'file' is missing"},
        Row{"NoPort", R"({"file": "fw.hex"})", "'port' is missing"},
        Row{"FileNotText", R"({"file": 7, "port": "COM3"})", "'file': expected a text"},
        Row{"FileEmpty", R"({"file": "", "port": "COM3"})", "'file': empty"},
        Row{"RecordEmpty", With(R"("record": "")"), "'record': empty"},
        Row{"PortsNone", R"({"file": "fw.hex", "port": []})", "'port': expected a port name"},
        Row{"PortNotText", R"({"file": "fw.hex", "port": ["COM3", 4]})",
            "'port': expected a port name"},
        Row{"PortEmpty", R"({"file": "fw.hex", "port": ["COM3", ""]})", "'port': empty"},
        Row{"PortTwice", R"({"file": "fw.hex", "port": ["COM3", "COM3"]})",
            "port COM3 is given twice"},
        Row{"PortUnknownScheme", R"({"file": "fw.hex", "port": "tcp://h:1"})",
            "unknown scheme 'tcp'"},
        Row{"CountZero", With(R"("count": 0)"), "'count': expected a whole number from 1 to"},
        Row{"CountTooMany", With(R"("count": 1000001)"), "'count': expected a whole number"},
        Row{"CountFraction", With(R"("count": 1.5)"), "'count': expected a whole number"},
        Row{"CountText", With(R"("count": "3")"), "'count': expected a whole number"},
        Row{"GiveUpNegative", With(R"("give-up-after": -1)"), "'give-up-after': expected"},
        Row{"GiveUpTooShort", With(R"("give-up-after": 35)"),
            "give-up-after 35 is shorter than a healthy module may stay silent (36 s"},
        Row{"CheckGiveUpTooShort", With(R"("verify": true, "give-up-after": 21)"),
            "give-up-after 21 is shorter than a healthy module may stay silent (22 s"},
        Row{"SkipSameNotFlag", With(R"("skip-same": "yes")"),
            "'skip-same': expected true or false"},
        Row{"VerifyNotFlag", With(R"("verify": 1)"), "'verify': expected true or false"},
        Row{"AskUnitNotFlag", With(R"("ask-unit": "yes")"), "'ask-unit': expected true or false"},
        Row{"UnitPatternBad", With(R"("ask-unit": true, "unit-pattern": "[")"),
            "unit-pattern '[' is no regular expression"},
        Row{"CheckAndSkip", With(R"("verify": true, "skip-same": true)"),
            "'skip-same' and 'verify' exclude each other"},
        Row{"ShaShort", With(R"("expect-sha256": "12ab")"), "expect-sha256 '12ab' is no SHA-256"},
        Row{"ShaLong", With(R"("expect-sha256": ")" + kSha + R"(0")"), "0' is no SHA-256"}),
    [](const auto& Info) { return std::string(Info.param.Name); });

TEST(Profile, EveryKeyReachesTheRequestAndPathsAreTakenFromTheProfilesFolder) {
  const std::string path = WriteTempFile(
      "station.json",
      R"({"file": "fw.hex", "port": ["COM3", "COM4"], "record": "rec.jsonl", "trace": "t.txt",
          "expect-sha256": ")" +
          std::string(64, 'A') + R"(", "skip-same": true, "count": 7, "give-up-after": 0})");
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::string error;
  const RunRequest request = ReadProfile(path, error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(request.File, (folder / "fw.hex").string());
  EXPECT_EQ(request.RecordFile, (folder / "rec.jsonl").string());
  EXPECT_EQ(request.TraceFile, (folder / "t.txt").string());
  EXPECT_EQ(request.Ports, (std::vector<std::string>{"COM3", "COM4"}));
  EXPECT_EQ(request.ExpectSha256, kSha);
  EXPECT_EQ(request.Mode, WriteMode::UnlessSame);
  EXPECT_EQ(request.StationCount, 7);
  EXPECT_EQ(request.GiveUpAfterSeconds, 0);
  EXPECT_TRUE(request.Station);

  const std::string absolute = (folder / "elsewhere" / "fw.hex").generic_string();
  const std::string check =
      WriteTempFile("check.json", R"({"file": ")" + absolute + R"(", "port": "COM3",
                                      "verify": true, "give-up-after": 22, "ask-unit": true,
                                      "unit-pattern": "SN-\\d+"})");
  const RunRequest checking = ReadProfile(check, error);
  ASSERT_EQ(error, "");
  EXPECT_EQ(checking.File, absolute);
  EXPECT_EQ(checking.Mode, WriteMode::Never);
  EXPECT_EQ(checking.StationCount, 0);
  EXPECT_EQ(checking.RecordFile, "");
  EXPECT_TRUE(checking.AskUnit);
  EXPECT_EQ(checking.UnitPattern, "SN-\\d+");

  ReadProfile((folder / "none.json").string(), error);
  EXPECT_NE(error.find("none.json: cannot read"), std::string::npos) << error;
}

}  // namespace
}  // namespace palimbo
