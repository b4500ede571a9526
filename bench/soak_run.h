#pragma once

// Fault-injection soak: whole uploads into the simulated module on virtual time, each with a
// seeded mix of faults, judged by what the module's flash really holds afterwards.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/simulated_module.h"
#include "upload/upload.h"

namespace palimbo::soak {

/// What goes wrong in a run. `Mixed` runs combine several of the others.
enum class FaultClass {
  Noise,         ///< bytes on the line between frames
  LostAnswer,    ///< answers that never come, alone or in bursts
  CorruptByte,   ///< one byte of an answer changed
  Truncated,     ///< an answer that breaks off
  LateAnswer,    ///< an answer near the end of its try, just before or just after
  GarbageFirst,  ///< bytes in front of an answer
  Negative,      ///< a negative answer to a request the module took
  WrongValue,    ///< a CRC answered one too high
  BadWrite,      ///< a page or block written wrong once
  Refused,       ///< one page or block the module never takes
  LineCut,       ///< the adapter pulled at a random byte of the upload
  Mixed,
};
inline constexpr int kFaultClasses = 11;  // without `Mixed`
inline constexpr int kRows = kFaultClasses + 1;

const char* FaultClassName(FaultClass Class);
/// All classes a run can draw from, `Mixed` left out.
std::vector<FaultClass> AllFaultClasses();

/// How a run ended, as the soak counts it.
enum class Verdict {
  Verified,      ///< verified, and the flash holds the image
  Unverified,    ///< written without the final check (exit 3)
  Failed,        ///< a reported failure: refused, no bootloader, port or file error
  GivenUp,       ///< given up or cancelled
  FalseSuccess,  ///< verified (or given up "after the image was verified") with a wrong flash
  Crash,         ///< an exception out of the job
  Hang,          ///< still running at the soak's time bound
};
inline constexpr int kVerdicts = 7;
const char* VerdictName(Verdict V);

struct SoakOptions {
  int32_t GiveUpSeconds = 60;         ///< the unattended front end's watch
  int64_t HangBoundMs = 10 * 60'000;  ///< virtual time after which a run counts as a hang
  std::vector<FaultClass> Classes = AllFaultClasses();  ///< what runs may draw from
};

/// One run, fully decided by its seed: the module, its faults, the image, the cut.
struct RunPlan {
  sim::BootProtocol Protocol = sim::BootProtocol::Direct;
  uint64_t Seed = 0;
  FaultClass Row = FaultClass::Mixed;
  std::vector<FaultClass> Classes;  ///< those drawn for this run
  sim::ModuleSettings Settings;
  std::vector<FaultClass> FaultTags;  ///< the class of each of `Settings.Faults`
  std::string Image;
  bool Marker = false;
  bool Packets = false;
  int64_t CutAfterBytes = -1;  ///< -1 for a line that stays
};

struct RunRecord {
  FaultClass Row = FaultClass::Mixed;
  uint64_t Seed = 0;
  Verdict Result = Verdict::Crash;
  std::string Reason;  ///< the job's reason, or what went wrong
  std::string LastLine;
  std::vector<std::string> LogTail;             ///< the job's last log lines, oldest first
  std::array<bool, kFaultClasses> Exercised{};  ///< the fault's moment came in this run
  int64_t VirtualMs = 0;
  bool PortLeftOpen = false;
};

/// The seed of run `Index` of `Protocol`, from the soak's seed.
uint64_t RunSeed(uint64_t Seed, sim::BootProtocol Protocol, int Index);
/// The row that run `Index` belongs to: each class in turn, then a mixed run.
FaultClass RowOf(const SoakOptions& Options, int Index);
RunPlan PlanRun(sim::BootProtocol Protocol, uint64_t Seed, FaultClass Row,
                const SoakOptions& Options);
/// How a job that ended by itself counts: a claim of the image with a flash that does not
/// hold it is a false success, whatever else the result says.
Verdict Judge(const UploadResult& Result, bool FlashHoldsImage);
/// Runs the plan through `StartUpload` with a give-up watch; the image goes to `HexPath`.
RunRecord RunOne(const RunPlan& Plan, const std::string& HexPath, const SoakOptions& Options);
/// The faults of a plan in a few words, to replay a run by hand.
std::string Describe(const RunPlan& Plan);

/// Runs of one protocol, counted by row and verdict.
class Tally {
 public:
  void Add(const RunRecord& Record);
  int Runs(FaultClass Row) const { return rows_[Index(Row)].Runs; }
  int Count(Verdict V) const;
  int Count(FaultClass Row, Verdict V) const;
  /// Runs, of any row, in which a fault of `Class` came to pass.
  int Exercised(FaultClass Class) const { return exercised_[Index(Class)]; }
  int PortsLeftOpen() const { return open_ports_; }
  int TotalRuns() const;
  /// A Markdown table: one row per fault class and the total.
  std::string Table() const;

 private:
  struct Row {
    int Runs = 0;
    std::array<int, kVerdicts> Verdicts{};
  };
  static size_t Index(FaultClass C) { return static_cast<size_t>(C); }
  std::array<Row, kRows> rows_{};
  std::array<int, kFaultClasses> exercised_{};
  int open_ports_ = 0;
};

}  // namespace palimbo::soak
