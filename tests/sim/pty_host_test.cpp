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

int64_t NowMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// On the wire the tool's bytes are heard only when their last one is through, and answers
// reach the terminal no earlier than the line and the adapter allow. Late is possible on a
// busy machine; early never.
TEST(PtyHostTest, WireHoldsBytesForTheLineAndTheAdapter) {
  struct Row {
    const char* Name;
    std::string Request;
    int64_t LatencyMicros;
    std::string Answer;
    int64_t HeardAfter;     // the request's wire time
    int64_t AnsweredAfter;  // plus the answer's way through the adapter
    int64_t Handovers;      // the adapter's packets that carry the answer
  };
  const std::string fill = SimulatedModule::EncodeFrame(kDirectStart, "F" + std::string(130, 0));
  const Row rows[] = {
      // 173 µs for the poll; the 4-byte answer waits 16 ms after its first byte.
      {"poll, 16 ms", "i", 16'000, std::string("O\0\1\0", 4), 173, 173 + 173 + 16'000, 1},
      // 23437 µs for 135 bytes; 6 of the 7 answer bytes go after 1173 µs, the last at 2215.
      {"fill frame, 1 ms", fill, 1'000, SimulatedModule::EncodeFrame(kDirectStart, "RF\1"), 23'437,
       23'437 + 2'215, 2},
  };
  for (const Row& r : rows) {
    ModuleSettings settings;
    settings.TurnaroundMicros = 0;
    SimulatedModule module(settings);
    std::string error;
    auto host = PtyHost::Open(module, error, {WireSettings{57600, r.LatencyMicros, 62}});
    ASSERT_NE(host, nullptr) << error;
    auto port = MakeSystemSerialBackend();
    int32_t handle = Comm_oeffnen_32(*port, host->SlavePath() + ":57600,N,8,1");
    ASSERT_GE(handle, 0) << port->LastOpenError();
    // An idle host thread answers faster than one still getting to its first wait.
    std::this_thread::sleep_for(20ms);

    const int64_t written = NowMicros();
    Comm_schreiben_32(*port, handle, r.Request);
    std::string got, chunk;
    int64_t complete = 0;
    while (got.size() < r.Answer.size() && NowMicros() - written < 2'000'000) {
      Comm_warten_32(*port, handle, 1'000);
      Comm_lesen_32(*port, handle, chunk);
      if (chunk.empty()) continue;
      got += chunk;
      complete = NowMicros();
    }
    // The tool's turn: the host counts from the answer to the next bytes it writes.
    std::this_thread::sleep_for(30ms);
    const int64_t again = NowMicros();
    Comm_schreiben_32(*port, handle, "x");
    std::this_thread::sleep_for(20ms);
    Comm_close_32(*port, handle);
    host->Stop();
    ASSERT_EQ(host->Stats().ReactionMicros.size(), 1u) << r.Name;
    EXPECT_GE(host->Stats().ReactionMicros[0], again - complete) << r.Name;
    EXPECT_EQ(got, r.Answer) << r.Name;
    EXPECT_GE(complete - written, r.AnsweredAfter) << r.Name;
    if (r.Request != "i") {
      ASSERT_EQ(module.Commands().size(), 1u) << r.Name;
      EXPECT_GE(module.Commands()[0].AtMicros - written, r.HeardAfter) << r.Name;
    }
    // A host thread that the machine's load holds back may hand two packets on at once.
    EXPECT_GE(host->Stats().Handovers, 1) << r.Name;
    EXPECT_LE(host->Stats().Handovers, r.Handovers) << r.Name;
  }
}

}  // namespace
}  // namespace palimbo::sim
