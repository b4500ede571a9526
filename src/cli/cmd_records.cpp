#include <cstdio>
#include <fstream>
#include <iostream>

#include "cli/args.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "production/json_line.h"
#include "production/record_forwarder.h"
#include "production/record_report.h"

namespace palimbo::cli {

namespace {

const char* const kUsage =
    "Usage: palimbo-cli records push FILE --to URL\n"
    "       palimbo-cli records report (FILE | --from URL) [--since DATE] [--by host|day|unit]\n"
    "                                  [--json]\n"
    "push sends the lines of the record FILE that the table palimbo_uploads of the PostgreSQL\n"
    "database at URL lacks, and says how many it sent and how many were there already; a\n"
    "line goes in once, by its id, however often this runs. URL is a libpq connection URI\n"
    "(postgresql://USER@HOST:PORT/DATABASE?sslmode=verify-full...); the password comes from\n"
    "the URI, PGPASSWORD or the password file, as libpq takes it. The table is made where it\n"
    "is missing.\n"
    "report tells per release (the file's name and the start of its SHA-256) the uploads, the\n"
    "verified ones, those already current, the failed ones, the first-pass yield (units\n"
    "verified at their first attempt, of the units named) and the units seen more than once,\n"
    "from the record FILE or from the table at URL.\n\n"
    "  --since DATE       only lines from DATE on (2026-11-25, or 2026-11-25T06:00:00Z)\n"
    "  --by WHAT          a row per release and host, day or unit\n"
    "  --json             one JSON object a row\n\n"
    "Exit status: 0 done, 1 the database did not take or give the lines, 2 bad arguments or a\n"
    "configuration that cannot work.\n";

int Push(const std::string& File, const std::string& Url) {
  ForwardCount count;
  std::string error;
  if (!PushRecord(File, Url, count, error)) {
    std::cerr << "palimbo-cli records push: " << error << std::endl;
    return count.Sent + count.There > 0 || error == "the database does not answer" ? kExitFailed
                                                                                   : kExitUsage;
  }
  std::cout << "sent " << count.Sent << " lines, " << count.There << " were there already"
            << std::endl;
  return kExitOk;
}

void Print(const std::vector<ReportRow>& Rows, bool Json) {
  if (!Json) {
    std::printf("%-28s %-12s %8s %8s %8s %7s %6s %6s\n", "RELEASE", "", "UPLOADS", "VERIFIED",
                "CURRENT", "FAILED", "FPY", "TWICE");
  }
  for (const ReportRow& row : Rows) {
    const double yield = row.FirstPassYield();
    if (Json) {
      nlohmann::ordered_json line = {{"release", row.Release}};
      if (!row.By.empty()) line["by"] = row.By;
      line.update({{"uploads", row.Uploads},
                   {"verified", row.Verified},
                   {"already_current", row.Current},
                   {"failed", row.Failed},
                   {"units", row.Units},
                   {"first_pass", row.FirstPass},
                   {"units_seen_twice", row.SeenTwice}});
      if (yield >= 0) line["first_pass_yield"] = yield;
      std::cout << JsonLine(line) << '\n';
      continue;
    }
    char fpy[16] = "-";
    if (yield >= 0) std::snprintf(fpy, sizeof fpy, "%.1f%%", yield * 100);
    std::printf("%-28s %-12s %8lld %8lld %8lld %7lld %6s %6lld\n", row.Release.c_str(),
                row.By.c_str(), static_cast<long long>(row.Uploads),
                static_cast<long long>(row.Verified), static_cast<long long>(row.Current),
                static_cast<long long>(row.Failed), fpy, static_cast<long long>(row.SeenTwice));
  }
  std::fflush(stdout);
}

}  // namespace

int RunRecords(const std::vector<std::string>& Args) {
  std::string action, file, to, from, since, by = "release";
  bool json = false;
  CLI::App app;
  app.add_option("ACTION", action)->required()->check(CLI::IsMember({"push", "report"}));
  app.add_option("FILE", file);
  app.add_option("--to", to);
  app.add_option("--from", from);
  app.add_option("--since", since);
  app.add_option("--by", by)->check(CLI::IsMember({"host", "day", "unit"}));
  app.add_flag("--json", json);
  if (ParseCommand(app, Args)) {
    std::cout << kUsage;
    return kExitOk;
  }
  if (action == "push") {
    if (file.empty() || to.empty() || !from.empty() || !since.empty() || json || by != "release") {
      throw UsageError("push takes FILE and --to URL, and nothing else");
    }
    return Push(file, to);
  }
  if (!to.empty() || file.empty() == from.empty()) {
    throw UsageError("report takes a record FILE or --from URL");
  }
  std::vector<std::string> lines;
  std::string error;
  if (!from.empty() && !ReadTable(from, lines, error)) {
    std::cerr << "palimbo-cli records report: " << error << std::endl;
    return error == "the database does not answer" ? kExitFailed : kExitUsage;
  }
  if (from.empty()) {
    std::ifstream in(file);
    if (!in) throw UsageError("cannot read record file " + file);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
  }
  const ReportBy grouping = by == "host"   ? ReportBy::Host
                            : by == "day"  ? ReportBy::Day
                            : by == "unit" ? ReportBy::Unit
                                           : ReportBy::Release;
  Print(ReportOf(lines, grouping, since), json);
  return kExitOk;
}

}  // namespace palimbo::cli
