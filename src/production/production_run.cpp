#include "production/production_run.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "frames/crc16.h"
#include "serial/comm.h"
#include "upload/hex_text.h"
#include "upload/upload.h"

namespace palimbo {

namespace {

// Why the file is no firmware to write, or not the approved release; empty when it is.
std::string FirmwareProblem(const RunRequest& Request, const HexReadResult& Image) {
  if (!Image.Ok()) return Image.Reason;
  if (Image.FirmwareString.empty()) return "no data records";
  if (!Request.ExpectSha256.empty() && Image.FileSha256 != Request.ExpectSha256) {
    return "SHA-256 " + Image.FileSha256 + " is not the approved " + Request.ExpectSha256;
  }
  return {};
}

}  // namespace

RunFirmware ReadRunFirmware(const RunRequest& Request, std::string& Error,
                            std::vector<std::string>& Warnings) {
  RunFirmware firmware;
  firmware.Image = ReadHexFile(Request.File, firmware.Encrypted, FileDigest::Sha256);
  // Told beside the run, not in its log: the image is still what the reader's rules make of it.
  for (const HexNote& note : firmware.Image.Notes) {
    Warnings.push_back(Request.File + " " + HexNoteText(note) +
                       "; the file was probably built for another target");
  }
  if (const std::string problem = FirmwareProblem(Request, firmware.Image); !problem.empty()) {
    Error = Request.File + ": " + problem;
    return {};
  }
  firmware.Crc = Crc16Of(firmware.Image.FirmwareString);
  return firmware;
}

ProductionRun::ProductionRun(const RunRequest& Request, RunFirmware Firmware)
    : request_(Request),
      firmware_(std::move(Firmware)),
      traces_(Request.Ports.size()),
      tally_(Request.StationCount, Request.Mode) {}

ProductionRun::Opening ProductionRun::Open(const RunRequest& Request) {
  Opening opening;
  RunFirmware firmware = ReadRunFirmware(Request, opening.Error, opening.Warnings);
  if (!opening.Error.empty()) return opening;
  std::optional<UnitRule> units = UnitRule::Make(Request.UnitPattern, opening.Error);
  if (!units) return opening;
  std::unique_ptr<ProductionRun> run(new ProductionRun(Request, std::move(firmware)));
  run->units_ = std::move(*units);
  // Every trace opens before the record and any port: a trace that cannot be written is a bad
  // input, and leaves no empty record behind.
  for (size_t i = 0; i < run->traces_.size() && !Request.TraceFile.empty(); ++i) {
    const std::string name = TraceFileName(Request, i);
    auto trace = std::make_unique<std::ofstream>(name, std::ios::binary | std::ios::trunc);
    if (!*trace) {
      opening.Error = "cannot write trace file " + name + ": " + std::strerror(errno);
      return opening;
    }
    run->traces_[i] = std::move(trace);
  }
  if (!Request.RecordFile.empty()) {
    const HexReadResult& image = run->firmware_.Image;
    run->record_ = UploadRecord::Open(
        Request.RecordFile,
        {Request.File, image.FirmwareString.size(), run->firmware_.Crc, image.FileSha256},
        opening.Error);
    if (!run->record_) return opening;
  }
  if (!Request.ForwardUrl.empty()) {
    std::string away;
    run->forwarder_ =
        RecordForwarder::Start(Request.ForwardUrl, Request.RecordFile, opening.Error, away);
    if (!run->forwarder_) {
      opening.Error = "--forward: " + opening.Error;
      return opening;
    }
    if (!away.empty()) opening.Warnings.push_back("--forward: " + away);
    run->record_->Written = [forwarder = run->forwarder_.get()](const std::string& Line) {
      forwarder->Take(Line);
    };
  }
  opening.Run = std::move(run);
  return opening;
}

std::string ProductionRun::Description() const {
  return "Firmware " + request_.File +
         " read once for the whole run: " + std::to_string(firmware_.Image.FirmwareString.size()) +
         " bytes, CRC " + Hex4(firmware_.Crc) + ", SHA-256 " + firmware_.Image.FileSha256;
}

std::string ProductionRun::FinishForwarding() {
  if (!forwarder_) return {};
  // A short last chance for the lines of the last modules; whatever waits, the record holds.
  const ForwardCount count = forwarder_->Finish(std::chrono::seconds(5));
  return "records: " + std::to_string(count.Sent + count.There) +
         " lines in the database's table palimbo_uploads (" + std::to_string(count.Sent) +
         " sent now), " + std::to_string(count.Waiting) + " wait in the record" +
         (count.Reason.empty() ? "" : " (the database: " + count.Reason + ")");
}

std::string TraceFileName(const RunRequest& Request, size_t Index) {
  return Request.Ports.size() == 1 ? Request.TraceFile
                                   : Request.TraceFile + "." + std::to_string(Index + 1);
}

ModuleJob::ModuleJob(const ProductionRun& Run, size_t Index)
    : run_(Run),
      index_(Index),
      watch_(Run.Request().Ports.at(Index), Run.Request().GiveUpAfterSeconds) {}

ModuleResult ModuleJob::Run(JobContext& Ctx, const TraceBackend* Trace) {
  const RunRequest& request = run_.Request();
  const HexReadResult& image = run_.Firmware().Image;
  ModuleResult result;
  result.Port = request.Ports[index_];
  result.Bytes = image.FirmwareString.size();
  result.ImageCrc = run_.Firmware().Crc;
  result.Started = std::time(nullptr);
  result.Unit = request.Unit;
  const auto started = std::chrono::steady_clock::now();

  Ctx.IdleWaitMicros = request.IdleWait ? kUnattendedIdleWaitMicros : 0;
  Ctx.AwaitModule = request.Station;
  Ctx.IsEncrypted = run_.Firmware().Encrypted;
  protocol_.clear();
  port_lost_.clear();
  stop_sent_ = false;
  result.Result = StartUpload(Ctx, image, result.Port, request.Mode);
  result.Protocol = protocol_;
  result.PortLost = port_lost_;
  result.ServerFingerprint = Ctx.Port().ServerFingerprint();
  // At a station the wait for the next module is the operator's time, not the module's.
  const bool fromAnswer = request.Station && !protocol_.empty();
  result.Seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                                 (fromAnswer ? answered_ : started))
                       .count();
  if (fromAnswer) result.Started = answered_time_;
  result.ExitStatus = ExitStatusOf(result.Result.Outcome);
  if (Trace != nullptr) {
    const std::string why = Trace->WriteError();
    result.Trace = why.empty() ? "written"
                               : "not written: cannot write trace file " +
                                     TraceFileName(request, index_) + ": " + why;
  }
  return result;
}

bool ModuleJob::AtPump(JobContext& Ctx, bool StopWaiting) {
  bool answered = false;
  if (protocol_.empty() && !Ctx.Protocol.empty()) {
    protocol_ = Ctx.Protocol;
    answered_ = std::chrono::steady_clock::now();
    answered_time_ = std::time(nullptr);
    answered = true;
  }
  const bool waiting = run_.Request().Station && Ctx.Protocol.empty();
  // A stopped station takes no further module, but lets a running upload end.
  if (waiting && StopWaiting && !stop_sent_) {
    stop_sent_ = true;
    Ctx.Cancel = true;
  }
  // A station waiting for its next module hears nothing and gets no further, as it should.
  if (waiting && IsPortOpen(Ctx.PortHandle)) {
    Ctx.LastAnswerTick = Ctx.LastProgressTick = Ctx.GetTickCount();
  }
  if (watch_.Check(Ctx) && !Ctx.Port().LostReason().empty()) port_lost_ = Ctx.GiveUpReason;
  return answered;
}

std::string ProbePort(SerialBackend& Port, const std::string& Name,
                      const std::function<bool()>& Stopping) {
  Port.SetOpenInterrupt(Stopping);
  int32_t handle = Comm_oeffnen_32(Port, Name + ":57600,N,8,1");
  Port.SetOpenInterrupt({});
  if (!IsPortOpen(handle)) return Port.LastOpenError();
  Comm_close_32(Port, handle);
  return {};
}

}  // namespace palimbo
