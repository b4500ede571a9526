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
    Run("init " + dir_ + " " + std::to_string(port_) + " " + kPassword);
    Start();
  }
  ~Postgres() {
    Stop();
    std::filesystem::remove_all(dir_);
  }
  Postgres(const Postgres&) = delete;
  Postgres& operator=(const Postgres&) = delete;

  void Start() { Run("start " + dir_); }
  void Stop() { Run("stop " + dir_); }
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
  static void Run(const std::string& Arguments) {
    const std::string command = "sh " PALIMBO_TESTS_DIR "/support/postgres.sh " + Arguments;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  std::string dir_;
  int port_ = 0;
};

}  // namespace palimbo::testing
