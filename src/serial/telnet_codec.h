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

/// The client's side of a Telnet stream: takes what the server sends in any pieces, hands on
/// the data bytes with doubled 0xFF undone, answers the server's option requests and collects
/// its COM-PORT-OPTION messages.
///
/// The client offers BINARY, SGA and COM-PORT-OPTION and accepts BINARY and SGA from the
/// server; every other option is refused, and an option is answered only when its state
/// changes, so two peers never loop on each other. Anything the protocol does not know (a
/// lone command byte, an unknown subnegotiation) is dropped without harm to the data.
class TelnetDecoder {
 public:
  /// The client's opening offers, to be sent first.
  std::string Greeting();

  /// Decodes `Bytes`, appending data to `Data` and the answers due to `Replies`.
  void Feed(std::string_view Bytes, std::string& Data, std::string& Replies);

  /// The COM-PORT-OPTION messages decoded so far, oldest first; the caller takes them.
  std::vector<ComPortNotice>& Notices() { return notices_; }

  /// True once the server has said DO COM-PORT-OPTION.
  bool ComPortAccepted() const { return com_port_accepted_; }
  /// True once the server has said DONT COM-PORT-OPTION.
  bool ComPortRefused() const { return com_port_refused_; }

 private:
  enum class State { Data, Command, Option, Sub, SubIac };

  void Negotiate(uint8_t Verb, uint8_t Option, std::string& Replies);
  void EndSub();

  State state_ = State::Data;
  uint8_t verb_ = 0;
  std::string sub_;
  std::vector<ComPortNotice> notices_;
  // What each side has said or been asked of an option, so that only changes are answered;
  // a refusal goes out once an option however often a peer asks again.
  bool we_will_[256] = {};
  bool they_will_[256] = {};
  bool refused_[256] = {};
  bool com_port_accepted_ = false;
  bool com_port_refused_ = false;
};

}  // namespace palimbo
