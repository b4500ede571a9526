// StartUpload's bootloader entry against a module that answers each "i" with any bytes: the
// job takes the road that the poll's rules give for those answers, and always closes its port.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "exchange_harness.h"
#include "upload/upload.h"

using namespace palimbo;

namespace {

constexpr int kCycles = 26;

enum class Road { Ccb, Direct, Cancelled, Asked };

struct Expected {
  Road Way;
  size_t Polls;
  int32_t PageSize = 0;
};

// The poll's rules applied to the answers, one answer read in each cycle.
Expected ThePollsRules(const std::vector<std::string>& Answers, int CancelAtCycle) {
  std::string reply;
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    if (cycle == CancelAtCycle) return {Road::Cancelled, static_cast<size_t>(cycle)};
    std::string chunk = static_cast<size_t>(cycle) < Answers.size() ? Answers[cycle] : "";
    if (!chunk.empty() && chunk[0] == 'i') chunk.erase(0, 1);
    reply += chunk;
    const auto polls = static_cast<size_t>(cycle) + 1;
    if (reply.find('X') != std::string::npos) return {Road::Ccb, polls};
    if (reply.size() > 3) {
      if (reply[0] == 'O') {
        const auto at = [&reply](size_t i) { return static_cast<uint8_t>(reply[i]); };
        return {Road::Direct, polls, at(1) * 65536 + at(2) * 256 + at(3)};
      }
      reply.erase(0, 1);
    }
  }
  return {Road::Asked, kCycles};
}

// A one-byte image, written once for the whole run and removed at its end; the path lives on
// to the very end, so the removal can still use it.
const std::string& FirmwareFile() {
  static const std::string* const path = [] {
    const auto* file = new std::string((std::filesystem::temp_directory_path() /
                                        ("palimbo-fuzz-entry-" + std::to_string(getpid()) + ".hex"))
                                           .string());
    std::ofstream(*file, std::ios::binary) << ":0100000055AA\r\n:00000001FF\r\n";
    std::atexit([] { std::filesystem::remove(FirmwareFile()); });
    return file;
  }();
  return *path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* Data, size_t Size) {
  fuzz::Input in(Data, Size);
  const bool yes = (in.Byte() & 1) != 0;
  const uint8_t cancel = in.Byte();
  const int cancelAtCycle = cancel <= kCycles ? cancel : -1;
  std::vector<std::string> answers;
  while (!in.Empty() && answers.size() < kCycles) answers.push_back(in.Take(in.Byte()));

  testing::ScriptedPeer peer;
  size_t polls = 0;
  peer.OnReceive = [&](std::string_view Bytes, int64_t Now, std::vector<sim::Emission>& Out) {
    if (Bytes != "i") return;
    if (polls < answers.size()) Out.push_back({Now, answers[polls]});
    ++polls;
  };
  testing::VirtualJob job(peer);
  job.Question.Answer = yes;
  job.Ctx.IdleWaitMicros = kUnattendedIdleWaitMicros;
  // Cancel after the chosen number of polls, and always once the job has gone past the entry,
  // so that the upload behind it ends at its first exchange.
  job.Pump.OnPump = [&] {
    size_t written = 0;
    bool framed = false;
    for (const auto& chunk : job.Line.Written()) {
      written += chunk.Bytes == "i";
      framed |= chunk.Bytes != "i";
    }
    if (framed || (cancelAtCycle >= 0 && written >= static_cast<size_t>(cancelAtCycle))) {
      job.Ctx.Cancel = true;
    }
  };
  static_cast<void>(StartUpload(job.Ctx, FirmwareFile(), "SIM"));

  const Expected expected = ThePollsRules(answers, cancelAtCycle);
  const std::vector<std::string> writes = job.Writes();
  size_t pollsWritten = 0;
  std::string firstFrame;
  for (const std::string& w : writes) {
    if (w == "i") {
      fuzz::Require(firstFrame.empty(), "a poll behind a frame");
      ++pollsWritten;
    } else if (firstFrame.empty()) {
      firstFrame = w;
    }
  }
  fuzz::Require(pollsWritten == expected.Polls, "polls differ from the rules");
  const bool asked = expected.Way == Road::Asked;
  fuzz::Require(job.Question.Asked == (asked ? 1 : 0), "the question came or did not");
  const bool direct = expected.Way == Road::Direct || (asked && yes);
  const uint8_t start = firstFrame.empty() ? 0 : static_cast<uint8_t>(firstFrame[0]);
  fuzz::Require(expected.Way != Road::Ccb || start == kCcbStartByte, "no CCB after an X");
  fuzz::Require(!direct || start == kDirectStartByte, "no direct frame after the entry");
  fuzz::Require(direct || expected.Way == Road::Ccb || firstFrame.empty(), "a frame after No");
  fuzz::Require(job.Log.Contains("Entered bootloader mode successfully.") == direct,
                "entry logged on the wrong road");
  const int32_t size = expected.PageSize;
  const bool unsupported = expected.Way == Road::Direct && (size == 0 || size >= 32768);
  fuzz::Require(job.Log.Contains("Unsupported page size " + std::to_string(size) +
                                 " - using 256.") == unsupported,
                "page size fallback");
  fuzz::Require(!job.Line.IsOpen(), "the port stays open");
  return 0;
}
