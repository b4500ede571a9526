#include "sim/simulated_module.h"

#include <gtest/gtest.h>

#include "frames/crc16.h"

// Each case names only the settings and fault fields it is about; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace palimbo::sim {
namespace {

using enum FaultKind;
constexpr auto kCcb = BootProtocol::Ccb;

std::string B(std::initializer_list<int> Values) {
  std::string out;
  for (const int v : Values) out += static_cast<char>(v);
  return out;
}
// A direct and a CCB frame around the given bytes.
std::string D(std::initializer_list<int> Head, const std::string& Tail = "") {
  return SimulatedModule::EncodeFrame(kDirectStart, B(Head) + Tail);
}
std::string C(std::initializer_list<int> Head, const std::string& Tail = "") {
  return SimulatedModule::EncodeFrame(kCcbStart, B(Head) + Tail);
}
// The positive direct answer to `Command` that carries the CRC of `Over`.
std::string CrcAnswer(int Command, std::string_view Over) {
  const int32_t crc = Crc16Of(Over);
  return D({'R', Command, 1, crc >> 8, crc & 0xFF});
}

// Sends the requests `Gap` apart and checks what each brought back; when the requests run out,
// the last one is sent again. `LastAt`, if not 0, is when the last answer goes out.
void Play(const char* Name, const ModuleSettings& Settings,
          const std::vector<std::string>& Requests, const std::vector<std::string>& Answers,
          size_t Used = 0, int64_t LastAt = 0, int64_t Gap = 200'000) {
  SimulatedModule module(Settings);
  std::vector<Emission> out;
  for (size_t i = 0; i < Answers.size(); ++i) {
    out.clear();
    module.Receive(Requests[std::min(i, Requests.size() - 1)],
                   1'000'000 + static_cast<int64_t>(i) * Gap, out);
    std::string got;
    for (const auto& e : out) got += e.Bytes;
    EXPECT_EQ(got, Answers[i]) << Name << ", request " << i + 1;
  }
  EXPECT_EQ(module.FlashUsed(), Used) << Name;
  EXPECT_EQ(LastAt == 0 || out.empty() ? 0 : out.back().AtMicros, LastAt) << Name;
}

const std::string kO256 = B({'O', 0, 1, 0}), kErase = D({'E'}), kEraseOk = D({'R', 'E', 1});

TEST(SimulatedModuleTest, EncoderReproducesTheDirectWireExamples) {
  EXPECT_EQ(D({'C', 0, 0, 1, 0}), B({0x55, 5, 0x43, 0, 0, 1, 0, 0x44, 0x89}));
  EXPECT_EQ(D({'R', 'C', 1, 0x12, 0x34}), B({0x55, 5, 0x52, 0x43, 1, 0x12, 0x34, 0x8D, 0x9E}));
}

TEST(SimulatedModuleTest, EntryAnswersFollowTheSettings) {
  Play("only lower-case i polls", {}, {"Ioxa\r\n", "iii"}, {"", kO256 + kO256 + kO256});
  Play("24-bit page size", {.PageSize = 0x012345}, {"i"}, {B({'O', 1, 0x23, 0x45})});
  Play("echo, 2 unanswered", {.EchoPoll = true, .AnswerAfterPolls = 2}, {"i"},
       {"", "", "i" + kO256});
  Play("stray, 3 pieces", {.StrayBytes = "?", .AnswerPieces = 3}, {"i"},
       {"?O", B({0}), B({1, 0}), "O"});
  Play("ccb in one piece", {.Protocol = kCcb, .AnswerPieces = 3}, {"i"}, {"X", "X"});
  Play("silent", {.EchoPoll = true, .Silent = true}, {"i", kErase}, {"", ""});
  Play("framed until the reboot", {.StrayBytes = "?"}, {"i", kErase, "i", D({'S'}), "i"},
       {"?" + kO256, kEraseOk, "", D({'R', 'S', 1}), "?" + kO256});
  Play("ccb framed until the reboot", {.Protocol = kCcb, .StrayBytes = "?"},
       {"i", C({kCcbEnter}), "i", C({kCcbReboot}), "i"},
       {"?X", C({kCcbAnswer, kCcbEnter}), "", C({kCcbAnswer, kCcbReboot}), "?X"});
}

TEST(SimulatedModuleTest, CommandsGetTheirAnswers) {
  std::string page;
  for (int i = 0; i < 256; ++i) page += static_cast<char>(i ^ 0x5A);
  const std::string ff(256, '\xFF'), crc512 = D({'C', 0, 0, 2, 0}), filled = D({'R', 'F', 1});
  const std::string fill0 = D({'F', 0, 0}, page.substr(0, 128)),
                    fill1 = D({'F', 0, 0x80}, page.substr(128));
  const std::string block = C({kCcbBlock, 0, 0, 0, 0x80}, "ab"),
                    check = C({kCcbCheck, 0, 0, 0, 0x82});
  Play("fill, page, erase", {}, {fill0, fill1, D({'P', 0, 0, 1, 0}), crc512, kErase, crc512},
       {filled, filled, B({0x55, 5, 0x52, 0x50, 1, 0xA7, 0xA6, 0xFA, 0xD0}),
        CrcAnswer('C', ff + page), kEraseOk, CrcAnswer('C', ff + ff)});
  Play("page of 200 takes only its own", {.PageSize = 200},
       {fill0, fill1, D({'P', 0, 0, 1, 0}), crc512},
       {filled, filled, CrcAnswer('P', page.substr(0, 200)),
        CrcAnswer('C', ff + page.substr(0, 200) + ff.substr(200))},
       0x100 + 200);
  Play("refused", {}, {D({'F', 0, 0}, "abc"), D({'Z'}), kEraseOk, C({kCcbEnter})},
       {D({'R', 'F', 0}), D({'R', 'Z', 0}), "", ""});
  Play("no crc support", {.SupportsCrc = false}, {D({'C', 0, 0, 1, 0})}, {D({'R', 'C', 0})});
  Play("crc past the flash", {.FlashSize = 256}, {D({'C', 0, 0, 1, 1})}, {D({'R', 'C', 0})});
  Play("page past the flash", {.FlashSize = 512}, {D({'P', 0, 0, 1, 1})}, {D({'R', 'P', 0})});
  Play("silent reboot", {.AnswerReboot = false}, {D({'S'})}, {""});
  Play("ccb refused", {.Protocol = kCcb}, {C({kCcbBlock, 0, 0, 0, 0}), C({0x90})}, {"", ""});
  Play("ccb enter refused", {.Protocol = kCcb, .AnswerEnter = false}, {C({kCcbEnter})}, {""});
  Play("ccb finish silent", {.Protocol = kCcb, .AnswerFinish = false}, {C({kCcbFinish})}, {""});
  Play("ccb reboot silent", {.Protocol = kCcb, .AnswerReboot = false}, {C({kCcbReboot})}, {""});
  Play("ccb block 1 refused", {.Protocol = kCcb, .RefuseBlock = 1}, {block}, {""});
  Play("ccb block 2 refused", {.Protocol = kCcb, .RefuseBlock = 2}, {block},
       {C({kCcbAnswer, kCcbBlock})}, 130);
  Play("ccb check past the flash", {.Protocol = kCcb, .FlashSize = 129}, {check}, {""});
  Play("ccb check in 4 bytes", {.Protocol = kCcb, .CheckBytes = 4}, {check},
       {C({kCcbAnswer, kCcbCheck, 0, 0, 0xF8, 0xC9})});
}

TEST(SimulatedModuleTest, FaultsDoWhatTheySay) {
  const std::string garbage = B({0xAA, 0, 0xAA}), part(128, 'q'), page = D({'P', 0, 0, 0, 0});
  std::string corrupt = kEraseOk, spoiled = part;
  corrupt.back() = static_cast<char>(~corrupt.back());
  spoiled[0] = static_cast<char>(~'q');
  Play("lose the first", {.Faults = {{LoseAnswer, 'E', 1}, {LoseAnswer, 'C'}}}, {kErase},
       {"", kEraseOk});
  Play("garbage, corrupt the second", {.Faults = {{GarbageFirst, 'E'}, {CorruptAnswer, 'E', 2}}},
       {kErase}, {garbage + kEraseOk, garbage + corrupt});
  Play("late, not overtaken", {.Faults = {{LateAnswer, 'E', 1, 300'000}}}, {kErase},
       {kEraseOk, kEraseOk}, 0, 1'000'000 + 10'000 + 300'000);
  Play("negative on any second", {.Faults = {{NegativeAnswer, kAnyCommand, 2}}},
       {D({'S'}), kErase, kErase}, {D({'R', 'S', 1}), D({'R', 'E', 0}), kEraseOk});
  Play("ccb negative", {.Protocol = kCcb, .Faults = {{NegativeAnswer, kCcbEnter, 1}}},
       {C({kCcbEnter})}, {B({0x53, 2, 0, 0x8A, 0xDC, 0x5B})});
  Play("bad write", {.PageSize = 128, .Faults = {{BadWrite, 'P', 1}}},
       {D({'F', 0, 0}, part), page, page},
       {D({'R', 'F', 1}), CrcAnswer('P', spoiled), CrcAnswer('P', part)}, 128);
  Play("wrong value where there is one", {.Faults = {{WrongValue}}}, {kErase, D({'C', 0, 0, 1, 0})},
       {kEraseOk, D({'R', 'C', 1, 0x34, 0xB6})});
}

TEST(SimulatedModuleTest, ParserResynchronises) {
  std::string badCrc = kErase;
  badCrc.back() ^= 1;
  Play("garbage in front", {}, {B({0xAA, 0, 0x13}) + kErase}, {kEraseOk});
  Play("bad crc, then a frame", {}, {badCrc + D({'C', 0, 0, 0, 1})}, {D({'R', 'C', 1, 0, 0xFF})});
  Play("empty frame", {}, {B({0x55, 0, 0x36, 0xA9}) + kErase}, {kEraseOk});
  Play("half frame, then silence", {}, {"\x55\x40\x01", kErase}, {"", kEraseOk});
  Play("half frame swallows what follows", {}, {"\x55\x40\x01", kErase}, {"", ""}, 0, 0, 1000);
  Play("a byte at a time", {}, {"\x55", "\x01", "E", kErase.substr(3, 1), kErase.substr(4)},
       {"", "", "", "", kEraseOk}, 0, 0, 1000);
}

}  // namespace
}  // namespace palimbo::sim
