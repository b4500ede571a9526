#include <io.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <ctime>

#include "cli/commands.h"
#include "cli/platform.h"

namespace palimbo::cli {

namespace {

// The console runs the handler on a thread of its own; the count, and the thread that waits in
// a read of standard input, are all it shares.
std::atomic<int> interrupts{0};
std::atomic<HANDLE> reader{nullptr};

BOOL WINAPI OnConsoleControl(DWORD Event) {
  if (Event != CTRL_C_EVENT && Event != CTRL_BREAK_EVENT) return FALSE;
  if (++interrupts < 2) {
    if (const HANDLE thread = reader.load(); thread != nullptr) ::CancelSynchronousIo(thread);
    return TRUE;
  }
  static const char message[] = "\nInterrupted: port closed.\n";
  DWORD written = 0;
  ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), message, sizeof message - 1, &written, nullptr);
  // The system closes every port of the process on its way out.
  ::ExitProcess(kExitFailed);
}

}  // namespace

bool IsTerminal(StdStream Stream) {
  return _isatty(_fileno(Stream == StdStream::In ? stdin : stderr)) != 0;
}

std::string TimeOfDay() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_s(&local, &now);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

InterruptWatch::InterruptWatch() {
  interrupts = 0;
  ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}

InterruptWatch::~InterruptWatch() {
  ::SetConsoleCtrlHandler(OnConsoleControl, FALSE);
}

bool InterruptWatch::Requested() const {
  return interrupts > 0;
}

std::optional<std::string> InterruptWatch::ReadLine() const {
  HANDLE self = nullptr;
  ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &self, 0,
                    FALSE, DUPLICATE_SAME_ACCESS);
  reader = self;
  const HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
  std::optional<std::string> line = std::string();
  // A byte at a time, so that nothing behind the line is taken from the next reader.
  for (char c = 0; !Requested();) {
    DWORD got = 0;
    if (!::ReadFile(input, &c, 1, &got, nullptr) || got == 0) {
      if (line->empty() || Requested()) line.reset();
      break;
    }
    if (c == '\n') break;
    *line += c;
  }
  reader = nullptr;
  if (self != nullptr) ::CloseHandle(self);
  if (Requested()) line.reset();
  return line;
}

}  // namespace palimbo::cli
