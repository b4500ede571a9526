#include "serial/telnet_codec.h"

namespace palimbo {

namespace {

// A subnegotiation longer than any the port option knows is garbage and is not kept.
constexpr size_t kMaxSubLength = 64;
// Notices the caller has not taken yet; a peer that floods them loses the excess.
constexpr size_t kMaxNotices = 256;

bool WeOffer(uint8_t Option) {
  return Option == telnet::BINARY || Option == telnet::SGA || Option == telnet::COM_PORT_OPTION;
}

bool WeAccept(uint8_t Option) {
  return Option == telnet::BINARY || Option == telnet::SGA;
}

void AppendCommand(std::string& Out, uint8_t Verb, uint8_t Option) {
  Out += static_cast<char>(telnet::IAC);
  Out += static_cast<char>(Verb);
  Out += static_cast<char>(Option);
}

}  // namespace

std::string TelnetEscape(std::string_view Data) {
  std::string out;
  out.reserve(Data.size() + Data.size() / 8);
  for (const char c : Data) {
    out += c;
    if (static_cast<uint8_t>(c) == telnet::IAC) out += c;
  }
  return out;
}

std::string ComPortCommand(uint8_t Command, std::string_view Value) {
  std::string out;
  out += static_cast<char>(telnet::IAC);
  out += static_cast<char>(telnet::SB);
  out += static_cast<char>(telnet::COM_PORT_OPTION);
  out += static_cast<char>(Command);
  out += TelnetEscape(Value);
  out += static_cast<char>(telnet::IAC);
  out += static_cast<char>(telnet::SE);
  return out;
}

std::string TelnetDecoder::Greeting() {
  std::string out;
  for (const uint8_t option : {telnet::BINARY, telnet::SGA, telnet::COM_PORT_OPTION}) {
    we_will_[option] = true;
    AppendCommand(out, telnet::WILL, option);
  }
  for (const uint8_t option : {telnet::BINARY, telnet::SGA}) {
    they_will_[option] = true;
    AppendCommand(out, telnet::DO, option);
  }
  return out;
}

void TelnetDecoder::Negotiate(uint8_t Verb, uint8_t Option, std::string& Replies) {
  switch (Verb) {
    case telnet::DO:
      if (Option == telnet::COM_PORT_OPTION) com_port_accepted_ = true;
      if (WeOffer(Option)) {
        if (!we_will_[Option]) AppendCommand(Replies, telnet::WILL, Option);
        we_will_[Option] = true;
      } else if (!refused_[Option]) {
        refused_[Option] = true;
        AppendCommand(Replies, telnet::WONT, Option);
      }
      break;
    case telnet::DONT:
      if (Option == telnet::COM_PORT_OPTION) com_port_refused_ = true;
      if (we_will_[Option]) AppendCommand(Replies, telnet::WONT, Option);
      we_will_[Option] = false;
      break;
    case telnet::WILL:
      if (WeAccept(Option)) {
        if (!they_will_[Option]) AppendCommand(Replies, telnet::DO, Option);
        they_will_[Option] = true;
      } else if (!refused_[Option]) {
        refused_[Option] = true;
        AppendCommand(Replies, telnet::DONT, Option);
      }
      break;
    case telnet::WONT:
      if (they_will_[Option]) AppendCommand(Replies, telnet::DONT, Option);
      they_will_[Option] = false;
      break;
    default:
      break;
  }
}

void TelnetDecoder::EndSub() {
  if (sub_.size() >= 2 && static_cast<uint8_t>(sub_[0]) == telnet::COM_PORT_OPTION &&
      sub_.size() <= kMaxSubLength && notices_.size() < kMaxNotices) {
    notices_.push_back({static_cast<uint8_t>(sub_[1]), sub_.substr(2)});
  }
  sub_.clear();
}

void TelnetDecoder::Feed(std::string_view Bytes, std::string& Data, std::string& Replies) {
  for (const char c : Bytes) {
    const auto byte = static_cast<uint8_t>(c);
    switch (state_) {
      case State::Data:
        if (byte == telnet::IAC) {
          state_ = State::Command;
        } else {
          Data += c;
        }
        break;
      case State::SubIac:
        if (byte == telnet::IAC) {
          if (sub_.size() <= kMaxSubLength) sub_ += c;
          state_ = State::Sub;
          break;
        }
        if (byte == telnet::SE) {
          EndSub();
          state_ = State::Data;
          break;
        }
        // A command inside a subnegotiation ends it unfinished; the command itself counts.
        sub_.clear();
        [[fallthrough]];
      case State::Command:
        if (byte == telnet::IAC) {
          Data += c;
          state_ = State::Data;
        } else if (byte >= telnet::WILL) {
          verb_ = byte;
          state_ = State::Option;
        } else if (byte == telnet::SB) {
          sub_.clear();
          state_ = State::Sub;
        } else {
          // NOP, GA, SE without SB and the rest mean nothing to a serial line.
          state_ = State::Data;
        }
        break;
      case State::Option:
        Negotiate(verb_, byte, Replies);
        state_ = State::Data;
        break;
      case State::Sub:
        if (byte == telnet::IAC) {
          state_ = State::SubIac;
        } else if (sub_.size() <= kMaxSubLength) {
          sub_ += c;
        }
        break;
    }
  }
}

}  // namespace palimbo
