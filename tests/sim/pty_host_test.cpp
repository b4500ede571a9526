#include "sim/pty_host.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "serial/comm.h"
#include "sim/simulated_module.h"

namespace palimbo::sim {
namespace {

using namespace std::chrono_literals;

// The real serial layer opens the terminal again and again; an answer due while no tool had it
// open (the stray marks it) must not greet the next one.
TEST(PtyHostTest, EntryHandshakeThroughTheSerialLayerSurvivesReopening) {
  ModuleSettings settings;
  settings.StrayBytes = "?";
  settings.TurnaroundMicros = 100'000;
  SimulatedModule module(settings);
  std::string error;
  auto host = PtyHost::Open(module, error);
  ASSERT_NE(host, nullptr) << error;
  auto port = MakeSystemSerialBackend();
  for (int round = 0; round <= 3; ++round) {
    int32_t handle = Comm_oeffnen_32(*port, host->SlavePath() + ":57600,N,8,1");
    ASSERT_GE(handle, 0) << port->LastOpenError();
    Comm_schreiben_32(*port, handle, "i");
    // Round 0 leaves at once, so its answer falls due while no tool has the port open.
    const auto end = std::chrono::steady_clock::now() + (round == 0 ? 0s : 2s);
    std::string got, chunk;
    for (; got.size() < 4 && std::chrono::steady_clock::now() < end; got += chunk) {
      Comm_warten_32(*port, handle, 20'000);
      Comm_lesen_32(*port, handle, chunk);
    }
    EXPECT_EQ(got, round == 0 ? "" : std::string("O\0\1\0", 4)) << "round " << round;
    Comm_close_32(*port, handle);
    std::this_thread::sleep_for(round == 0 ? 150ms : 0ms);
  }
  host->Stop();
  EXPECT_EQ(module.PollCount(), 4);
}

}  // namespace
}  // namespace palimbo::sim
