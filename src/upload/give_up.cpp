#include "upload/give_up.h"

namespace palimbo {

GiveUpWatch::GiveUpWatch(std::string PortName, int32_t NoAnswerSeconds)
    : port_name_(std::move(PortName)), no_answer_seconds_(NoAnswerSeconds) {}

bool GiveUpWatch::Check(JobContext& Ctx) {
  // Before the port opens there is nothing to lose; after a give-up the job is on its way out.
  if (Ctx.LastAnswerTick < 0 || !Ctx.GiveUpReason.empty()) return false;
  // Only a loss leaves a reason: the job's own close at its end does not.
  const std::string lost = Ctx.Port().LostReason();
  const int64_t limit = int64_t{no_answer_seconds_} * 1000;
  if (!lost.empty()) {
    Ctx.GiveUpReason = "port " + port_name_ + " lost: " + lost;
  } else if (no_answer_seconds_ > 0 && Ctx.GetTickCount() - Ctx.LastAnswerTick >= limit) {
    Ctx.GiveUpReason = "no answer from the module for " + std::to_string(no_answer_seconds_) + " s";
  } else if (no_answer_seconds_ > 0 && Ctx.LastProgressTick >= 0 &&
             Ctx.GetTickCount() - Ctx.LastProgressTick >= 2 * limit) {
    // Repeats without end in which the module still answers: a page it never takes, a check
    // that never matches. Twice the time, so that a silent module is told as silent.
    Ctx.GiveUpReason = "no progress for " + std::to_string(2 * no_answer_seconds_) +
                       " s: the module answers, but takes no further part of the image";
  } else {
    return false;
  }
  Ctx.Cancel = true;
  return true;
}

}  // namespace palimbo
