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
    options_[kOurs][option] = OptionState::Asked;
    AppendCommand(out, telnet::WILL, option);
  }
  for (const uint8_t option : {telnet::BINARY, telnet::SGA}) {
    options_[kTheirs][option] = OptionState::Asked;
    AppendCommand(out, telnet::DO, option);
  }
  return out;
}

void TelnetDecoder::Negotiate(uint8_t Verb, uint8_t Option, std::string& Replies) {
  const int side = Verb == telnet::DO || Verb == telnet::DONT ? kOurs : kTheirs;
  const bool enable = Verb == telnet::DO || Verb == telnet::WILL;
  const uint8_t yes = side == kOurs ? telnet::WILL : telnet::DO;
  const uint8_t no = side == kOurs ? telnet::WONT : telnet::DONT;
  OptionState& state = options_[side][Option];
  if (!enable) {
    // Switching off a side that was on is confirmed; a refusal of our request needs no answer.
    if (state == OptionState::On) AppendCommand(Replies, no, Option);
    state = OptionState::Off;
    return;
  }
  if (state == OptionState::Off) {
    if (!(side == kOurs ? WeOffer(Option) : WeAccept(Option))) {
      if (!refused_[side][Option]) AppendCommand(Replies, no, Option);
      refused_[side][Option] = true;
      return;
    }
    AppendCommand(Replies, yes, Option);
  }
  // From Asked this is the answer to our own request, which needs none.
  state = OptionState::On;
}

void TelnetDecoder::EndSub() {
  if (sub_.size() >= 2 && static_cast<uint8_t>(sub_[0]) == telnet::COM_PORT_OPTION &&
      sub_.size() <= kMaxSubLength) {
    const auto command = static_cast<uint8_t>(sub_[1]);
    if (command == comport::FLOWCONTROL_SUSPEND + comport::SERVER_OFFSET) {
      suspended_ = true;
    } else if (command == comport::FLOWCONTROL_RESUME + comport::SERVER_OFFSET) {
      suspended_ = false;
    } else if (notices_.size() < kMaxNotices) {
      notices_.push_back({command, sub_.substr(2)});
    }
  }
  sub_.clear();
}

void TelnetDecoder::Feed(std::string_view Bytes, std::string& Data, std::string& Replies) {
  for (const char c : Bytes) {
    const auto byte = static_cast<uint8_t>(c);
    switch (parse_) {
      case State::Data:
        if (byte == telnet::IAC) {
          parse_ = State::Command;
        } else {
          Data += c;
        }
        break;
      case State::SubIac:
        if (byte == telnet::IAC) {
          if (sub_.size() <= kMaxSubLength) sub_ += c;
          parse_ = State::Sub;
          break;
        }
        if (byte == telnet::SE) {
          EndSub();
          parse_ = State::Data;
          break;
        }
        // A command inside a subnegotiation ends it unfinished; the command itself counts.
        sub_.clear();
        [[fallthrough]];
      case State::Command:
        if (byte == telnet::IAC) {
          Data += c;
          parse_ = State::Data;
        } else if (byte >= telnet::WILL) {
          verb_ = byte;
          parse_ = State::Option;
        } else if (byte == telnet::SB) {
          sub_.clear();
          parse_ = State::Sub;
        } else {
          // NOP, GA, SE without SB and the rest mean nothing to a serial line.
          parse_ = State::Data;
        }
        break;
      case State::Option:
        Negotiate(verb_, byte, Replies);
        parse_ = State::Data;
        break;
      case State::Sub:
        if (byte == telnet::IAC) {
          parse_ = State::SubIac;
        } else if (sub_.size() <= kMaxSubLength) {
          sub_ += c;
        }
        break;
    }
  }
}

}  // namespace palimbo
