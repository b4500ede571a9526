#include "serial/telnet_codec.h"

#include <gmock/gmock.h>
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
  bool Suspended = false;  // the server holds the client's data back
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
      {"an unknown option is refused once each way however often it comes",
       {"\xff\xfd\x18\xff\xfd\x18\xff\xfb\x18\xff\xfb\x18"}, "", "\xff\xfc\x18\xff\xfe\x18", {}},
      {"a refusal of our request needs no answer, a withdrawal does",
       {"\xff\xfc\x03\xff\xfd\x00\xff\xfe\x00"s}, "", "\xff\xfc\x00"s, {}},
      {"flow control holds the data until resumed and is no notice",
       {"\xff\xfa\x2c\x6c\xff\xf0" "A\xff\xfa\x2c\x6d\xff\xf0\xff\xfa\x2c\x6c\xff"s, "\xf0"},
       "A", "", {}, true},
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
    EXPECT_EQ(decoder.Suspended(), c.Suspended) << c.Name;
  }
}

TEST(RemotePortUrl, NamesAndSettingStrings) {
  // clang-format off
  const std::pair<const char*, const char*> names[] = {
      {"rfc2217://127.0.0.1:2000", "telnet 127.0.0.1 2000"}, {"socket://[::1]:7", "raw ::1 7"},
      {"SOCKET://box-2.local:65535", "raw box-2.local 65535"},
      {"rfc2217://[fe80::1:2]:03001", "telnet fe80::1:2 3001"},
      {"socket://[::ffff:10.0.0.1]:1", "raw ::ffff:10.0.0.1 1"},
      {"rfc2217://rack7", "'rfc2217://rack7' has no port: write rfc2217://HOST:PORT, as in "
                          "rfc2217://192.168.1.20:3001"},
      {"rfc2217://:2000", "'rfc2217://:2000' has no host"},
      {"socket://h:0", "port 0 is not from 1 to 65535"},
      {"socket://h:70000", "port 70000 is not from 1 to 65535"},
      {"socket://h:12x", "port '12x' is not a number"},
      {"rfc2217://a b:1", "host 'a b' is not a name, an IPv4 address or an [IPv6] address"},
      {"rfc2217://a..b:1", "host 'a..b' is not"}, {"rfc2217://256.1.1.1:1", "host '256.1.1.1'"},
      {"rfc2217://10.1.1:1", "host '10.1.1' is not"}, {"rfc2217://::1:1", "host '::1' is not"},
      {"rfc2217://[1::2::3]:1", "host '[1::2::3]'"}, {"rfc2217://[1:2:3:4:5:6:7:8:9]:1", "host"},
      {"rfc2217://[12345::]:1", "host"}, {"rfc2217://[::1:5", "host '[::1' is not"},
      {"socket://h:1/x", "'/x' behind the port"}, {"tcp://h:1", "is no network port"},
      {"/dev/ttyUSB0", "is no network port"},
      {"rfc2217+tls://h:1?ca=c.pem&cert=a.pem&key=b.pem", "telnet h 1 c.pem a.pem b.pem"},
      {"SOCKET+TLS://[::1]:2", "raw ::1 2   "}, {"socket+tls://h:1?crt=a", "'crt=a' is none of"},
      {"socket+tls://h:1?ca=", "ca= names no file"}, {"socket://h:1?ca=x", "'?ca=x' behind"},
  };
  // clang-format on
  for (const auto& [name, expected] : names) {
    std::string error;
    const auto url = ParseRemotePortUrl(name, error);
    const std::string files = url && url->Tls ? " " + url->Files.CaFile + " " +
                                                    url->Files.CertFile + " " + url->Files.KeyFile
                                              : "";
    const std::string got =
        url ? (url->Telnet ? "telnet " : "raw ") + url->Host + " " + url->Port + files : error;
    EXPECT_THAT(got, ::testing::HasSubstr(expected)) << name;
  }
  // A setting string is cut at its last ":", behind the URL.
  using Split = std::optional<std::pair<std::string, std::string>>;
  EXPECT_EQ(SplitRemoteSetting("rfc2217", "//[::1]:2000:57600,N,8,1"),
            Split({"rfc2217://[::1]:2000", "57600,N,8,1"}));
  EXPECT_EQ(SplitRemoteSetting("socket", "//h:1:baud=9600 parity=n"),
            Split({"socket://h:1", "baud=9600 parity=n"}));
  EXPECT_EQ(SplitRemoteSetting("rfc2217+tls", "//h:1?ca=C:\\ca.pem:57600,N,8,1"),
            Split({"rfc2217+tls://h:1?ca=C:\\ca.pem", "57600,N,8,1"}));
  EXPECT_EQ(SplitRemoteSetting("socket", "//h:1"), Split({"socket://h:1", ""}));
  EXPECT_EQ(SplitRemoteSetting("COM7", "57600,N,8,1"), std::nullopt);
  // Without a port the open says so, not that the line settings are bad.
  const auto port = MakeSystemSerialBackend();
  EXPECT_EQ(port->Open("rfc2217", "//rack7:57600,N,8,1"), -1);
  EXPECT_THAT(port->LastOpenError(), ::testing::StartsWith("'rfc2217://rack7' has no port"));
}

}  // namespace
}  // namespace palimbo
