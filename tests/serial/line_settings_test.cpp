#include "serial/line_settings.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace palimbo {
namespace {

struct ParseCase {
  std::string Text;
  std::optional<LineSettings> Expected;
};

LineSettings Settings(std::optional<int32_t> Baud, std::optional<ParityKind> Parity = {},
                      std::optional<int32_t> DataBits = {}, std::optional<StopKind> Stop = {}) {
  return LineSettings{Baud, Parity, DataBits, Stop};
}

constexpr auto N = ParityKind::None;
constexpr auto E = ParityKind::Even;
constexpr auto O = ParityKind::Odd;
constexpr auto M = ParityKind::Mark;
constexpr auto S = ParityKind::Space;

const ParseCase kCases[] = {
    // The short form, as the tool itself builds it, and with fields left out from the back.
    {"57600,N,8,1", Settings(57600, N, 8, StopKind::One)},
    {"57600,n,8,1", Settings(57600, N, 8, StopKind::One)},
    {"9600,e,7,2", Settings(9600, E, 7, StopKind::Two)},
    {"1200,O,5,1.5", Settings(1200, O, 5, StopKind::OneAndHalf)},
    {"4800,m,6,1", Settings(4800, M, 6, StopKind::One)},
    {"4800,S,8,1", Settings(4800, S, 8, StopKind::One)},
    {"57600,n,8", Settings(57600, N, 8)},
    {"57600,E", Settings(57600, E)},
    {"57600", Settings(57600)},
    {" 57600 , N , 8 , 1 ", Settings(57600, N, 8, StopKind::One)},
    {"96,N,8,1", Settings(9600, N, 8, StopKind::One)},
    {"19", Settings(19200)},
    {"11", Settings(110)},
    {"115200,N,8,1", Settings(115200, N, 8, StopKind::One)},
    // Numbers the driver has to judge still parse; only the port may refuse them.
    {"57601,N,8,1", Settings(57601, N, 8, StopKind::One)},
    {"57600,X,8,1", std::nullopt},
    {"abc", std::nullopt},
    {"57600,N,9,1", std::nullopt},
    {"57600,N,4,1", std::nullopt},
    {"57600,N,8,3", std::nullopt},
    {"57600,N,8,1.0", std::nullopt},
    {"57600,N,8,1,x", std::nullopt},
    {"57600,,8,1", std::nullopt},
    {"57600,", std::nullopt},
    {",N,8,1", std::nullopt},
    {"0,N,8,1", std::nullopt},
    {"-9600,N,8,1", std::nullopt},
    {"57600,NO,8,1", std::nullopt},
    {"99999999999,N,8,1", std::nullopt},
    {"", std::nullopt},
    {"   ", std::nullopt},
    // The keyword form: any order, keys and letters in any case.
    {"baud=57600 parity=N data=8 stop=1", Settings(57600, N, 8, StopKind::One)},
    {"stop=2 DATA=7 Parity=e BAUD=9600", Settings(9600, E, 7, StopKind::Two)},
    {"baud=19200", Settings(19200)},
    {"baud=96 stop=1.5", Settings(9600, {}, {}, StopKind::OneAndHalf)},
    {"  baud=57600   parity=o  ", Settings(57600, O)},
    {"baud=57600 xon=off to=on odsr=OFF octs=off dtr=on rts=off idsr=on", Settings(57600)},
    {"parity=n", Settings({}, N)},
    {"baud=57600 dtr=hs", std::nullopt},
    {"baud=57600 rts=tg", std::nullopt},
    {"baud=57600 xon=", std::nullopt},
    {"baud=", std::nullopt},
    {"baud=57600 parity=x", std::nullopt},
    {"baud=57600 data=9", std::nullopt},
    {"baud=57600 stop=3", std::nullopt},
    {"baud=57600 speed=fast", std::nullopt},
    {"baud=57600 8", std::nullopt},
    {"baud = 57600", std::nullopt},
    {"baud=57600,N,8,1", std::nullopt},
};

TEST(ParseLineSettings, TableOfModeTexts) {
  for (const auto& c : kCases) {
    EXPECT_EQ(ParseLineSettings(c.Text), c.Expected) << "text '" << c.Text << "'";
  }
}

}  // namespace
}  // namespace palimbo
