// How close `palimbo-cli flash` comes to what a real line allows: it flashes an image into the
// wire-true simulated module over a pseudo-terminal and sets the wall time against the ideal
// time worked out from the frames the module heard and answered.
#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "image/hex_file.h"
#include "line_floor.h"
#include "sim/ideal_time.h"
#include "sim/pty_host.h"
#include "sim/simulated_module.h"
#include "support/firmware_file.h"
#include "timed_run.h"

namespace {

using namespace palimbo;

constexpr const char* kUsage =
    "Usage: palimbo_upload_bench --cli PATH [OPTIONS]\n"
    "Runs PATH flash against the wire-true simulated module and prints a table of wall time,\n"
    "ideal time, their ratio, bytes per second, the tool's CPU time and its peak memory.\n\n"
    "  --size N            image bytes (default 65536)\n"
    "  --protocol P        direct, ccb or both (default both)\n"
    "  --latency-ms LIST   adapter latencies, comma-separated (default 16,1)\n"
    "  --turnaround-ms N   the module's turnaround (default 10)\n"
    "  --flash-ms N        the module's page or block write (default 4)\n"
    "  --runs N            runs of each configuration (default 1)\n"
    "  --gaps FILE         also write each frame's time beyond the ideal gap to FILE\n"
    "  --no-floor          skip replaying each upload with a client that only waits as\n"
    "                      prescribed (what this machine's pseudo-terminal allows at best)\n";

struct Options {
  std::string Cli;
  size_t Size = 65536;
  std::vector<sim::BootProtocol> Protocols = {sim::BootProtocol::Direct, sim::BootProtocol::Ccb};
  std::vector<int64_t> LatenciesMs = {16, 1};
  int64_t TurnaroundMs = 10;
  int64_t FlashMs = 4;
  int Runs = 1;
  std::string GapsPath;
  bool Floor = true;
};

[[noreturn]] void Usage(const std::string& Problem) {
  if (!Problem.empty()) std::cerr << "palimbo_upload_bench: " << Problem << "\n";
  std::cerr << kUsage;
  std::exit(2);
}

long Number(const std::string& Text, long Min, long Max) {
  char* end = nullptr;
  const long value = std::strtol(Text.c_str(), &end, 10);
  if (Text.empty() || *end != '\0' || value < Min || value > Max) Usage("bad number " + Text);
  return value;
}

Options Parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--help") Usage("");
    if (name == "--no-floor") {
      o.Floor = false;
      continue;
    }
    if (i + 1 >= argc) Usage(name + " wants a value");
    const std::string value = argv[++i];
    if (name == "--cli") {
      o.Cli = value;
    } else if (name == "--size") {
      o.Size = static_cast<size_t>(Number(value, 1, kImageMaxIndex + 1));
    } else if (name == "--protocol") {
      if (value == "direct") {
        o.Protocols = {sim::BootProtocol::Direct};
      } else if (value == "ccb") {
        o.Protocols = {sim::BootProtocol::Ccb};
      } else if (value != "both") {
        Usage("--protocol is direct, ccb or both");
      }
    } else if (name == "--latency-ms") {
      o.LatenciesMs.clear();
      size_t from = 0;
      for (size_t comma = 0; comma != std::string::npos; from = comma + 1) {
        comma = value.find(',', from);
        o.LatenciesMs.push_back(Number(value.substr(from, comma - from), 0, 1000));
      }
    } else if (name == "--turnaround-ms") {
      o.TurnaroundMs = Number(value, 0, 1000);
    } else if (name == "--flash-ms") {
      o.FlashMs = Number(value, 0, 1000);
    } else if (name == "--runs") {
      o.Runs = static_cast<int>(Number(value, 1, 100));
    } else if (name == "--gaps") {
      o.GapsPath = value;
    } else {
      Usage("unknown option " + name);
    }
  }
  if (o.Cli.empty()) Usage("--cli is needed");
  return o;
}

struct Row {
  std::string Protocol;
  int64_t LatencyMs = 0;
  bench::TimedRun Run;
  sim::IdealTime Ideal;
  sim::PtyHostStats Host;
  size_t FrameCount = 0;
  // Where the wall time went beyond the ideal: before the first request was heard, between
  // the first and the last, and after the last until the tool had exited.
  double StartExcess = 0, EndExcess = 0;
  bench::FrameExcess Frames;
  // The same upload replayed by a client that does nothing but the prescribed waits.
  bench::LineFloor Floor;
  // The tool's median time from an answer to its next request, beyond the sleep of 5 ms that
  // a CCB exchange takes before each write.
  double ReactionMedian = 0;
  bool FlashHoldsImage = false;
};

Row RunOne(const Options& O, sim::BootProtocol Protocol, int64_t LatencyMs,
           const std::string& HexPath, const std::string& Image, const std::string& LogPath) {
  sim::ModuleSettings settings;
  settings.Protocol = Protocol;
  settings.TurnaroundMicros = O.TurnaroundMs * 1000;
  settings.FlashWriteMicros = O.FlashMs * 1000;
  sim::SimulatedModule module(settings);
  sim::WireSettings wire;
  wire.LatencyMicros = LatencyMs * 1000;
  std::string error;
  auto host = sim::PtyHost::Open(module, error, {wire});
  if (!host) {
    std::cerr << "palimbo_upload_bench: no pseudo-terminal: " << error << "\n";
    std::exit(1);
  }

  Row row;
  row.Protocol = Protocol == sim::BootProtocol::Direct ? "direct" : "ccb";
  row.LatencyMs = LatencyMs;
  row.Run =
      bench::RunTimed({O.Cli, "flash", "--port", host->SlavePath(), HexPath}, LogPath, "/dev/null");
  host->Stop();
  row.Host = host->Stats();
  std::vector<double> reactions;
  const int64_t sleep = Protocol == sim::BootProtocol::Ccb ? 5'000 : 0;
  for (const int64_t r : row.Host.ReactionMicros) {
    reactions.push_back(static_cast<double>(r - sleep));
  }
  row.ReactionMedian = bench::Median(reactions);
  row.Ideal = sim::IdealUploadTime(module, wire);
  row.FlashHoldsImage = module.Flash().compare(0, Image.size(), Image) == 0;

  const auto& heard = module.Commands();
  row.FrameCount = heard.size();
  if (!heard.empty()) {
    const auto& ideal = row.Ideal.HeardMicros;
    const int64_t firstReal = heard.front().AtMicros - row.Run.StartMicros;
    const int64_t tailReal = row.Run.EndMicros - heard.back().AtMicros;
    row.StartExcess = static_cast<double>(firstReal - ideal.front()) / 1e6;
    row.EndExcess = static_cast<double>(tailReal - (row.Ideal.TotalMicros - ideal.back())) / 1e6;
    row.Frames = bench::ExcessOverFrames(heard, row.Ideal);
  }
  if (O.Floor) row.Floor = bench::ReplayAtLineSpeed(module, wire);
  return row;
}

double Seconds(int64_t Micros) {
  return static_cast<double>(Micros) / 1e6;
}

int64_t NowMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The median time one byte takes from the far end of a pseudo-terminal to another process on
// it and back: what every exchange pays here beyond a real line, before the tool does anything.
// With `QuietMicros` both ends sleep that long before each round, as the tool and the module do
// while a frame crosses the line, and each round pays two wake-ups from sleep as well.
double PtyRoundTripMicros(int64_t QuietMicros, int Rounds) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return 0;
  const std::string slavePath = ptsname(master);
  termios tio{};
  tcgetattr(master, &tio);
  cfmakeraw(&tio);
  tcsetattr(master, TCSANOW, &tio);
  const pid_t echo = fork();
  if (echo == 0) {
    const int slave = open(slavePath.c_str(), O_RDWR | O_NOCTTY);
    tcsetattr(slave, TCSANOW, &tio);
    char c = 0;
    for (int i = 0; i < Rounds && read(slave, &c, 1) == 1; ++i) {
      if (write(slave, &c, 1) != 1) break;
    }
    _exit(0);
  }
  // The echo must have the terminal in raw mode before the first byte goes.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  std::vector<double> rounds;
  char c = 'x';
  for (int i = 0; i < Rounds; ++i) {
    if (QuietMicros > 0) std::this_thread::sleep_for(std::chrono::microseconds(QuietMicros));
    const int64_t start = NowMicros();
    if (write(master, &c, 1) != 1 || read(master, &c, 1) != 1) break;
    rounds.push_back(static_cast<double>(NowMicros() - start));
  }
  close(master);
  waitpid(echo, nullptr, 0);
  return bench::Median(rounds);
}

// The tool against a client that does nothing but the prescribed waits, on the same machine.
void PrintFloor(const std::vector<Row>& Rows) {
  std::printf(
      "\nThe same uploads replayed by a client that only waits as prescribed and sends each "
      "request the moment its answer is in (wall from the port's opening to its closing; the "
      "tool's wall holds its start and exit as well):\n\n"
      "| protocol | latency | ideal s | floor wall s | floor/ideal | floor per frame, median µs | "
      "tool wall s | tool/ideal | tool/floor | tool per frame, median µs |\n"
      "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const Row& r : Rows) {
    const double ideal = Seconds(r.Ideal.TotalMicros);
    if (!r.Floor.Complete) {
      std::printf("| %s | %lld ms | %.3f | (not replayed) | | | %.3f | %.4f | | %.0f |\n",
                  r.Protocol.c_str(), static_cast<long long>(r.LatencyMs), ideal, r.Run.WallSeconds,
                  r.Run.WallSeconds / ideal, r.Frames.Median);
      continue;
    }
    const double floorIdeal = Seconds(r.Floor.Ideal.TotalMicros);
    std::printf("| %s | %lld ms | %.3f | %.3f | %.4f | %.0f | %.3f | %.4f | %.4f | %.0f |\n",
                r.Protocol.c_str(), static_cast<long long>(r.LatencyMs), ideal, r.Floor.WallSeconds,
                r.Floor.WallSeconds / floorIdeal, r.Floor.Excess.Median, r.Run.WallSeconds,
                r.Run.WallSeconds / ideal, r.Run.WallSeconds / r.Floor.WallSeconds,
                r.Frames.Median);
  }
}

void WriteGaps(const std::string& Path, const std::vector<Row>& Rows) {
  std::ofstream out(Path);
  out << "protocol\tlatency_ms\trun_row\tframe\tcommand\texcess_us\n";
  for (size_t r = 0; r < Rows.size(); ++r) {
    const Row& row = Rows[r];
    const auto& gaps = row.Frames.Gaps;
    for (size_t i = 0; i < gaps.size(); ++i) {
      out << row.Protocol << '\t' << row.LatencyMs << '\t' << r << '\t' << i + 1 << '\t'
          << static_cast<int>(gaps[i].first) << '\t' << gaps[i].second << '\n';
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = Parse(argc, argv);
  char dirTemplate[] = "/tmp/palimbo-upload-bench-XXXXXX";
  if (mkdtemp(dirTemplate) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::filesystem::path dir = dirTemplate;
  const std::string image = testing::TestImage(o.Size);
  const std::string hexPath = (dir / "image.hex").string();
  std::ofstream(hexPath, std::ios::binary) << testing::HexOf(image);

  std::vector<Row> rows;
  for (const sim::BootProtocol protocol : o.Protocols) {
    for (const int64_t latency : o.LatenciesMs) {
      for (int run = 0; run < o.Runs; ++run) {
        rows.push_back(RunOne(o, protocol, latency, hexPath, image, (dir / "flash.log").string()));
        const Row& r = rows.back();
        std::fprintf(stderr, "%s, %lld ms: %.3f s, exit %d\n", r.Protocol.c_str(),
                     static_cast<long long>(r.LatencyMs), r.Run.WallSeconds, r.Run.ExitStatus);
      }
    }
  }
  std::filesystem::remove_all(dir);
  if (!o.GapsPath.empty()) WriteGaps(o.GapsPath, rows);

  const double roundTrip = PtyRoundTripMicros(0, 2000);
  const double quietRoundTrip = PtyRoundTripMicros(20'000, 300);
  std::printf(
      "Image %zu bytes; module turnaround %lld ms, flash write %lld ms; 57600 baud 8N1.\n"
      "A byte's round trip through a pseudo-terminal and back takes %.0f µs here back to back,\n"
      "%.0f µs after 20 ms of quiet on both ends (medians).\n\n",
      o.Size, static_cast<long long>(o.TurnaroundMs), static_cast<long long>(o.FlashMs), roundTrip,
      quietRoundTrip);
  std::printf(
      "| protocol | latency | wall s | ideal s | wall/ideal | bytes/s | CPU s | CPU %% of wall | "
      "peak MiB | exit | flash |\n"
      "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|\n");
  bool ok = true;
  for (const Row& r : rows) {
    const double ideal = Seconds(r.Ideal.TotalMicros);
    std::printf("| %s | %lld ms | %.3f | %.3f | %.4f | %.0f | %.3f | %.2f | %.2f | %d | %s |\n",
                r.Protocol.c_str(), static_cast<long long>(r.LatencyMs), r.Run.WallSeconds, ideal,
                r.Run.WallSeconds / ideal, static_cast<double>(o.Size) / r.Run.WallSeconds,
                r.Run.CpuSeconds, 100 * r.Run.CpuSeconds / r.Run.WallSeconds,
                static_cast<double>(r.Run.PeakKiB) / 1024, r.Run.ExitStatus,
                r.FlashHoldsImage ? "equals image" : "DIFFERS");
    ok = ok && r.Run.ExitStatus == 0 && r.FlashHoldsImage;
  }

  std::printf(
      "\nThe ideal time, part by part, and where the wall time went beyond it (s; per frame "
      "in µs, from one request heard to the next):\n\n"
      "| protocol | latency | frames | to module | to tool | module | adapter | tool's waits | "
      "excess before 1st frame | excess over the frames | per frame, mean | median | max | "
      "excess after last | host late, mean µs | tool's reaction, median µs |\n"
      "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const Row& r : rows) {
    const sim::IdealTime& i = r.Ideal;
    const double perFrame =
        r.FrameCount > 1 ? 1e6 * r.Frames.Total / static_cast<double>(r.FrameCount - 1) : 0.0;
    const double late = r.Host.Handovers > 0 ? static_cast<double>(r.Host.LateMicrosTotal) /
                                                   static_cast<double>(r.Host.Handovers)
                                             : 0.0;
    std::printf(
        "| %s | %lld ms | %zu | %.3f | %.3f | %.3f | %.3f | %.3f | %.4f | %.4f | %.0f | %.0f | "
        "%.0f | %.4f | %.1f | %.0f |\n",
        r.Protocol.c_str(), static_cast<long long>(r.LatencyMs), r.FrameCount,
        Seconds(i.ToModuleMicros), Seconds(i.ToToolMicros), Seconds(i.ModuleMicros),
        Seconds(i.AdapterMicros), Seconds(i.ToolWaitMicros), r.StartExcess, r.Frames.Total,
        perFrame, r.Frames.Median, r.Frames.Max, r.EndExcess, late, r.ReactionMedian);
  }
  if (o.Floor) PrintFloor(rows);
  return ok ? 0 : 1;
}
