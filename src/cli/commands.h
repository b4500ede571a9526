#pragma once

#include <string>
#include <vector>

namespace palimbo::cli {

/// Exit statuses of every subcommand.
inline constexpr int kExitOk = 0;      ///< done (and for an upload: verified)
inline constexpr int kExitFailed = 1;  ///< the operation failed or was cancelled
inline constexpr int kExitUsage = 2;   ///< bad arguments, or an unreadable or invalid firmware file
inline constexpr int kExitUnverified = 3;  ///< firmware written but not verified; for a check:
                                           ///< the bootloader cannot tell
inline constexpr int kExitDiffers = 4;     ///< a check: the module holds another image

// One function per subcommand; each gets the arguments behind the subcommand's name.
// They throw UsageError (args.h) for bad arguments; main turns that into status 2.
int RunInfo(const std::vector<std::string>& Args);
int RunHex2Bin(const std::vector<std::string>& Args);
int RunFlash(const std::vector<std::string>& Args);
int RunVerify(const std::vector<std::string>& Args);
int RunSimulate(const std::vector<std::string>& Args);
int RunDemo(const std::vector<std::string>& Args);
int RunPorts(const std::vector<std::string>& Args);

}  // namespace palimbo::cli
