#include "soak_run.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <deque>
#include <exception>
#include <fstream>
#include <functional>
#include <sstream>

#include "frames/frame.h"
#include "sim/sim_line.h"
#include "sim/virtual_clock.h"
#include "support/firmware_file.h"
#include "upload/give_up.h"
#include "upload/job_context.h"
#include "upload/upload.h"

namespace palimbo::soak {

namespace {

using sim::BootProtocol;
using sim::Fault;
using sim::FaultKind;

// Virtual time past the hang bound after which a job that ignores its cancel is torn down.
constexpr int64_t kTearDownMs = 5 * 60'000;

// SplitMix64: the same numbers from the same seed with every compiler and library.
class Rng {
 public:
  explicit Rng(uint64_t Seed) : state_(Seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  /// A number from `Lo` to `Hi`, both included.
  int64_t Between(int64_t Lo, int64_t Hi) {
    return Lo + static_cast<int64_t>(Next() % static_cast<uint64_t>(Hi - Lo + 1));
  }
  bool Chance(int Percent) { return Between(0, 99) < Percent; }

 private:
  uint64_t state_;
};

// What a clean run of the plan would send: how often each command goes out, and how many
// bytes the tool writes in all.
struct Shape {
  struct Count {
    uint8_t Command;
    int Times;
  };
  std::vector<Count> Counts;
  int Pages = 0;  // pages (direct) or blocks (CCB)
  int64_t Bytes = 0;
  int Frames = 0;
};

int CeilDiv(int64_t A, int64_t B) {
  return static_cast<int>((A + B - 1) / B);
}

Shape ShapeOf(const RunPlan& Plan) {
  const auto L = static_cast<int64_t>(Plan.Image.size());
  const sim::ModuleSettings& s = Plan.Settings;
  Shape shape;
  const int64_t polls = s.AnswerAfterPolls + std::max(s.AnswerPieces, 1);
  if (Plan.Protocol == BootProtocol::Direct) {
    shape.Pages = CeilDiv(L, s.PageSize);
    const int parts = CeilDiv(s.PageSize, 128) * (s.SupportsCrc ? 1 : 2);
    const uint8_t write = Plan.Marker ? sim::kCmdPageEncrypted : sim::kCmdPage;
    shape.Counts = {{sim::kCmdCrc, 2},
                    {sim::kCmdErase, 2},
                    {sim::kCmdFill, shape.Pages * parts},
                    {write, shape.Pages},
                    {sim::kCmdReboot, 1}};
    shape.Bytes = polls + 9 + 2 * 5 + shape.Pages * (parts * 135 + 9) + 9 + 5;
  } else {
    shape.Pages = CeilDiv(L, 128);
    shape.Counts = {{sim::kCcbEnter, 1},
                    {sim::kCcbBlock, shape.Pages},
                    {sim::kCcbFinish, 1},
                    {sim::kCcbCheck, 1},
                    {sim::kCcbReboot, 1}};
    shape.Bytes = polls + 5 + 9 * shape.Pages + L + 5 + 9 + 5;
  }
  for (const auto& c : shape.Counts) shape.Frames += c.Times;
  return shape;
}

// Each frame of a clean run equally likely: its command and which time it goes out.
Fault AtRandomFrame(Rng& R, const Shape& S, FaultKind Kind) {
  int64_t pick = R.Between(1, S.Frames);
  for (const auto& c : S.Counts) {
    if (pick <= c.Times) {
      Fault f;
      f.Kind = Kind;
      f.Command = c.Command;
      f.Occurrence = static_cast<int>(pick);
      return f;
    }
    pick -= c.Times;
  }
  assert(false && "a pick beyond the frames of the shape");
  return {};
}

Fault AtCommand(Rng& R, FaultKind Kind, uint8_t Command, int Times) {
  Fault f;
  f.Kind = Kind;
  f.Command = Command;
  f.Occurrence = static_cast<int>(R.Between(1, std::max(Times, 1)));
  return f;
}

// Noise that looks like the start of frames and answers now and then, which is the hard kind.
std::string RandomGarbage(Rng& R, BootProtocol Protocol) {
  const bool direct = Protocol == BootProtocol::Direct;
  std::string bytes;
  const int64_t n = R.Between(1, 12);
  for (int64_t i = 0; i < n; ++i) {
    const int64_t roll = R.Between(0, 99);
    uint8_t b = static_cast<uint8_t>(R.Next());
    if (roll < 30) {
      b = direct ? sim::kDirectStart : sim::kCcbStart;
    } else if (roll < 45) {
      b = direct ? 'R' : sim::kCcbAnswer;
    }
    bytes += static_cast<char>(b);
  }
  return bytes;
}

// The wait of the exchange that carries `F`, in milliseconds.
int64_t WaitOf(BootProtocol Protocol, const Fault& F) {
  if (Protocol == BootProtocol::Ccb) return 1000;
  switch (F.Command) {
    case sim::kCmdCrc:
      return F.Occurrence == 1 ? 1000 : 2000;  // the probe, then the final check
    case sim::kCmdErase:
      return 1250;
    default:
      return 250;
  }
}

void AddFault(RunPlan& Plan, FaultClass Class, Fault F) {
  Plan.Settings.Faults.push_back(std::move(F));
  Plan.FaultTags.push_back(Class);
}

void AddFaults(RunPlan& Plan, FaultClass Class, Rng& R, const Shape& S) {
  const bool direct = Plan.Protocol == BootProtocol::Direct;
  const uint8_t write =
      direct ? (Plan.Marker ? sim::kCmdPageEncrypted : sim::kCmdPage) : sim::kCcbBlock;
  switch (Class) {
    case FaultClass::Noise:
      for (int64_t n = R.Between(1, 4); n > 0; --n) {
        Fault f = AtRandomFrame(R, S, FaultKind::NoiseAfter);
        f.DelayMicros = R.Between(0, 400'000);
        f.Garbage = RandomGarbage(R, Plan.Protocol);
        AddFault(Plan, Class, f);
      }
      break;
    case FaultClass::LostAnswer:
      for (int64_t n = R.Between(1, 3); n > 0; --n) {
        Fault f = AtRandomFrame(R, S, FaultKind::LoseAnswer);
        // A burst past ten answers uses up a whole exchange.
        const int64_t burst = R.Chance(35) ? R.Between(2, 12) : 1;
        for (int64_t k = 0; k < burst; ++k, ++f.Occurrence) AddFault(Plan, Class, f);
      }
      break;
    case FaultClass::CorruptByte:
      for (int64_t n = R.Between(1, 3); n > 0; --n) {
        Fault f = AtRandomFrame(R, S, FaultKind::CorruptByte);
        f.Position = static_cast<int>(R.Between(0, 15));
        f.Mask = static_cast<uint8_t>(R.Between(1, 255));
        AddFault(Plan, Class, f);
      }
      break;
    case FaultClass::Truncated:
      for (int64_t n = R.Between(1, 3); n > 0; --n) {
        Fault f = AtRandomFrame(R, S, FaultKind::TruncateAnswer);
        f.Position = static_cast<int>(R.Between(0, 12));
        AddFault(Plan, Class, f);
      }
      break;
    case FaultClass::LateAnswer:
      for (int64_t n = R.Between(1, 2); n > 0; --n) {
        Fault f = AtRandomFrame(R, S, FaultKind::LateAnswer);
        // Within 20 ms either side of the end of the try that waits for it.
        f.DelayMicros =
            std::max<int64_t>(0, WaitOf(Plan.Protocol, f) * 1000 - Plan.Settings.TurnaroundMicros +
                                     R.Between(-20'000, 20'000));
        AddFault(Plan, Class, f);
      }
      break;
    case FaultClass::GarbageFirst:
      for (int64_t n = R.Between(1, 3); n > 0; --n) {
        Fault f = AtRandomFrame(R, S, FaultKind::GarbageFirst);
        f.Garbage = RandomGarbage(R, Plan.Protocol);
        AddFault(Plan, Class, f);
      }
      break;
    case FaultClass::Negative:
      for (int64_t n = R.Between(1, 3); n > 0; --n) {
        AddFault(Plan, Class, AtRandomFrame(R, S, FaultKind::NegativeAnswer));
      }
      break;
    case FaultClass::WrongValue:
      if (!direct) {
        AddFault(Plan, Class, AtCommand(R, FaultKind::WrongValue, sim::kCcbCheck, 1));
      } else if (R.Chance(50)) {
        AddFault(Plan, Class, AtCommand(R, FaultKind::WrongValue, sim::kCmdCrc, 2));
      } else {
        AddFault(Plan, Class, AtCommand(R, FaultKind::WrongValue, write, S.Pages));
      }
      break;
    case FaultClass::BadWrite:
      AddFault(Plan, Class, AtCommand(R, FaultKind::BadWrite, write, S.Pages));
      break;
    case FaultClass::Refused:
      (direct ? Plan.Settings.RefusePage : Plan.Settings.RefuseBlock) =
          static_cast<int>(R.Between(0, S.Pages - 1));
      break;
    case FaultClass::LineCut:
      Plan.CutAfterBytes = R.Between(1, S.Bytes);
      break;
    case FaultClass::Mixed:
      break;
  }
}

// Firmware-like bytes in stretches of 64: 70 % random, 20 % 0xFF, 10 % the stretch before
// again, so that whole pages of 0xFF and equal pages (whose CRCs a stale status can match)
// turn up.
std::string RandomImage(Rng& R) {
  const auto length = static_cast<size_t>(R.Chance(10) ? R.Between(1, 40) : R.Between(41, 1100));
  std::string image;
  while (image.size() < length) {
    const int64_t roll = R.Between(0, 99);
    std::string chunk(64, '\xFF');
    if (roll >= 30 || image.size() < 64) {
      for (char& c : chunk) c = static_cast<char>(R.Next());
    }
    if (roll < 10 && image.size() >= 64) chunk = image.substr(image.size() - 64);
    image += chunk;
  }
  image.resize(length);
  return image;
}

// Log lines a run keeps for its report.
constexpr size_t kTailLines = 40;

// An unattended front end: it keeps the last log lines, draws nothing and says No.
class Unattended final : public JobLog,
                         public ProgressDisplay,
                         public EventPump,
                         public OperatorQuestion {
 public:
  std::function<void()> OnPump;
  std::deque<std::string> Tail;
  void Log(const std::string& Text) override {
    Tail.push_back(Text);
    if (Tail.size() > kTailLines) Tail.pop_front();
  }
  void SetProgress(int32_t, int32_t, uint32_t, const std::string&) override {}
  void PumpEvents() override { OnPump(); }
  bool AskYesNo(const std::string&, const std::string&) override { return false; }
};

// Thrown from the pump to tear down a job that went on long after it was cancelled.
struct StuckJob {};

bool Reached(const sim::SimulatedModule& Module, const Fault& F) {
  return Module.CountOf(static_cast<uint8_t>(F.Command)) >= std::max(F.Occurrence, 1);
}

bool RefusalReached(const RunPlan& Plan, const sim::SimulatedModule& Module) {
  const bool direct = Plan.Protocol == BootProtocol::Direct;
  const int index = direct ? Plan.Settings.RefusePage : Plan.Settings.RefuseBlock;
  if (index < 0) return false;
  const auto address =
      BigEndian32(static_cast<uint32_t>(index * (direct ? Plan.Settings.PageSize : 128)));
  for (const auto& c : Module.Commands()) {
    const bool write = direct ? (c.Command == sim::kCmdPage || c.Command == sim::kCmdPageEncrypted)
                              : c.Command == sim::kCcbBlock;
    if (write && c.Data.substr(0, 4) == address) return true;
  }
  return false;
}

const char* KindName(FaultKind Kind) {
  switch (Kind) {
    case FaultKind::LoseAnswer:
      return "lose";
    case FaultKind::CorruptAnswer:
      return "corrupt-last";
    case FaultKind::GarbageFirst:
      return "garbage-first";
    case FaultKind::LateAnswer:
      return "late";
    case FaultKind::NegativeAnswer:
      return "negative";
    case FaultKind::BadWrite:
      return "bad-write";
    case FaultKind::WrongValue:
      return "wrong-value";
    case FaultKind::TruncateAnswer:
      return "truncate";
    case FaultKind::CorruptByte:
      return "flip";
    case FaultKind::NoiseAfter:
      return "noise-after";
  }
  return "?";
}

}  // namespace

const char* FaultClassName(FaultClass Class) {
  switch (Class) {
    case FaultClass::Noise:
      return "noise between frames";
    case FaultClass::LostAnswer:
      return "lost answers";
    case FaultClass::CorruptByte:
      return "corrupted byte";
    case FaultClass::Truncated:
      return "truncated answer";
    case FaultClass::LateAnswer:
      return "late answer";
    case FaultClass::GarbageFirst:
      return "garbage before answer";
    case FaultClass::Negative:
      return "negative answer";
    case FaultClass::WrongValue:
      return "wrong CRC value";
    case FaultClass::BadWrite:
      return "page/block written wrong";
    case FaultClass::Refused:
      return "page/block refused";
    case FaultClass::LineCut:
      return "line cut";
    case FaultClass::Mixed:
      return "mixed (2-4 of the above)";
  }
  return "?";
}

std::vector<FaultClass> AllFaultClasses() {
  std::vector<FaultClass> all;
  for (int c = 0; c < kFaultClasses; ++c) all.push_back(static_cast<FaultClass>(c));
  return all;
}

const char* VerdictName(Verdict V) {
  switch (V) {
    case Verdict::Verified:
      return "verified";
    case Verdict::Unverified:
      return "unverified";
    case Verdict::Failed:
      return "reported failure";
    case Verdict::GivenUp:
      return "given up / cancelled";
    case Verdict::FalseSuccess:
      return "false success";
    case Verdict::Crash:
      return "crash";
    case Verdict::Hang:
      return "hang";
  }
  return "?";
}

uint64_t RunSeed(uint64_t Seed, BootProtocol Protocol, int Index) {
  Rng r(Seed ^ (uint64_t{Protocol == BootProtocol::Ccb} << 63) ^ static_cast<uint64_t>(Index));
  return r.Next();
}

FaultClass RowOf(const SoakOptions& Options, int Index) {
  const auto n = Options.Classes.size() + 1;
  const auto k = static_cast<size_t>(Index) % n;
  return k < Options.Classes.size() ? Options.Classes[k] : FaultClass::Mixed;
}

RunPlan PlanRun(BootProtocol Protocol, uint64_t Seed, FaultClass Row, const SoakOptions& Options) {
  Rng r(Seed);
  RunPlan plan;
  plan.Protocol = Protocol;
  plan.Seed = Seed;
  plan.Row = Row;
  sim::ModuleSettings& s = plan.Settings;
  s.Protocol = Protocol;
  plan.Image = RandomImage(r);
  if (Protocol == BootProtocol::Direct) {
    static constexpr int32_t kPageSizes[] = {128, 256, 256, 512};
    s.PageSize = kPageSizes[r.Between(0, 3)];
    s.SupportsCrc = !r.Chance(10);
    plan.Marker = r.Chance(25);
    s.AnswerPieces = static_cast<int>(r.Between(1, 2));
  }
  s.EchoPoll = r.Chance(30);
  s.AnswerAfterPolls = static_cast<int>(r.Between(0, 2));
  // Neither "X" nor "O": a stray one of those is an entry answer of its own (the other
  // protocol, or a page size made of the bytes behind it), which is a different test.
  for (int64_t n = r.Chance(30) ? r.Between(1, 2) : 0; n > 0; --n) {
    char b = static_cast<char>(r.Between(0x20, 0x56));
    if (b == 'O') b = '?';
    s.StrayBytes += b;
  }
  // Sooner than 4 ms the answer to a short request is through before the tool's drain, 5 ms
  // after its write, and is never heard: no module can be served that fast.
  s.TurnaroundMicros = r.Between(5'000, 20'000);
  plan.Packets = r.Chance(30);

  if (Row == FaultClass::Mixed) {
    std::vector<FaultClass> pool = Options.Classes;
    for (int64_t n = std::min<int64_t>(r.Between(2, 4), static_cast<int64_t>(pool.size())); n > 0;
         --n) {
      const auto k = static_cast<size_t>(r.Between(0, static_cast<int64_t>(pool.size()) - 1));
      plan.Classes.push_back(pool[k]);
      pool.erase(pool.begin() + static_cast<std::ptrdiff_t>(k));
    }
  } else {
    plan.Classes = {Row};
  }
  const Shape shape = ShapeOf(plan);
  for (const FaultClass c : plan.Classes) AddFaults(plan, c, r, shape);
  return plan;
}

Verdict Judge(const UploadResult& Result, bool FlashHoldsImage) {
  const bool claimsImage =
      Result.Outcome == UploadOutcome::Verified ||
      (Result.Outcome == UploadOutcome::GivenUp &&
       Result.Reason.find("after the image was verified") != std::string::npos);
  if (claimsImage && !FlashHoldsImage) return Verdict::FalseSuccess;
  switch (Result.Outcome) {
    case UploadOutcome::Verified:
      return Verdict::Verified;
    case UploadOutcome::Unverified:
      return Verdict::Unverified;
    case UploadOutcome::GivenUp:
    case UploadOutcome::Cancelled:
      return Verdict::GivenUp;
    case UploadOutcome::FileError:
    case UploadOutcome::PortError:
    case UploadOutcome::NoBootloader:
    case UploadOutcome::Failed:
    // A soak always writes: the outcomes of a check without writing would be a fault of the job.
    case UploadOutcome::AlreadyCurrent:
    case UploadOutcome::Matches:
    case UploadOutcome::Differs:
    case UploadOutcome::CannotTell:
      return Verdict::Failed;
  }
  return Verdict::Crash;
}

RunRecord RunOne(const RunPlan& Plan, const std::string& HexPath, const SoakOptions& Options) {
  std::ofstream(HexPath, std::ios::binary) << testing::HexOf(Plan.Image, Plan.Marker);
  sim::SimulatedModule module(Plan.Settings);
  sim::VirtualClock clock;
  sim::SimLine line(clock, module);
  line.SetPacketDelivery(Plan.Packets);
  if (Plan.CutAfterBytes >= 0) line.CutAfterBytes(Plan.CutAfterBytes);
  Unattended front;
  JobContext ctx(front, front, front, front, clock, line);
  GiveUpWatch watch("SIM", Options.GiveUpSeconds);
  const int64_t start = clock.GetTickCount();
  bool hung = false;
  front.OnPump = [&] {
    watch.Check(ctx);
    const int64_t elapsed = clock.GetTickCount() - start;
    if (elapsed > Options.HangBoundMs && !hung) {
      hung = true;
      ctx.Cancel = true;
    }
    if (elapsed > Options.HangBoundMs + kTearDownMs) throw StuckJob{};
  };

  RunRecord record;
  record.Row = Plan.Row;
  record.Seed = Plan.Seed;
  UploadResult result{UploadOutcome::Failed, ""};
  bool crashed = false;
  try {
    result = StartUpload(ctx, HexPath, "SIM");
  } catch (const StuckJob&) {
    hung = true;
    result.Reason = "ignored its cancel";
  } catch (const std::exception& e) {
    crashed = true;
    result.Reason = std::string("exception: ") + e.what();
  } catch (...) {
    crashed = true;
    result.Reason = "unknown exception";
  }
  record.Reason = result.Reason;
  record.LogTail.assign(front.Tail.begin(), front.Tail.end());
  if (!front.Tail.empty()) record.LastLine = front.Tail.back();
  record.VirtualMs = clock.GetTickCount() - start;
  record.PortLeftOpen = line.IsOpen();

  const bool flashHoldsImage = module.Flash().compare(0, Plan.Image.size(), Plan.Image) == 0;
  if (hung) {
    record.Result = Verdict::Hang;
  } else if (crashed) {
    record.Result = Verdict::Crash;
  } else {
    record.Result = Judge(result, flashHoldsImage);
  }

  for (size_t i = 0; i < Plan.Settings.Faults.size(); ++i) {
    if (Reached(module, Plan.Settings.Faults[i])) {
      record.Exercised[static_cast<size_t>(Plan.FaultTags[i])] = true;
    }
  }
  if (RefusalReached(Plan, module))
    record.Exercised[static_cast<size_t>(FaultClass::Refused)] = true;
  int64_t written = 0;
  for (const auto& chunk : line.Written()) written += static_cast<int64_t>(chunk.Bytes.size());
  if (Plan.CutAfterBytes >= 0 && written >= Plan.CutAfterBytes) {
    record.Exercised[static_cast<size_t>(FaultClass::LineCut)] = true;
  }
  return record;
}

std::string Describe(const RunPlan& Plan) {
  std::ostringstream out;
  const sim::ModuleSettings& s = Plan.Settings;
  out << (Plan.Protocol == BootProtocol::Direct ? "direct" : "ccb") << " seed " << Plan.Seed
      << ", image " << Plan.Image.size() << " bytes";
  if (Plan.Protocol == BootProtocol::Direct) {
    out << ", page " << s.PageSize << (s.SupportsCrc ? "" : ", no CRC")
        << (Plan.Marker ? ", marker" : "");
  }
  out << "; faults:";
  for (const Fault& f : s.Faults) {
    out << ' ' << KindName(f.Kind) << '@';
    if (f.Command >= 'A' && f.Command <= 'Z') {
      out << static_cast<char>(f.Command);
    } else {
      out << f.Command;
    }
    out << '#' << f.Occurrence;
    if (f.DelayMicros != 0) out << '+' << f.DelayMicros / 1000 << "ms";
    if (f.Kind == FaultKind::TruncateAnswer || f.Kind == FaultKind::CorruptByte) {
      out << '/' << f.Position;
    }
  }
  if (s.RefusePage >= 0) out << " refuse-page " << s.RefusePage;
  if (s.RefuseBlock >= 0) out << " refuse-block " << s.RefuseBlock;
  if (Plan.CutAfterBytes >= 0) out << " cut-after " << Plan.CutAfterBytes << " bytes";
  return out.str();
}

void Tally::Add(const RunRecord& Record) {
  Row& row = rows_[Index(Record.Row)];
  ++row.Runs;
  ++row.Verdicts[static_cast<size_t>(Record.Result)];
  for (size_t c = 0; c < exercised_.size(); ++c) exercised_[c] += Record.Exercised[c];
  open_ports_ += Record.PortLeftOpen;
}

int Tally::Count(FaultClass Row, Verdict V) const {
  return rows_[Index(Row)].Verdicts[static_cast<size_t>(V)];
}

int Tally::Count(Verdict V) const {
  int n = 0;
  for (const Row& row : rows_) n += row.Verdicts[static_cast<size_t>(V)];
  return n;
}

int Tally::TotalRuns() const {
  int n = 0;
  for (const Row& row : rows_) n += row.Runs;
  return n;
}

std::string Tally::Table() const {
  std::ostringstream out;
  out << "| fault class | runs | exercised |";
  for (int v = 0; v < kVerdicts; ++v) out << ' ' << VerdictName(static_cast<Verdict>(v)) << " |";
  out << "\n|---|--:|--:|";
  for (int v = 0; v < kVerdicts; ++v) out << "--:|";
  out << '\n';
  for (size_t r = 0; r < rows_.size(); ++r) {
    const auto row = static_cast<FaultClass>(r);
    if (rows_[r].Runs == 0) continue;
    out << "| " << FaultClassName(row) << " | " << rows_[r].Runs << " | ";
    if (row == FaultClass::Mixed)
      out << '-';
    else
      out << exercised_[r];
    out << " |";
    for (const int n : rows_[r].Verdicts) out << ' ' << n << " |";
    out << '\n';
  }
  out << "| **all** | " << TotalRuns() << " | |";
  for (int v = 0; v < kVerdicts; ++v) out << ' ' << Count(static_cast<Verdict>(v)) << " |";
  out << '\n';
  return out.str();
}

}  // namespace palimbo::soak
