#include "cli/flash_run.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include "adapter/port_report.h"
#include "cli/commands.h"
#include "cli/json_line.h"
#include "cli/platform.h"
#include "cli/station.h"
#include "cli/upload_record.h"
#include "frames/crc16.h"
#include "image/hex_file.h"
#include "serial/clock.h"
#include "serial/comm.h"
#include "serial/trace_backend.h"
#include "upload/hex_text.h"
#include "upload/job_context.h"

namespace palimbo::cli {

namespace {

// How often the live table moves on while nothing else happens.
constexpr auto kRefreshInterval = std::chrono::milliseconds(200);

// One module's job and its surroundings: everything it touches is its own, but the display
// and the Ctrl-C count, which are made for sharing.
class ModuleJob final : public JobLog,
                        public ProgressDisplay,
                        public EventPump,
                        public OperatorQuestion {
 public:
  ModuleJob(size_t Index, const FlashRequest& Request, UploadDisplay& Display,
            const InterruptWatch& Interrupts, const std::atomic<bool>& StationStopped,
            std::ostream* Trace)
      : index_(Index),
        request_(Request),
        trace_(Trace),
        display_(Display),
        interrupts_(Interrupts),
        station_stopped_(StationStopped),
        watch_(Request.Ports[Index], Request.GiveUpAfterSeconds) {}

  ModuleResult Run(SerialBackend& SystemPort, const HexReadResult& Image, bool Encrypted) {
    ModuleResult result;
    result.Port = request_.Ports[index_];
    result.Bytes = Image.FirmwareString.size();
    result.ImageCrc = Crc16Of(Image.FirmwareString);
    result.Started = std::time(nullptr);
    const auto started = std::chrono::steady_clock::now();

    SteadyClock clock;
    std::unique_ptr<TraceBackend> traced;
    SerialBackend* port = &SystemPort;
    if (trace_ != nullptr) {
      traced = std::make_unique<TraceBackend>(SystemPort, clock, *trace_);
      port = traced.get();
    }

    JobContext ctx(*this, *this, *this, *this, clock, *port);
    ctx.IdleWaitMicros = request_.IdleWait ? kUnattendedIdleWaitMicros : 0;
    ctx.AwaitModule = request_.Station;
    ctx.IsEncrypted = Encrypted;
    ctx_ = &ctx;
    protocol_.clear();
    port_lost_.clear();
    cancel_sent_ = false;
    result.Result = StartUpload(ctx, Image, result.Port, request_.Mode);
    ctx_ = nullptr;
    result.Protocol = protocol_;
    result.PortLost = port_lost_;
    result.ServerFingerprint = port->ServerFingerprint();
    // At a station the wait for the next module is the operator's time, not the module's.
    const bool fromAnswer = request_.Station && !protocol_.empty();
    result.Seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                                   (fromAnswer ? answered_ : started))
                         .count();
    if (fromAnswer) result.Started = answered_time_;
    result.ExitStatus = ExitStatusOf(result.Result.Outcome);
    if (traced) {
      const std::string why = traced->WriteError();
      result.Trace = why.empty() ? "written"
                                 : "not written: cannot write trace file " +
                                       TraceFileName(request_, index_) + ": " + why;
    }
    return result;
  }

  void Log(const std::string& Text) override { display_.Log(index_, Text); }

  void SetProgress(int32_t Val, int32_t Max, uint32_t, const std::string& Text) override {
    display_.Progress(index_, Val, Max, Text);
  }

  void PumpEvents() override {
    if (ctx_ == nullptr) return;
    if (protocol_.empty() && !ctx_->Protocol.empty()) {
      protocol_ = ctx_->Protocol;
      answered_ = std::chrono::steady_clock::now();
      answered_time_ = std::time(nullptr);
      display_.SetProtocol(index_, protocol_);
    }
    if (interrupts_.Requested() && !cancel_sent_) {
      cancel_sent_ = true;
      ctx_->Cancel = true;
      display_.Note(index_, "cancelling (Ctrl-C again quits at once)");
    }
    const bool waiting = request_.Station && ctx_->Protocol.empty();
    // A stopped station takes no further module, but lets a running upload end.
    if (waiting && station_stopped_ && !cancel_sent_) {
      cancel_sent_ = true;
      ctx_->Cancel = true;
    }
    // A station waiting for its next module hears nothing and gets no further, as it should.
    if (waiting && IsPortOpen(ctx_->PortHandle)) {
      ctx_->LastAnswerTick = ctx_->LastProgressTick = ctx_->GetTickCount();
    }
    if (!watch_.Check(*ctx_)) return;
    if (!ctx_->Port().LostReason().empty()) port_lost_ = ctx_->GiveUpReason;
  }

  bool AskYesNo(const std::string& Title, const std::string& Text) override {
    return display_.AskYesNo(index_, request_.AssumeYes, Title, Text);
  }

 private:
  size_t index_;
  const FlashRequest& request_;
  std::ostream* trace_;  // the place's trace, kept for the whole run; none without --trace
  UploadDisplay& display_;
  const InterruptWatch& interrupts_;
  const std::atomic<bool>& station_stopped_;
  GiveUpWatch watch_;
  JobContext* ctx_ = nullptr;
  bool cancel_sent_ = false;
  std::string protocol_;
  std::string port_lost_;
  std::chrono::steady_clock::time_point answered_;  // when the bootloader answered the entry
  std::time_t answered_time_ = 0;
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

}  // namespace

std::string TraceFileName(const FlashRequest& Request, size_t Index) {
  return Request.Ports.size() == 1 ? Request.TraceFile
                                   : Request.TraceFile + "." + std::to_string(Index + 1);
}

std::string SettleOutputs(ModuleResult& Result, UploadRecord* Record, int32_t Module) {
  static constexpr std::string_view kNotWritten = "not written: ";
  std::string error;
  if (Result.Trace.starts_with(kNotWritten)) {
    error = Result.Trace.substr(kNotWritten.size());
    Result.ExitStatus = kExitFailed;
  }
  if (Record != nullptr) {
    std::string why;
    Result.Record =
        Record->Append(Result, Module, why) ? "written" : std::string(kNotWritten) + why;
    if (error.empty()) error = why;
  }
  if (!error.empty()) Result.ExitStatus = kExitFailed;
  return error;
}

int ExitStatusOf(UploadOutcome Outcome) {
  switch (Outcome) {
    case UploadOutcome::Verified:
    case UploadOutcome::AlreadyCurrent:
    case UploadOutcome::Matches:
      return kExitOk;
    case UploadOutcome::Unverified:
    case UploadOutcome::CannotTell:
      return kExitUnverified;
    case UploadOutcome::Differs:
      return kExitDiffers;
    case UploadOutcome::FileError:
      return kExitUsage;
    case UploadOutcome::PortError:
    case UploadOutcome::NoBootloader:
    case UploadOutcome::Cancelled:
    case UploadOutcome::Failed:
    case UploadOutcome::GivenUp:
      break;
  }
  return kExitFailed;
}

int CombinedExitStatus(const std::vector<ModuleResult>& Modules) {
  if (Modules.size() == 1) return Modules.front().ExitStatus;
  // The worst first: a failure, then a module that holds another image, then one unchecked.
  for (const int status : {kExitFailed, kExitUsage, kExitDiffers, kExitUnverified}) {
    for (const ModuleResult& m : Modules) {
      if (m.ExitStatus == status) return status == kExitUsage ? kExitFailed : status;
    }
  }
  return kExitOk;
}

namespace {

// The file of a run, read once: every module of the run gets this image, and the record and
// the approval check speak of these very bytes. Nothing, and the reason told, when the file
// is no firmware to write or not the approved one.
std::optional<HexReadResult> ReadRunFirmware(const FlashRequest& Request, bool& Encrypted) {
  HexReadResult image = ReadHexFile(Request.File, Encrypted, FileDigest::Sha256);
  // Told beside the run, not in its log: the image is still what the reader's rules make of it.
  for (const HexNote& note : image.Notes) {
    std::cerr << "warning: " << Request.File << " " << HexNoteText(note)
              << "; the file was probably built for another target" << std::endl;
  }
  std::string reason;
  if (!image.Ok()) {
    reason = image.Reason;
  } else if (image.FirmwareString.empty()) {
    reason = "no data records";
  } else if (!Request.ExpectSha256.empty() && image.FileSha256 != Request.ExpectSha256) {
    reason = "SHA-256 " + image.FileSha256 + " is not the approved " + Request.ExpectSha256;
  } else {
    return image;
  }
  if (Request.Json) std::cout << JsonLine({{"type", "error"}, {"reason", reason}}) << std::endl;
  std::cerr << "palimbo-cli: " << Request.File << ": " << reason << std::endl;
  return std::nullopt;
}

// Opens the port and closes it again: empty when it opened, else why not.
std::string ProbePort(SerialBackend& Port, const std::string& Name,
                      const std::function<bool()>& Stopping) {
  Port.SetOpenInterrupt(Stopping);
  int32_t handle = Comm_oeffnen_32(Port, Name + ":57600,N,8,1");
  Port.SetOpenInterrupt({});
  if (!IsPortOpen(handle)) return Port.LastOpenError();
  Comm_close_32(Port, handle);
  return {};
}

// How long a station waits before it looks again for a port that went away.
constexpr auto kPortLookInterval = std::chrono::seconds(1);
constexpr auto kStopLookInterval = std::chrono::milliseconds(100);

}  // namespace

FlashReport FlashModules(const FlashRequest& Request, const BackendFactory& MakePort) {
  // A bad file is a bad input for every module alike: it is told once, and no port opens.
  bool encrypted = false;
  const std::optional<HexReadResult> image = ReadRunFirmware(Request, encrypted);
  if (!image) return {kExitUsage, {}};
  const int32_t crc = Crc16Of(image->FirmwareString);

  const DisplayMode mode = Request.Json                ? DisplayMode::Json
                           : Request.Ports.size() == 1 ? DisplayMode::Single
                                                       : DisplayMode::Table;
  // Every trace opens before the record and any port: a trace that cannot be written is a bad
  // argument, and leaves no empty record behind.
  std::vector<std::unique_ptr<std::ofstream>> traces(Request.Ports.size());
  for (size_t i = 0; i < traces.size() && !Request.TraceFile.empty(); ++i) {
    const std::string name = TraceFileName(Request, i);
    traces[i] = std::make_unique<std::ofstream>(name, std::ios::binary | std::ios::trunc);
    if (!*traces[i]) {
      std::cerr << "palimbo-cli: cannot write trace file " << name << ": " << std::strerror(errno)
                << std::endl;
      return {kExitUsage, {}};
    }
  }
  std::unique_ptr<UploadRecord> record;
  if (!Request.RecordFile.empty()) {
    std::string error;
    record = UploadRecord::Open(
        Request.RecordFile, {Request.File, image->FirmwareString.size(), crc, image->FileSha256},
        error);
    if (!record) {
      std::cerr << "palimbo-cli: " << error << std::endl;
      return {kExitUsage, {}};
    }
  }
  UploadDisplay display(mode, Request.Ports);
  display.RunLog("Firmware " + Request.File +
                 " read once for the whole run: " + std::to_string(image->FirmwareString.size()) +
                 " bytes, CRC " + Hex4(crc) + ", SHA-256 " + image->FileSha256);
  InterruptWatch interrupts;
  std::atomic<bool> stationStopped{false};
  std::vector<std::unique_ptr<SerialBackend>> ports;
  std::vector<std::unique_ptr<ModuleJob>> jobs;
  for (size_t i = 0; i < Request.Ports.size(); ++i) {
    ports.push_back(MakePort());
    jobs.push_back(std::make_unique<ModuleJob>(i, Request, display, interrupts, stationStopped,
                                               traces[i].get()));
  }

  FlashReport report;
  report.Modules.resize(Request.Ports.size());
  std::mutex doneLock;
  std::condition_variable doneSignal;
  size_t done = 0;
  StationTally tally(Request.StationCount, Request.Mode == WriteMode::UnlessSame);
  const auto stopping = [&] { return interrupts.Requested() || stationStopped; };
  std::vector<std::thread> threads;
  for (size_t i = 0; i < jobs.size(); ++i) {
    threads.emplace_back([&, i] {
      const auto runOne = [&] { return jobs[i]->Run(*ports[i], *image, encrypted); };
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
        RunStationPort(place, tally, display, record.get(), Request.Json);
      } else {
        ModuleResult& result = report.Modules[i];
        result = runOne();
        if (const std::string error = SettleOutputs(result, record.get(), 0); !error.empty()) {
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
    display.Finish(Request.Json ? std::vector<ModuleResult>{} : report.Modules);
    display.Log(0, tally.Summary());
    report.ExitStatus = tally.ExitStatus();
    return report;
  }
  display.Finish(report.Modules);
  if (!Request.Json) {
    for (size_t i = 0; i < report.Modules.size(); ++i) ExplainEnd(report.Modules[i], display, i);
  }
  report.ExitStatus = CombinedExitStatus(report.Modules);
  return report;
}

}  // namespace palimbo::cli
