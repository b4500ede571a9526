#include <fnmatch.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "adapter/controller_family.h"

namespace palimbo {
namespace {

// The patterns of the rule's product match, split at "|" as udev splits them.
std::vector<std::string> ProductPatterns() {
  std::ifstream rule(PALIMBO_UDEV_RULE);
  std::stringstream text;
  text << rule.rdbuf();
  const std::string key = "ATTRS{product}==\"";
  const std::string all = text.str();
  const size_t start = all.find(key);
  EXPECT_NE(start, std::string::npos) << "no product match in " << PALIMBO_UDEV_RULE;
  if (start == std::string::npos) return {};
  const size_t begin = start + key.size();
  std::stringstream alternatives(all.substr(begin, all.find('"', begin) - begin));
  std::vector<std::string> patterns;
  for (std::string p; std::getline(alternatives, p, '|');) patterns.push_back(p);
  return patterns;
}

bool RuleMatches(const std::vector<std::string>& Patterns, const std::string& Product) {
  for (const auto& p : Patterns) {
    if (fnmatch(p.c_str(), Product.c_str(), 0) == 0) return true;
  }
  return false;
}

struct ProductCase {
  const char* Product;
  bool Controller;
};

const ProductCase kProducts[] = {
    {"KV PC-KESTROLAR [A1]", true},
    {"KV MINI-KESTROLAR 2", true},
    {"KV KESTROLAR 12", true},
    {"kv kestrolar a1", true},            // any case
    {"Cable KV Mini-Kestrolar 2", true},  // the family string in the middle
    {"KV Pc-Kestrolar x", true},
    {"KV KESTROLAR", false},  // without its closing blank
    {"KV PC-KESTROLAR[2]", false},
    {"KV  KESTROLAR 1", false},
    {"FT232R USB UART", false},
    {"KESTROLAR 1", false},
    {"", false},
};

// The system's rule and the tool's own scan must accept the very same adapters.
TEST(UdevRule, MatchesTheControllerFamilyLikeTheScan) {
  const auto patterns = ProductPatterns();
  ASSERT_EQ(patterns.size(), std::size(kFamilyStrings));
  for (const ProductCase& c : kProducts) {
    SCOPED_TRACE(c.Product);
    EXPECT_EQ(IsFamilyDescription(c.Product), c.Controller);
    EXPECT_EQ(RuleMatches(patterns, c.Product), c.Controller);
  }
}

}  // namespace
}  // namespace palimbo
