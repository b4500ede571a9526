#pragma once

// A throwaway PostgreSQL 15 cluster of the test's own: made and run by the `postgres` user on a
// free loopback port with password authentication, stopped and removed at the end.

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/free_port.h"

namespace palimbo::testing {

class Postgres {
 public:
  static constexpr char kPassword[] = "line3-secret";

  Postgres() {
    char folder[] = "/tmp/palimbo-pg-XXXXXX";
    dir_ = mkdtemp(folder);
    port_ = FreePort();
    Run("printf %s '" + std::string(kPassword) + "' >" + dir_ + "/pw && chown -R postgres " + dir_ +
        " && runuser -u postgres -- " + kBin + "initdb -D " + dir_ + "/data -U postgres" +
        " --auth=scram-sha-256 --pwfile=" + dir_ + "/pw --no-sync >/dev/null");
    Start();
  }
  ~Postgres() {
    Stop();
    std::filesystem::remove_all(dir_);
  }
  Postgres(const Postgres&) = delete;
  Postgres& operator=(const Postgres&) = delete;

  void Start() {
    Run(std::string("runuser -u postgres -- ") + kBin + "pg_ctl -D " + dir_ + "/data -l " + dir_ +
        "/log -w -o '-p " + std::to_string(port_) + " -k " + dir_ +
        " -c listen_addresses=127.0.0.1 -c fsync=off' start >/dev/null");
  }
  void Stop() {
    Run(std::string("runuser -u postgres -- ") + kBin + "pg_ctl -D " + dir_ +
        "/data -m fast -w stop " + ">/dev/null 2>&1 || true");
  }
  /// A connection URI; `Password` empty leaves it to PGPASSWORD or the password file.
  std::string Url(const std::string& Password = kPassword,
                  const std::string& Database = "postgres") const {
    return "postgresql://postgres" + (Password.empty() ? "" : ":" + Password) +
           "@127.0.0.1:" + std::to_string(port_) + "/" + Database;
  }
  /// The rows of `Sql`, one a line, columns split by "|".
  std::string Query(const std::string& Sql) const {
    FILE* out = popen(("psql -At '" + Url() + "' -c \"" + Sql + "\" 2>&1").c_str(), "r");
    std::string text;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, out)) > 0;) text.append(buffer, n);
    pclose(out);
    return text;
  }

 private:
  static constexpr char kBin[] = "/usr/lib/postgresql/15/bin/";

  static void Run(const std::string& Command) {
    ASSERT_EQ(std::system(Command.c_str()), 0) << Command;
  }

  std::string dir_;
  int port_ = 0;
};

}  // namespace palimbo::testing
