#include "sim/simulated_module.h"

#include <gtest/gtest.h>

#include <functional>

#include "frames/ccb_exchange.h"
#include "frames/crc16.h"
#include "frames/direct_exchange.h"
#include "sim/sim_line.h"
#include "sim/virtual_clock.h"

namespace palimbo::sim {
namespace {

std::string B(std::initializer_list<int> Values) {
  std::string out;
  for (const int v : Values) out += static_cast<char>(v);
  return out;
}

std::string Hex(std::string_view Bytes) {
  std::string out;
  char cell[4];
  for (const char c : Bytes) {
    std::snprintf(cell, sizeof cell, "%02X ", static_cast<unsigned char>(c));
    out += cell;
  }
  return out;
}

std::string Direct(const std::string& Payload) {
  return SimulatedModule::EncodeFrame(0x55, Payload);
}
std::string Ccb(const std::string& Payload) {
  return SimulatedModule::EncodeFrame(0x53, Payload);
}

// Feeds a module chunk by chunk, 200 ms apart unless told, and collects what each chunk brought
// back.
struct Bench {
  explicit Bench(ModuleSettings Settings = {}) : Module(std::move(Settings)) {}
  std::string Send(std::string_view Bytes, int64_t GapMicros = 200'000) {
    Out.clear();
    Module.Receive(Bytes, Now, Out);
    Now += GapMicros;
    std::string all;
    for (const auto& e : Out) all += e.Bytes;
    return all;
  }
  SimulatedModule Module;
  std::vector<Emission> Out;
  int64_t Now = 1'000'000;
};

using Tweak = void (*)(ModuleSettings&);

TEST(SimulatedModuleTest, EncoderReproducesTheWireExamples) {
  const struct {
    std::string Built, Wire;
  } rows[] = {
      {Direct(B({0x43, 0, 0, 1, 0})), B({0x55, 0x05, 0x43, 0, 0, 1, 0, 0x44, 0x89})},
      {Direct(B({0x52, 0x43, 1, 0x12, 0x34})), B({0x55, 5, 0x52, 0x43, 1, 0x12, 0x34, 0x8D, 0x9E})},
      {Ccb(B({0x8F, 0, 0, 0x40, 0})), B({0x53, 5, 0x8F, 0, 0, 0x40, 0, 0xF2, 0x83})},
      {Ccb(B({0x8C, 0x8F, 0x12, 0x34})), B({0x53, 4, 0x8C, 0x8F, 0x12, 0x34, 0x07, 0xC8})},
  };
  for (const auto& row : rows) EXPECT_EQ(Hex(row.Built), Hex(row.Wire));
}

TEST(SimulatedModuleTest, EntryAnswersFollowTheSettings) {
  const std::string o256 = B({'O', 0, 1, 0});
  const struct {
    const char* Name;
    Tweak Setup;
    std::vector<std::string> PerPoll;
  } rows[] = {
      {"plain", [](ModuleSettings&) {}, {o256, o256}},
      {"24-bit page size",
       [](ModuleSettings& s) { s.PageSize = 0x012345; },
       {B({'O', 1, 0x23, 0x45})}},
      {"echo", [](ModuleSettings& s) { s.EchoPoll = true; }, {"i" + o256, "i" + o256}},
      {"after 2 polls", [](ModuleSettings& s) { s.AnswerAfterPolls = 2; }, {"", "", o256, o256}},
      {"stray once",
       [](ModuleSettings& s) { s.StrayBytes = "\x11\x22"; },
       {"\x11\x22" + o256, o256}},
      {"2 pieces",
       [](ModuleSettings& s) { s.AnswerPieces = 2; },
       {B({'O', 0}), B({1, 0}), B({'O', 0}), B({1, 0})}},
      {"3 pieces", [](ModuleSettings& s) { s.AnswerPieces = 3; }, {"O", B({0}), B({1, 0}), "O"}},
      {"everything",
       [](ModuleSettings& s) {
         s.EchoPoll = true, s.AnswerAfterPolls = 1, s.StrayBytes = "x", s.AnswerPieces = 4;
       },
       {"", "ixO", "i" + B({0}), "i" + B({1}), "i" + B({0}), "iO"}},
      {"ccb pieces",
       [](ModuleSettings& s) { s.Protocol = BootProtocol::Ccb, s.AnswerPieces = 3; },
       {"X", "X"}},
      {"silent", [](ModuleSettings& s) { s.Silent = true, s.EchoPoll = true; }, {"", "", ""}},
  };
  for (const auto& row : rows) {
    ModuleSettings settings;
    row.Setup(settings);
    Bench bench(settings);
    for (size_t i = 0; i < row.PerPoll.size(); ++i) {
      EXPECT_EQ(Hex(bench.Send("i")), Hex(row.PerPoll[i])) << row.Name << ", poll " << i + 1;
    }
    EXPECT_EQ(bench.Module.PollCount(), static_cast<int>(row.PerPoll.size())) << row.Name;
  }
}

TEST(SimulatedModuleTest, EntryTimingAndIgnoredBytes) {
  ModuleSettings settings;
  settings.EchoPoll = true;
  settings.TurnaroundMicros = 2500;
  Bench bench(settings);
  // Only a lower-case "i" is a poll; three polls in one chunk get three answers.
  EXPECT_EQ(bench.Send("Ioxa\r\n"), "");
  EXPECT_EQ(bench.Send("iii").size(), 15u);
  ASSERT_EQ(bench.Out.size(), 6u);
  EXPECT_EQ(bench.Out[0].AtMicros, 1'200'000);  // the echo goes back at once
  EXPECT_EQ(bench.Out[1].AtMicros, 1'202'500);
  for (size_t i = 1; i < bench.Out.size(); ++i) {
    EXPECT_GE(bench.Out[i].AtMicros, bench.Out[i - 1].AtMicros) << "answers overtook each other";
  }
}

TEST(SimulatedModuleTest, FramedModeEndsThePollsUntilTheReboot) {
  for (const bool ccb : {false, true}) {
    ModuleSettings settings;
    settings.StrayBytes = "?";
    if (ccb) settings.Protocol = BootProtocol::Ccb;
    const std::string answer = ccb ? "X" : B({'O', 0, 1, 0});
    Bench bench(settings);
    EXPECT_EQ(bench.Send("i"), "?" + answer);
    EXPECT_NE(bench.Send(ccb ? Ccb(B({kCcbEnter})) : Direct("E")), "");
    EXPECT_EQ(bench.Module.CurrentMode(), SimulatedModule::Mode::Framed);
    EXPECT_EQ(bench.Send("i"), "") << "ccb " << ccb;
    EXPECT_NE(bench.Send(ccb ? Ccb(B({kCcbReboot})) : Direct("S")), "");
    EXPECT_EQ(bench.Module.RebootCount(), 1);
    EXPECT_EQ(bench.Send("i"), "?" + answer) << "a rebooted module starts over, ccb " << ccb;
  }
}

TEST(SimulatedModuleTest, DirectCommandsGetTheirAnswers) {
  const struct {
    const char* Name;
    Tweak Setup;
    std::string Request, Answer;
  } rows[] = {
      {"crc of erased 256", [](ModuleSettings&) {}, Direct(B({'C', 0, 0, 1, 0})),
       B({0x55, 5, 0x52, 0x43, 1, 0x34, 0xB5, 0xCA, 0x86})},
      {"no crc support", [](ModuleSettings& s) { s.SupportsCrc = false; },
       Direct(B({'C', 0, 0, 1, 0})), B({0x55, 3, 0x52, 0x43, 0, 0xE0, 0x37})},
      {"crc past the flash", [](ModuleSettings& s) { s.FlashSize = 256; },
       Direct(B({'C', 0, 0, 1, 1})), B({0x55, 3, 0x52, 0x43, 0, 0xE0, 0x37})},
      {"erase", [](ModuleSettings&) {}, Direct("E"), B({0x55, 3, 0x52, 0x45, 1, 0x06, 0x65})},
      {"unknown", [](ModuleSettings&) {}, Direct("Z"), B({0x55, 3, 0x52, 0x5A, 0, 0x7F, 0x16})},
      {"short fill", [](ModuleSettings&) {}, Direct(B({'F', 0, 0}) + "abc"),
       B({0x55, 3, 0x52, 0x46, 0, 0x8A, 0xDB})},
      {"page past the flash", [](ModuleSettings& s) { s.FlashSize = 512; },
       Direct(B({'P', 0, 0, 1, 1})), B({0x55, 3, 0x52, 0x50, 0, 0xAA, 0xCE})},
      {"reboot", [](ModuleSettings&) {}, Direct("S"), B({0x55, 3, 0x52, 0x53, 1, 0x26, 0x70})},
      {"silent reboot", [](ModuleSettings& s) { s.AnswerReboot = false; }, Direct("S"), ""},
      {"own answer echoed", [](ModuleSettings&) {}, Direct(B({'R', 'E', 1})), ""},
      {"ccb frame", [](ModuleSettings&) {}, Ccb(B({kCcbEnter})), ""},
  };
  for (const auto& row : rows) {
    ModuleSettings settings;
    row.Setup(settings);
    Bench bench(settings);
    EXPECT_EQ(Hex(bench.Send(row.Request)), Hex(row.Answer)) << row.Name;
  }
}

TEST(SimulatedModuleTest, FillAndPageWriteTheFlash) {
  std::string page;
  for (int i = 0; i < 256; ++i) page += static_cast<char>(i ^ 0x5A);
  Bench bench;
  EXPECT_EQ(bench.Send(Direct("F" + B({0, 0}) + page.substr(0, 128))), Direct(B({'R', 'F', 1})));
  EXPECT_EQ(bench.Send(Direct("F" + B({0, 0x80}) + page.substr(128))), Direct(B({'R', 'F', 1})));
  EXPECT_EQ(Hex(bench.Send(Direct(B({'P', 0, 0, 1, 0})))),
            Hex(B({0x55, 5, 0x52, 0x50, 1, 0xA7, 0xA6, 0xFA, 0xD0})));
  // "D" writes the same buffer and is counted apart from "P".
  EXPECT_EQ(bench.Send(Direct(B({'D', 0, 0, 3, 0}))), Direct(B({'R', 'D', 1, 0xA7, 0xA6})));
  const std::string& flash = bench.Module.Flash();
  EXPECT_EQ(flash.substr(0x100, 256), page);
  EXPECT_EQ(flash.substr(0x300, 256), page);
  EXPECT_EQ(flash.substr(0, 256), std::string(256, '\xFF'));
  EXPECT_EQ(flash.substr(0x200, 256), std::string(256, '\xFF'));
  EXPECT_EQ(bench.Module.FlashUsed(), 0x400u);
  EXPECT_EQ(bench.Module.CountOf('P'), 1);
  EXPECT_EQ(bench.Module.CountOf('D'), 1);
  EXPECT_EQ(bench.Module.CountOf('F'), 2);
  ASSERT_EQ(bench.Module.Commands().size(), 4u);
  EXPECT_EQ(bench.Module.Commands()[2].Data, B({0, 0, 1, 0}));

  bench.Send(Direct("E"));
  EXPECT_EQ(bench.Module.Flash(), std::string(131072, '\xFF'));
  EXPECT_EQ(bench.Module.FlashUsed(), 0u);
}

TEST(SimulatedModuleTest, PageSizeNotAMultipleOf128KeepsOnlyThePage) {
  ModuleSettings settings;
  settings.PageSize = 200;
  Bench bench(settings);
  std::string part;
  for (int i = 0; i < 256; ++i) part += static_cast<char>(3 * i + 1);
  bench.Send(Direct("F" + B({0, 0}) + part.substr(0, 128)));
  bench.Send(Direct("F" + B({0, 0x80}) + part.substr(128)));
  EXPECT_EQ(bench.Send(Direct(B({'P', 0, 0, 0, 0}))), Direct(B({'R', 'P', 1, 0x42, 0xE1})));
  EXPECT_EQ(bench.Module.Flash().substr(0, 200), part.substr(0, 200));
  EXPECT_EQ(bench.Module.Flash().substr(200, 56), std::string(56, '\xFF'));
  EXPECT_EQ(bench.Module.FlashUsed(), 200u);
}

TEST(SimulatedModuleTest, CcbUploadOf130Bytes) {
  std::string image;
  for (int i = 0; i < 130; ++i) image += static_cast<char>(i * 7 + 3);
  const struct {
    std::string Request, Answer;
  } steps[] = {
      {B({0x53, 1, 0x8A, 0x4C, 0xE5}), B({0x53, 2, 0x8C, 0x8A, 0x10, 0x46})},
      {Ccb(B({0x8B, 0, 0, 0, 0}) + image.substr(0, 128)), B({0x53, 2, 0x8C, 0x8B, 0x4A, 0xBD})},
      {Ccb(B({0x8B, 0, 0, 0, 0x80}) + image.substr(128)), B({0x53, 2, 0x8C, 0x8B, 0x4A, 0xBD})},
      {B({0x53, 1, 0x8E, 0x37, 0x2A}), B({0x53, 2, 0x8C, 0x8E, 0x6B, 0x89})},
      {B({0x53, 5, 0x8F, 0, 0, 0, 0x82, 0x9D, 0xD2}),
       B({0x53, 4, 0x8C, 0x8F, 0xA4, 0xFB, 0x8C, 0xBE})},
      {B({0x53, 1, 0x8D, 0xD8, 0x27}), B({0x53, 2, 0x8C, 0x8D, 0x84, 0x84})},
  };
  ModuleSettings settings;
  settings.Protocol = BootProtocol::Ccb;
  Bench bench(settings);
  EXPECT_EQ(steps[1].Request.size(), 137u);
  for (const auto& step : steps) EXPECT_EQ(Hex(bench.Send(step.Request)), Hex(step.Answer));
  EXPECT_EQ(bench.Module.Flash().substr(0, 130), image);
  EXPECT_EQ(bench.Module.FlashUsed(), 130u);
  EXPECT_EQ(bench.Module.CurrentMode(), SimulatedModule::Mode::Entry);
}

TEST(SimulatedModuleTest, CcbSettingsWithholdAnswers) {
  const std::string block1 = Ccb(B({0x8B, 0, 0, 0, 0x80}) + "ab");
  const std::string check = B({0x53, 5, 0x8F, 0, 0, 0, 0x82, 0x9D, 0xD2});
  const struct {
    const char* Name;
    Tweak Setup;
    std::string Request;
    bool Answered;
  } rows[] = {
      {"enter refused", [](ModuleSettings& s) { s.AnswerEnter = false; }, Ccb(B({kCcbEnter})),
       false},
      {"finish silent", [](ModuleSettings& s) { s.AnswerFinish = false; }, Ccb(B({kCcbFinish})),
       false},
      {"reboot silent", [](ModuleSettings& s) { s.AnswerReboot = false; }, Ccb(B({kCcbReboot})),
       false},
      {"block 1 refused", [](ModuleSettings& s) { s.RefuseBlock = 1; }, block1, false},
      {"block 2 refused", [](ModuleSettings& s) { s.RefuseBlock = 2; }, block1, true},
      {"empty block", [](ModuleSettings&) {}, Ccb(B({0x8B, 0, 0, 0, 0})), false},
      {"unknown", [](ModuleSettings&) {}, Ccb(B({0x90})), false},
      {"check past the flash", [](ModuleSettings& s) { s.FlashSize = 129; }, check, false},
  };
  for (const auto& row : rows) {
    ModuleSettings settings;
    settings.Protocol = BootProtocol::Ccb;
    row.Setup(settings);
    Bench bench(settings);
    EXPECT_EQ(!bench.Send(row.Request).empty(), row.Answered) << row.Name;
    EXPECT_EQ(bench.Module.Flash()[128] == 'a', row.Answered && row.Request == block1) << row.Name;
  }
  ModuleSettings four;
  four.Protocol = BootProtocol::Ccb;
  four.CheckBytes = 4;
  Bench bench(four);
  EXPECT_EQ(Hex(bench.Send(check)), Hex(Ccb(B({0x8C, 0x8F, 0, 0, 0xF8, 0xC9}))));
}

TEST(SimulatedModuleTest, FaultsDoWhatTheySay) {
  const std::string e = Direct("E");
  const std::string ePos = Direct(B({'R', 'E', 1}));
  std::string eCorrupt = ePos;
  eCorrupt.back() = static_cast<char>(~eCorrupt.back());
  const struct {
    const char* Name;
    std::vector<Fault> Faults;
    std::vector<std::string> Requests, Answers;
  } rows[] = {
      {"lose first", {{FaultKind::LoseAnswer, 'E', 1}}, {e, e, e}, {"", ePos, ePos}},
      {"corrupt second", {{FaultKind::CorruptAnswer, 'E', 2}}, {e, e, e}, {ePos, eCorrupt, ePos}},
      {"garbage every time",
       {{FaultKind::GarbageFirst, 'E'}},
       {e, e},
       {B({0xAA, 0, 0xAA}) + ePos, B({0xAA, 0, 0xAA}) + ePos}},
      {"two rules on one answer",
       {{FaultKind::GarbageFirst, 'E', 1, 0, "\x01\x02"}, {FaultKind::CorruptAnswer, 'E', 1}},
       {e},
       {"\x01\x02" + eCorrupt}},
      {"negative on any second frame",
       {{FaultKind::NegativeAnswer, kAnyCommand, 2}},
       {Direct("S"), e, e},
       {Direct(B({'R', 'S', 1})), B({0x55, 3, 0x52, 0x45, 0, 0x5C, 0x9E}), ePos}},
      {"other command untouched", {{FaultKind::LoseAnswer, 'C', kEveryTime}}, {e}, {ePos}},
  };
  for (const auto& row : rows) {
    ModuleSettings settings;
    settings.Faults = row.Faults;
    Bench bench(settings);
    for (size_t i = 0; i < row.Requests.size(); ++i) {
      EXPECT_EQ(Hex(bench.Send(row.Requests[i])), Hex(row.Answers[i])) << row.Name << " #" << i;
    }
  }

  ModuleSettings ccb;
  ccb.Protocol = BootProtocol::Ccb;
  ccb.Faults = {{FaultKind::NegativeAnswer, kCcbEnter, 1}};
  Bench negativeCcb(ccb);
  EXPECT_EQ(Hex(negativeCcb.Send(Ccb(B({kCcbEnter})))), Hex(B({0x53, 2, 0, 0x8A, 0xDC, 0x5B})));

  ModuleSettings late;
  late.Faults = {{FaultKind::LateAnswer, 'E', 1, 300'000}};
  Bench lateBench(late);
  lateBench.Send(e);
  ASSERT_EQ(lateBench.Out.size(), 1u);
  EXPECT_EQ(lateBench.Out[0].AtMicros, 1'000'000 + 10'000 + 300'000);
  lateBench.Send(e);  // heard 200 ms later, but cannot overtake the late answer
  EXPECT_EQ(lateBench.Out[0].AtMicros, 1'310'000);
}

TEST(SimulatedModuleTest, BadWriteSpoilsOnePageAndReportsIt) {
  for (const uint8_t command : {kCmdPage, kCmdPageEncrypted}) {
    ModuleSettings settings;
    settings.PageSize = 128;
    settings.Faults = {{FaultKind::BadWrite, command, 1}};
    Bench bench(settings);
    const std::string part(128, 'q');
    bench.Send(Direct("F" + B({0, 0}) + part));
    const std::string request = Direct(B({command, 0, 0, 0, 0}));
    std::string spoiled = part;
    spoiled[0] = static_cast<char>(~'q');
    const int32_t good = Crc16Of(part);
    const int32_t bad = Crc16Of(spoiled);
    EXPECT_EQ(bench.Send(request), Direct(B({'R', command, 1, bad >> 8, bad & 0xFF})));
    EXPECT_NE(bench.Module.Flash().substr(0, 128), part);
    EXPECT_EQ(bench.Send(request), Direct(B({'R', command, 1, good >> 8, good & 0xFF})));
    EXPECT_EQ(bench.Module.Flash().substr(0, 128), part);
  }
  ModuleSettings ccb;
  ccb.Protocol = BootProtocol::Ccb;
  ccb.Faults = {{FaultKind::BadWrite, kCcbBlock, 1}};
  Bench bench(ccb);
  EXPECT_EQ(bench.Send(Ccb(B({0x8B, 0, 0, 0, 0}) + "ab")), Ccb(B({0x8C, 0x8B})));
  EXPECT_EQ(bench.Module.Flash().substr(0, 2),
            "\x9E"
            "b");
}

TEST(SimulatedModuleTest, ParserResynchronises) {
  const std::string e = Direct("E");
  std::string badCrc = e;
  badCrc.back() ^= 1;
  const std::string ePos = Direct(B({'R', 'E', 1}));
  const struct {
    const char* Name;
    int64_t GapMicros;
    std::vector<std::string> Chunks;
    std::string Answers;
    int Erases;
  } rows[] = {
      {"garbage in front", 0, {B({0xAA, 0, 0x13}) + e}, ePos, 1},
      {"bad crc then good frame",
       0,
       {badCrc + Direct(B({'C', 0, 0, 0, 1}))},
       Direct(B({'R', 'C', 1, 0x00, 0xFF})),
       0},
      {"false start swallows a frame head", 0, {"\x55\x03" + e}, ePos, 1},
      {"one byte at a time",
       1000,
       {e.substr(0, 1), e.substr(1, 1), e.substr(2, 1), e.substr(3, 1), e.substr(4)},
       ePos,
       1},
      {"half frame, then silence", 200'000, {"\x55\x40\x01", e}, ePos, 1},
      {"half frame swallows what follows", 1000, {"\x55\x40\x01", e}, "", 0},
      {"empty frame", 0, {B({0x55, 0, 0x36, 0xA9}) + e}, ePos, 1},
  };
  for (const auto& row : rows) {
    Bench bench;
    std::string answers;
    for (const auto& chunk : row.Chunks) answers += bench.Send(chunk, row.GapMicros);
    EXPECT_EQ(Hex(answers), Hex(row.Answers)) << row.Name;
    EXPECT_EQ(bench.Module.CountOf('E'), row.Erases) << row.Name;
  }
}

// The module on the virtual line against the real exchanges: the turnaround decides whether the
// direct exchange, which drains the port 5 ms after its write, ever hears the answer.
class NoEvents final : public EventPump {
 public:
  void PumpEvents() override {}
};

TEST(SimulatedModuleTest, TurnaroundAgainstTheRealExchanges) {
  const struct {
    BootProtocol Protocol;
    int64_t TurnaroundMicros;
    bool Heard;
    int Sent;
  } rows[] = {
      {BootProtocol::Direct, 10'000, true, 1},
      {BootProtocol::Direct, 0, false, 10},
      {BootProtocol::Ccb, 0, true, 1},
      {BootProtocol::Ccb, 10'000, true, 1},
  };
  for (const auto& row : rows) {
    ModuleSettings settings;
    settings.Protocol = row.Protocol;
    settings.TurnaroundMicros = row.TurnaroundMicros;
    settings.Faults = {{FaultKind::LoseAnswer, kAnyCommand, 2}};
    SimulatedModule module(settings);
    VirtualClock clock;
    SimLine line(clock, module);
    NoEvents events;
    bool cancel = false;
    int32_t handle = line.Open("SIM", "57600,N,8,1");
    Link link{line, handle, clock, events, cancel};
    const bool direct = row.Protocol == BootProtocol::Direct;
    int32_t value = 0;
    const std::string length = B({0, 0, 1, 0});
    const bool ok = direct ? SendCommandAndGetAnswer(link, 'C', length, 1000, value)
                           : CCBSendCommandAndGetAnswer(link, kCcbCheck, length, 1000, value);
    EXPECT_EQ(ok, row.Heard) << row.TurnaroundMicros;
    EXPECT_EQ(line.Written().size(), static_cast<size_t>(row.Sent));
    if (!row.Heard) continue;
    EXPECT_EQ(value, Crc16Of(std::string(256, '\xFF')));
    // The second frame's answer is lost, so the exchange must try again.
    EXPECT_TRUE(direct ? SendCommandAndGetAnswer(link, 'E', "", 1250, value)
                       : CCBSendCommandAndGetAnswer(link, kCcbEnter, "", 1000, value));
    EXPECT_EQ(line.Written().size(), static_cast<size_t>(row.Sent) + 2);
  }
}

}  // namespace
}  // namespace palimbo::sim
