#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace palimbo {

/// Telnet bytes and options a network serial port speaks.
namespace telnet {
inline constexpr uint8_t IAC = 255;
inline constexpr uint8_t DONT = 254;
inline constexpr uint8_t DO = 253;
inline constexpr uint8_t WONT = 252;
inline constexpr uint8_t WILL = 251;
inline constexpr uint8_t SB = 250;
inline constexpr uint8_t SE = 240;
inline constexpr uint8_t BINARY = 0;
inline constexpr uint8_t SGA = 3;
inline constexpr uint8_t COM_PORT_OPTION = 44;
}  // namespace telnet

/// COM-PORT-OPTION commands from client to server; the server's answer to each carries the
/// command plus 100.
namespace comport {
inline constexpr uint8_t SET_BAUDRATE = 1;
inline constexpr uint8_t SET_DATASIZE = 2;
inline constexpr uint8_t SET_PARITY = 3;
inline constexpr uint8_t SET_STOPSIZE = 4;
inline constexpr uint8_t SET_CONTROL = 5;
inline constexpr uint8_t FLOWCONTROL_SUSPEND = 8;
inline constexpr uint8_t FLOWCONTROL_RESUME = 9;
inline constexpr uint8_t PURGE_DATA = 12;
inline constexpr uint8_t SERVER_OFFSET = 100;
inline constexpr uint8_t CONTROL_DTR_ON = 8;
inline constexpr uint8_t PURGE_BOTH = 3;
}  // namespace comport

/// One COM-PORT-OPTION message of the server: its command (100 and more) and its value bytes.
struct ComPortNotice {
  uint8_t Command = 0;
  std::string Value;

  bool operator==(const ComPortNotice&) const = default;
};

/// Doubles every 0xFF, as Telnet carries a data byte of that value.
std::string TelnetEscape(std::string_view Data);

/// One COM-PORT-OPTION subnegotiation from client to server, its value escaped.
std::string ComPortCommand(uint8_t Command, std::string_view Value);

/// Where one side of an option stands: off, asked for and not yet answered, or on.
enum class OptionState : uint8_t { Off, Asked, On };

/// The client's side of a Telnet stream: takes what the server sends in any pieces, hands on
/// the data bytes with doubled 0xFF undone, answers the server's option requests and collects
/// its COM-PORT-OPTION messages.
///
/// The client offers BINARY, SGA and COM-PORT-OPTION and asks the server for BINARY and SGA;
/// every other option is refused, once in each direction however often a peer asks. A request
/// is answered only when it changes an option's state, and a refusal of the client's own
/// request needs no answer, so two peers never loop on each other. Anything the protocol does
/// not know (a lone command byte, an unknown subnegotiation) is dropped without harm to the
/// data.
class TelnetDecoder {
 public:
  /// The client's opening offers and requests, to be sent first.
  std::string Greeting();

  /// Decodes `Bytes`, appending data to `Data` and the answers due to `Replies`.
  void Feed(std::string_view Bytes, std::string& Data, std::string& Replies);

  /// The COM-PORT-OPTION messages decoded so far, oldest first; the caller takes them. The
  /// server's flow control is not among them: it shows in `Suspended`.
  std::vector<ComPortNotice>& Notices() { return notices_; }

  /// Whether the client does `Option`: on once the server said DO to its WILL.
  OptionState Ours(uint8_t Option) const { return options_[kOurs][Option]; }
  /// Whether the server does `Option`: on once it said WILL to the client's DO.
  OptionState Theirs(uint8_t Option) const { return options_[kTheirs][Option]; }
  /// True from the server's FLOWCONTROL-SUSPEND until its FLOWCONTROL-RESUME: the client
  /// holds its data back meanwhile.
  bool Suspended() const { return suspended_; }

 private:
  enum class State { Data, Command, Option, Sub, SubIac };
  static constexpr int kOurs = 0;
  static constexpr int kTheirs = 1;

  void Negotiate(uint8_t Verb, uint8_t Option, std::string& Replies);
  void EndSub();

  State parse_ = State::Data;
  uint8_t verb_ = 0;
  std::string sub_;
  std::vector<ComPortNotice> notices_;
  OptionState options_[2][256] = {};
  bool refused_[2][256] = {};
  bool suspended_ = false;
};

}  // namespace palimbo
