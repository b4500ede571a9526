#include "production/outcome.h"

namespace palimbo {

const char* OutcomeName(UploadOutcome Outcome) {
  switch (Outcome) {
    case UploadOutcome::Verified:
      return "verified";
    case UploadOutcome::Unverified:
      return "unverified";
    case UploadOutcome::FileError:
      return "file error";
    case UploadOutcome::PortError:
      return "port error";
    case UploadOutcome::NoBootloader:
      return "no bootloader";
    case UploadOutcome::Cancelled:
      return "cancelled";
    case UploadOutcome::Failed:
      return "failed";
    case UploadOutcome::GivenUp:
      return "given up";
    case UploadOutcome::AlreadyCurrent:
      return "already current";
    case UploadOutcome::Matches:
      return "matches";
    case UploadOutcome::Differs:
      return "differs";
    case UploadOutcome::CannotTell:
      return "cannot tell";
  }
  return "failed";
}

int ExitStatusOf(UploadOutcome Outcome) {
  switch (Outcome) {
    case UploadOutcome::Verified:
    case UploadOutcome::AlreadyCurrent:
    case UploadOutcome::Matches:
      return kExitOk;
    case UploadOutcome::Unverified:
    case UploadOutcome::CannotTell:
      return kExitUnverified;
    case UploadOutcome::Differs:
      return kExitDiffers;
    case UploadOutcome::FileError:
      return kExitUsage;
    case UploadOutcome::PortError:
    case UploadOutcome::NoBootloader:
    case UploadOutcome::Cancelled:
    case UploadOutcome::Failed:
    case UploadOutcome::GivenUp:
      break;
  }
  return kExitFailed;
}

int CombinedExitStatus(const std::vector<ModuleResult>& Modules) {
  if (Modules.size() == 1) return Modules.front().ExitStatus;
  // The worst first: a failure, then a module that holds another image, then one unchecked.
  for (const int status : {kExitFailed, kExitUsage, kExitDiffers, kExitUnverified}) {
    for (const ModuleResult& m : Modules) {
      if (m.ExitStatus == status) return status == kExitUsage ? kExitFailed : status;
    }
  }
  return kExitOk;
}

}  // namespace palimbo
