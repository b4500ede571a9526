#pragma once

#include <string>
#include <vector>

#include "production/outcome.h"

namespace palimbo::cli {

// One function per subcommand; each gets the arguments behind the subcommand's name.
// They throw UsageError (args.h) for bad arguments; main turns that into status 2.
int RunInfo(const std::vector<std::string>& Args);
int RunHex2Bin(const std::vector<std::string>& Args);
int RunFlash(const std::vector<std::string>& Args);
int RunVerify(const std::vector<std::string>& Args);
int RunSimulate(const std::vector<std::string>& Args);
int RunDemo(const std::vector<std::string>& Args);
int RunPorts(const std::vector<std::string>& Args);
int RunRecords(const std::vector<std::string>& Args);

}  // namespace palimbo::cli
