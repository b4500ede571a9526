// palimbo_soak: many uploads per protocol into the simulated module, each with a seeded mix
// of faults, and a table of how they ended. Exit status 0 when no run was a false success, a
// crash or a hang and every job closed its port; 1 otherwise; 2 for bad arguments.
//
//   palimbo_soak [RUNS [SEED]] [--protocol direct|ccb] [--replay direct|ccb:INDEX]

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "soak_run.h"

namespace {

using palimbo::sim::BootProtocol;
using namespace palimbo::soak;

// Wall time after which one run counts as stuck outside virtual time, and the soak stops.
constexpr int64_t kWallLimitMs = 120'000;

const char* NameOf(BootProtocol P) {
  return P == BootProtocol::Direct ? "direct" : "ccb";
}

bool ParseProtocol(const std::string& Text, BootProtocol& P) {
  if (Text == "direct")
    P = BootProtocol::Direct;
  else if (Text == "ccb")
    P = BootProtocol::Ccb;
  else
    return false;
  return true;
}

int64_t WallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void PrintRun(BootProtocol P, int Index, const RunPlan& Plan, const RunRecord& R) {
  std::cout << "- " << NameOf(P) << " run " << Index << ": **" << VerdictName(R.Result) << "**"
            << (R.PortLeftOpen ? " (port left open)" : "") << " after " << R.VirtualMs / 1000
            << " s virtual; \"" << R.Reason << "\", last line \"" << R.LastLine << "\"; "
            << Describe(Plan) << "\n";
}

int Usage() {
  std::cerr << "usage: palimbo_soak [RUNS [SEED]] [--protocol direct|ccb] "
               "[--replay direct|ccb:INDEX]\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 240;
  uint64_t seed = 1;
  std::vector<BootProtocol> protocols = {BootProtocol::Direct, BootProtocol::Ccb};
  int replay = -1;
  int positional = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    BootProtocol p{};
    if (arg == "--protocol" && i + 1 < argc) {
      if (!ParseProtocol(argv[++i], p)) return Usage();
      protocols = {p};
    } else if (arg == "--replay" && i + 1 < argc) {
      const std::string what = argv[++i];
      const auto colon = what.find(':');
      if (colon == std::string::npos || !ParseProtocol(what.substr(0, colon), p)) return Usage();
      protocols = {p};
      replay = std::atoi(what.c_str() + colon + 1);
    } else if (!arg.empty() && arg[0] != '-' && positional == 0) {
      runs = std::atoi(arg.c_str());
      ++positional;
    } else if (!arg.empty() && arg[0] != '-' && positional == 1) {
      seed = std::strtoull(arg.c_str(), nullptr, 10);
      ++positional;
    } else {
      return Usage();
    }
  }
  if (runs <= 0 || replay < -1) return Usage();

  const SoakOptions options;
  const auto hexPath = std::filesystem::temp_directory_path() /
                       ("palimbo-soak-" + std::to_string(std::random_device{}()) + ".hex");

  // A run that spins without moving virtual time escapes the soak's own bound; the watchdog
  // names it and stops the soak.
  std::atomic<int64_t> runStartedMs{WallMs()};
  std::atomic<int> current{-1};
  std::atomic<bool> finished{false};
  std::atomic<int> currentProtocol{0};
  std::thread watchdog([&] {
    while (!finished) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      if (!finished && WallMs() - runStartedMs > kWallLimitMs) {
        std::cout << "HANG: " << (currentProtocol.load() ? "ccb" : "direct") << " run "
                  << current.load() << " (seed " << seed << ") has run " << kWallLimitMs / 1000
                  << " s of wall time; stopping.\n"
                  << std::flush;
        std::_Exit(1);
      }
    }
  });

  bool clean = true;
  if (replay >= 0) {
    const BootProtocol p = protocols[0];
    const RunPlan plan = PlanRun(p, RunSeed(seed, p, replay), RowOf(options, replay), options);
    const RunRecord record = RunOne(plan, hexPath.string(), options);
    PrintRun(p, replay, plan, record);
    for (const auto& line : record.LogTail) std::cout << "    " << line << "\n";
    clean = record.Result != Verdict::FalseSuccess && record.Result != Verdict::Crash &&
            record.Result != Verdict::Hang && !record.PortLeftOpen;
  } else {
    std::cout << "Fault-injection soak: " << runs << " runs per protocol, seed " << seed
              << ", give-up after " << options.GiveUpSeconds << " s of silence, hang bound "
              << options.HangBoundMs / 1000 << " s of virtual time\n";
    for (const BootProtocol p : protocols) {
      currentProtocol = p == BootProtocol::Ccb;
      Tally tally;
      int64_t virtualMs = 0;
      const int64_t wallStart = WallMs();
      bool listed = false;
      std::cout << "\n### " << NameOf(p) << "\n\n";
      for (int i = 0; i < runs; ++i) {
        current = i;
        runStartedMs = WallMs();
        const RunPlan plan = PlanRun(p, RunSeed(seed, p, i), RowOf(options, i), options);
        const RunRecord record = RunOne(plan, hexPath.string(), options);
        tally.Add(record);
        virtualMs += record.VirtualMs;
        if (record.Result == Verdict::FalseSuccess || record.Result == Verdict::Crash ||
            record.Result == Verdict::Hang || record.PortLeftOpen) {
          PrintRun(p, i, plan, record);
          listed = true;
        }
      }
      std::cout << (listed ? "\n" : "") << tally.Table() << "\n"
                << NameOf(p) << ": " << runs << " runs in " << (WallMs() - wallStart) / 1000.0
                << " s of wall time, " << virtualMs / 3'600'000.0 << " h of virtual time; "
                << tally.PortsLeftOpen() << " jobs left the port open\n";
      clean = clean && tally.Count(Verdict::FalseSuccess) == 0 &&
              tally.Count(Verdict::Crash) == 0 && tally.Count(Verdict::Hang) == 0 &&
              tally.PortsLeftOpen() == 0;
    }
  }
  finished = true;
  watchdog.join();
  std::error_code ignored;
  std::filesystem::remove(hexPath, ignored);
  return clean ? 0 : 1;
}
