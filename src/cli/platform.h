#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace palimbo::cli {

/// The standard streams that can be a terminal.
enum class StdStream { In, Err };

/// True when the stream is an interactive terminal (or console window), not a file or pipe.
bool IsTerminal(StdStream Stream);

/// The local time of day as "HH:MM:SS", as the status list shows it.
std::string TimeOfDay();

/// Ctrl-C for the time of one command: the first press is counted, for the event pump to hand
/// on as CANCEL; a second press ends the process at once with status 1, which releases every
/// port it holds. The previous handling comes back when the object goes.
class InterruptWatch {
 public:
  InterruptWatch();
  ~InterruptWatch();
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;

  /// Ctrl-C has been pressed at least once since the watch began.
  bool Requested() const;

  /// One line of standard input without its line end, as a barcode scanner types it; nothing at
  /// the input's end, or once Ctrl-C is pressed, also while the read waits for the line.
  std::optional<std::string> ReadLine() const;
};

}  // namespace palimbo::cli
