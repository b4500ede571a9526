#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "sim/module_peer.h"

namespace palimbo::sim {

/// How the host puts the module's answers on the line.
struct PtyHostOptions {
  /// Each answer reaches the terminal when its last byte would have crossed a line of this
  /// baud rate (10 bits a byte), one answer after the other; 0 writes it at once when due.
  int32_t PaceBaud = 0;
};

/// A pseudo-terminal whose far end is a simulated module, so the real serial layer can open it.
///
/// A background thread feeds the module with what the tool writes, stamped with the monotonic
/// time in microseconds, and writes each answer when it is due. The host never opens the
/// terminal side itself: the tool may open it exclusively, close it and open it again.
/// While the host runs, only its thread touches the module.
class PtyHost {
 public:
  /// Opens the pair and starts serving `Module`. Returns null and sets `Error` to the system's
  /// message when the pseudo-terminal cannot be set up.
  static std::unique_ptr<PtyHost> Open(ModulePeer& Module, std::string& Error,
                                       PtyHostOptions Options = {});

  ~PtyHost();
  PtyHost(const PtyHost&) = delete;
  PtyHost& operator=(const PtyHost&) = delete;

  /// The path the tool opens, such as "/dev/pts/3".
  const std::string& SlavePath() const { return slave_path_; }

  /// Ends the thread; answers still due are dropped. Harmless to call twice.
  void Stop();

 private:
  PtyHost(ModulePeer& Module, int MasterFd, int WakeFd, std::string SlavePath,
          PtyHostOptions Options);
  void Serve();

  ModulePeer& module_;
  int master_fd_;
  int wake_fd_;
  std::string slave_path_;
  PtyHostOptions options_;
  std::thread thread_;
};

}  // namespace palimbo::sim
