#include "cli/upload_display.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "cli/platform.h"
#include "production/json_line.h"
#include "upload/hex_text.h"

namespace palimbo::cli {

namespace {

using SteadyTime = std::chrono::steady_clock;

// JSON progress steps of one module come at most this often, unless the task changes.
constexpr auto kJsonProgressInterval = std::chrono::milliseconds(250);
constexpr int kBarWidth = 30;

}  // namespace

UploadDisplay::UploadDisplay(DisplayMode Mode, std::vector<std::string> Ports)
    : mode_(Mode), terminal_(Mode != DisplayMode::Json && IsTerminal(StdStream::Err)) {
  for (auto& port : Ports) {
    Row row;
    row.Port = std::move(port);
    rows_.push_back(std::move(row));
  }
}

void UploadDisplay::Log(size_t Module, const std::string& Text) {
  const std::lock_guard guard(lock_);
  WriteLog(rows_[Module].Port, Text);
}

void UploadDisplay::RunLog(const std::string& Text) {
  const std::lock_guard guard(lock_);
  // The port column stays, empty, so that the lines of a run keep one shape.
  WriteLog("", Text);
}

void UploadDisplay::WriteLog(const std::string& Port, const std::string& Text) {
  if (mode_ == DisplayMode::Json) {
    std::cout << JsonLine({{"type", "log"}, {"port", Port}, {"time", TimeOfDay()}, {"text", Text}})
              << std::endl;
    return;
  }
  ClearLive();
  std::cout << TimeOfDay() << '\t';
  if (mode_ == DisplayMode::Table) std::cout << Port << '\t';
  std::cout << Text << std::endl;
  DrawLive();
}

void UploadDisplay::Progress(size_t Module, int32_t Val, int32_t Max, const std::string& Text) {
  const std::lock_guard guard(lock_);
  Row& row = rows_[Module];
  const auto now = SteadyTime::now();
  // A new task begins when the text or the whole changes, or the bar goes back.
  const bool newTask = Max != row.Max || Text != row.Text || Val < row.Val;
  if (newTask) row.SeriesStart = now;
  row.Val = Val;
  row.Max = Max;
  row.Text = Text;
  if (mode_ == DisplayMode::Json) {
    if (Text.empty() || (!newTask && now - row.LastJson < kJsonProgressInterval)) return;
    row.LastJson = now;
    const int percent = Max > 0 ? static_cast<int>(100.0 * std::clamp(Val, 0, Max) / Max + 0.5) : 0;
    std::cout << JsonLine({{"type", "progress"},
                           {"port", row.Port},
                           {"text", Text},
                           {"value", Val},
                           {"max", Max},
                           {"percent", percent}})
              << std::endl;
    return;
  }
  // The table redraws on its own clock; a single bar follows each step.
  if (mode_ == DisplayMode::Single) {
    ClearLive();
    DrawLive();
  }
}

void UploadDisplay::SetProtocol(size_t Module, const std::string& Protocol) {
  const std::lock_guard guard(lock_);
  rows_[Module].Protocol = Protocol;
}

void UploadDisplay::Note(size_t Module, const std::string& Text) {
  const std::lock_guard guard(lock_);
  ClearLive();
  std::cerr << "palimbo-cli: ";
  if (mode_ != DisplayMode::Single) std::cerr << rows_[Module].Port << ": ";
  std::cerr << Text << std::endl;
  DrawLive();
}

bool UploadDisplay::AskYesNo(size_t Module, bool AssumeYes, const std::string& Title,
                             const std::string& Text) {
  const std::lock_guard guard(lock_);
  ClearLive();
  if (mode_ != DisplayMode::Single) std::cerr << rows_[Module].Port << ": ";
  std::cerr << Title << ":\n" << Text << ' ';
  bool yes = false;
  if (AssumeYes) {
    std::cerr << "yes (--yes)" << std::endl;
    yes = true;
  } else if (mode_ == DisplayMode::Single && terminal_ && IsTerminal(StdStream::In)) {
    std::cerr << "[y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    yes = answer == "y" || answer == "Y" || answer == "yes";
  } else {
    std::cerr << "no (nobody to ask; --yes answers Yes)" << std::endl;
  }
  DrawLive();
  return yes;
}

void UploadDisplay::Refresh() {
  const std::lock_guard guard(lock_);
  if (mode_ != DisplayMode::Table) return;
  ClearLive();
  DrawLive();
}

std::string UploadDisplay::ProgressLine(const Row& R) const {
  const double part = R.Max > 0 ? std::clamp(static_cast<double>(R.Val) / R.Max, 0.0, 1.0) : 0.0;
  const int filled = static_cast<int>(part * kBarWidth + 0.5);
  std::string line = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] ";
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(part * 100 + 0.5));
  line += percent;
  line += "  " + R.Text;
  // Only long work gets an estimate, once there is enough behind it to judge.
  const double elapsed = std::chrono::duration<double>(SteadyTime::now() - R.SeriesStart).count();
  if (elapsed >= 2.0 && R.Val > 0 && part < 1.0) {
    const auto left = static_cast<int>(elapsed * (R.Max - R.Val) / R.Val + 0.5);
    char eta[32];
    std::snprintf(eta, sizeof eta, "  %d:%02d left", left / 60, left % 60);
    line += eta;
  }
  return line;
}

void UploadDisplay::ClearLive() {
  if (!terminal_ || shown_lines_ == 0) return;
  // Back to the first line of the display, then everything below it goes.
  std::cerr << '\r';
  if (shown_lines_ > 1) std::cerr << "\033[" << shown_lines_ - 1 << 'A';
  std::cerr << "\033[J" << std::flush;
  shown_lines_ = 0;
}

void UploadDisplay::DrawLive() {
  if (!terminal_) return;
  if (mode_ == DisplayMode::Single) {
    const Row& row = rows_.front();
    if (row.Max <= 0 || (row.Val == 0 && row.Text.empty())) return;
    std::cerr << ProgressLine(row) << std::flush;
    shown_lines_ = 1;
    return;
  }
  size_t width = 4;
  for (const Row& row : rows_) width = std::max(width, row.Port.size());
  std::string table;
  for (const Row& row : rows_) {
    if (!table.empty()) table += '\n';
    char head[64];
    std::snprintf(head, sizeof head, "%-*s %-6s ", static_cast<int>(width), row.Port.c_str(),
                  row.Protocol.empty() ? "?" : row.Protocol.c_str());
    table += head + (row.Max > 0 ? ProgressLine(row) : std::string("waiting"));
  }
  std::cerr << table << std::flush;
  shown_lines_ = static_cast<int>(rows_.size());
}

void UploadDisplay::Finish(const std::vector<ModuleResult>& Results) {
  const std::lock_guard guard(lock_);
  ClearLive();
  if (mode_ == DisplayMode::Json) {
    for (const ModuleResult& r : Results) {
      nlohmann::ordered_json line = {
          {"type", "result"},
          {"port", r.Port},
          {"outcome", OutcomeName(r.Result.Outcome)},
          {"reason", r.Result.Reason},
          {"protocol", r.Protocol},
          {"bytes", r.Bytes},
          {"seconds", static_cast<double>(static_cast<int64_t>(r.Seconds * 10 + 0.5)) / 10},
          {"exit_status", r.ExitStatus}};
      if (r.Result.ModuleCrc >= 0) {
        line["image_crc"] = Hex4(r.ImageCrc);
        line["module_crc"] = Hex4(r.Result.ModuleCrc & 0xFFFF);
      }
      if (!r.Record.empty()) line["record"] = r.Record;
      if (!r.Trace.empty()) line["trace"] = r.Trace;
      if (!r.Unit.empty()) line["unit"] = r.Unit;
      std::cout << JsonLine(line) << std::endl;
    }
    return;
  }
  if (mode_ == DisplayMode::Single) return;
  size_t width = 4;
  for (const ModuleResult& r : Results) width = std::max(width, r.Port.size());
  const int w = static_cast<int>(width);
  std::printf("\n%-*s %-8s %8s %8s  %-13s %s\n", w, "PORT", "PROTOCOL", "BYTES", "SECONDS",
              "OUTCOME", "REASON");
  for (const ModuleResult& r : Results) {
    std::string reason = r.Result.Reason;
    if (r.Record.starts_with("not written")) reason += "; record " + r.Record;
    if (r.Trace.starts_with("not written")) reason += "; trace " + r.Trace;
    std::printf("%-*s %-8s %8zu %8.1f  %-15s %s\n", w, r.Port.c_str(),
                r.Protocol.empty() ? "-" : r.Protocol.c_str(), r.Bytes, r.Seconds,
                OutcomeName(r.Result.Outcome), reason.c_str());
  }
  std::fflush(stdout);
}

}  // namespace palimbo::cli
