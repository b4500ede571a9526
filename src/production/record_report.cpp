#include "production/record_report.h"

#include <algorithm>
#include <map>

#include <nlohmann/json.hpp>

namespace palimbo {

namespace {

// The shown start of a release's SHA-256: enough to tell two builds apart.
constexpr size_t kShaShown = 12;

struct Upload {
  std::string Time, Unit, Outcome;
  int ExitStatus = 1;
};

std::string Field(const nlohmann::json& Line, const char* Name) {
  const auto found = Line.find(Name);
  return found != Line.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

std::vector<ReportRow> ReportOf(const std::vector<std::string>& Lines, ReportBy By,
                                const std::string& Since) {
  std::vector<std::pair<std::string, std::string>> order;  // groups by their first line
  std::map<std::pair<std::string, std::string>, std::vector<Upload>> groups;
  for (const std::string& text : Lines) {
    const auto line = nlohmann::json::parse(text, nullptr, false);
    if (!line.is_object() || !line.contains("outcome") || !line.contains("file_sha256")) continue;
    Upload upload{Field(line, "time"), Field(line, "unit"), Field(line, "outcome")};
    if (upload.Time < Since) continue;
    if (line.contains("exit_status") && line["exit_status"].is_number_integer()) {
      upload.ExitStatus = line["exit_status"].get<int>();
    }
    std::string file = Field(line, "file");
    file = file.substr(file.find_last_of("/\\") + 1);
    const std::string release = file + " " + Field(line, "file_sha256").substr(0, kShaShown);
    std::string by;
    if (By == ReportBy::Host) by = Field(line, "host");
    if (By == ReportBy::Day) by = upload.Time.substr(0, 10);
    if (By == ReportBy::Unit) by = upload.Unit;
    const auto key = std::make_pair(release, by);
    if (!groups.contains(key)) order.push_back(key);
    groups[key].push_back(upload);
  }
  std::vector<ReportRow> rows;
  for (const auto& key : order) {
    std::vector<Upload>& uploads = groups[key];
    std::stable_sort(uploads.begin(), uploads.end(),
                     [](const Upload& a, const Upload& b) { return a.Time < b.Time; });
    ReportRow row{key.first, key.second};
    std::map<std::string, int64_t> seen;
    for (const Upload& upload : uploads) {
      ++row.Uploads;
      row.Verified += upload.Outcome == "verified";
      row.Current += upload.Outcome == "already current";
      row.Failed += upload.ExitStatus != 0;
      if (upload.Unit.empty()) continue;
      // The first line of a unit is its first attempt.
      if (seen[upload.Unit]++ == 0) {
        ++row.Units;
        row.FirstPass += upload.Outcome == "verified";
      } else if (seen[upload.Unit] == 2) {
        ++row.SeenTwice;
      }
    }
    rows.push_back(row);
  }
  return rows;
}

}  // namespace palimbo
