#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sim/module_peer.h"
#include "sim/wire_line.h"

namespace palimbo::sim {

/// How the host carries bytes between the terminal and the module.
struct PtyHostOptions {
  /// With it, both directions take the line's time and answers wait in the adapter, as on a
  /// real installation. Without it, what the tool writes reaches the module at once and each
  /// answer goes to the terminal when the module has it due.
  std::optional<WireSettings> Wire;
};

/// How closely the host kept to the times it was given. Read it after `Stop`.
struct PtyHostStats {
  int64_t Handovers = 0;        ///< times answer bytes went to the terminal
  int64_t LateMicrosTotal = 0;  ///< how much later than due they went, all together
  int64_t LateMicrosMax = 0;
  /// For each time the tool wrote after answer bytes had gone to the terminal: how long after
  /// the last of them. On a wire-true line this is the tool's own share of each exchange.
  std::vector<int64_t> ReactionMicros;
};

/// A pseudo-terminal whose far end is a simulated module, so the real serial layer can open it.
///
/// A background thread feeds the module with what the tool writes, stamped with the monotonic
/// time in microseconds at which it arrives, and writes each answer when it is due. The host never
/// opens the terminal side itself: the tool may open it exclusively, close it and open it again.
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

  /// The host's timing so far; only valid once `Stop` has returned.
  const PtyHostStats& Stats() const { return stats_; }

 private:
  PtyHost(ModulePeer& Module, int MasterFd, int WakeFd, std::string SlavePath,
          PtyHostOptions Options);
  void Serve();

  ModulePeer& module_;
  int master_fd_;
  int wake_fd_;
  std::string slave_path_;
  PtyHostOptions options_;
  PtyHostStats stats_;
  std::thread thread_;
};

}  // namespace palimbo::sim
