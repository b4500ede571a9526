// Records that reach the plant's database: a real PostgreSQL of the test's own.
#include <chrono>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "support/postgres.h"
#include "support/process.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;
using testing::ReadAll;
using testing::WriteTempFile;

// Runs palimbo-cli with `Args`, standard input from `Input`; gives its exit status and puts
// stdout and stderr together into `Output`.
int Cli(const std::vector<std::string>& Args, std::string& Output, const std::string& Input = "") {
  std::vector<std::string> command{
      "/bin/sh", "-c", "exec \"$0\" \"$@\" <" + WriteTempFile("input.txt", Input), PALIMBO_CLI};
  command.insert(command.end(), Args.begin(), Args.end());
  const std::string err = WriteTempFile("cli.err", "");
  Process run(command, err);
  const int status = run.Wait();
  Output = run.Output + ReadAll(err);
  return status;
}

bool Eventually(const std::function<bool()>& Holds) {
  for (int i = 0; i < 300 && !Holds(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return Holds();
}

TEST(Records, EachLineReachesTheDatabaseOnceThroughAnOutage) {
  testing::Postgres db;
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(200)));
  const std::string record = WriteTempFile("record.jsonl", "");
  Process modules({PALIMBO_CLI, "simulate", "--replace-after-ms", "300"},
                  WriteTempFile("simulate.err", ""));
  const std::string port = modules.FirstLine(10000);
  std::string output;

  // What cannot work is found before the first module, with libpq's reason.
  const std::pair<std::vector<std::string>, std::string> refusals[] = {
      {{"--record", record, "--forward", db.Url("wrong")}, "password authentication failed"},
      {{"--record", record, "--forward", db.Url(testing::Postgres::kPassword, "line9")},
       "database \"line9\" does not exist"},
      {{"--record", record, "--forward", "postgresql://a@b:c"}, "invalid integer value \"c\""},
      {{"--record", record, "--forward", "postgres://a@b/c?colour=red"},
       "is no PostgreSQL connection URI: invalid URI query parameter: \"colour\""},
      {{"--forward", db.Url()}, "--forward needs --record"}};
  for (const auto& [args, message] : refusals) {
    std::vector<std::string> command{"flash", "--port", port};
    command.insert(command.end(), args.begin(), args.end());
    command.push_back(file);
    EXPECT_EQ(Cli(command, output), 2) << output;
    EXPECT_NE(output.find(message), std::string::npos) << output;
  }
  EXPECT_EQ(ReadAll(record), "");

  // A station of three scanned units; the database goes away after the first line and comes
  // back while the station runs on.
  const std::string err = WriteTempFile("station.err", "");
  Process station(
      {"/bin/sh", "-c", "exec \"$0\" \"$@\" <" + WriteTempFile("scans.txt", "SN-1\nSN-2\nSN-3\n"),
       PALIMBO_CLI, "flash", "--station", "--count", "3", "--ask-unit", "--record", record,
       "--forward", db.Url(), "--port", port, file},
      err);
  ASSERT_TRUE(Eventually([&] { return db.Query("SELECT count(*) FROM palimbo_uploads") == "1\n"; }))
      << ReadAll(err) << db.Query("SELECT count(*) FROM palimbo_uploads");
  db.Stop();
  ASSERT_TRUE(station.WaitForText("module 2 (unit SN-2): verified", 60000)) << station.Output;
  db.Start();
  EXPECT_EQ(station.Wait(), 0) << station.Output << ReadAll(err);
  EXPECT_NE(station.Output.find("records: 3 lines in the database's table palimbo_uploads (3 "
                                "sent now), 0 wait in the record"),
            std::string::npos)
      << station.Output;
  EXPECT_EQ(db.Query("SELECT unit, outcome FROM palimbo_uploads ORDER BY module"),
            "SN-1|verified\nSN-2|verified\nSN-3|verified\n");

  // Away for a whole station: its line waits in the record, and records push sends it once.
  db.Stop();
  EXPECT_EQ(Cli({"flash", "--station", "--count", "1", "--ask-unit", "--record", record,
                 "--forward", db.Url(), "--port", port, file},
                output, "SN-4\n"),
            0)
      << output;
  // Said at the start, and why at the end.
  for (const char* said : {"--forward: the database does not answer now",
                           "records: 0 lines in the database's table palimbo_uploads (0 sent "
                           "now), 4 wait in the record (the database: connection to server at"}) {
    EXPECT_NE(output.find(said), std::string::npos) << output;
  }
  db.Start();
  for (const char* said :
       {"sent 1 lines, 3 were there already", "sent 0 lines, 4 were there already"}) {
    EXPECT_EQ(Cli({"records", "push", record, "--to", db.Url()}, output), 0) << output;
    EXPECT_NE(output.find(said), std::string::npos) << output;
  }
  std::ifstream lines(record);
  std::string first;
  std::getline(lines, first);
  const std::string id = first.substr(7, 36);  // {"id":"...
  EXPECT_EQ(db.Query("SELECT line->>'unit' FROM palimbo_uploads WHERE id = '" + id + "'"),
            "SN-1\n");

  // The shift's yield, from the record and from the table alike.
  std::string fromTable;
  EXPECT_EQ(Cli({"records", "report", record, "--json"}, output), 0) << output;
  EXPECT_EQ(Cli({"records", "report", "--from", db.Url(), "--json"}, fromTable), 0) << fromTable;
  EXPECT_EQ(fromTable, output);
  EXPECT_NE(output.find(R"("uploads":4,"verified":4,"already_current":0,"failed":0,"units":4,)"
                        R"("first_pass":4,"units_seen_twice":0,"first_pass_yield":1.0})"),
            std::string::npos)
      << output;
}

}  // namespace
}  // namespace palimbo
