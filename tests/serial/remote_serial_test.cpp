// The network backend against scripted servers on the loopback address: what a real server
// does not readily do (refuse a setting, send garbage, vanish) is scripted here.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "serial/clock.h"
#include "serial/comm.h"
#include "serial/net_socket.h"
#include "serial/serial_remote.h"
#include "serial/telnet_codec.h"
#include "serial/tls_stream.h"
#include "serial/trace_backend.h"
#include "support/process.h"
#include "support/ser2net.h"

namespace palimbo {
namespace {

using namespace std::string_literals;
using namespace std::chrono_literals;
using Time = std::chrono::steady_clock;

// A server for one connection; `Script` gets the connected socket. Without a script the server
// never accepts and its queue is full, so that a connect to it waits for an answer. A `Buffer`
// size makes the connection's receive buffer that small.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::function<void(int)> Script, int Buffer = 0) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    if (Buffer > 0) setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &Buffer, sizeof Buffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, Script ? 1 : 0);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    if (!Script) {
      for (int& filler : fillers_) {
        filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(filler, reinterpret_cast<sockaddr*>(&address), length);
      }
      return;
    }
    thread_ = std::thread([this, Script] {
      const int peer = accept(listener_, nullptr, nullptr);
      if (peer < 0) return;
      Script(peer);
      close(peer);
    });
  }
  ~ScriptedServer() {
    shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(listener_);
    for (const int filler : fillers_) close(filler);
  }
  std::string Url(const char* Scheme = "rfc2217") const {
    return std::string(Scheme) + "://127.0.0.1:" + std::to_string(port_);
  }

 private:
  int listener_;
  int port_ = 0;
  int fillers_[2] = {-1, -1};
  std::thread thread_;
};

void Send(int Peer, const std::string& Bytes) {
  send(Peer, Bytes.data(), Bytes.size(), MSG_NOSIGNAL);
}

// Reads the client's port commands until `Count` have come; answers each as `Answer` says.
void AnswerSettings(int Peer, int Count,
                    const std::function<std::string(const ComPortNotice&)>& Answer) {
  TelnetDecoder client;
  std::string data, ignored;
  for (int seen = 0; seen < Count;) {
    char chunk[512];
    const ssize_t n = read(Peer, chunk, sizeof chunk);
    if (n <= 0) break;
    client.Feed(std::string_view(chunk, static_cast<size_t>(n)), data, ignored);
    for (const ComPortNotice& c : client.Notices()) Send(Peer, Answer(c));
    seen += static_cast<int>(client.Notices().size());
    client.Notices().clear();
  }
}

std::string Confirm(const ComPortNotice& C) {
  return ComPortCommand(C.Command + comport::SERVER_OFFSET, C.Value);
}

// The server's word on the client's offers: BINARY both ways, then the port option.
const std::string kBinary = "\xff\xfb\x00\xff\xfd\x00"s;
const std::string kPortOption = "\xff\xfd\x2c"s;
const std::string kSuspend =
    ComPortCommand(comport::FLOWCONTROL_SUSPEND + comport::SERVER_OFFSET, "");
const std::string kResume =
    ComPortCommand(comport::FLOWCONTROL_RESUME + comport::SERVER_OFFSET, "");

TEST(RemoteSerial, AnOpenNeedsBinaryBothWaysAndThePortOption) {
  struct Case {
    const char* Name;
    std::string Greeting;
    std::string Late;  // sent 300 ms later; what the client sent before then is ignored
    std::function<std::string(const ComPortNotice&)> Answer;  // none: hang up at once
    const char* Reason;                                       // empty for an open that must succeed
  };
  const Case cases[] = {
      {"a server that keeps its own baud rate", kBinary + kPortOption, "",
       [](const ComPortNotice& C) {
         return C.Command == comport::SET_BAUDRATE
                    ? ComPortCommand(101, "\x00\x00\x25\x80"s)  // 9600
                    : Confirm(C);
       },
       "baud rate 57600 not taken"},
      {"a Telnet server without the port option", kBinary + "\xff\xfe\x2c", "", Confirm,
       "no RFC 2217"},
      {"a server that will not send binary", "\xff\xfc\x00\xff\xfd\x00"s + kPortOption, "", Confirm,
       "(Telnet BINARY) to"},
      {"a server that will not take binary", "\xff\xfb\x00\xff\xfe\x00"s + kPortOption, "", Confirm,
       "(Telnet BINARY) from"},
      {"a server that takes up the port option late", kBinary, kPortOption, Confirm, ""},
      {"a secured server's alert", "\x15\x03\x03\x00\x02\x02\x46"s, "", nullptr,
       "the server speaks TLS: use rfc2217+tls://"},
      {"a server that says nothing", "", "", nullptr,
       "the server hung up at our first bytes without a word, as a TLS server does: use "
       "rfc2217+tls://"},
      {"a server that says nothing useful", "\x15\x02"s, "", nullptr,
       "the server closed the connection"},
  };
  for (const Case& c : cases) {
    ScriptedServer server([&](int Peer) {
      Send(Peer, c.Greeting);
      if (!c.Answer) {
        std::this_thread::sleep_for(100ms);
        char greeting[512];
        recv(Peer, greeting, sizeof greeting, MSG_DONTWAIT);
        return;
      }
      if (!c.Late.empty()) {
        std::this_thread::sleep_for(300ms);
        char early[512];
        while (recv(Peer, early, sizeof early, MSG_DONTWAIT) > 0) {
        }
        Send(Peer, c.Late);
      }
      AnswerSettings(Peer, 99, c.Answer);  // until the client hangs up
    });
    const auto port = MakeRemoteSerialBackend();
    const int32_t handle = Comm_oeffnen_32(*port, server.Url() + ":57600,N,8,1");
    EXPECT_EQ(handle >= 0, *c.Reason == 0) << c.Name << ": " << port->LastOpenError();
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

TEST(RemoteSerial, AnInterruptEndsEveryWaitOfAnOpen) {
  ScriptedServer silent([](int Peer) {
    char ignored[64];
    while (read(Peer, ignored, sizeof ignored) > 0) {
    }
  });
  ScriptedServer full(nullptr);
  const Resolver endless = [](const std::string&, const std::string&, bool, std::string&) {
    std::this_thread::sleep_for(30s);
    return std::vector<SocketAddress>();
  };
  SteadyClock clock;
  std::ostringstream trace;
  const auto system = MakeSystemSerialBackend();
  TraceBackend traced(*system, clock, trace);
  // Each wait of an open, given the interrupt; the error it ended with.
  const std::pair<const char*, std::function<std::string(std::function<bool()>)>> waits[] = {
      {"for the name",
       [&](auto Stop) {
         std::string error;
         NetSocket::Connect("rack7", "3001", {5000, Stop, endless}, error);
         return error;
       }},
      {"for the server's word",
       [&](auto Stop) {
         traced.SetOpenInterrupt(Stop);
         traced.Open(silent.Url(), "57600,N,8,1");
         return traced.LastOpenError();
       }},
      {"for the connection",
       [&](auto Stop) {
         system->SetOpenInterrupt(Stop);
         system->Open(full.Url(), "57600,N,8,1");
         return system->LastOpenError();
       }},
  };
  for (const auto& [name, wait] : waits) {
    // Wanted to stop 200 ms in, the open ends within 150 ms more.
    const auto start = Time::now();
    EXPECT_EQ(wait([&] { return Time::now() - start > 200ms; }), "cancelled") << name;
    EXPECT_LT(Time::now() - start, 350ms) << name;
  }
  // A name service that never answers still ends the connect within its time.
  std::string error;
  const auto start = Time::now();
  EXPECT_FALSE(NetSocket::Connect("rack7", "3001", {300, nullptr, endless}, error));
  EXPECT_LT(Time::now() - start, 1s);
  EXPECT_EQ(error, "the name was not found within 300 ms");
}

TEST(RemoteSerial, AHostIsResolvedAsItIsWritten) {
  const struct {
    const char* Host;
    bool Address;
    const char* Error;  // empty for a host that must resolve
  } hosts[] = {
      {"127.0.0.1", true, ""},
      {"localhost", false, ""},
      {"localhost", true, "Name or service not known"},
      {"127.1", false, "'127.1' reads as an address, not a name"},
      {"0x7f.1", false, "'0x7f.1' reads as an address, not a name"},
  };
  for (const auto& h : hosts) {
    std::string error;
    const auto found = ResolveWithSystem(h.Host, "1", h.Address, error);
    EXPECT_EQ(found.empty(), *h.Error != 0) << h.Host;
    EXPECT_EQ(error, h.Error) << h.Host;
  }
}

TEST(RemoteSerial, HeldDataGarbageAroundDataAndALostConnection) {
  ScriptedServer server([&](int Peer) {
    Send(Peer, kBinary + kPortOption);
    // The server holds the client's data back from before the open's end for 300 ms.
    AnswerSettings(Peer, 4, [](const ComPortNotice& C) { return kSuspend + Confirm(C); });
    std::this_thread::sleep_for(300ms);
    Send(Peer, kResume);
    // The client's data comes with each 0xFF doubled; only then does the server answer.
    std::string arrived;
    char chunk[64];
    while (arrived.find("\xff\xff\x00\xff\xff"s) == std::string::npos) {
      const ssize_t n = read(Peer, chunk, sizeof chunk);
      if (n <= 0) return;
      arrived.append(chunk, static_cast<size_t>(n));
    }
    Send(Peer,
         "\xff\xf1"
         "ab\xff\xfa\x2c\x65\x01\xff\xfd\x18"
         "c\xff\xff"s +
             kSuspend);
    std::this_thread::sleep_for(3s);
  });
  const auto port = MakeRemoteSerialBackend();
  int32_t handle = Comm_oeffnen_32(*port, server.Url() + ":57600,N,8,1");
  ASSERT_GE(handle, 0) << port->LastOpenError();
  const auto start = Time::now();
  EXPECT_EQ(Comm_schreiben_32(*port, handle, "\xff\x00\xff"s), 3);
  EXPECT_GT(Time::now() - start, 200ms) << "written while the server held the data";
  // The data before the server hung up still arrives; then the port is lost.
  std::string got, chunk;
  for (int i = 0; i < 400 && handle >= 0; ++i) {
    Comm_warten_32(*port, handle, 20000);
    Comm_lesen_32(*port, handle, chunk);
    got += chunk;
    // Held once more and never let go, a write falls short after its time.
    if (got == "abc\xff" && chunk.size() != 0) {
      EXPECT_EQ(port->Write(handle, "d"), 0);
      EXPECT_NE(port->LostReason().find("held the data back for 2 s"), std::string::npos);
    }
  }
  EXPECT_EQ(got, "abc\xff");
  EXPECT_EQ(handle, -1) << "a closed connection is a lost port";
  EXPECT_FALSE(port->LostReason().empty());
}

// A server that stops reading while a data block goes out and asks a question meanwhile: the
// answer waits for the block's end, the block arrives once, and a command that cannot go
// loses the port.
TEST(RemoteSerial, OneWriteAtATime) {
  std::string data(4 << 20, '\xff');
  for (size_t i = 0; i < data.size(); i += 2) data[i] = static_cast<char>(i / 2);
  const std::string answer = "\xff\xfc\x18"s;  // WONT to the question DO 0x18
  std::string raw;
  const auto port = MakeRemoteSerialBackend();
  int32_t handle = -1;
  Time::duration writing{};
  {
    ScriptedServer server(
        [&](int Peer) {
          Send(Peer, kBinary + kPortOption);
          AnswerSettings(Peer, 4, Confirm);
          std::this_thread::sleep_for(300ms);
          Send(Peer, "\xff\xfd\x18"s);
          std::this_thread::sleep_for(300ms);
          char chunk[65536];
          for (pollfd in{Peer, POLLIN, 0}; poll(&in, 1, 3000) > 0;) {
            const ssize_t n = read(Peer, chunk, sizeof chunk);
            if (n <= 0) break;
            raw.append(chunk, static_cast<size_t>(n));
            if (raw.size() > data.size() && raw.ends_with(answer)) break;
          }
          // Gone without a word, as a server that is switched off.
          const linger reset{1, 0};
          setsockopt(Peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        },
        4096);
    handle = Comm_oeffnen_32(*port, server.Url() + ":57600,N,8,1");
    ASSERT_GE(handle, 0) << port->LastOpenError();
    const auto start = Time::now();
    EXPECT_EQ(port->Write(handle, data), static_cast<int32_t>(data.size()));
    writing = Time::now() - start;
  }
  EXPECT_GT(writing, 500ms) << "the block went out before the server stopped reading";
  // The answer is the first command whose 0xFF is no doubled data byte.
  const auto doubled = [&](size_t At) {
    size_t run = 0;
    while (run < At && raw[At - run - 1] == '\xff') ++run;
    return run % 2 != 0;
  };
  size_t at = raw.find(answer);
  while (at != std::string::npos && doubled(at)) at = raw.find(answer, at + 1);
  ASSERT_NE(at, std::string::npos) << "the answer never left";
  const auto decode = [](std::string_view Bytes) {
    TelnetDecoder decoder;
    std::string got, replies;
    decoder.Feed(Bytes, got, replies);
    return got;
  };
  EXPECT_EQ(decode(raw.substr(0, at)) == data, true) << "answered inside the block";
  EXPECT_EQ(raw.size(), at + answer.size()) << "more followed the block and its answer";
  port->WaitForInput(handle, 3'000'000);
  EscapeCommFunction(*port, handle, SETDTR);
  std::string ignored;
  Comm_lesen_32(*port, handle, ignored);
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(port->LostReason().rfind("cannot raise DTR: ", 0), 0u) << port->LostReason();
}

// openssl's test server hands each line back reversed and stops reading while its answers wait
// unread; it refuses any name but localhost that a client sends.
TEST(TlsStream, NoNameGoesOutForAnAddressAndEveryByteGoesOnceThroughAStall) {
  const std::string pki = (testing::TestFolder() / "pki").string();
  ASSERT_EQ(std::system(("sh " PALIMBO_MAKE_PKI " " + pki).c_str()), 0);
  const int port = testing::FreePort();
  const std::string cert = pki + "/server.crt", key = pki + "/server.key";
  testing::Process server(
      {"/usr/bin/openssl", "s_server", "-rev", "-quiet", "-accept",
       "127.0.0.1:" + std::to_string(port), "-cert", cert, "-key", key, "-cert2", cert, "-key2",
       key, "-servername", "localhost", "-servername_fatal"},
      testing::WriteTempFile("s_server.err", ""));
  for (int i = 0; i < 100 && !testing::Listens(port); ++i) usleep(50000);
  std::string error;
  auto socket = NetSocket::Connect("127.0.0.1", std::to_string(port), {5000, nullptr}, error);
  ASSERT_TRUE(socket) << error;
  auto tls =
      TlsStream::Handshake(*socket, "127.0.0.1", {pki + "/ca.crt", "", ""}, 5000, nullptr, error);
  ASSERT_TRUE(tls) << error;

  // Lines go on until the server has stopped reading a while, however much it buffers.
  std::string sent, expected, back;
  size_t done = 0;
  int stalls = 0;
  const auto until = Time::now() + 30s;
  for (size_t call = 0; (stalls <= 10 || back.size() < expected.size()) && Time::now() < until;
       ++call) {
    for (size_t i = sent.size(); stalls <= 10 && sent.size() < done + 65536; ++i) {
      const std::string line(1 + i * 37 % 200, static_cast<char>('a' + i % 26));
      sent += line + (i % 2 ? "x\n" : "y\n");
      expected += (i % 2 ? "x" : "y") + line + "\n";
    }
    // Each call offers another count, as a caller does that gathers more bytes meanwhile.
    const int64_t n =
        tls->Send(sent.data() + done, std::min(sent.size() - done, 1 + call * 7919 % 30000), error);
    ASSERT_GE(n, 0) << error;
    done += static_cast<size_t>(n);
    stalls += n == 0 && done < sent.size();
    char buffer[65536];
    const int64_t got =
        stalls > 10 || done == sent.size() ? tls->Receive(buffer, sizeof buffer, error) : 0;
    ASSERT_GE(got, 0) << error;
    back.append(buffer, static_cast<size_t>(got));
    if (n == 0 && got == 0) socket->Wait(stalls <= 10, 10000);
  }
  EXPECT_GT(stalls, 10);
  EXPECT_EQ(done, sent.size());
  ASSERT_EQ(back.size(), expected.size());
  const auto first = std::mismatch(back.begin(), back.end(), expected.begin()).first;
  EXPECT_TRUE(first == back.end()) << "first difference at byte " << first - back.begin();
}

}  // namespace
}  // namespace palimbo
