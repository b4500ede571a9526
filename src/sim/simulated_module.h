#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sim/module_peer.h"

namespace palimbo::sim {

/// Which bootloader the module runs: it answers the entry poll with "O" or with "X".
enum class BootProtocol { Direct, Ccb };

/// Command bytes of both protocols, as the module hears them.
inline constexpr uint8_t kCmdCrc = 'C';
inline constexpr uint8_t kCmdErase = 'E';
inline constexpr uint8_t kCmdFill = 'F';
inline constexpr uint8_t kCmdPage = 'P';
inline constexpr uint8_t kCmdPageEncrypted = 'D';
inline constexpr uint8_t kCmdReboot = 'S';
inline constexpr uint8_t kCcbEnter = 138;
inline constexpr uint8_t kCcbBlock = 139;
inline constexpr uint8_t kCcbAnswer = 140;
inline constexpr uint8_t kCcbReboot = 141;
inline constexpr uint8_t kCcbFinish = 142;
inline constexpr uint8_t kCcbCheck = 143;

/// Start bytes of the two frames.
inline constexpr uint8_t kDirectStart = 0x55;
inline constexpr uint8_t kCcbStart = 0x53;

/// What a fault rule does to the module's handling of one command. Only `BadWrite` changes
/// what the command does; the others change what goes back on the line.
enum class FaultKind {
  LoseAnswer,      ///< the command takes effect, but no answer goes out
  CorruptAnswer,   ///< the answer's last byte is flipped, so its CRC fails
  GarbageFirst,    ///< `Garbage` goes out right in front of the answer
  LateAnswer,      ///< the answer goes out `DelayMicros` later than usual
  NegativeAnswer,  ///< direct: "R", echo, 0; CCB: a valid frame with answer code 0
  BadWrite,        ///< "P", "D", CCBBlock: one byte lands wrong; "P"/"D" report its CRC
  WrongValue,      ///< the value an answer carries (a CRC) comes back one too high
  TruncateAnswer,  ///< the answer breaks off after `Position` bytes, taken modulo its length
  CorruptByte,     ///< the answer's byte at `Position`, modulo its length, is XORed with `Mask`
  NoiseAfter,      ///< `Garbage` follows `DelayMicros` after the answer began (after the
                   ///< command, when no answer goes out), as noise between frames
};

/// Matches every framed command in `Fault::Command`.
inline constexpr int kAnyCommand = -1;
/// Matches every occurrence in `Fault::Occurrence`.
inline constexpr int kEveryTime = 0;

/// One injected fault: which command, which time it is heard, and what goes wrong.
struct Fault {
  FaultKind Kind = FaultKind::LoseAnswer;
  int Command = kAnyCommand;    ///< a command byte, or `kAnyCommand`
  int Occurrence = kEveryTime;  ///< 1-based count of that command (of any frame for
                                ///< `kAnyCommand`), or `kEveryTime`
  int64_t DelayMicros = 0;      ///< for `LateAnswer`
  std::string Garbage = std::string("\xAA\x00\xAA", 3);  ///< for `GarbageFirst`, `NoiseAfter`
  /// For `TruncateAnswer` and `CorruptByte`.
  int Position = 0;
  uint8_t Mask = 0xFF;  ///< for `CorruptByte`; 0 leaves the byte as it is
};

/// How the simulated module behaves. The defaults are a well-behaved direct bootloader.
struct ModuleSettings {
  BootProtocol Protocol = BootProtocol::Direct;
  int32_t PageSize = 256;  ///< told in the "O" answer as three bytes, 1 to 0xFFFFFF
  size_t FlashSize = 131072;

  // Entry handshake.
  bool EchoPoll = false;              ///< send the "i" back before each answer
  bool Silent = false;                ///< never send a byte, whatever is heard
  int AnswerAfterPolls = 0;           ///< the first n polls get nothing at all
  std::string StrayBytes;             ///< sent once, in front of the first answer
  int AnswerPieces = 1;               ///< the entry answer is spread over this many polls
  int64_t TurnaroundMicros = 10'000;  ///< from the end of a request to its answer
  /// Writing a page ("P", "D") or a block (CCBBlock) into flash delays its answer this much more.
  int64_t FlashWriteMicros = 0;

  // Commands.
  bool SupportsCrc = true;   ///< direct "C" is answered positively
  bool AnswerReboot = true;  ///< "S" and CCBReboot are answered before the reboot
  bool AnswerEnter = true;   ///< CCBEnter is answered
  bool AnswerFinish = true;  ///< CCBFinish is answered
  int RefuseBlock = -1;      ///< CCBBlock at address k × 128 is never answered; -1 for none
  int RefusePage = -1;       ///< "P"/"D" at address k × PageSize is never answered, nor written
  int CheckBytes = 2;        ///< number bytes in the answer to CCBCheck: 2 or 4
  bool CheckOnlyWhenEntered = false;  ///< CCBCheck goes unanswered until CCBEnter was heard

  /// What the flash holds from address 0 when the module comes to the line, as if written
  /// before; the rest is 0xFF.
  std::string InitialFlash;
  /// Of the modules that come to the line (the first, and each that takes a rebooted one's
  /// place), every n-th holds `InitialFlash`, from the first on; the others come blank.
  int InitialFlashEvery = 1;

  /// This long after each reboot the module is taken off the line and a fresh one, blank and in
  /// its bootloader, takes its place, as at a production station; until then the rebooted
  /// module runs its firmware and hears nothing. -1 keeps the same module.
  int64_t ReplaceAfterRebootMicros = -1;

  /// Silence of the line after which a half-received frame is given up.
  int64_t FrameTimeoutMicros = 100'000;

  std::vector<Fault> Faults;
};

/// One framed command as the module heard it, and what it sent back.
struct ReceivedCommand {
  uint8_t Command = 0;
  std::string Data;  ///< the payload behind the command byte
  int64_t AtMicros = 0;
  std::string Answer;          ///< the bytes sent back, garbage included; empty for none
  int64_t AnswerAtMicros = 0;  ///< when the answer began to leave
};

/// A bootloader on the far end of the line, for tests, the demo and `palimbo-cli simulate`.
///
/// It answers the entry poll, then the framed commands of its protocol, on the timing of
/// `ModuleSettings::TurnaroundMicros`. Bytes may arrive in any pieces. Each instance is
/// independent; an instance is not safe for use from two threads at once.
class SimulatedModule final : public ModulePeer {
 public:
  /// Where the module stands: answering polls, or taking frames.
  enum class Mode { Entry, Framed };

  explicit SimulatedModule(ModuleSettings Settings = {});

  void Receive(std::string_view Bytes, int64_t NowMicros, std::vector<Emission>& Out) override;

  const ModuleSettings& Settings() const { return settings_; }
  Mode CurrentMode() const { return mode_; }
  /// The flash, 0xFF where nothing was written.
  const std::string& Flash() const { return flash_; }
  /// One past the highest flash address written since the last erase; 0 if none.
  size_t FlashUsed() const { return flash_used_; }
  /// Every valid frame of its protocol, in the order heard.
  const std::vector<ReceivedCommand>& Commands() const { return commands_; }
  /// How often a command byte was heard in a valid frame.
  int CountOf(uint8_t Command) const { return counts_[Command]; }
  /// Entry polls heard, whether answered or not.
  int PollCount() const { return polls_; }
  /// Times the module went back to the entry handshake after a reboot command.
  int RebootCount() const { return reboots_; }
  /// Modules that took the place of a rebooted one.
  int ReplacedCount() const { return replaced_; }
  /// Power off and on with the switch held: back at the entry handshake, the flash kept, and
  /// whatever it was hearing or held in its page buffer gone.
  void Restart();

  /// The frame with `Start` around `Payload`: length, payload, CRC high and low.
  static std::string EncodeFrame(uint8_t Start, std::string_view Payload);

 private:
  /// What one command leads to, before the fault rules act on its answer.
  struct Answer {
    bool Send = false;
    std::string Payload;
    bool Wrote = false;  // the command wrote flash, which takes its time
  };
  /// The fault rules that match one command, folded together.
  struct FaultEffect {
    bool Lose = false;
    bool Corrupt = false;
    bool Negative = false;
    bool BadWrite = false;
    bool WrongValue = false;
    int64_t DelayMicros = 0;
    std::string Garbage;
    int Keep = -1;  // bytes of the answer that go out; -1 for all
    std::vector<std::pair<int, uint8_t>> Flips;
    std::vector<Emission> Noise;  // AtMicros counts from the answer
  };

  void ParseInput(int64_t NowMicros, std::vector<Emission>& Out);
  void OnPoll(int64_t NowMicros, std::vector<Emission>& Out);
  void OnFrame(std::string_view Payload, int64_t NowMicros, std::vector<Emission>& Out);
  Answer HandleDirect(uint8_t Command, std::string_view Data, bool BadWrite);
  Answer HandleCcb(uint8_t Command, std::string_view Data, bool BadWrite);
  FaultEffect MatchFaults(uint8_t Command) const;
  void WriteFlash(size_t Address, std::string_view Bytes, bool Corrupt);
  /// Returns when the bytes leave, or -1 when a silent module keeps them.
  int64_t Emit(int64_t AtMicros, std::string Bytes, std::vector<Emission>& Out);
  void BackToEntry();
  /// The flash of the module that comes to the line now, the `Arrival`-th from 0.
  void FreshFlash(int Arrival);

  ModuleSettings settings_;
  Mode mode_ = Mode::Entry;
  std::string flash_;
  size_t flash_used_ = 0;
  std::string page_buffer_;
  std::string rx_;  // heard and not yet taken as a poll or a frame
  int64_t last_rx_us_ = 0;
  int64_t last_emit_us_ = 0;  // answers never overtake each other
  int polls_ = 0;
  int polls_since_boot_ = 0;
  bool stray_sent_ = false;
  int frames_ = 0;
  int reboots_ = 0;
  int64_t replace_at_us_ = -1;  // when the next module takes this one's place; -1 for never
  int replaced_ = 0;
  bool entered_ = false;  // CCBEnter heard since the module came to its bootloader
  std::array<int, 256> counts_{};
  std::vector<ReceivedCommand> commands_;
};

}  // namespace palimbo::sim
