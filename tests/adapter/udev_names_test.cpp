// The names the udev rule gives a controller's adapter, by a small reading of the rule: the
// keys it uses, with udev's meaning (ATTRS of one rule match on one device up the tree).
#include <fnmatch.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace palimbo {
namespace {

using Attributes = std::map<std::string, std::string>;

struct Key {
  std::string Name, Op, Value;
};

// One rule line as its keys; the values are quoted and hold no '"'.
std::vector<Key> ParseRule(const std::string& Line) {
  std::vector<Key> keys;
  for (size_t at = 0; (at = Line.find_first_not_of(", ", at)) != std::string::npos;) {
    const size_t op = Line.find_first_of("=!+", at);
    const size_t open = Line.find('"', op);
    const size_t close = Line.find('"', open + 1);
    keys.push_back({Line.substr(at, op - at), Line.substr(op, open - op),
                    Line.substr(open + 1, close - open - 1)});
    at = close + 1;
  }
  return keys;
}

bool Matches(const std::string& Patterns, const std::string& Value) {
  std::stringstream alternatives(Patterns);
  for (std::string p; std::getline(alternatives, p, '|');) {
    if (fnmatch(p.c_str(), Value.c_str(), 0) == 0) return true;
  }
  return false;
}

// The symlinks the rule file gives a tty whose USB parents, nearest first, are `Parents`.
std::set<std::string> Names(const std::vector<Attributes>& Parents, const Attributes& Env) {
  std::ifstream file(PALIMBO_UDEV_RULE);
  std::vector<std::vector<Key>> rules;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') rules.push_back(ParseRule(line));
  }
  std::set<std::string> names;
  std::string skipTo;
  for (const auto& rule : rules) {
    if (!skipTo.empty()) {
      if (rule[0].Name == "LABEL" && rule[0].Value == skipTo) skipTo.clear();
      continue;
    }
    // The ATTRS keys must all match on one parent; `matched` is that parent.
    const Attributes* matched = nullptr;
    bool ok = true;
    for (const Attributes& parent : Parents) {
      bool all = true;
      for (const Key& k : rule) {
        if (k.Name.rfind("ATTRS{", 0) != 0) continue;
        const auto a = parent.find(k.Name.substr(6, k.Name.size() - 7));
        all = all && a != parent.end() && Matches(k.Value, a->second) == (k.Op == "==");
      }
      if (all) {
        matched = &parent;
        break;
      }
    }
    for (const Key& k : rule) {
      if (k.Name == "ACTION") ok = ok && Matches(k.Value, "add") == (k.Op == "==");
      if (k.Name == "SUBSYSTEM") ok = ok && Matches(k.Value, "tty") == (k.Op == "==");
      if (k.Name.rfind("ATTRS{", 0) == 0) ok = ok && matched != nullptr;
      if (k.Name.rfind("ENV{", 0) == 0 && k.Op == "==") {
        const auto e = Env.find(k.Name.substr(4, k.Name.size() - 5));
        ok = ok && Matches(k.Value, e == Env.end() ? "" : e->second);
      }
    }
    if (!ok) continue;
    for (const Key& k : rule) {
      if (k.Name == "GOTO") skipTo = k.Value;
      if (k.Name != "SYMLINK") continue;
      std::string name = k.Value;
      const auto value = [](const Attributes* Where, const char* Name) {
        const auto found = Where ? Where->find(Name) : Attributes::const_iterator();
        return Where && found != Where->end() ? found->second : std::string();
      };
      for (const auto& [var, text] :
           {std::pair{std::string("$attr{serial}"), value(matched, "serial")},
            std::pair{std::string("$env{ID_PATH}"), value(&Env, "ID_PATH")}}) {
        if (const size_t at = name.find(var); at != std::string::npos)
          name.replace(at, var.size(), text);
      }
      // string_escape=replace: a blank in a value would otherwise split it into two names.
      for (char& c : name) c = c == ' ' ? '_' : c;
      names.insert(name);
    }
  }
  return names;
}

TEST(UdevRule, NamesEachAdapterByWhatDoesNotMove) {
  const Attributes hub = {{"product", "xHCI Host Controller"}, {"serial", "0000:00:14.0"}};
  const std::string place = "pci-0000:00:14.0-usb-0:1.4:1.0";
  struct Case {
    Attributes Adapter;
    std::set<std::string> Expected;
  };
  const Case cases[] = {
      {{{"product", "KV PC-KESTROLAR [A1]"}, {"serial", "A50285BI"}}, {"kestrolar-A50285BI"}},
      {{{"product", "KV MINI-KESTROLAR 2"}, {"serial", "FT 12"}}, {"kestrolar-FT_12"}},
      // Without a serial number of its own, not the hub's: its place on the bus.
      {{{"product", "KV KESTROLAR 12"}}, {"kestrolar-" + place}},
      {{{"product", "FT232R USB UART"}, {"serial", "A1"}}, {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Names({c.Adapter, hub}, {{"ID_PATH", place}}), c.Expected) << c.Adapter.at("product");
  }
}

}  // namespace
}  // namespace palimbo
