#include "serial/serial_remote.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <vector>

#include "serial/line_settings.h"
#include "serial/net_socket.h"
#include "serial/telnet_codec.h"

namespace palimbo {

namespace {

using SteadyTime = std::chrono::steady_clock;

// A server that takes this long to accept the connection is not there.
constexpr int32_t kConnectTimeoutMs = 5000;
// How long the server has to agree to the options and confirm each line setting at open.
constexpr auto kSettingsTimeout = std::chrono::milliseconds(3000);
// The longest an open waits without asking whether it is still wanted.
constexpr int32_t kAskEveryMicros = 50'000;
// Bytes taken from the connection at one look at most.
constexpr size_t kMaxPumpBytes = 65536;
// A connection that takes no data for this long is dead for the write that waits on it.
constexpr auto kWriteTimeout = std::chrono::milliseconds(2000);
// A Telnet server asks its questions as soon as it accepts, so a plain port listens for them
// twice the time the connect took and this much more, and no longer than the longest.
constexpr auto kFirstBytesSlack = std::chrono::milliseconds(50);
constexpr auto kFirstBytesLongest = std::chrono::milliseconds(300);
// The first bytes of a connection kept to tell what the server speaks.
constexpr size_t kHeadBytes = 2;

// Microseconds from now to `Deadline`; zero or less once it has passed.
int64_t MicrosUntil(SteadyTime::time_point Deadline) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Deadline - SteadyTime::now())
      .count();
}

std::string EncodeBig(uint32_t Value, int Bytes) {
  std::string out;
  for (int i = Bytes - 1; i >= 0; --i) out += static_cast<char>((Value >> (8 * i)) & 0xFF);
  return out;
}

uint32_t DecodeBig(const std::string& Bytes) {
  uint32_t value = 0;
  for (const char c : Bytes) value = (value << 8) | static_cast<uint8_t>(c);
  return value;
}

uint8_t ParityCode(ParityKind Parity) {
  switch (Parity) {
    case ParityKind::None:
      return 1;
    case ParityKind::Odd:
      return 2;
    case ParityKind::Even:
      return 3;
    case ParityKind::Mark:
      return 4;
    case ParityKind::Space:
      return 5;
  }
  return 1;
}

uint8_t StopCode(StopKind Stop) {
  switch (Stop) {
    case StopKind::One:
      return 1;
    case StopKind::Two:
      return 2;
    case StopKind::OneAndHalf:
      return 3;
  }
  return 1;
}

// A Telnet server's question, as it opens every connection.
bool IsTelnetQuestion(std::string_view Head) {
  return Head.size() >= 2 && static_cast<uint8_t>(Head[0]) == telnet::IAC &&
         static_cast<uint8_t>(Head[1]) >= telnet::WILL &&
         static_cast<uint8_t>(Head[1]) <= telnet::DONT;
}

// One line setting sent to the server, and what its confirmation must carry.
struct SettingRequest {
  uint8_t Command;
  const char* Name;
  uint32_t Value;
  int Bytes;  // of the value on the wire
  bool Confirmed = false;
};

std::vector<SettingRequest> SettingRequestsFor(const LineSettings& Wanted) {
  std::vector<SettingRequest> requests;
  if (Wanted.Baud) {
    requests.push_back(
        {comport::SET_BAUDRATE, "baud rate", static_cast<uint32_t>(*Wanted.Baud), 4});
  }
  if (Wanted.DataBits) {
    requests.push_back(
        {comport::SET_DATASIZE, "data bits", static_cast<uint32_t>(*Wanted.DataBits), 1});
  }
  if (Wanted.Parity) {
    requests.push_back({comport::SET_PARITY, "parity code", ParityCode(*Wanted.Parity), 1});
  }
  if (Wanted.StopBits) {
    requests.push_back({comport::SET_STOPSIZE, "stop bits code", StopCode(*Wanted.StopBits), 1});
  }
  return requests;
}

struct Connection {
  int32_t Handle;
  RemotePortUrl Url;
  NetSocket Socket;
  TelnetDecoder Decoder;
  std::string Input;               // data bytes arrived and not yet read
  std::string ClosedWhy;           // set once the stream has ended; reported when Input is empty
  std::unique_ptr<TlsStream> Tls;  // on a secured port, what goes through the socket
  std::string Replies;             // answers to the server's questions, sent whole between writes
  std::string Head;                // the first bytes the server sent, as they came
  bool Sent = false;               // a byte of ours has gone out
  bool SpeaksTls = false;          // the server answered a plain connection as a secured one

  int64_t Send(const char* Data, size_t Count, std::string& Error) {
    return Tls ? Tls->Send(Data, Count, Error) : Socket.Send(Data, Count, Error);
  }
  int64_t Receive(char* Buffer, size_t Count, std::string& Error) {
    return Tls ? Tls->Receive(Buffer, Count, Error) : Socket.Receive(Buffer, Count, Error);
  }
};

class RemoteSerialBackend final : public SerialBackend {
 public:
  int32_t Open(const std::string& PortName, const std::string& LineSettingsText) override;
  std::string LastOpenError() const override { return last_error_; }
  std::string LostReason() const override { return lost_reason_; }
  std::string ServerFingerprint() const override { return fingerprint_; }
  int32_t BytesWaiting(int32_t Handle) override;
  int16_t Read(int32_t Handle, int32_t Count, std::string& Buffer) override;
  int32_t Write(int32_t Handle, const std::string& Data) override;
  void Close(int32_t Handle) override;
  void RaiseDtr(int32_t Handle) override;
  void WaitForInput(int32_t Handle, int32_t MaxMicros) override;
  void SetOpenInterrupt(std::function<bool()> Interrupted) override {
    interrupted_ = std::move(Interrupted);
  }

 private:
  bool Interrupted() const { return interrupted_ && interrupted_(); }
  Connection* Find(int32_t Handle) {
    for (auto& c : open_) {
      if (c->Handle == Handle) return c.get();
    }
    return nullptr;
  }
  bool IsLost(int32_t Handle) const {
    return std::find(lost_.begin(), lost_.end(), Handle) != lost_.end();
  }
  // A secured server may give its verdict on our certificate only after the handshake, by a
  // refusing alert or by hanging up at once on a station it asked for one; any other close is
  // told as what it is.
  static std::string ClosedAfterHandshake(const Connection& C, const std::string& Reason) {
    if (!C.Tls || C.ClosedWhy.empty()) return Reason;
    if (C.Tls->ServerRefusedUs() || C.Tls->ServerAskedForCertificate()) {
      return "the server closed the connection right after the TLS handshake: it does not admit "
             "our certificate (" +
             Reason + ")";
    }
    return "the server closed the connection after the TLS handshake: " + C.ClosedWhy;
  }
  int32_t FailOpen(std::string Reason) {
    last_error_ = std::move(Reason);
    return -1;
  }
  // Takes what has arrived and queues the answers to the server's questions; an ended stream
  // leaves its reason in ClosedWhy.
  void Pump(Connection& C);
  // Sends the queued answers whole; only between writes, so that no answer lands inside a
  // data block or a doubled 0xFF. One that cannot go ends the connection.
  void SendReplies(Connection& C);
  // Listens for the first bytes of a plain port's server for at most `Window`; empty when it
  // does not speak Telnet, else what to write instead.
  std::string CheckPlainServer(Connection& C, SteadyTime::duration Window);
  // Sends everything or fails; the count of bytes the server took. `Data` waits while the
  // server's flow control holds it; the protocol's own messages never wait for that.
  size_t SendAll(Connection& C, const std::string& Bytes, bool Data, std::string& Error);
  // Agrees on the options, then sends the line settings and the purge and waits for the
  // server's word on each setting; empty when the server took them all, else why not.
  std::string NegotiateSettings(Connection& C, const LineSettings& Wanted, const std::string& Text);
  void Lose(int32_t Handle, std::string Reason);

  std::vector<std::unique_ptr<Connection>> open_;
  std::vector<int32_t> lost_;
  int32_t next_handle_ = 0;
  std::string last_error_;
  std::string lost_reason_;
  std::string fingerprint_;
  std::function<bool()> interrupted_;
};

int32_t RemoteSerialBackend::Open(const std::string& PortName,
                                  const std::string& LineSettingsText) {
  lost_reason_.clear();
  const std::string& settings = LineSettingsText;
  std::string error;
  const auto url = ParseRemotePortUrl(PortName, error);
  if (!url) return FailOpen(error);
  const auto wanted = ParseLineSettings(settings);
  if (!wanted) return FailOpen("bad line settings '" + settings + "'");

  const auto started = SteadyTime::now();
  auto socket = NetSocket::Connect(url->Host, url->Port, {kConnectTimeoutMs, interrupted_}, error);
  if (!socket) {
    return FailOpen(error == kConnectCancelled
                        ? error
                        : "cannot connect to " + url->Host + ":" + url->Port + ": " + error);
  }
  auto c = std::unique_ptr<Connection>(
      new Connection{next_handle_, *url, std::move(*socket), {}, {}, {}, {}, {}, {}, false, false});
  const auto window = std::min<SteadyTime::duration>(
      kFirstBytesLongest, kFirstBytesSlack + 2 * (SteadyTime::now() - started));
  fingerprint_.clear();
  if (c->Url.Tls) {
    // Before a byte of firmware goes out, the server proves who it is, and so do we.
    c->Tls = TlsStream::Handshake(
        c->Socket, url->Host, url->Files, kConnectTimeoutMs, [this] { return Interrupted(); },
        error);
    if (!c->Tls) return FailOpen(error);
    if (c->Tls->ServerAskedForCertificate() && url->Files.CertFile.empty()) {
      return FailOpen("the server asks for a client certificate: give cert=FILE&key=FILE");
    }
  }
  if (c->Url.Telnet) {
    error = NegotiateSettings(*c, *wanted, settings);
    if (!error.empty()) return FailOpen(ClosedAfterHandshake(*c, error));
  } else if (error = CheckPlainServer(*c, window); !error.empty()) {
    return FailOpen(error);
  }
  // Whatever came before the port was ours belongs to nobody.
  Pump(*c);
  c->Input.clear();
  if (!c->ClosedWhy.empty()) {
    return FailOpen(ClosedAfterHandshake(*c, "the server closed the connection: " + c->ClosedWhy));
  }
  if (c->Tls) fingerprint_ = c->Tls->ServerFingerprint();
  // Handle numbers are not reused, so a lost port's number never names a new one.
  ++next_handle_;
  open_.push_back(std::move(c));
  return open_.back()->Handle;
}

std::string RemoteSerialBackend::NegotiateSettings(Connection& C, const LineSettings& Wanted,
                                                   const std::string& Text) {
  std::vector<SettingRequest> requests = SettingRequestsFor(Wanted);
  std::string error;
  const std::string greeting = C.Decoder.Greeting();
  if (SendAll(C, greeting, false, error) != greeting.size()) {
    return "cannot send line settings: " + error;
  }
  bool settingsSent = false;
  const auto deadline = SteadyTime::now() + kSettingsTimeout;
  for (;;) {
    Pump(C);
    SendReplies(C);
    for (const ComPortNotice& n : C.Decoder.Notices()) {
      for (SettingRequest& r : requests) {
        if (n.Command != r.Command + comport::SERVER_OFFSET) continue;
        r.Confirmed = true;
        // A server that cannot take a setting answers with the one it kept.
        if (n.Value != EncodeBig(r.Value, r.Bytes)) {
          return "the server refused line settings '" + Text + "': " + r.Name + " " +
                 std::to_string(r.Value) + " not taken (it has " +
                 std::to_string(DecodeBig(n.Value)) + ")";
        }
      }
    }
    C.Decoder.Notices().clear();
    if (C.Decoder.Ours(telnet::COM_PORT_OPTION) == OptionState::Off) {
      return "the server does not take line settings (no RFC 2217); use socket://";
    }
    // Without BINARY both ways Telnet may change a CR and the byte behind it.
    for (const bool ours : {true, false}) {
      if ((ours ? C.Decoder.Ours(telnet::BINARY) : C.Decoder.Theirs(telnet::BINARY)) ==
          OptionState::Off) {
        return std::string("the server refused binary transfer (Telnet BINARY) ") +
               (ours ? "from" : "to") + " this computer; bytes could change on the way";
      }
    }
    // A server ignores port commands that come before it has taken up the option.
    if (!settingsSent && C.Decoder.Ours(telnet::COM_PORT_OPTION) == OptionState::On) {
      std::string out;
      for (const SettingRequest& r : requests) {
        out += ComPortCommand(r.Command, EncodeBig(r.Value, r.Bytes));
      }
      out += ComPortCommand(comport::PURGE_DATA, std::string(1, comport::PURGE_BOTH));
      if (SendAll(C, out, false, error) != out.size()) return "cannot send line settings: " + error;
      settingsSent = true;
    }
    const bool binary = C.Decoder.Ours(telnet::BINARY) == OptionState::On &&
                        C.Decoder.Theirs(telnet::BINARY) == OptionState::On;
    if (settingsSent && binary &&
        std::all_of(requests.begin(), requests.end(),
                    [](const SettingRequest& r) { return r.Confirmed; })) {
      return {};
    }
    if (!C.ClosedWhy.empty()) return C.SpeaksTls ? C.ClosedWhy : "the server closed the connection";
    if (Interrupted()) return kConnectCancelled;
    const int64_t left = MicrosUntil(deadline);
    if (left <= 0) {
      const std::string within = std::to_string(kSettingsTimeout.count() / 1000) + " s";
      if (!binary) return "the server did not agree to binary transfer within " + within;
      return "the server did not confirm line settings '" + Text + "' within " + within;
    }
    C.Socket.Wait(false, static_cast<int32_t>(std::min<int64_t>(left, kAskEveryMicros)));
  }
}

std::string RemoteSerialBackend::CheckPlainServer(Connection& C, SteadyTime::duration Window) {
  const auto deadline = SteadyTime::now() + Window;
  for (;;) {
    Pump(C);
    if (C.Head.size() >= kHeadBytes || !C.ClosedWhy.empty()) break;
    const int64_t left = MicrosUntil(deadline);
    if (left <= 0) break;
    if (Interrupted()) return std::string(kConnectCancelled);
    C.Socket.Wait(false, static_cast<int32_t>(std::min<int64_t>(kAskEveryMicros, left)));
  }
  if (!IsTelnetQuestion(C.Head)) return {};
  return std::string("the server speaks Telnet (RFC 2217): use ") +
         (C.Url.Tls ? "rfc2217+tls://" : "rfc2217://");
}

void RemoteSerialBackend::Pump(Connection& C) {
  if (!C.ClosedWhy.empty()) return;
  char chunk[4096];
  // A server that never stops sending still lets the caller return to its loop.
  for (size_t taken = 0; taken < kMaxPumpBytes; taken += sizeof chunk) {
    std::string error;
    const int64_t n = C.Receive(chunk, sizeof chunk, error);
    if (n < 0) {
      C.ClosedWhy = error;
      break;
    }
    if (n == 0) break;
    const std::string_view got(chunk, static_cast<size_t>(n));
    C.Head += got.substr(0, kHeadBytes - std::min(C.Head.size(), kHeadBytes));
    if (C.Url.Telnet) {
      C.Decoder.Feed(got, C.Input, C.Replies);
    } else {
      C.Input.append(got);
    }
  }
  // A secured server answers a plain connection's first bytes with an alert record, or hangs
  // up without a word.
  if (!C.ClosedWhy.empty() && !C.Tls && C.Sent) {
    const std::string use = C.Url.Telnet ? "rfc2217+tls://" : "socket+tls://";
    if (C.Head.starts_with("\x15\x03")) {
      C.SpeaksTls = true;
      C.ClosedWhy = "the server speaks TLS: use " + use;
      C.Input.clear();
    } else if (C.Head.empty()) {
      C.SpeaksTls = true;
      C.ClosedWhy =
          "the server hung up at our first bytes without a word, as a TLS server does: use " + use;
    }
  }
  // After open nobody asks for the server's notices; only the open's wait looks at them.
  if (C.Decoder.Notices().size() > 64) C.Decoder.Notices().clear();
}

void RemoteSerialBackend::SendReplies(Connection& C) {
  if (C.Replies.empty() || !C.ClosedWhy.empty()) return;
  const std::string replies = std::move(C.Replies);
  C.Replies.clear();
  std::string error;
  if (SendAll(C, replies, false, error) != replies.size()) {
    C.ClosedWhy = "cannot answer the server: " + error;
  }
}

size_t RemoteSerialBackend::SendAll(Connection& C, const std::string& Bytes, bool Data,
                                    std::string& Error) {
  const auto deadline = SteadyTime::now() + kWriteTimeout;
  size_t done = 0;
  while (done < Bytes.size()) {
    // The server's word to hold the data may be waiting unread.
    if (Data && C.Url.Telnet) Pump(C);
    const bool held = Data && C.Decoder.Suspended();
    if (held && !C.ClosedWhy.empty()) {
      Error = C.ClosedWhy;
      return done;
    }
    if (!held) {
      const int64_t n = C.Send(Bytes.data() + done, Bytes.size() - done, Error);
      if (n < 0) return done;
      C.Sent = C.Sent || n > 0;
      done += static_cast<size_t>(n);
      if (done == Bytes.size()) break;
    }
    const int64_t left = MicrosUntil(deadline);
    if (left <= 0) {
      Error = std::string(held ? "the server held the data back" : "the server took no data") +
              " for " + std::to_string(kWriteTimeout.count() / 1000) + " s";
      return done;
    }
    // Held data waits for the server's word to go on, which arrives as input.
    C.Socket.Wait(!held, static_cast<int32_t>(std::min<int64_t>(left, 100'000)));
  }
  return done;
}

void RemoteSerialBackend::Lose(int32_t Handle, std::string Reason) {
  std::erase_if(open_, [&](const auto& c) { return c->Handle == Handle; });
  lost_.push_back(Handle);
  lost_reason_ = std::move(Reason);
}

int32_t RemoteSerialBackend::BytesWaiting(int32_t Handle) {
  if (IsLost(Handle)) return -1;
  Connection* c = Find(Handle);
  if (c == nullptr) return 0;
  Pump(*c);
  SendReplies(*c);
  // Bytes that came before the end are still delivered; the next look reports the loss.
  if (!c->Input.empty()) {
    return static_cast<int32_t>(
        std::min<size_t>(c->Input.size(), std::numeric_limits<int32_t>::max()));
  }
  if (c->ClosedWhy.empty()) return 0;
  Lose(Handle, c->ClosedWhy);
  return -1;
}

int16_t RemoteSerialBackend::Read(int32_t Handle, int32_t Count, std::string& Buffer) {
  Buffer.clear();
  Connection* c = Find(Handle);
  if (c == nullptr) return 0;
  const size_t n = std::min(c->Input.size(), static_cast<size_t>(std::max(Count, 0)));
  Buffer.assign(c->Input, 0, n);
  c->Input.erase(0, n);
  return 1;
}

int32_t RemoteSerialBackend::Write(int32_t Handle, const std::string& Data) {
  Connection* c = Find(Handle);
  if (c == nullptr) return 0;
  SendReplies(*c);
  const std::string wire = c->Url.Telnet ? TelnetEscape(Data) : Data;
  std::string error;
  const size_t sent = SendAll(*c, wire, true, error);
  if (sent == wire.size()) {
    SendReplies(*c);
    return static_cast<int32_t>(Data.size());
  }
  // Counts the data bytes that went out whole; a doubled 0xFF counts once both halves went.
  size_t taken = 0;
  for (size_t at = 0; taken < Data.size(); ++taken) {
    at += static_cast<uint8_t>(Data[taken]) == telnet::IAC && c->Url.Telnet ? 2 : 1;
    if (at > sent) break;
  }
  // The stream's end may tell better than the failed send what the server is.
  Pump(*c);
  // Whatever followed a block cut short would land inside it.
  Lose(Handle, c->SpeaksTls ? c->ClosedWhy : error);
  return static_cast<int32_t>(taken);
}

void RemoteSerialBackend::Close(int32_t Handle) {
  if (std::erase(lost_, Handle) != 0) return;
  std::erase_if(open_, [&](const auto& c) { return c->Handle == Handle; });
}

void RemoteSerialBackend::RaiseDtr(int32_t Handle) {
  Connection* c = Find(Handle);
  if (c == nullptr || !c->Url.Telnet) return;
  SendReplies(*c);
  if (!c->ClosedWhy.empty()) return;
  // Not waited for: a server in front of a line without modem signals never confirms it.
  const std::string command =
      ComPortCommand(comport::SET_CONTROL, std::string(1, comport::CONTROL_DTR_ON));
  std::string error;
  if (SendAll(*c, command, false, error) != command.size()) {
    Lose(Handle, "cannot raise DTR: " + error);
  }
}

void RemoteSerialBackend::WaitForInput(int32_t Handle, int32_t MaxMicros) {
  Connection* c = Find(Handle);
  if (c == nullptr || MaxMicros <= 0 || !c->Input.empty() || !c->ClosedWhy.empty()) return;
  c->Socket.Wait(false, MaxMicros);
}

}  // namespace

std::unique_ptr<SerialBackend> MakeRemoteSerialBackend() {
  return std::make_unique<RemoteSerialBackend>();
}

}  // namespace palimbo
