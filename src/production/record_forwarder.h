#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace palimbo {

/// How many lines of a record the database's table holds and how many wait for it.
struct ForwardCount {
  int64_t Sent = 0;     ///< lines this run put into the table
  int64_t There = 0;    ///< lines the table held already
  int64_t Waiting = 0;  ///< lines that wait in the record for the database
  std::string Reason;   ///< why the last try failed, while lines wait
};

/// Sends each line of a record into the table `palimbo_uploads` of a PostgreSQL database, on a
/// thread of its own: the record stays the truth and is the queue, so a database that is down,
/// slow or restarted never holds up the station, and a line reaches the table exactly once
/// (by its id), also across a restart of the station.
class RecordForwarder {
 public:
  /// Checks `Url` (a libpq connection URI) before the first module and takes every line of the
  /// record at `RecordPath` that has an id: nothing, and libpq's reason in `Error`, when the
  /// configuration cannot work (a bad URI, a wrong password, no such database, no right to
  /// create or insert). A database that does not answer now is one that is down: its lines
  /// wait, and `Away` says so.
  static std::unique_ptr<RecordForwarder> Start(const std::string& Url,
                                                const std::string& RecordPath, std::string& Error,
                                                std::string& Away);
  virtual ~RecordForwarder() = default;

  /// A line just written to the record.
  virtual void Take(const std::string& Line) = 0;
  /// Tries once more at once, waits at most `Grace` for the lines to go, then stops the thread.
  virtual ForwardCount Finish(std::chrono::milliseconds Grace) = 0;
};

/// Sends every line of the record at `RecordPath` that the table lacks: false and why in
/// `Error` when the database cannot take them.
bool PushRecord(const std::string& RecordPath, const std::string& Url, ForwardCount& Count,
                std::string& Error);

/// Every line the table holds, oldest first: false and why in `Error` when it cannot be read.
bool ReadTable(const std::string& Url, std::vector<std::string>& Lines, std::string& Error);

}  // namespace palimbo
