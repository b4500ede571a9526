#pragma once

#include <string>

#include "production/run_request.h"

namespace palimbo {

/// Reads a station profile: a JSON object that a production engineer writes once for a line,
/// with one key per long option of `flash` that describes a station ("file", "port" as a text
/// or a list, "record", "expect-sha256", "skip-same", "verify", "count", "give-up-after",
/// "trace"). Paths are taken from the profile's folder. Gives the station's request, or why
/// the profile cannot be used in `Error` ("profile P: 'count': ..."): an unreadable file, no
/// JSON object, an unknown or doubled key, a value of the wrong type, no "file" or "port".
RunRequest ReadProfile(const std::string& Path, std::string& Error);

}  // namespace palimbo
