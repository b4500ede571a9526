#include "production/upload_record.h"

#include "production/host.h"
#include "production/json_line.h"
#include "production/unit.h"
#include "upload/hex_text.h"

namespace palimbo {

std::unique_ptr<UploadRecord> UploadRecord::Open(const std::string& Path, RecordedFirmware Firmware,
                                                 std::string& Error) {
  auto out = RecordFile::Open(Path, Error);
  if (!out) {
    Error = "cannot open record file " + Path + ": " + Error;
    return nullptr;
  }
  return std::unique_ptr<UploadRecord>(new UploadRecord(std::move(out), Path, std::move(Firmware)));
}

UploadRecord::UploadRecord(std::unique_ptr<RecordFile> Out, std::string Path,
                           RecordedFirmware Firmware)
    : out_(std::move(Out)),
      path_(std::move(Path)),
      firmware_(std::move(Firmware)),
      host_(HostName()) {}

bool UploadRecord::Append(const ModuleResult& Result, int32_t Module, std::string& Error) {
  nlohmann::ordered_json line = {
      {"id", NewRecordId()},
      {"time", UtcTimestamp(Result.Started)},
      {"host", host_},
      {"version", PALIMBO_VERSION},
      {"unit", Result.Unit},
      {"port", Result.Port},
      {"file", firmware_.File},
      {"file_bytes", firmware_.ImageBytes},
      {"file_crc", Hex4(firmware_.ImageCrc & 0xFFFF)},
      {"file_sha256", firmware_.FileSha256},
      {"protocol", Result.Protocol},
      {"outcome", OutcomeName(Result.Result.Outcome)},
      {"reason", Result.Result.Reason},
      {"seconds", static_cast<double>(static_cast<int64_t>(Result.Seconds * 10 + 0.5)) / 10},
      {"exit_status", Result.ExitStatus},
  };
  // Which server an upload went through, for an audit of a secured network port.
  if (!Result.ServerFingerprint.empty()) line["server_sha256"] = Result.ServerFingerprint;
  if (Result.Result.ModuleCrc >= 0) line["module_crc"] = Hex4(Result.Result.ModuleCrc & 0xFFFF);
  if (Module > 0) line["module"] = Module;
  const std::lock_guard guard(lock_);
  const std::string text = JsonLine(line);
  if (!out_->Append(text + "\n", Error)) {
    Error = "cannot write record file " + path_ + ": " + Error;
    return false;
  }
  if (Written) Written(text);
  return true;
}

}  // namespace palimbo
