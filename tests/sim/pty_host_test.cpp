#include "sim/pty_host.h"

#include <gtest/gtest.h>

#include <chrono>

#include "frames/crc16.h"
#include "frames/direct_exchange.h"
#include "serial/comm.h"
#include "sim/simulated_module.h"

namespace palimbo::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kLine = ":57600,N,8,1";

// Reads the real port until `Count` bytes came or `Limit` passed.
std::string ReadFor(SerialBackend& Port, int32_t& Handle, size_t Count, milliseconds Limit) {
  std::string all, chunk;
  const auto deadline = steady_clock::now() + Limit;
  while (all.size() < Count && steady_clock::now() < deadline) {
    Comm_warten_32(Port, Handle, 20'000);
    Comm_lesen_32(Port, Handle, chunk);
    all += chunk;
  }
  return all;
}

std::unique_ptr<PtyHost> OpenHost(ModulePeer& Module, PtyHostOptions Options = {}) {
  std::string error;
  auto host = PtyHost::Open(Module, error, Options);
  EXPECT_NE(host, nullptr) << error;
  return host;
}

TEST(PtyHostTest, EntryHandshakeThroughTheSerialLayerSurvivesReopening) {
  SimulatedModule module;
  auto host = OpenHost(module);
  ASSERT_NE(host, nullptr);
  auto port = MakeSystemSerialBackend();
  for (int round = 1; round <= 3; ++round) {
    int32_t handle = Comm_oeffnen_32(*port, host->SlavePath() + kLine);
    ASSERT_GE(handle, 0) << port->LastOpenError();
    Comm_schreiben_32(*port, handle, "i");
    EXPECT_EQ(ReadFor(*port, handle, 4, milliseconds(2000)), std::string("O\0\1\0", 4))
        << "round " << round;
    Comm_close_32(*port, handle);
  }
  host->Stop();
  EXPECT_EQ(module.PollCount(), 3);
}

TEST(PtyHostTest, AnswersDueAfterTheToolLeftAreDropped) {
  ModuleSettings settings;
  settings.TurnaroundMicros = 100'000;
  SimulatedModule module(settings);
  auto host = OpenHost(module);
  ASSERT_NE(host, nullptr);
  auto port = MakeSystemSerialBackend();
  int32_t handle = Comm_oeffnen_32(*port, host->SlavePath() + kLine);
  ASSERT_GE(handle, 0) << port->LastOpenError();
  Comm_schreiben_32(*port, handle, "i");
  Comm_close_32(*port, handle);
  std::this_thread::sleep_for(milliseconds(150));
  handle = Comm_oeffnen_32(*port, host->SlavePath() + kLine);
  ASSERT_GE(handle, 0) << port->LastOpenError();
  EXPECT_EQ(ReadFor(*port, handle, 1, milliseconds(100)), "");
  host->Stop();
  EXPECT_EQ(module.PollCount(), 1);
}

class NoEvents final : public EventPump {
 public:
  void PumpEvents() override {}
};

TEST(PtyHostTest, DirectExchangeOnRealTime) {
  SimulatedModule module;
  auto host = OpenHost(module);
  ASSERT_NE(host, nullptr);
  auto port = MakeSystemSerialBackend();
  int32_t handle = Comm_oeffnen_32(*port, host->SlavePath() + kLine);
  ASSERT_GE(handle, 0) << port->LastOpenError();
  SteadyClock clock;
  NoEvents events;
  const bool cancel = false;
  Link link{*port, handle, clock, events, cancel};
  int32_t status = 0;
  ASSERT_TRUE(SendCommandAndGetAnswer(link, 'C', std::string("\0\0\1\0", 4), 1000, status));
  EXPECT_EQ(status, Crc16Of(std::string(256, '\xFF')));
  // A frame written a byte at a time reaches the module in pieces and is still one command.
  for (const char c : SimulatedModule::EncodeFrame(kDirectStart, "E")) {
    Comm_schreiben_32(*port, handle, std::string(1, c));
  }
  EXPECT_EQ(ReadFor(*port, handle, 7, milliseconds(2000)),
            SimulatedModule::EncodeFrame(kDirectStart, "RE\1"));
  host->Stop();
  EXPECT_EQ(module.CountOf('E'), 1);
}

TEST(PtyHostTest, PacingHoldsAnswersToTheWireSpeed) {
  ModuleSettings settings;
  settings.StrayBytes = std::string(288, '\x11');  // 50 ms on the wire at 57600 baud
  SimulatedModule module(settings);
  auto host = OpenHost(module, PtyHostOptions{57600});
  ASSERT_NE(host, nullptr);
  auto port = MakeSystemSerialBackend();
  int32_t handle = Comm_oeffnen_32(*port, host->SlavePath() + kLine);
  ASSERT_GE(handle, 0) << port->LastOpenError();
  const auto start = steady_clock::now();
  Comm_schreiben_32(*port, handle, "i");
  const std::string got = ReadFor(*port, handle, 292, milliseconds(2000));
  const auto elapsed = steady_clock::now() - start;
  EXPECT_EQ(got.size(), 292u);
  EXPECT_GE(elapsed, milliseconds(10 + 50));
}

}  // namespace
}  // namespace palimbo::sim
