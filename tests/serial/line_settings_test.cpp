#include "serial/line_settings.h"

#include <gtest/gtest.h>

#include <string>

namespace palimbo {
namespace {

// "baud parity data stop", "-" for a field the text left out, "bad" for a refused text.
std::string Show(const std::optional<LineSettings>& S) {
  if (!S) return "bad";
  const char* stops[] = {"1", "1.5", "2"};
  return (S->Baud ? std::to_string(*S->Baud) : "-") + ' ' +
         (S->Parity ? "NEOMS"[static_cast<int>(*S->Parity)] : '-') + ' ' +
         (S->DataBits ? std::to_string(*S->DataBits) : "-") + ' ' +
         (S->StopBits ? stops[static_cast<int>(*S->StopBits)] : "-");
}

TEST(ParseLineSettings, OneRowPerRule) {
  // clang-format off
  // A rate the port cannot set still parses; only the port judges it.
  const std::pair<const char*, const char*> cases[] = {
      {"9600,e,7,2", "9600 E 7 2"}, {"1200,O,5,1.5", "1200 O 5 1.5"}, {"4800,m,6", "4800 M 6 -"},
      {" 57600 , S , 8 , 1 ", "57600 S 8 1"}, {"96,N", "9600 N - -"}, {"57601", "57601 - - -"},
      {"parity=n", "- N - -"}, {"stop=2 DATA=7 Parity=e BAUD=9600", "9600 E 7 2"},
      {" baud=19   stop=1.5 ", "19200 - - 1.5"},
      {"baud=57600 xon=off to=on odsr=OFF octs=off dtr=on rts=off idsr=on", "57600 - - -"},
      {"57600,X,8,1", "bad"}, {"57600,NO,8,1", "bad"}, {"abc", "bad"}, {"0,N", "bad"},
      {"99999999999", "bad"}, {"57600,N,4", "bad"}, {"57600,N,9", "bad"}, {"   ", "bad"},
      {"57600,N,8,1.0", "bad"}, {"57600,N,8,1,x", "bad"}, {"57600,,8,1", "bad"}, {"baud=", "bad"},
      {"baud=96 dtr=hs", "bad"}, {"parity=x", "bad"}, {"data=9", "bad"}, {"stop=3", "bad"},
      {"speed=57600", "bad"}, {"baud=96 8", "bad"}, {"baud=96,N", "bad"},
  };
  // clang-format on
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(Show(ParseLineSettings(text)), expected) << "text '" << text << "'";
  }
}

}  // namespace
}  // namespace palimbo
