// The network backend against scripted servers on the loopback address: what a real server
// does not readily do (refuse a setting, send garbage, vanish) is scripted here.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

#include "serial/comm.h"
#include "serial/serial_remote.h"
#include "serial/telnet_codec.h"

namespace palimbo {
namespace {

using namespace std::string_literals;

// A server for one connection; `Script` gets the connected socket.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::function<void(int)> Script) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 1);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, Script] {
      const int peer = accept(listener_, nullptr, nullptr);
      if (peer < 0) return;
      Script(peer);
      close(peer);
    });
  }
  ~ScriptedServer() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  std::string Url(const char* Scheme = "rfc2217") const {
    return std::string(Scheme) + "://127.0.0.1:" + std::to_string(port_);
  }

 private:
  int listener_;
  int port_ = 0;
  std::thread thread_;
};

// Reads the client's port commands until `Count` have come; answers each as `Answer` says.
std::string AnswerSettings(int Peer, int Count,
                           const std::function<std::string(const ComPortNotice&)>& Answer) {
  TelnetDecoder client;
  std::string data, ignored;
  for (int seen = 0; seen < Count;) {
    char chunk[512];
    const ssize_t n = read(Peer, chunk, sizeof chunk);
    if (n <= 0) break;
    client.Feed(std::string_view(chunk, static_cast<size_t>(n)), data, ignored);
    for (const ComPortNotice& c : client.Notices()) {
      const std::string answer = Answer(c);
      send(Peer, answer.data(), answer.size(), MSG_NOSIGNAL);
      ++seen;
    }
    client.Notices().clear();
  }
  return data;
}

std::string Confirm(const ComPortNotice& C) {
  return ComPortCommand(C.Command + comport::SERVER_OFFSET, C.Value);
}

TEST(RemoteSerial, RefusalsFailTheOpenWithTheirReason) {
  struct Case {
    const char* Name;
    std::function<std::string(const ComPortNotice&)> Answer;
    const char* Reason;
  };
  const Case cases[] = {
      {"a server that keeps its own baud rate",
       [](const ComPortNotice& C) {
         return C.Command == comport::SET_BAUDRATE
                    ? ComPortCommand(101, "\x00\x00\x25\x80"s)  // 9600
                    : Confirm(C);
       },
       "baud rate 57600 not taken"},
      {"a Telnet server without the port option",
       [](const ComPortNotice&) { return "\xff\xfe\x2c"s; }, "no RFC 2217"},
  };
  for (const Case& c : cases) {
    ScriptedServer server([&](int Peer) { AnswerSettings(Peer, 1, c.Answer); });
    const auto port = MakeRemoteSerialBackend();
    EXPECT_EQ(Comm_oeffnen_32(*port, server.Url() + ":57600,N,8,1"), -1) << c.Name;
    EXPECT_NE(port->LastOpenError().find(c.Reason), std::string::npos)
        << c.Name << ": " << port->LastOpenError();
  }
  // Nothing listens on the port of a server that has just gone.
  std::string url;
  {
    ScriptedServer gone([](int) {});
    url = gone.Url("socket");
  }
  const auto port = MakeRemoteSerialBackend();
  EXPECT_EQ(port->Open(url, "57600,N,8,1"), -1);
  EXPECT_NE(port->LastOpenError().find("Connection refused"), std::string::npos);
}

TEST(RemoteSerial, GarbageAroundDataAndALostConnection) {
  ScriptedServer server([&](int Peer) {
    AnswerSettings(Peer, 5, Confirm);  // four settings and the purge
    // The client's data comes with each 0xFF doubled; only then does the server answer.
    std::string arrived;
    char chunk[64];
    while (arrived.find("\xff\xff\x00\xff\xff"s) == std::string::npos) {
      const ssize_t n = read(Peer, chunk, sizeof chunk);
      if (n <= 0) return;
      arrived.append(chunk, static_cast<size_t>(n));
    }
    const std::string out =
        "\xff\xf1"
        "ab\xff\xfa\x2c\x65\x01\xff\xfd\x18"
        "c\xff\xff"s;
    send(Peer, out.data(), out.size(), MSG_NOSIGNAL);
  });
  const auto port = MakeRemoteSerialBackend();
  int32_t handle = Comm_oeffnen_32(*port, server.Url() + ":57600,N,8,1");
  ASSERT_GE(handle, 0) << port->LastOpenError();
  EXPECT_EQ(Comm_schreiben_32(*port, handle, "\xff\x00\xff"s), 3);
  // The data before the server hung up still arrives; then the port is lost.
  std::string got, chunk;
  for (int i = 0; i < 200 && handle >= 0; ++i) {
    Comm_warten_32(*port, handle, 20000);
    Comm_lesen_32(*port, handle, chunk);
    got += chunk;
  }
  EXPECT_EQ(got, "abc\xff");
  EXPECT_EQ(handle, -1) << "a closed connection is a lost port";
  EXPECT_FALSE(port->LostReason().empty());
}

}  // namespace
}  // namespace palimbo
