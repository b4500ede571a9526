#include <libpq-fe.h>

#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "production/record_forwarder.h"

namespace palimbo {

namespace {

constexpr char kCreateTable[] =
    "CREATE TABLE palimbo_uploads (id uuid PRIMARY KEY, time timestamptz, host text, unit text,"
    " port text, file text, file_sha256 text, protocol text, outcome text, reason text,"
    " seconds double precision, exit_status integer, module integer, server_sha256 text,"
    " line jsonb NOT NULL)";

// One round trip for a batch: the server takes the columns out of each line itself, and a line
// whose id the table holds already is left alone.
constexpr char kInsert[] =
    "INSERT INTO palimbo_uploads (id, time, host, unit, port, file, file_sha256, protocol,"
    " outcome, reason, seconds, exit_status, module, server_sha256, line)"
    " SELECT (l->>'id')::uuid, (l->>'time')::timestamptz, l->>'host', NULLIF(l->>'unit', ''),"
    " l->>'port', l->>'file', l->>'file_sha256', l->>'protocol', l->>'outcome', l->>'reason',"
    " (l->>'seconds')::double precision, (l->>'exit_status')::integer, (l->>'module')::integer,"
    " l->>'server_sha256', l FROM jsonb_array_elements($1::jsonb) AS l"
    " ON CONFLICT (id) DO NOTHING";

constexpr size_t kBatch = 500;
constexpr auto kFirstRetry = std::chrono::milliseconds(500);
constexpr auto kLongestRetry = std::chrono::seconds(30);

using Connection = std::unique_ptr<PGconn, decltype(&PQfinish)>;
using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

// libpq's message on one line of the log: its hint lines joined, its line end gone.
std::string Message(const PGconn* Conn) {
  std::string text;
  bool wrapped = false;
  for (const char* at = PQerrorMessage(Conn); *at != '\0'; ++at) {
    if (*at == '\n' || (wrapped && (*at == '\t' || *at == ' '))) {
      wrapped = true;
      continue;
    }
    if (wrapped && !text.empty()) text += ' ';
    wrapped = false;
    text += *at;
  }
  return text;
}

// A connection that gives up after a few seconds where the URI names no time of its own: a
// database host that has gone must not hold a thread for the system's minutes.
Connection Connect(const std::string& Url) {
  const char* keys[] = {"connect_timeout", "dbname", nullptr};
  const char* values[] = {"5", Url.c_str(), nullptr};
  return Connection(PQconnectdbParams(keys, values, 1), &PQfinish);
}

Result Exec(PGconn* Conn, const char* Sql, const std::string* Param = nullptr) {
  const char* values[] = {Param != nullptr ? Param->c_str() : nullptr};
  return Result(
      PQexecParams(Conn, Sql, Param != nullptr ? 1 : 0, nullptr, values, nullptr, nullptr, 0),
      &PQclear);
}

bool Ok(const Result& R) {
  const ExecStatusType status = PQresultStatus(R.get());
  return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

// Makes the table where it is missing and checks that this user may add to it; why not, or "".
std::string PrepareTable(PGconn* Conn) {
  Result found = Exec(Conn, "SELECT to_regclass('palimbo_uploads') IS NOT NULL");
  if (!Ok(found)) return Message(Conn);
  if (std::string(PQgetvalue(found.get(), 0, 0)) != "t" && !Ok(Exec(Conn, kCreateTable))) {
    return Message(Conn);
  }
  Result right = Exec(Conn, "SELECT has_table_privilege('palimbo_uploads', 'INSERT')");
  if (!Ok(right)) return Message(Conn);
  if (std::string(PQgetvalue(right.get(), 0, 0)) != "t") {
    return "no right to insert into the table palimbo_uploads";
  }
  return {};
}

// Inserts the lines; false when the database did not take them.
bool Insert(PGconn* Conn, const std::vector<std::string>& Lines, ForwardCount& Count) {
  std::string batch = "[";
  for (const std::string& line : Lines) batch += (batch.size() > 1 ? "," : "") + line;
  batch += "]";
  Result done = Exec(Conn, kInsert, &batch);
  if (!Ok(done)) return false;
  const int64_t sent = std::stoll(PQcmdTuples(done.get()));
  Count.Sent += sent;
  Count.There += static_cast<int64_t>(Lines.size()) - sent;
  return true;
}

// The lines of a record that can be matched in the table: those with an id.
std::deque<std::string> LinesWithIds(const std::string& RecordPath) {
  std::deque<std::string> lines;
  std::ifstream in(RecordPath, std::ios::binary);
  for (std::string line; std::getline(in, line);) {
    const auto parsed = nlohmann::json::parse(line, nullptr, false);
    if (parsed.is_object() && parsed.contains("id") && parsed["id"].is_string()) {
      lines.push_back(line);
    }
  }
  return lines;
}

class PostgresForwarder final : public RecordForwarder {
 public:
  PostgresForwarder(std::string Url, Connection Conn, std::deque<std::string> Pending)
      : url_(std::move(Url)), conn_(std::move(Conn)), pending_(std::move(Pending)) {
    thread_ = std::thread([this] { Run(); });
  }

  ~PostgresForwarder() override { Stop(); }

  void Take(const std::string& Line) override {
    const std::lock_guard guard(lock_);
    pending_.push_back(Line);
    wake_.notify_one();
  }

  ForwardCount Finish(std::chrono::milliseconds Grace) override {
    std::unique_lock wait(lock_);
    retry_at_ = std::chrono::steady_clock::now();
    wake_.notify_one();
    const int64_t failed = failures_;
    drained_.wait_for(wait, Grace, [&] { return pending_.empty() || failures_ > failed; });
    wait.unlock();
    Stop();
    const std::lock_guard guard(lock_);
    ForwardCount count = count_;
    count.Waiting = static_cast<int64_t>(pending_.size());
    if (count.Waiting > 0) count.Reason = reason_;
    return count;
  }

 private:
  void Stop() {
    {
      const std::lock_guard guard(lock_);
      if (stopping_) return;
      stopping_ = true;
      wake_.notify_one();
    }
    thread_.join();
  }

  void Run() {
    auto retry = kFirstRetry;
    std::unique_lock wait(lock_);
    while (!stopping_) {
      if (pending_.empty()) {
        wake_.wait(wait, [this] { return stopping_ || !pending_.empty(); });
        continue;
      }
      if (std::chrono::steady_clock::now() < retry_at_) {
        wake_.wait_until(wait, retry_at_, [this] {
          return stopping_ || std::chrono::steady_clock::now() >= retry_at_;
        });
        continue;
      }
      const size_t n = std::min(kBatch, pending_.size());
      const std::vector<std::string> batch(pending_.begin(), pending_.begin() + n);
      wait.unlock();
      ForwardCount done;
      std::string why;
      const bool sent = Send(batch, done, why);
      wait.lock();
      if (sent) {
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<ptrdiff_t>(n));
        count_.Sent += done.Sent;
        count_.There += done.There;
        retry = kFirstRetry;
      } else {
        // Away, slow or restarted: the lines stay where they are and go when it answers again.
        retry_at_ = std::chrono::steady_clock::now() + retry;
        retry = std::min<std::chrono::milliseconds>(retry * 2, kLongestRetry);
        ++failures_;
        reason_ = why;
      }
      drained_.notify_all();
    }
  }

  bool Send(const std::vector<std::string>& Batch, ForwardCount& Done, std::string& Why) {
    if (!conn_ || PQstatus(conn_.get()) != CONNECTION_OK) {
      conn_ = Connect(url_);
      Why =
          PQstatus(conn_.get()) != CONNECTION_OK ? Message(conn_.get()) : PrepareTable(conn_.get());
      if (!Why.empty()) {
        conn_.reset();
        return false;
      }
    }
    if (Insert(conn_.get(), Batch, Done)) return true;
    Why = Message(conn_.get());
    conn_.reset();
    return false;
  }

  std::string url_;
  Connection conn_{nullptr, &PQfinish};
  std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable drained_;
  std::deque<std::string> pending_;
  ForwardCount count_;
  std::chrono::steady_clock::time_point retry_at_{};
  int64_t failures_ = 0;  // tries the database did not take
  std::string reason_;    // why the last of them failed
  bool stopping_ = false;
  std::thread thread_;
};

// A connection whose configuration works, with the table ready; or why not. `Away` is set,
// and no connection given, when the database does not answer.
Connection Open(const std::string& Url, bool& Away, std::string& Error) {
  char* parseError = nullptr;
  PQconninfoOption* options = PQconninfoParse(Url.c_str(), &parseError);
  if (options == nullptr) {
    Error = "'" + Url + "' is no PostgreSQL connection URI" +
            (parseError != nullptr ? ": " + std::string(parseError) : std::string());
    while (!Error.empty() && Error.back() == '\n') Error.pop_back();
    PQfreemem(parseError);
    return Connection(nullptr, &PQfinish);
  }
  PQconninfoFree(options);
  const char* keys[] = {"connect_timeout", "dbname", nullptr};
  const char* values[] = {"5", Url.c_str(), nullptr};
  // Options that cannot work (a port that is no number, an unknown sslmode) fail before any
  // packet goes out; what fails after that is the network's or the database's.
  const Connection started(PQconnectStartParams(keys, values, 1), &PQfinish);
  if (PQstatus(started.get()) == CONNECTION_BAD) {
    Error = "'" + Url + "': " + Message(started.get());
    return Connection(nullptr, &PQfinish);
  }
  Away = PQpingParams(keys, values, 1) == PQPING_NO_RESPONSE;
  if (Away) return Connection(nullptr, &PQfinish);
  Connection conn = Connect(Url);
  if (PQstatus(conn.get()) != CONNECTION_OK) {
    Error = Message(conn.get());
    return Connection(nullptr, &PQfinish);
  }
  Error = PrepareTable(conn.get());
  if (!Error.empty()) return Connection(nullptr, &PQfinish);
  return conn;
}

}  // namespace

std::unique_ptr<RecordForwarder> RecordForwarder::Start(const std::string& Url,
                                                        const std::string& RecordPath,
                                                        std::string& Error, std::string& Away) {
  bool away = false;
  Connection conn = Open(Url, away, Error);
  if (!Error.empty()) return nullptr;
  if (away) Away = "the database does not answer now: the record's lines wait for it";
  return std::make_unique<PostgresForwarder>(Url, std::move(conn), LinesWithIds(RecordPath));
}

bool PushRecord(const std::string& RecordPath, const std::string& Url, ForwardCount& Count,
                std::string& Error) {
  bool away = false;
  Connection conn = Open(Url, away, Error);
  if (away) Error = "the database does not answer";
  if (!Error.empty()) return false;
  const std::deque<std::string> lines = LinesWithIds(RecordPath);
  for (size_t at = 0; at < lines.size(); at += kBatch) {
    const size_t end = std::min(lines.size(), at + kBatch);
    if (!Insert(conn.get(),
                {lines.begin() + static_cast<ptrdiff_t>(at),
                 lines.begin() + static_cast<ptrdiff_t>(end)},
                Count)) {
      Error = Message(conn.get());
      return false;
    }
  }
  return true;
}

bool ReadTable(const std::string& Url, std::vector<std::string>& Lines, std::string& Error) {
  bool away = false;
  Connection conn = Open(Url, away, Error);
  if (away) Error = "the database does not answer";
  if (!Error.empty()) return false;
  Result rows = Exec(conn.get(), "SELECT line::text FROM palimbo_uploads ORDER BY time, id");
  if (!Ok(rows)) {
    Error = Message(conn.get());
    return false;
  }
  for (int row = 0; row < PQntuples(rows.get()); ++row)
    Lines.push_back(PQgetvalue(rows.get(), row, 0));
  return true;
}

}  // namespace palimbo
