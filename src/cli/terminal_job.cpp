#include "cli/terminal_job.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "cli/commands.h"
#include "cli/platform.h"
#include "serial/clock.h"
#include "serial/trace_backend.h"
#include "upload/job_context.h"

namespace palimbo::cli {

namespace {

class TerminalFrontEnd final : public JobLog,
                               public ProgressDisplay,
                               public EventPump,
                               public OperatorQuestion {
 public:
  TerminalFrontEnd(bool AssumeYes, const InterruptWatch& Interrupts)
      : interrupts_(Interrupts), assume_yes_(AssumeYes), bar_(IsTerminal(StdStream::Err)) {}

  void Attach(JobContext& Ctx) { ctx_ = &Ctx; }
  const std::string& LastLine() const { return last_line_; }

  void Log(const std::string& Text) override {
    ClearBar();
    std::cout << TimeOfDay() << '\t' << Text << std::endl;
    last_line_ = Text;
    DrawBar();
  }

  void SetProgress(int32_t Val, int32_t Max, uint32_t /*Color*/, const std::string& Text) override {
    if (!bar_) return;
    const auto now = std::chrono::steady_clock::now();
    // A new task begins when the text or the whole changes, or the bar goes back.
    if (Max != max_ || Text != text_ || Val < val_) series_start_ = now;
    val_ = Val;
    max_ = Max;
    text_ = Text;
    elapsed_s_ = std::chrono::duration<double>(now - series_start_).count();
    ClearBar();
    DrawBar();
  }

  void PumpEvents() override {
    if (ctx_ == nullptr) return;
    if (interrupts_.Requested() && !cancel_sent_) {
      cancel_sent_ = true;
      ctx_->Cancel = true;
      ClearBar();
      std::cerr << "Cancelling... (Ctrl-C again quits at once)" << std::endl;
    }
  }

  bool AskYesNo(const std::string& Title, const std::string& Text) override {
    ClearBar();
    std::cerr << Title << ":\n" << Text << ' ';
    bool yes = false;
    if (assume_yes_) {
      std::cerr << "yes (--yes)" << std::endl;
      yes = true;
    } else if (IsTerminal(StdStream::In) && bar_) {
      std::cerr << "[y/N] " << std::flush;
      std::string answer;
      std::getline(std::cin, answer);
      yes = answer == "y" || answer == "Y" || answer == "yes";
    } else {
      std::cerr << "no (no terminal to ask; --yes answers Yes)" << std::endl;
    }
    DrawBar();
    return yes;
  }

  void Finish() { ClearBar(); }

 private:
  void ClearBar() {
    if (bar_ && shown_) std::cerr << "\r\033[K" << std::flush;
    shown_ = false;
  }

  void DrawBar() {
    if (!bar_ || max_ <= 0 || (val_ == 0 && text_.empty())) return;
    constexpr int kWidth = 30;
    const double part = std::min(1.0, std::max(0.0, static_cast<double>(val_) / max_));
    const int filled = static_cast<int>(part * kWidth + 0.5);
    std::string line = "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "] ";
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(part * 100 + 0.5));
    line += percent;
    line += "  " + text_;
    // Only long work gets an estimate, once there is enough behind it to judge.
    if (elapsed_s_ >= 2.0 && val_ > 0 && part < 1.0) {
      const auto left = static_cast<int>(elapsed_s_ * (max_ - val_) / val_ + 0.5);
      char eta[32];
      std::snprintf(eta, sizeof eta, "  %d:%02d left", left / 60, left % 60);
      line += eta;
    }
    std::cerr << line << std::flush;
    shown_ = true;
  }

  JobContext* ctx_ = nullptr;
  const InterruptWatch& interrupts_;
  bool assume_yes_;
  bool bar_;
  bool shown_ = false;
  bool cancel_sent_ = false;
  int32_t val_ = 0;
  int32_t max_ = 0;
  std::string text_;
  double elapsed_s_ = 0;
  std::chrono::steady_clock::time_point series_start_ = std::chrono::steady_clock::now();
  std::string last_line_;
};

}  // namespace

int ExitStatusOf(UploadOutcome Outcome) {
  switch (Outcome) {
    case UploadOutcome::Verified:
      return kExitOk;
    case UploadOutcome::Unverified:
      return kExitUnverified;
    case UploadOutcome::FileError:
      return kExitUsage;
    case UploadOutcome::PortError:
    case UploadOutcome::NoBootloader:
    case UploadOutcome::Cancelled:
    case UploadOutcome::Failed:
      break;
  }
  return kExitFailed;
}

TerminalResult RunTerminalUpload(const TerminalUpload& Upload, SerialBackend& Port) {
  SteadyClock clock;
  std::ofstream trace;
  std::unique_ptr<TraceBackend> traced;
  SerialBackend* port = &Port;
  if (!Upload.TraceFile.empty()) {
    trace.open(Upload.TraceFile);
    if (!trace) {
      std::cerr << "palimbo-cli: cannot write trace file " << Upload.TraceFile << std::endl;
      return {UploadOutcome::Failed, kExitUsage};
    }
    traced = std::make_unique<TraceBackend>(Port, clock, trace);
    port = traced.get();
  }

  InterruptWatch interrupts;
  TerminalFrontEnd terminal(Upload.AssumeYes, interrupts);
  JobContext ctx(terminal, terminal, terminal, terminal, clock, *port);
  ctx.IdleWaitMicros = Upload.IdleWait ? kIdleWaitMicros : 0;
  terminal.Attach(ctx);

  const UploadOutcome outcome = StartUpload(ctx, Upload.File, Upload.Port);
  terminal.Finish();

  if (outcome == UploadOutcome::FileError) {
    std::cerr << "palimbo-cli: " << Upload.File << ": " << terminal.LastLine() << std::endl;
  } else if (outcome == UploadOutcome::PortError) {
    std::cerr << "palimbo-cli: cannot open port " << Upload.Port << ": " << Port.LastOpenError()
              << std::endl;
  }
  return {outcome, ExitStatusOf(outcome)};
}

}  // namespace palimbo::cli
