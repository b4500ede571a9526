#include "serial/telnet_codec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serial/serial_remote.h"

namespace palimbo {
namespace {

using namespace std::string_literals;

struct DecodeCase {
  const char* Name;
  std::vector<std::string> Pieces;  // what the server sends, in the pieces TCP hands them on
  std::string Data;                 // the data bytes the client must see
  std::string Replies;              // what the client must answer
  std::vector<ComPortNotice> Notices;
};

std::string AllBytes() {
  std::string bytes;
  for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
  return bytes;
}

TEST(TelnetDecoder, OneRowPerRule) {
  // clang-format off
  const DecodeCase cases[] = {
      {"every byte value survives escaping", {TelnetEscape(AllBytes())}, AllBytes(), "", {}},
      {"a doubled 0xFF split between reads", {"A\xff", "\xff" "B"}, "A\xff" "B", "", {}},
      {"a port notice with an escaped 0xFF in its value",
       {"\xff\xfa\x2c\x65\x00\x00\xff"s, "\xff\x00\xff\xf0" "C"s}, "C", "", {{101, "\0\0\xff\0"s}}},
      {"the server's acknowledgements of our offers need no answer",
       {"\xff\xfd\x00\xff\xfb\x00\xff\xfd\x2c\xff\xfb\x03"s}, "", "", {}},
      {"an unknown option is refused once however often it comes",
       {"\xff\xfd\x18\xff\xfd\x18\xff\xfb\x01\xff\xfb\x01"}, "", "\xff\xfc\x18\xff\xfe\x01", {}},
      {"a withdrawn option is acknowledged", {"\xff\xfc\x00\xff\xfe\x03"s},
       "", "\xff\xfe\x00\xff\xfc\x03"s, {}},
      {"a command inside a subnegotiation ends it and counts",
       {"\xff\xfa\x2c\x65\x01\xff\xfd\x18Z"}, "Z", "\xff\xfc\x18", {}},
      {"lone commands and a stray SE are dropped", {"\xff\xf1X\xff\xf0Y\xff\xf9"}, "XY", "", {}},
      {"an overlong subnegotiation is dropped",
       {"\xff\xfa\x2c\x65" + std::string(100, 'a') + "\xff\xf0Q"}, "Q", "", {}},
  };
  // clang-format on
  for (const DecodeCase& c : cases) {
    TelnetDecoder decoder;
    decoder.Greeting();
    std::string data, replies;
    for (const std::string& piece : c.Pieces) decoder.Feed(piece, data, replies);
    EXPECT_EQ(data, c.Data) << c.Name;
    EXPECT_EQ(replies, c.Replies) << c.Name;
    EXPECT_EQ(decoder.Notices(), c.Notices) << c.Name;
  }
}

TEST(RemotePortUrl, NamesAndSettingStrings) {
  // clang-format off
  const std::pair<const char*, const char*> names[] = {
      {"rfc2217://127.0.0.1:2000", "telnet 127.0.0.1 2000"}, {"socket://[::1]:7", "raw ::1 7"},
      {"SOCKET://box.local:65535", "raw box.local 65535"}, {"rfc2217://host", "bad"},
      {"rfc2217://:2000", "bad"}, {"socket://h:0", "bad"}, {"socket://h:65536", "bad"},
      {"socket://h:12x", "bad"}, {"rfc2217://[::1:5", "bad"}, {"tcp://h:1", "bad"},
      {"/dev/ttyUSB0", "bad"},
  };
  // clang-format on
  for (const auto& [name, expected] : names) {
    std::string error;
    const auto url = ParseRemotePortUrl(name, error);
    const std::string got =
        url ? (url->Telnet ? "telnet " : "raw ") + url->Host + " " + url->Port : "bad";
    EXPECT_EQ(got, expected) << name;
    EXPECT_EQ(error.empty(), url.has_value()) << name;
  }
  // A setting string is cut at its first ":", behind the scheme.
  using Split = std::optional<std::pair<std::string, std::string>>;
  EXPECT_EQ(SplitRemoteSetting("rfc2217", "//[::1]:2000:57600,N,8,1"),
            Split({"rfc2217://[::1]:2000", "57600,N,8,1"}));
  EXPECT_EQ(SplitRemoteSetting("socket", "//h:1:baud=9600 parity=n"),
            Split({"socket://h:1", "baud=9600 parity=n"}));
  EXPECT_EQ(SplitRemoteSetting("COM7", "57600,N,8,1"), std::nullopt);
  EXPECT_EQ(SplitRemoteSetting("socket", "//h:57600,N,8,1"), std::nullopt);
}

}  // namespace
}  // namespace palimbo
