#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "upload/give_up.h"
#include "upload/upload.h"

namespace palimbo {

/// What a run is to do: one upload, or several at once, or a production station. The command
/// line's options and a profile both come down to this.
struct RunRequest {
  std::string File;
  WriteMode Mode = WriteMode::Always;  ///< `Never` checks the modules without writing
  std::string ExpectSha256;            ///< lower-case hex; when set, any other file is refused
  std::vector<std::string> Ports;      ///< one module a port
  bool AssumeYes = false;              ///< answer the no-response question with Yes
  std::string TraceFile;  ///< wire trace, one chunk a line; with several ports FILE.1, FILE.2..
  bool IdleWait = true;   ///< wait on the port in empty receive passes instead of spinning
  int32_t GiveUpAfterSeconds = kDefaultNoAnswerSeconds;  ///< 0 never gives up on silence
  std::string RecordFile;    ///< appends one JSON line per upload when set
  bool Station = false;      ///< module after module on each port, until a stop or the count
  int32_t StationCount = 0;  ///< modules a station takes in all; 0 for no limit
  std::string Unit;          ///< the identity of the one module of a run, such as its label
  bool AskUnit = false;      ///< a station asks each module's unit before flashing it
  std::string UnitPattern;   ///< what a unit must look like (ECMAScript), empty for anything
  std::string ForwardUrl;    ///< a PostgreSQL connection URI that each record line goes to
};

/// The largest count of modules and of seconds before giving up that a run takes.
inline constexpr int32_t kLargestCount = 1000000;
inline constexpr int32_t kLargestGiveUpSeconds = 86400;

/// A SHA-256 as sha256sum prints it, in either case, made lower case for comparing; empty and
/// why in `Problem` when `Text` is none.
std::string ApprovedSha256(const std::string& Text, std::string& Problem);

/// Why the request cannot run, in the words of the option or key that is wrong (`Names` gives
/// the prefix, "--" for options, "" for a profile's keys); empty when it can. Makes the approved
/// SHA-256 lower case on the way.
std::string RequestProblem(RunRequest& Request, const std::string& Names);

}  // namespace palimbo
