#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace palimbo {

/// How a report groups the lines of a release beside it.
enum class ReportBy { Release, Host, Day, Unit };

/// One row of a report: the uploads of one release (and one host, day or unit).
struct ReportRow {
  std::string Release;  ///< the file's name and the start of its SHA-256
  std::string By;       ///< the host, day or unit; empty when grouped by release alone
  int64_t Uploads = 0;
  int64_t Verified = 0;
  int64_t Current = 0;    ///< already current
  int64_t Failed = 0;     ///< every line whose exit status was not 0
  int64_t Units = 0;      ///< units named in the lines
  int64_t FirstPass = 0;  ///< units verified at their first attempt
  int64_t SeenTwice = 0;  ///< units with more than one line
  /// Units verified at their first attempt among the units named, from 0 to 1; -1 without units.
  double FirstPassYield() const { return Units > 0 ? static_cast<double>(FirstPass) / Units : -1; }
};

/// A shift's yield from record lines (the record's own, or the database table's): one row per
/// release, or per release and host, day or unit, in the order of the release's first line.
/// Lines before `Since` (a date or a time as the record writes them, compared as text) and
/// lines that are no record lines are left out.
std::vector<ReportRow> ReportOf(const std::vector<std::string>& Lines, ReportBy By,
                                const std::string& Since);

}  // namespace palimbo
