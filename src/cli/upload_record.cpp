#include "cli/upload_record.h"

#include <cerrno>
#include <cstring>

#include "cli/json_line.h"
#include "cli/platform.h"

namespace palimbo::cli {

std::unique_ptr<UploadRecord> UploadRecord::Open(const std::string& Path, const std::string& File,
                                                 size_t ImageBytes, int32_t ImageCrc,
                                                 std::string& Error) {
  // Append mode puts every write at the end of the file, also between two stations' writes.
  std::FILE* out = std::fopen(Path.c_str(), "ab");
  if (out == nullptr) {
    Error = "cannot open record file " + Path + ": " + std::strerror(errno);
    return nullptr;
  }
  return std::unique_ptr<UploadRecord>(new UploadRecord(out, Path, File, ImageBytes, ImageCrc));
}

UploadRecord::UploadRecord(std::FILE* Out, std::string Path, std::string File, size_t ImageBytes,
                           int32_t ImageCrc)
    : out_(Out),
      path_(std::move(Path)),
      file_(std::move(File)),
      image_bytes_(ImageBytes),
      image_crc_(ImageCrc),
      host_(HostName()) {
  // Without a buffer of the library's own each line goes out in the one write below.
  std::setvbuf(out_, nullptr, _IONBF, 0);
}

UploadRecord::~UploadRecord() {
  std::fclose(out_);
}

bool UploadRecord::Append(const ModuleResult& Result, int32_t Module, std::string& Error) {
  char crc[8];
  std::snprintf(crc, sizeof crc, "%04X", static_cast<unsigned>(image_crc_ & 0xFFFF));
  nlohmann::ordered_json line = {
      {"time", UtcTimestamp(Result.Started)},
      {"host", host_},
      {"version", PALIMBO_VERSION},
      {"port", Result.Port},
      {"file", file_},
      {"file_bytes", image_bytes_},
      {"file_crc", crc},
      {"protocol", Result.Protocol},
      {"outcome", OutcomeName(Result.Result.Outcome)},
      {"reason", Result.Result.Reason},
      {"seconds", static_cast<double>(static_cast<int64_t>(Result.Seconds * 10 + 0.5)) / 10},
      {"exit_status", Result.ExitStatus},
  };
  if (Module > 0) line["module"] = Module;
  const std::string text = JsonLine(line) + "\n";
  const std::lock_guard guard(lock_);
  if (std::fwrite(text.data(), 1, text.size(), out_) != text.size() || std::fflush(out_) != 0) {
    Error = "cannot write record file " + path_ + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace palimbo::cli
