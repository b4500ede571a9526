#include <io.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <ctime>

#include "cli/commands.h"
#include "cli/platform.h"

namespace palimbo::cli {

namespace {

// The console runs the handler on a thread of its own; the count is all it shares.
std::atomic<int> interrupts{0};

BOOL WINAPI OnConsoleControl(DWORD Event) {
  if (Event != CTRL_C_EVENT && Event != CTRL_BREAK_EVENT) return FALSE;
  if (++interrupts < 2) return TRUE;
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

}  // namespace palimbo::cli
