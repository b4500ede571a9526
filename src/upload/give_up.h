#pragma once

#include <cstdint>
#include <string>

#include "upload/job_context.h"

namespace palimbo {

/// Seconds of silence after which the command line gives up on a module by default.
inline constexpr int32_t kDefaultNoAnswerSeconds = 60;

/// The longest a healthy module stays silent, rounded up: a bootloader without CRC checks lets
/// the CRC probe run out its ten tries of 1 s, and may do the same with each of the two erases'
/// ten tries of 1.25 s (35.15 s in all). Giving up sooner would cancel a good upload.
inline constexpr int32_t kLongestHealthySilenceSeconds = 36;

/// The same for a check without writing, which never erases: a bootloader without CRC checks
/// lets the check run out its ten tries of 2 s before it answers the reboot (21.1 s in all).
inline constexpr int32_t kLongestHealthyCheckSilenceSeconds = 22;

/// A way out of a job that would otherwise never end by itself, for front ends without an
/// operator at CANCEL: the port has gone away under the job, or the module has not answered
/// positively for a while, or has answered without the job getting any further for twice that
/// while (the entry poll and the endless repeats know no limit).
///
/// A front end calls `Check` from its event pump. When it gives up it sets `Cancel`, exactly
/// as a confirmed CANCEL does, and leaves its reason in `GiveUpReason`, where the job finds
/// it for its result. It looks only at a job that has opened its port, and gives up once a job.
class GiveUpWatch {
 public:
  /// `PortName` names the port in the reason; `NoAnswerSeconds` 0 never gives up on silence.
  GiveUpWatch(std::string PortName, int32_t NoAnswerSeconds);

  /// Looks at the job once; true when it gave up at this look.
  /// Reasons: "port NAME lost: <system message>", "no answer from the module for N s",
  /// "no progress for 2N s: the module answers, but takes no further part of the image".
  bool Check(JobContext& Ctx);

 private:
  std::string port_name_;
  int32_t no_answer_seconds_;
};

}  // namespace palimbo
