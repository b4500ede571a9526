#include "sim/simulated_module.h"

#include <algorithm>
#include <array>
#include <cassert>

namespace palimbo::sim {

namespace {

// The module's own CRC, a byte at a time from a table, so that it shares no code with the
// tool's bit loop: a wrong CRC in the tool then meets a right one here.
constexpr std::array<uint16_t, 256> kCrcTable = [] {
  std::array<uint16_t, 256> table{};
  for (unsigned i = 0; i < 256; ++i) {
    unsigned crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0x8811 : crc >> 1;
    table[i] = static_cast<uint16_t>(crc);
  }
  return table;
}();

int32_t Crc16Of(std::string_view Bytes) {
  unsigned crc = 0xFFFF;
  for (const char c : Bytes) crc = (crc >> 8) ^ kCrcTable[(crc ^ static_cast<uint8_t>(c)) & 0xFF];
  return static_cast<int32_t>(crc);
}

uint8_t ByteAt(std::string_view Bytes, size_t Index) {
  return static_cast<uint8_t>(Bytes[Index]);
}

uint32_t BigEndian32(std::string_view Bytes) {
  return (uint32_t{ByteAt(Bytes, 0)} << 24) | (uint32_t{ByteAt(Bytes, 1)} << 16) |
         (uint32_t{ByteAt(Bytes, 2)} << 8) | uint32_t{ByteAt(Bytes, 3)};
}

void AppendHighLow(std::string& Bytes, int32_t Value) {
  Bytes += static_cast<char>((Value >> 8) & 0xFF);
  Bytes += static_cast<char>(Value & 0xFF);
}

std::string ByteString(std::initializer_list<uint8_t> Values) {
  std::string out;
  for (const uint8_t v : Values) out += static_cast<char>(v);
  return out;
}

}  // namespace

SimulatedModule::SimulatedModule(ModuleSettings Settings) : settings_(std::move(Settings)) {
  FreshFlash(0);
}

void SimulatedModule::FreshFlash(int Arrival) {
  flash_.assign(settings_.FlashSize, '\xFF');
  flash_used_ = 0;
  const int every = std::max(settings_.InitialFlashEvery, 1);
  if (Arrival % every != 0 || settings_.InitialFlash.empty()) return;
  const size_t held = std::min(settings_.InitialFlash.size(), flash_.size());
  flash_.replace(0, held, settings_.InitialFlash, 0, held);
  flash_used_ = held;
}

std::string SimulatedModule::EncodeFrame(uint8_t Start, std::string_view Payload) {
  assert(Payload.size() <= 255);
  std::string frame(1, static_cast<char>(Start));
  frame += static_cast<char>(Payload.size());
  frame += Payload;
  AppendHighLow(frame, Crc16Of(std::string_view(frame).substr(1)));
  return frame;
}

void SimulatedModule::Receive(std::string_view Bytes, int64_t NowMicros,
                              std::vector<Emission>& Out) {
  if (Bytes.empty()) return;
  if (replace_at_us_ >= 0) {
    if (NowMicros < replace_at_us_) return;
    ++replaced_;
    FreshFlash(replaced_);
    rx_.clear();
    replace_at_us_ = -1;
  }
  // A frame cut short by a long silence will never complete; the next request starts afresh.
  if (!rx_.empty() && NowMicros - last_rx_us_ > settings_.FrameTimeoutMicros) rx_.clear();
  last_rx_us_ = NowMicros;
  rx_.append(Bytes);
  ParseInput(NowMicros, Out);
}

void SimulatedModule::ParseInput(int64_t NowMicros, std::vector<Emission>& Out) {
  size_t pos = 0;
  while (pos < rx_.size()) {
    const uint8_t start = settings_.Protocol == BootProtocol::Direct ? kDirectStart : kCcbStart;
    const uint8_t b = ByteAt(rx_, pos);
    if (b != start) {
      if (b == 'i' && mode_ == Mode::Entry) OnPoll(NowMicros, Out);
      ++pos;
      continue;
    }
    if (rx_.size() - pos < 2) break;
    const size_t length = ByteAt(rx_, pos + 1);
    if (rx_.size() - pos < length + 4) break;
    const std::string_view frame = std::string_view(rx_).substr(pos, length + 4);
    const int32_t crc = Crc16Of(frame.substr(1, length + 1));
    if (ByteAt(frame, length + 2) != (crc >> 8) || ByteAt(frame, length + 3) != (crc & 0xFF)) {
      ++pos;  // a start byte that began no frame: look for the next one
      continue;
    }
    const std::string payload(frame.substr(2, length));
    pos += length + 4;
    OnFrame(payload, NowMicros, Out);
  }
  rx_.erase(0, pos);
}

void SimulatedModule::OnPoll(int64_t NowMicros, std::vector<Emission>& Out) {
  ++polls_;
  ++polls_since_boot_;
  const int answerIndex = polls_since_boot_ - settings_.AnswerAfterPolls - 1;
  if (answerIndex < 0) return;
  if (settings_.EchoPoll) Emit(NowMicros, "i", Out);

  std::string answer = "X";
  if (settings_.Protocol == BootProtocol::Direct) {
    answer = "O";
    answer += static_cast<char>((settings_.PageSize >> 16) & 0xFF);
    AppendHighLow(answer, settings_.PageSize);
  }
  // One piece a poll, as from a module that answers slowly: the tool must gather them.
  const int pieces = std::clamp(settings_.AnswerPieces, 1, static_cast<int>(answer.size()));
  const size_t k = static_cast<size_t>(answerIndex % pieces);
  const size_t from = k * answer.size() / pieces;
  const size_t to = (k + 1) * answer.size() / pieces;

  std::string bytes;
  if (!stray_sent_) bytes = settings_.StrayBytes;
  stray_sent_ = true;
  bytes += answer.substr(from, to - from);
  Emit(NowMicros + settings_.TurnaroundMicros, std::move(bytes), Out);
}

SimulatedModule::FaultEffect SimulatedModule::MatchFaults(uint8_t Command) const {
  FaultEffect effect;
  for (const Fault& f : settings_.Faults) {
    if (f.Command != kAnyCommand && f.Command != Command) continue;
    const int seen = f.Command == kAnyCommand ? frames_ : counts_[Command];
    if (f.Occurrence != kEveryTime && f.Occurrence != seen) continue;
    switch (f.Kind) {
      case FaultKind::LoseAnswer:
        effect.Lose = true;
        break;
      case FaultKind::CorruptAnswer:
        effect.Corrupt = true;
        break;
      case FaultKind::GarbageFirst:
        effect.Garbage += f.Garbage;
        break;
      case FaultKind::LateAnswer:
        effect.DelayMicros += f.DelayMicros;
        break;
      case FaultKind::NegativeAnswer:
        effect.Negative = true;
        break;
      case FaultKind::BadWrite:
        effect.BadWrite = true;
        break;
      case FaultKind::WrongValue:
        effect.WrongValue = true;
        break;
      case FaultKind::TruncateAnswer:
        effect.Keep = effect.Keep < 0 ? f.Position : std::min(effect.Keep, f.Position);
        break;
      case FaultKind::CorruptByte:
        effect.Flips.emplace_back(f.Position, f.Mask);
        break;
      case FaultKind::NoiseAfter:
        effect.Noise.push_back({f.DelayMicros, f.Garbage});
        break;
    }
  }
  return effect;
}

void SimulatedModule::OnFrame(std::string_view Payload, int64_t NowMicros,
                              std::vector<Emission>& Out) {
  if (Payload.empty()) return;  // no command byte, nothing to do
  const bool direct = settings_.Protocol == BootProtocol::Direct;
  const uint8_t command = ByteAt(Payload, 0);
  // Our own answer coming back on a line that echoes is no command; answering it would loop.
  if (command == (direct ? 'R' : kCcbAnswer)) return;

  mode_ = Mode::Framed;
  ++frames_;
  ++counts_[command];
  const std::string_view data = Payload.substr(1);
  commands_.push_back({command, std::string(data), NowMicros, {}, 0});

  const FaultEffect fault = MatchFaults(command);
  Answer answer = direct ? HandleDirect(command, data, fault.BadWrite)
                         : HandleCcb(command, data, fault.BadWrite);
  int64_t noiseFrom = NowMicros;  // the noise follows the answer, or the command without one
  if (answer.Send && !fault.Lose) {
    if (fault.Negative)
      answer.Payload = direct ? ByteString({'R', command, 0}) : ByteString({0, command});
    // Only answers that carry a value behind their head can bring a wrong one.
    if (fault.WrongValue && answer.Payload.size() > (direct ? 3u : 2u)) {
      answer.Payload.back() =
          static_cast<char>(ByteAt(answer.Payload, answer.Payload.size() - 1) + 1);
    }
    std::string frame = EncodeFrame(direct ? kDirectStart : kCcbStart, answer.Payload);
    if (fault.Corrupt) frame.back() = static_cast<char>(~ByteAt(frame, frame.size() - 1));
    for (const auto& [position, mask] : fault.Flips) {
      const size_t i = static_cast<size_t>(std::max(position, 0)) % frame.size();
      frame[i] = static_cast<char>(ByteAt(frame, i) ^ mask);
    }
    if (fault.Keep >= 0) frame.resize(static_cast<size_t>(fault.Keep) % frame.size());
    const int64_t delay = settings_.TurnaroundMicros + fault.DelayMicros +
                          (answer.Wrote ? settings_.FlashWriteMicros : 0);
    std::string bytes = fault.Garbage + frame;
    const int64_t at = Emit(NowMicros + delay, bytes, Out);
    if (at >= 0) {
      commands_.back().Answer = std::move(bytes);
      commands_.back().AnswerAtMicros = at;
      noiseFrom = at;
    }
  }
  for (const Emission& noise : fault.Noise) Emit(noiseFrom + noise.AtMicros, noise.Bytes, Out);
  if (command == (direct ? kCmdReboot : kCcbReboot)) {
    BackToEntry();
    if (settings_.ReplaceAfterRebootMicros >= 0) {
      replace_at_us_ = NowMicros + settings_.ReplaceAfterRebootMicros;
    }
  }
}

SimulatedModule::Answer SimulatedModule::HandleDirect(uint8_t Command, std::string_view Data,
                                                      bool BadWrite) {
  const Answer positive{true, ByteString({'R', Command, 1})};
  const Answer negative{true, ByteString({'R', Command, 0})};
  const size_t pageSize = static_cast<size_t>(settings_.PageSize);
  switch (Command) {
    case kCmdCrc: {
      if (!settings_.SupportsCrc || Data.size() != 4) return negative;
      const uint32_t length = BigEndian32(Data);
      if (length > flash_.size()) return negative;
      Answer answer = positive;
      AppendHighLow(answer.Payload, Crc16Of(std::string_view(flash_).substr(0, length)));
      return answer;
    }
    case kCmdErase:
      flash_.assign(flash_.size(), '\xFF');
      flash_used_ = 0;
      return positive;
    case kCmdFill: {
      if (Data.size() != 130) return negative;
      const size_t offset = size_t{ByteAt(Data, 0)} * 256 + ByteAt(Data, 1);
      // A part may reach past the page end; the write takes only the page's own bytes.
      const size_t needed = std::max(pageSize, offset + 128);
      if (page_buffer_.size() < needed) page_buffer_.resize(needed, '\xFF');
      page_buffer_.replace(offset, 128, Data.substr(2));
      return positive;
    }
    case kCmdPage:
    case kCmdPageEncrypted: {
      if (Data.size() != 4) return negative;
      const size_t address = BigEndian32(Data);
      if (address > flash_.size() || flash_.size() - address < pageSize) return negative;
      const auto refused = static_cast<size_t>(settings_.RefusePage);
      if (settings_.RefusePage >= 0 && address == pageSize * refused) return {};
      if (page_buffer_.size() < pageSize) page_buffer_.resize(pageSize, '\xFF');
      WriteFlash(address, std::string_view(page_buffer_).substr(0, pageSize), BadWrite);
      Answer answer = positive;
      answer.Wrote = true;
      AppendHighLow(answer.Payload, Crc16Of(std::string_view(flash_).substr(address, pageSize)));
      return answer;
    }
    case kCmdReboot:
      return settings_.AnswerReboot ? positive : Answer{};
    default:
      return negative;
  }
}

SimulatedModule::Answer SimulatedModule::HandleCcb(uint8_t Command, std::string_view Data,
                                                   bool BadWrite) {
  const Answer positive{true, ByteString({kCcbAnswer, Command})};
  switch (Command) {
    case kCcbEnter:
      entered_ = true;
      return settings_.AnswerEnter ? positive : Answer{};
    case kCcbBlock: {
      if (Data.size() < 5 || Data.size() > 132) return {};
      const size_t address = BigEndian32(Data);
      const std::string_view block = Data.substr(4);
      if (address > flash_.size() || flash_.size() - address < block.size()) return {};
      if (settings_.RefuseBlock >= 0 && address == size_t{128} * settings_.RefuseBlock) return {};
      WriteFlash(address, block, BadWrite);
      return {true, positive.Payload, true};
    }
    case kCcbFinish:
      return settings_.AnswerFinish ? positive : Answer{};
    case kCcbCheck: {
      if (Data.size() != 4 || (settings_.CheckOnlyWhenEntered && !entered_)) return {};
      const uint32_t length = BigEndian32(Data);
      if (length > flash_.size()) return {};
      Answer answer = positive;
      if (settings_.CheckBytes == 4) answer.Payload += ByteString({0, 0});
      AppendHighLow(answer.Payload, Crc16Of(std::string_view(flash_).substr(0, length)));
      return answer;
    }
    case kCcbReboot:
      return settings_.AnswerReboot ? positive : Answer{};
    default:
      return {};
  }
}

void SimulatedModule::WriteFlash(size_t Address, std::string_view Data, bool Corrupt) {
  flash_.replace(Address, Data.size(), Data);
  if (Corrupt && !Data.empty()) flash_[Address] = static_cast<char>(~ByteAt(flash_, Address));
  flash_used_ = std::max(flash_used_, Address + Data.size());
}

int64_t SimulatedModule::Emit(int64_t AtMicros, std::string Data, std::vector<Emission>& Out) {
  if (settings_.Silent || Data.empty()) return -1;
  // One line, one talker: an answer never overtakes one that is still due.
  last_emit_us_ = std::max(AtMicros, last_emit_us_);
  Out.push_back({last_emit_us_, std::move(Data)});
  return last_emit_us_;
}

void SimulatedModule::Restart() {
  mode_ = Mode::Entry;
  entered_ = false;
  polls_since_boot_ = 0;
  stray_sent_ = false;
  page_buffer_.clear();
  rx_.clear();
}

void SimulatedModule::BackToEntry() {
  mode_ = Mode::Entry;
  entered_ = false;
  polls_since_boot_ = 0;
  stray_sent_ = false;
  page_buffer_.clear();
  ++reboots_;
}

}  // namespace palimbo::sim
