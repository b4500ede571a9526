#include "production/run_request.h"

#include <cctype>
#include <filesystem>

#include "production/unit.h"
#include "serial/serial_remote.h"

namespace palimbo {

namespace {

// Two jobs on one port would fight over it, and the second open fails only after the first
// module was written: the same port named twice, also by another of its names, is refused.
std::string PortGivenTwice(const std::vector<std::string>& Ports, size_t Index,
                           const std::string& Names) {
  const auto device = [](const std::string& Name) {
    std::error_code error;
    const auto path = std::filesystem::canonical(Name, error);
    return error ? Name : path.string();
  };
  for (size_t i = 0; i < Index; ++i) {
    if (device(Ports[i]) != device(Ports[Index])) continue;
    return Names + "port " + Ports[Index] +
           (Ports[i] == Ports[Index] ? " is given twice"
                                     : " names the same port as " + Names + "port " + Ports[i]) +
           ": one module a port";
  }
  return {};
}

}  // namespace

std::string ApprovedSha256(const std::string& Text, std::string& Problem) {
  std::string digest;
  for (const char c : Text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) break;
    digest += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (digest.size() != 64 || Text.size() != 64) {
    Problem = "'" + Text + "' is no SHA-256: 64 hexadecimal digits, as sha256sum prints them";
    return {};
  }
  return digest;
}

std::string RequestProblem(RunRequest& Request, const std::string& Names) {
  const bool check = Request.Mode == WriteMode::Never;
  const int32_t giveUp = Request.GiveUpAfterSeconds;
  const int32_t shortest =
      check ? kLongestHealthyCheckSilenceSeconds : kLongestHealthySilenceSeconds;
  if (giveUp > 0 && giveUp < shortest) {
    return Names + "give-up-after " + std::to_string(giveUp) +
           " is shorter than a healthy module may stay silent (" + std::to_string(shortest) +
           " s: " + (check ? "the check" : "the CRC probe and two erases") +
           "); give at least that, or 0 for never";
  }
  std::string problem;
  if (!Request.ExpectSha256.empty()) {
    Request.ExpectSha256 = ApprovedSha256(Request.ExpectSha256, problem);
    if (!problem.empty()) return Names + "expect-sha256 " + problem;
  }
  const std::optional<UnitRule> units = UnitRule::Make(Request.UnitPattern, problem);
  if (!units) return Names + "unit-pattern " + problem;
  if (!Request.Unit.empty()) {
    if (Request.Station || Request.Ports.size() > 1) {
      return Names + "unit names the one module of a run; a station asks each module's unit (" +
             Names + "ask-unit)";
    }
    std::string why;
    if (!units->Take(Request.Unit, why)) return Names + "unit: " + why;
  }
  if (Request.AskUnit && Request.Ports.size() > 1) {
    return Names + "ask-unit takes one port: a scanned label must name the module on it";
  }
  if (!Request.UnitPattern.empty() && Request.Unit.empty() && !Request.AskUnit) {
    return Names + "unit-pattern without " + Names + "unit or " + Names + "ask-unit checks nothing";
  }
  if (!Request.ForwardUrl.empty() && Request.RecordFile.empty()) {
    return Names + "forward needs " + Names +
           "record: the record is the truth, and the queue of what the database has not taken";
  }
  for (size_t i = 0; i < Request.Ports.size(); ++i) {
    // A network port's URL, and a secured port's files, are arguments like any other.
    if (std::string problem = PortNameProblem(Request.Ports[i]); !problem.empty()) return problem;
    if (std::string problem = PortGivenTwice(Request.Ports, i, Names); !problem.empty()) {
      return problem;
    }
  }
  return {};
}

}  // namespace palimbo
