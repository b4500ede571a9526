#include "serial/trace_backend.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace palimbo {
namespace {

class FixedClock final : public Clock {
 public:
  int64_t Now = 0;
  int64_t GetTickCount() override { return Now; }
  void Sleep(int32_t Milliseconds) override { Now += Milliseconds; }
};

// A port that hands out scripted reads and takes at most `TakeAtMost` bytes a write.
class ScriptedPort final : public SerialBackend {
 public:
  std::deque<std::string> Reads;
  size_t TakeAtMost = 1000;
  std::string Wire;

  int32_t Open(const std::string&, const std::string&) override { return 7; }
  std::string LastOpenError() const override { return "scripted"; }
  int32_t BytesWaiting(int32_t) override { return static_cast<int32_t>(Reads.front().size()); }
  int16_t Read(int32_t, int32_t, std::string& Buffer) override {
    Buffer = Reads.front();
    Reads.pop_front();
    return 1;
  }
  int32_t Write(int32_t, const std::string& Data) override {
    Wire += Data.substr(0, TakeAtMost);
    return static_cast<int32_t>(std::min(Data.size(), TakeAtMost));
  }
  void Close(int32_t) override {}
  void RaiseDtr(int32_t) override {}
  void WaitForInput(int32_t, int32_t) override {}
};

struct TraceStep {
  int64_t Tick;
  char Op;  // 'w' writes Data, 'r' reads Data from the port
  std::string Data;
  size_t TakeAtMost;
  std::string Line;  // what the step must add to the trace at once
};

TEST(TraceBackend, WritesOneFlushedLinePerChunkOnTheWire) {
  const TraceStep steps[] = {
      {1000, 'w', std::string("\x55\x05\x43\x00\x00\x01\x00\x44\x89", 9), 1000,
       "0 > 55 05 43 00 00 01 00 44 89\n"},
      {1012, 'r', "", 1000, ""},
      {2234, 'r', std::string("\x00\xFF\xA0\x0A", 4), 1000, "1234 < 00 FF A0 0A\n"},
      {2235, 'w', "", 1000, ""},
      {2300, 'w', "\x01\x02\xfe\x7f", 2, "1300 > 01 02\n"},
      {2301, 'w', "i", 0, ""},
      {2302, 'r', "O", 1000, "1302 < 4F\n"},
  };
  const auto path = std::filesystem::temp_directory_path() /
                    ("palimbo_trace_" + std::to_string(::getpid()) + ".txt");
  std::ofstream file(path, std::ios::binary);
  ScriptedPort inner;
  FixedClock clock;
  clock.Now = 1000;
  TraceBackend trace(inner, clock, file);
  const int32_t handle = trace.Open("COM7", "57600,N,8,1");
  EXPECT_EQ(handle, 7);
  EXPECT_EQ(trace.LastOpenError(), "scripted");

  std::string expected;
  for (const auto& step : steps) {
    clock.Now = step.Tick;
    inner.TakeAtMost = step.TakeAtMost;
    if (step.Op == 'w') {
      EXPECT_EQ(trace.Write(handle, step.Data), std::min(step.Data.size(), step.TakeAtMost));
    } else {
      inner.Reads.push_back(step.Data);
      std::string buffer = "old";
      EXPECT_EQ(trace.BytesWaiting(handle), static_cast<int32_t>(step.Data.size()));
      EXPECT_EQ(trace.Read(handle, static_cast<int32_t>(step.Data.size()), buffer), 1);
      EXPECT_EQ(buffer, step.Data);
    }
    expected += step.Line;
    // Read back while the file is still open: each line must already be on disk.
    std::ostringstream onDisk;
    onDisk << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_EQ(onDisk.str(), expected) << "after the step at tick " << step.Tick;
  }
  EXPECT_EQ(inner.Wire, std::string("\x55\x05\x43\x00\x00\x01\x00\x44\x89\x01\x02", 11));
  file.close();
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace palimbo
