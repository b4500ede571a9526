// The Telnet decoder of network ports on any stream a server could send: no crash, the same
// result however TCP cuts the stream, a data stream escaped by the client read back unchanged,
// and no more answers than the server asked for.
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
  fuzz::Require(whole.Data.size() <= stream.size(), "more data than the stream had");
  // Each answer is three bytes and needs a three-byte question.
  fuzz::Require(whole.Replies.size() % 3 == 0 && whole.Replies.size() <= stream.size(),
                "answers nobody asked for");

  // Whatever the client sends as data reaches the other end unchanged.
  const Decoded echoed = Decode(TelnetEscape(stream), cuts);
  fuzz::Require(echoed.Data == stream, "escaped data does not read back");
  fuzz::Require(echoed.Replies.empty() && echoed.Notices.empty(), "escaped data read as commands");
  return 0;
}
