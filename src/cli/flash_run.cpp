#include "cli/flash_run.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "adapter/port_report.h"
#include "cli/platform.h"
#include "cli/upload_display.h"
#include "production/json_line.h"
#include "production/production_run.h"
#include "production/station.h"
#include "serial/clock.h"
#include "serial/trace_backend.h"
#include "upload/job_context.h"

namespace palimbo::cli {

namespace {

// How often the live table moves on while nothing else happens.
constexpr auto kRefreshInterval = std::chrono::milliseconds(200);

// One module's job as the command line shows it: the run's job, with a context, clock and port
// of its own; the display and the Ctrl-C count are made for sharing.
class ShownJob final : public JobLog,
                       public ProgressDisplay,
                       public EventPump,
                       public OperatorQuestion {
 public:
  ShownJob(ProductionRun& Run, size_t Index, UploadDisplay& Display,
           const InterruptWatch& Interrupts, const std::atomic<bool>& StationStopped)
      : run_(Run),
        index_(Index),
        job_(Run, Index),
        display_(Display),
        interrupts_(Interrupts),
        station_stopped_(StationStopped) {}

  ModuleResult Run(SerialBackend& SystemPort) {
    SteadyClock clock;
    std::unique_ptr<TraceBackend> traced;
    SerialBackend* port = &SystemPort;
    if (std::ostream* trace = run_.Trace(index_)) {
      traced = std::make_unique<TraceBackend>(SystemPort, clock, *trace);
      port = traced.get();
    }
    JobContext ctx(*this, *this, *this, *this, clock, *port);
    ctx_ = &ctx;
    cancel_sent_ = false;
    ModuleResult result = job_.Run(ctx, traced.get());
    ctx_ = nullptr;
    return result;
  }

  void Log(const std::string& Text) override { display_.Log(index_, Text); }

  void SetProgress(int32_t Val, int32_t Max, uint32_t, const std::string& Text) override {
    display_.Progress(index_, Val, Max, Text);
  }

  void PumpEvents() override {
    if (ctx_ == nullptr) return;
    if (interrupts_.Requested() && !cancel_sent_) {
      cancel_sent_ = true;
      ctx_->Cancel = true;
      display_.Note(index_, "cancelling (Ctrl-C again quits at once)");
    }
    if (job_.AtPump(*ctx_, station_stopped_)) display_.SetProtocol(index_, job_.Protocol());
  }

  bool AskYesNo(const std::string& Title, const std::string& Text) override {
    return display_.AskYesNo(index_, run_.Request().AssumeYes, Title, Text);
  }

 private:
  ProductionRun& run_;
  size_t index_;
  ModuleJob job_;
  UploadDisplay& display_;
  const InterruptWatch& interrupts_;
  const std::atomic<bool>& station_stopped_;
  JobContext* ctx_ = nullptr;
  bool cancel_sent_ = false;
};

// A station's lines, notes and results as the command line shows them.
class ShownStation final : public StationEvents {
 public:
  ShownStation(UploadDisplay& Display, bool Json) : display_(Display), json_(Json) {}
  void Log(size_t Place, const std::string& Text) override { display_.Log(Place, Text); }
  void Note(size_t Place, const std::string& Text) override { display_.Note(Place, Text); }
  void Counted(size_t, int32_t, const ModuleResult& Result) override {
    if (json_) display_.Finish({Result});
  }

 private:
  UploadDisplay& display_;
  bool json_;
};

// What an operator can do about a port this user may not open, where the system tells.
std::string AccessFixFor(const std::string& Port) {
  for (const SerialPortReport& report : ReportSerialPorts()) {
    if (report.Port == Port && !report.Fix.empty()) return report.Fix;
  }
  return AccessFix(false, "");
}

// The command line's last word names the cause: the job itself can only log that it was
// cancelled when a lost port or a silent module ended it.
void ExplainEnd(const ModuleResult& Module, UploadDisplay& Display, size_t Index) {
  const UploadResult& r = Module.Result;
  if (r.Outcome != UploadOutcome::PortError && r.Outcome != UploadOutcome::FileError &&
      r.Outcome != UploadOutcome::GivenUp) {
    return;
  }
  Display.Note(Index, r.Reason);
  if (r.Reason.find("Permission denied") != std::string::npos) {
    Display.Note(Index, "fix: " + AccessFixFor(Module.Port));
  }
}

// One line of standard input for the next module's unit, as a barcode scanner types the
// label and Enter; on a terminal the operator is told what is wanted.
std::optional<std::string> ReadUnitLine(UploadDisplay& Display, size_t Place,
                                        const InterruptWatch& Interrupts) {
  if (IsTerminal(StdStream::In)) Display.Note(Place, "scan the next module's label");
  return Interrupts.ReadLine();
}

// How long a station waits before it looks again for a port that went away.
constexpr auto kPortLookInterval = std::chrono::seconds(1);
constexpr auto kStopLookInterval = std::chrono::milliseconds(100);

}  // namespace

FlashReport FlashModules(const RunRequest& Request, bool Json, const BackendFactory& MakePort) {
  // A bad file, trace or record is a bad input for every module alike: it is told once, and no
  // port opens.
  ProductionRun::Opening opening = ProductionRun::Open(Request);
  for (const std::string& warning : opening.Warnings) {
    std::cerr << "warning: " << warning << std::endl;
  }
  if (!opening.Run) {
    if (Json) std::cout << JsonLine({{"type", "error"}, {"reason", opening.Error}}) << std::endl;
    std::cerr << "palimbo-cli: " << opening.Error << std::endl;
    return {kExitUsage, {}};
  }
  ProductionRun& run = *opening.Run;
  const DisplayMode mode = Json                        ? DisplayMode::Json
                           : Request.Ports.size() == 1 ? DisplayMode::Single
                                                       : DisplayMode::Table;
  UploadDisplay display(mode, Request.Ports);
  display.RunLog(run.Description());
  InterruptWatch interrupts;
  std::atomic<bool> stationStopped{false};
  std::vector<std::unique_ptr<SerialBackend>> ports;
  std::vector<std::unique_ptr<ShownJob>> jobs;
  for (size_t i = 0; i < Request.Ports.size(); ++i) {
    ports.push_back(MakePort());
    jobs.push_back(std::make_unique<ShownJob>(run, i, display, interrupts, stationStopped));
  }
  ShownStation station(display, Json);

  FlashReport report;
  report.Modules.resize(Request.Ports.size());
  std::mutex doneLock;
  std::condition_variable doneSignal;
  size_t done = 0;
  StationTally& tally = run.Tally();
  const auto stopping = [&] { return interrupts.Requested() || stationStopped; };
  std::vector<std::thread> threads;
  for (size_t i = 0; i < jobs.size(); ++i) {
    threads.emplace_back([&, i] {
      const auto runOne = [&] { return jobs[i]->Run(*ports[i]); };
      if (Request.Station) {
        StationPlace place;
        place.Index = i;
        place.Port = Request.Ports[i];
        place.RunOne = runOne;
        place.ProbePort = [&] { return ProbePort(*ports[i], Request.Ports[i], stopping); };
        place.Stopping = stopping;
        place.StopStation = [&] { stationStopped = true; };
        place.Pause = [&] {
          for (auto slept = std::chrono::milliseconds(0); slept < kPortLookInterval && !stopping();
               slept += kStopLookInterval) {
            std::this_thread::sleep_for(kStopLookInterval);
          }
        };
        place.Units = run.Units();
        if (Request.AskUnit)
          place.ReadUnitLine = [&] { return ReadUnitLine(display, i, interrupts); };
        RunStationPort(place, tally, station, run.Record());
      } else {
        ModuleResult& result = report.Modules[i];
        result = runOne();
        if (const std::string error = SettleOutputs(result, run.Record(), 0); !error.empty()) {
          display.Note(i, error);
        }
      }
      const std::lock_guard guard(doneLock);
      ++done;
      doneSignal.notify_one();
    });
  }
  {
    std::unique_lock wait(doneLock);
    while (!doneSignal.wait_for(wait, kRefreshInterval, [&] { return done == jobs.size(); })) {
      wait.unlock();
      display.Refresh();
      wait.lock();
    }
  }
  for (auto& thread : threads) thread.join();

  if (Request.Station) {
    // The JSON results went out module by module; the table sums up every module.
    report.Modules = tally.Results();
    display.Finish(Json ? std::vector<ModuleResult>{} : report.Modules);
    display.Log(0, tally.Summary());
    if (const std::string forwarded = run.FinishForwarding(); !forwarded.empty()) {
      display.Log(0, forwarded);
    }
    report.ExitStatus = tally.ExitStatus();
    return report;
  }
  display.Finish(report.Modules);
  if (!Json) {
    for (size_t i = 0; i < report.Modules.size(); ++i) ExplainEnd(report.Modules[i], display, i);
  }
  if (const std::string forwarded = run.FinishForwarding(); !forwarded.empty()) {
    display.Log(0, forwarded);
  }
  report.ExitStatus = CombinedExitStatus(report.Modules);
  return report;
}

}  // namespace palimbo::cli
