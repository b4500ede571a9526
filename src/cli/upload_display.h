#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "production/outcome.h"

namespace palimbo::cli {

/// How the operator sees the uploads.
enum class DisplayMode {
  Single,  ///< one module: "HH:MM:SS<TAB>text" lines, a bar on stderr when it is a terminal
  Table,   ///< several: lines prefixed with the port, a live table on stderr on a terminal
  Json,    ///< JSON Lines on stdout: log lines, progress steps, one result a module
};

/// The operator's side of one or several uploads, shared by their threads: everything it
/// writes goes through one lock, so lines never mix.
class UploadDisplay {
 public:
  UploadDisplay(DisplayMode Mode, std::vector<std::string> Ports);

  void Log(size_t Module, const std::string& Text);
  /// A line about the whole run rather than one module, such as what firmware it writes.
  void RunLog(const std::string& Text);
  void Progress(size_t Module, int32_t Val, int32_t Max, const std::string& Text);
  void SetProtocol(size_t Module, const std::string& Protocol);
  /// A message about the upload, not of it, such as why it was given up; goes to stderr.
  void Note(size_t Module, const std::string& Text);
  /// The no-response question: Yes with `AssumeYes`, else asked on a terminal where only one
  /// module runs, else No.
  bool AskYesNo(size_t Module, bool AssumeYes, const std::string& Title, const std::string& Text);
  /// Draws the live table again, for the time left to move on; does nothing in other modes.
  void Refresh();
  /// Takes the live display away and tells the end: the summary table, or the JSON results.
  void Finish(const std::vector<ModuleResult>& Results);

 private:
  struct Row {
    std::string Port;
    std::string Protocol;
    std::string Text;
    int32_t Val = 0;
    int32_t Max = 0;
    std::chrono::steady_clock::time_point SeriesStart = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point LastJson{};
  };

  void WriteLog(const std::string& Port, const std::string& Text);
  std::string ProgressLine(const Row& R) const;
  void ClearLive();
  void DrawLive();

  std::mutex lock_;
  DisplayMode mode_;
  bool terminal_;
  std::vector<Row> rows_;
  int shown_lines_ = 0;  // lines of the live display now on the screen
};

}  // namespace palimbo::cli
