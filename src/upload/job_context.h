#pragma once

#include <cstdint>
#include <string>

#include "frames/link.h"
#include "serial/clock.h"
#include "serial/serial_backend.h"

namespace palimbo {

/// Colour values in the form 0xBBGGRR.
inline constexpr uint32_t kColorBlue = 0xFF0000;
inline constexpr uint32_t kColorRed = 0x0000FF;

/// The status list: one line of time of day, a tab and the text per call. Pumps no events.
class JobLog {
 public:
  virtual ~JobLog() = default;
  virtual void Log(const std::string& Text) = 0;
};

/// The progress bar. Only draws; the job pumps events right after each call.
class ProgressDisplay {
 public:
  virtual ~ProgressDisplay() = default;
  virtual void SetProgress(int32_t Val, int32_t Max, uint32_t Color, const std::string& Text) = 0;
};

/// A modal question with Yes and No, No being the default.
class OperatorQuestion {
 public:
  virtual ~OperatorQuestion() = default;
  virtual bool AskYesNo(const std::string& Title, const std::string& Text) = 0;
};

/// Everything an upload job reaches: the window's shared members and the job's surroundings.
///
/// One context per window (or command line, or test); two contexts never meet, so several
/// jobs can run in one process. Nested handlers change only `Cancel` and `QUnload`; a front
/// end's `GiveUpWatch` also sets `GiveUpReason`.
class JobContext {
 public:
  JobContext(JobLog& Log, ProgressDisplay& Progress, EventPump& Events, OperatorQuestion& Question,
             Clock& Clock, SerialBackend& Port)
      : log_(Log),
        progress_(Progress),
        events_(Events),
        question_(Question),
        clock_(Clock),
        port_(Port) {}

  // Members the window shares with the job.
  bool Cancel = false;
  bool QUnload = false;
  bool IsEncrypted = false;
  int32_t PortHandle = -1;
  /// The entry poll starts over where it would ask whether to go on without an answer, until a
  /// bootloader answers or the job is cancelled: a station waits so for its next module.
  bool AwaitModule = false;
  /// Wait on the port per empty receive pass; 0 makes every wait a pure spin.
  int32_t IdleWaitMicros = kIdleWaitMicros;
  /// Tick of the module's last positive answer: an exchange's, or "O" or "X" in the entry
  /// poll. A job sets it to -1 when it starts and to the tick of opening its port after that,
  /// so its age is how long the module has been silent.
  int64_t LastAnswerTick = -1;
  /// Tick at which the job last got further than ever before: its port opened, the entry
  /// answered, or the module took a page or block of the image for the first time. A job that
  /// keeps repeating what it has done before, however much the module answers, stays at it.
  int64_t LastProgressTick = -1;
  /// Why the front end gave up on the job (`GiveUpWatch` sets it together with `Cancel`);
  /// empty when it did not. A job clears it when it starts.
  std::string GiveUpReason;
  /// The bootloader's protocol, "direct" or "ccb", once the entry answer has told it; empty
  /// before. A job clears it when it starts.
  std::string Protocol;

  /// Notes how far the job has come: 0 the port is open, 1 the bootloader answered, 2 + n the
  /// module holds the image's first n bytes. Only a step beyond every earlier one is progress.
  void NoteProgress(int64_t Reached) {
    if (Reached <= progress_mark_) return;
    progress_mark_ = Reached;
    LastProgressTick = GetTickCount();
  }
  /// Forgets all progress, as a new job starts.
  void ResetProgress() {
    progress_mark_ = -1;
    LastProgressTick = -1;
  }

  void Log(const std::string& Text) { log_.Log(Text); }
  /// Repaints the bar and then pumps events, as the window's own `SetProgress` does.
  void SetProgress(int32_t Val, int32_t Max, uint32_t Color, const std::string& Text) {
    progress_.SetProgress(Val, Max, Color, Text);
    events_.PumpEvents();
  }
  void PumpEvents() { events_.PumpEvents(); }
  bool AskYesNo(const std::string& Title, const std::string& Text) {
    return question_.AskYesNo(Title, Text);
  }
  int64_t GetTickCount() { return clock_.GetTickCount(); }
  void Sleep(int32_t Milliseconds) { clock_.Sleep(Milliseconds); }

  SerialBackend& Port() { return port_; }
  Clock& GetClock() { return clock_; }
  /// The view of this context that the frame exchanges use.
  Link MakeLink() {
    return Link{port_, PortHandle, clock_, events_, Cancel, LastAnswerTick, IdleWaitMicros};
  }

 private:
  JobLog& log_;
  ProgressDisplay& progress_;
  EventPump& events_;
  OperatorQuestion& question_;
  Clock& clock_;
  SerialBackend& port_;
  int64_t progress_mark_ = -1;
};

}  // namespace palimbo
