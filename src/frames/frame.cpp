#include "frames/frame.h"

#include <algorithm>

#include "frames/crc16.h"
#include "serial/comm.h"

namespace palimbo {

namespace {
constexpr int kSilenceMs = 60;
}  // namespace

std::string BuildFrame(uint8_t StartByte, uint8_t CommandByte, std::string_view CommandString) {
  std::string body;
  body.reserve(CommandString.size() + 2);
  body += static_cast<char>(CommandString.size() + 1);
  body += static_cast<char>(CommandByte);
  body += CommandString;
  const int32_t crc = Crc16Of(body);
  std::string frame;
  frame.reserve(body.size() + 3);
  frame += static_cast<char>(StartByte);
  frame += body;
  frame += static_cast<char>(crc / 256);
  frame += static_cast<char>(crc & 255);
  return frame;
}

HeadFrame CheckHeadFrame(std::string_view RxBuffer, int& L) {
  // With two bytes or fewer the length is taken as 100, which is never complete yet.
  L = RxBuffer.size() > 2 ? static_cast<uint8_t>(RxBuffer[1]) : 100;
  if (RxBuffer.size() < static_cast<size_t>(L) + 4) return HeadFrame::Incomplete;
  const int32_t crc = Crc16Of(RxBuffer.substr(1, static_cast<size_t>(L) + 1));
  if (static_cast<uint8_t>(RxBuffer[L + 2]) != crc / 256 ||
      static_cast<uint8_t>(RxBuffer[L + 3]) != (crc & 255)) {
    return HeadFrame::BadCrc;
  }
  return HeadFrame::Valid;
}

HeadFrame TakeHeadFrame(RxQueue& RxBuffer, std::string& Payload) {
  int L = 0;
  const HeadFrame head = CheckHeadFrame(RxBuffer.View(), L);
  if (head == HeadFrame::BadCrc) {
    // The bytes behind it may still hold a good frame, so only the first one goes.
    RxBuffer.DropFront(1);
  } else if (head == HeadFrame::Valid) {
    Payload = RxBuffer.View().substr(2, static_cast<size_t>(L));
    RxBuffer.DropFront(static_cast<size_t>(L) + 4);
  }
  return head;
}

std::string BigEndian32(uint32_t Value) {
  return {static_cast<char>(Value >> 24), static_cast<char>(Value >> 16),
          static_cast<char>(Value >> 8), static_cast<char>(Value)};
}

int64_t PassWaitDeadline(Link& Link, const RxQueue& RxBuffer, int64_t LastByteTime, int64_t TryEnd,
                         bool Settled) {
  // With the flag set this pass is the last, and what it finds must not depend on a wait.
  if (!Settled || Link.Cancel) return kNoWait;
  if (RxBuffer.empty()) return TryEnd;
  // The first tick at which the silence rule takes a byte.
  const int64_t silenceDue = LastByteTime + kSilenceMs + 1;
  if (Link.Time.GetTickCount() >= silenceDue) return kNoWait;
  return std::min(TryEnd, silenceDue);
}

void WaitBefore(Link& Link, int64_t Deadline) {
  if (Link.IdleWaitMicros <= 0 || Deadline == kNoWait) return;
  // Counted to the start of the deadline's tick, not in whole ticks from the present one, so
  // that the wait ends within that tick however much of the present one has gone.
  const int64_t leftMicros = Deadline * 1000 - Link.Time.GetMicros();
  if (leftMicros <= 0) return;
  if (IsPortOpen(Link.PortHandle)) {
    const int64_t micros = std::min<int64_t>(Link.IdleWaitMicros, leftMicros);
    Comm_warten_32(Link.Port, Link.PortHandle, static_cast<int32_t>(micros));
  } else {
    const int64_t left = (leftMicros + 999) / 1000;
    // Nothing can arrive on a closed port; the clock's sleep keeps the loop from spinning.
    Link.Time.Sleep(static_cast<int32_t>(std::min<int64_t>(kClosedPortWaitMillis, left)));
  }
}

void ReadPass(Link& Link, std::string& Chunk, int64_t Deadline) {
  Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
  if (!Chunk.empty() || Link.IdleWaitMicros <= 0 || Deadline == kNoWait) return;
  WaitBefore(Link, Deadline);
  Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
}

void DropAfterSilence(Link& Link, int64_t LastByteTime, RxQueue& RxBuffer) {
  if (LastByteTime + kSilenceMs < Link.Time.GetTickCount() && !RxBuffer.empty()) {
    RxBuffer.DropFront(1);
  }
}

bool RunTries(Link& Link, const std::string& Frame, WriteOrder Order, int16_t WaitForAnswer,
              RxQueue& RxBuffer, const std::function<PassFind(RxQueue&)>& Look) {
  int64_t LastByteTime = 0;
  // Whether the last pass took no byte from the buffer, so that the next can only wait for more.
  bool Settled = true;
  RxBuffer.clear();
  std::string Chunk;
  for (int16_t Tries = 0; Tries < Link.Tries; ++Tries) {
    if (Order == WriteOrder::BeforeTheDrain) {
      Comm_schreiben_32(Link.Port, Link.PortHandle, Frame);
      Link.Time.Sleep(5);
      // Whatever reached the port up to now, answer or not, is lost here.
      Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
    } else {
      Link.Time.Sleep(5);
      Comm_lesen_32(Link.Port, Link.PortHandle, Chunk);
      Comm_schreiben_32(Link.Port, Link.PortHandle, Frame);
    }
    const int64_t TryStart = Link.Time.GetTickCount();
    bool TryEnded = false;
    do {
      Link.Events.PumpEvents();
      const size_t kept = RxBuffer.size();
      ReadPass(Link, Chunk,
               PassWaitDeadline(Link, RxBuffer, LastByteTime, TryStart + WaitForAnswer, Settled));
      if (!Chunk.empty()) LastByteTime = Link.Time.GetTickCount();
      RxBuffer.Append(Chunk);
      const PassFind found = Look(RxBuffer);
      if (found == PassFind::Positive) {
        Link.LastAnswerTick = Link.Time.GetTickCount();
        return true;
      }
      TryEnded = TryEnded || found == PassFind::EndOfTry;
      DropAfterSilence(Link, LastByteTime, RxBuffer);
      Settled = RxBuffer.size() == kept + Chunk.size();
      Link.Events.PumpEvents();
      if (Link.Cancel) return false;
    } while (TryStart + WaitForAnswer > Link.Time.GetTickCount() && !TryEnded);
  }
  return false;
}

}  // namespace palimbo
