// The Telnet decoder of network ports on any stream a server could send: no crash, the same
// result and option states however TCP cuts the stream, a data stream escaped by the client
// read back unchanged, no more answers than the server asked for, and no option on that the
// client neither offers nor asks for.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "serial/telnet_codec.h"

using namespace palimbo;

namespace {

struct Decoded {
  std::string Data;
  std::string Replies;
  std::vector<ComPortNotice> Notices;
  std::string States;  // both sides of every option, and the server's flow control
};

Decoded Decode(const std::string& Stream, const std::vector<size_t>& Cuts) {
  TelnetDecoder decoder;
  decoder.Greeting();
  Decoded out;
  size_t from = 0;
  for (const size_t cut : Cuts) {
    decoder.Feed(std::string_view(Stream).substr(from, cut - from), out.Data, out.Replies);
    from = cut;
  }
  decoder.Feed(std::string_view(Stream).substr(from), out.Data, out.Replies);
  out.Notices = decoder.Notices();
  for (int option = 0; option < 256; ++option) {
    const auto ours = decoder.Ours(static_cast<uint8_t>(option));
    const auto theirs = decoder.Theirs(static_cast<uint8_t>(option));
    const bool offered =
        option == telnet::BINARY || option == telnet::SGA || option == telnet::COM_PORT_OPTION;
    fuzz::Require(offered || ours == OptionState::Off,
                  "an option on that the client never offered");
    fuzz::Require(theirs == OptionState::Off || option == telnet::BINARY || option == telnet::SGA,
                  "an option of the server on that the client never asked for");
    out.States += static_cast<char>(static_cast<int>(ours) * 3 + static_cast<int>(theirs));
  }
  out.States += decoder.Suspended() ? 'S' : '-';
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  fuzz::Input in(Data, Size);
  // The first bytes choose where the stream is cut; the rest is the stream.
  std::vector<size_t> cuts;
  const size_t cutCount = in.Byte() % 8;
  std::vector<uint8_t> cutBytes;
  for (size_t i = 0; i < cutCount; ++i) cutBytes.push_back(in.Byte());
  const std::string stream = in.Take(Size);
  for (const uint8_t c : cutBytes) {
    const size_t at = stream.empty() ? 0 : c % (stream.size() + 1);
    if (cuts.empty() || at >= cuts.back()) cuts.push_back(at);
  }

  const Decoded whole = Decode(stream, {});
  const Decoded pieces = Decode(stream, cuts);
  fuzz::Require(whole.Data == pieces.Data, "data depends on where the stream is cut");
  fuzz::Require(whole.Replies == pieces.Replies, "answers depend on where the stream is cut");
  fuzz::Require(whole.Notices == pieces.Notices, "notices depend on where the stream is cut");
  fuzz::Require(whole.States == pieces.States, "option states depend on where the stream is cut");
  fuzz::Require(whole.Data.size() <= stream.size(), "more data than the stream had");
  // Each answer is three bytes and needs a three-byte question.
  fuzz::Require(whole.Replies.size() % 3 == 0 && whole.Replies.size() <= stream.size(),
                "answers nobody asked for");

  // Whatever the client sends as data reaches the other end unchanged.
  const Decoded echoed = Decode(TelnetEscape(stream), cuts);
  fuzz::Require(echoed.Data == stream, "escaped data does not read back");
  fuzz::Require(
      echoed.Replies.empty() && echoed.Notices.empty() && echoed.States == Decode("", {}).States,
      "escaped data read as commands");
  return 0;
}
