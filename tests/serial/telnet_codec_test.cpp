#include "serial/telnet_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serial/comm.h"
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

TEST(RemotePortUrl, NamesAndWhatIsWrongWithThem) {
  // clang-format off
  const std::pair<const char*, const char*> names[] = {
      {"rfc2217://127.0.0.1:2000", "telnet 127.0.0.1 2000"}, {"socket://[::1]:7", "raw ::1 7"},
      {"SOCKET://box-2.local:65535", "raw box-2.local 65535"},
      {"rfc2217://[fe80::1:2]:03001", "telnet fe80::1:2 3001"},
      {"socket://[::ffff:10.0.0.1]:1", "raw ::ffff:10.0.0.1 1"},
      {"rfc2217://rack7", "'rfc2217://rack7' has no port: write rfc2217://HOST:PORT, as in "
                          "rfc2217://192.168.1.20:3001"},
      {"rfc2217://:2000", "'rfc2217://:2000' has no host"},
      {"socket://h:0", "port 0 is not from 1 to 65535"}, {"socket://h:1", "raw h 1"},
      {"socket://h:65536", "port 65536 is not from 1 to 65535"},
      {"socket://h:12x", "port '12x' is not a number"},
      {"rfc2217://a b:1", "host 'a b' is not a name, an IPv4 address or an [IPv6] address"},
      {"rfc2217://a..b:1", "host 'a..b' is not"},
      {"socket://255.255.255.0:1", "raw 255.255.255.0 1"},
      {"socket://1.2.3.256:1", "host '1.2.3.256' is not an IPv4 address: write four numbers"},
      {"socket://192.168.001.020:1", "'192.168.001.020' is not an IPv4"},
      {"socket://127.1:1", "'127.1' is not an IPv4"}, {"socket://2130706433:1", "is not an IPv4"},
      {"socket://0x7f.1:1", "host '0x7f.1' reads as a number, not a name: write an IPv4 address"},
      {"socket://0X7F000001:1", "reads as a number"}, {"socket://rack.7:1", "reads as a number"},
      {"rfc2217://10.1.1:1", "host '10.1.1' is not"}, {"rfc2217://::1:1", "host '::1' is not"},
      {"rfc2217://[1::2::3]:1", "host '[1::2::3]'"}, {"rfc2217://[1:2:3:4:5:6:7:8:9]:1", "host"},
      {"rfc2217://[12345::]:1", "host"}, {"rfc2217://[::1:5", "host '[::1' is not"},
      {"socket://h:1/x", "'/x' behind the port"},
      {"tcp://h:1", "'tcp://h:1': unknown scheme 'tcp': the known ones are rfc2217, socket, "
                    "rfc2217+tls and socket+tls"},
      {"rfc2217+tsl://h:1", "unknown scheme 'rfc2217+tsl'"}, {"rfc2217:h:1", "is no network port"},
      {"/dev/ttyUSB0", "is no network port"},
      {"rfc2217+tls://h:1?ca=c.pem&cert=a.pem&key=b.pem", "telnet h 1 c.pem a.pem b.pem"},
      {"SOCKET+TLS://[::1]:2", "raw ::1 2   "}, {"socket+tls://h:1?crt=a", "'crt=a' is none of"},
      {"socket+tls://h:1?ca=", "ca= names no file"}, {"socket://h:1?ca=x", "'?ca=x' behind"},
      {"socket+tls://h:1?ca=/p/my%20ca.pem&cert=a%26b.pem&key=%3a%3A", "raw h 1 /p/my ca.pem a&b.pem ::"},
      {"socket+tls://h:1?ca=%2", "ca=: bad escape '%2': write % and two hex digits"},
      {"socket+tls://h:1?key=%zz", "key=: bad escape '%zz'"},
      {"socket+tls://h:1?cert=a%00", "cert=: %00 names no file"},
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
  // An open refuses a URL for the reason its check gives, not for its line settings.
  const auto port = MakeSystemSerialBackend();
  for (const char* name : {"rfc2217://rack7", "tcp://127.0.0.1:4001", "socket://127.1:4001"}) {
    EXPECT_EQ(Comm_oeffnen_32(*port, name + ":57600,N,8,1"s), -1);
    EXPECT_EQ(port->LastOpenError(), PortNameProblem(name)) << name;
  }
}

}  // namespace
}  // namespace palimbo
