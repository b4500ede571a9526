// Units as a scanner types them, and the ids of record lines.
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "production/unit.h"

namespace palimbo {
namespace {

TEST(Unit, AScannedLineNamesItsUnitOrIsRefusedWithItsReason) {
  struct Row {
    std::string Pattern, Line, Unit, Why;
  } const rows[] = {
      {"", "SN-0001\r\n", "SN-0001", ""},
      {"", " \t\r", "", "an empty line names no unit"},
      {"SN-[0-9]{4}", "  SN-0042 ", "SN-0042", ""},
      {"SN-[0-9]{4}", "SN-00421", "", "unit 'SN-00421' does not match the pattern SN-[0-9]{4}"},
      {"SN-[0-9]{4}", "xSN-0042", "", "unit 'xSN-0042' does not match"},
      {"(?:A|B)-\\d+", "B-7", "B-7", ""},
  };
  for (const Row& row : rows) {
    std::string error, why;
    const std::optional<UnitRule> rule = UnitRule::Make(row.Pattern, error);
    ASSERT_TRUE(rule) << error;
    EXPECT_EQ(rule->Take(row.Line, why).value_or(""), row.Unit) << row.Line;
    EXPECT_EQ(why.substr(0, row.Why.size()), row.Why) << row.Line;
  }
  std::string error;
  EXPECT_FALSE(UnitRule::Make("SN-[0-9", error));
  EXPECT_NE(error.find("'SN-[0-9' is no regular expression"), std::string::npos) << error;
}

TEST(Unit, RecordIdsAreRandomUuidsOfVersion4) {
  const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> ids;
  std::set<char> variants;
  for (int i = 0; i < 2000; ++i) {
    const std::string id = NewRecordId();
    ASSERT_TRUE(std::regex_match(id, form)) << id;
    ids.insert(id);
    variants.insert(id[19]);
  }
  EXPECT_EQ(ids.size(), 2000u);
  EXPECT_EQ(variants.size(), 4u);  // the random bits beside the variant's are random
}

}  // namespace
}  // namespace palimbo
