// A shift's yield from record lines.
#include <gtest/gtest.h>

#include "production/record_report.h"

namespace palimbo {
namespace {

std::string Line(const std::string& Time, const std::string& File, char Sha,
                 const std::string& Unit, const std::string& Outcome, int Exit,
                 const std::string& Host = "station3") {
  return R"({"id":"x","time":")" + Time + R"(","host":")" + Host + R"(","unit":")" + Unit +
         R"(","file":"C:\\line\\)" + File + R"(","file_sha256":")" + std::string(64, Sha) +
         R"(","outcome":")" + Outcome + R"(","exit_status":)" + std::to_string(Exit) + "}";
}

const std::vector<std::string> kShift = {
    Line("2026-11-24T22:00:00Z", "a.hex", 'a', "U0", "verified", 0),
    Line("2026-11-25T06:01:00Z", "a.hex", 'a', "U1", "verified", 0),
    // A station's clock may put a line behind one written later: U2 failed first.
    Line("2026-11-25T06:05:00Z", "a.hex", 'a', "U2", "verified", 0),
    Line("2026-11-25T06:03:00Z", "a.hex", 'a', "U2", "failed", 1, "station4"),
    Line("2026-11-25T06:02:00Z", "b.hex", 'b', "U4", "verified", 0),
    "{\"other\":1}",
    "not JSON",
    Line("2026-11-25T06:06:00Z", "a.hex", 'a', "U3", "already current", 0),
    Line("2026-11-25T06:07:00Z", "a.hex", 'a', "", "verified", 0),
    Line("2026-11-25T06:08:00Z", "a.hex", 'a', "U2", "verified", 0),
};

TEST(Report, CountsEachReleaseAndItsFirstPassYield) {
  const std::vector<ReportRow> rows = ReportOf(kShift, ReportBy::Release, "2026-11-25");
  ASSERT_EQ(rows.size(), 2u);
  const ReportRow& a = rows[0];
  EXPECT_EQ(a.Release, "a.hex aaaaaaaaaaaa");
  EXPECT_EQ(a.Uploads, 6);
  EXPECT_EQ(a.Verified, 4);
  EXPECT_EQ(a.Current, 1);
  EXPECT_EQ(a.Failed, 1);
  EXPECT_EQ(a.Units, 3);      // U1, U2, U3; the line without a unit names none
  EXPECT_EQ(a.FirstPass, 1);  // U2 failed first, U3 was not written
  EXPECT_EQ(a.SeenTwice, 1);  // U2, three times
  EXPECT_DOUBLE_EQ(a.FirstPassYield(), 1.0 / 3);
  EXPECT_EQ(rows[1].Release, "b.hex bbbbbbbbbbbb");
  EXPECT_EQ(rows[1].Uploads, 1);

  EXPECT_EQ(ReportOf(kShift, ReportBy::Release, "").front().Uploads, 7);
  const std::vector<ReportRow> hosts = ReportOf(kShift, ReportBy::Host, "2026-11-25");
  ASSERT_EQ(hosts.size(), 3u);
  EXPECT_EQ(hosts[1].By, "station4");
  EXPECT_EQ(hosts[1].Failed, 1);
  const std::vector<ReportRow> days = ReportOf(kShift, ReportBy::Day, "");
  ASSERT_EQ(days.size(), 3u);
  EXPECT_EQ(days[0].By, "2026-11-24");
  const std::vector<ReportRow> units = ReportOf(kShift, ReportBy::Unit, "2026-11-25");
  ASSERT_EQ(units.size(), 5u);
  EXPECT_EQ(units[1].By, "U2");
  EXPECT_EQ(units[1].Uploads, 3);
  EXPECT_EQ(units[4].FirstPassYield(), -1);  // the line without a unit
}

}  // namespace
}  // namespace palimbo
