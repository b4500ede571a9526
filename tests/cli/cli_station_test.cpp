// flash --station and --record: module after module, the record, and what a shift brings.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "frames/crc16.h"
#include "support/process.h"
#include "support/ser2net.h"
#include "support/temp_file.h"
#include "support/upload_run.h"

namespace palimbo {
namespace {

using testing::Process;
using testing::ReadAll;
using testing::WriteTempFile;

std::vector<std::string> Lines(const std::string& Path) {
  std::ifstream in(Path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string Sha256Of(const std::string& Path) {
  FILE* sum = popen(("sha256sum " + Path).c_str(), "r");
  char digest[65] = {};
  EXPECT_EQ(std::fread(digest, 1, 64, sum), 64u);
  pclose(sum);
  return digest;
}

TEST(Station, FlashesModuleAfterModuleFromOneReadAndRecordsEach) {
  const std::string image = testing::TestImage(1500);
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(image));
  const std::string sha = Sha256Of(file);
  std::string approved = sha;
  for (char& c : approved) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  // A line left by another station stays; one cut short by a crash is closed, not glued to.
  const std::string record = WriteTempFile("record.jsonl", "{\"other\":1}\n{\"torn\":");
  // Each rebooted module is replaced by a blank one long enough later for Ctrl-C to fall
  // between modules.
  Process module({PALIMBO_CLI, "simulate", "--replace-after-ms", "2500"},
                 WriteTempFile("simulate.err", ""));
  const std::string port = module.FirstLine(10000);
  Process station({PALIMBO_CLI, "flash", "--station", "--record", record, "--expect-sha256",
                   approved, "--port", port, file},
                  WriteTempFile("flash.err", ""));
  ASSERT_TRUE(station.WaitForText("module 1: verified", 60000)) << station.Output;
  // The file goes away during the shift: the run took its image at the start.
  std::filesystem::remove(file);
  ASSERT_TRUE(station.WaitForText("module 2: verified", 60000)) << station.Output;
  EXPECT_NE(station.Output.find("; 2 verified, 0 unverified, 0 failed\n"), std::string::npos);
  station.Signal(SIGINT);
  EXPECT_EQ(station.Wait(), 0) << station.Output;
  EXPECT_NE(station.Output.find("station: 2 modules, 2 verified"), std::string::npos)
      << station.Output;
  EXPECT_NE(station.Output.find(" read once for the whole run: 1500 bytes"), std::string::npos);

  const std::vector<std::string> lines = Lines(record);
  ASSERT_EQ(lines.size(), 4u) << ReadAll(record);
  EXPECT_EQ(lines[0], "{\"other\":1}");
  EXPECT_EQ(lines[1], "{\"torn\":");
  char crc[8];
  std::snprintf(crc, sizeof crc, "%04X", static_cast<unsigned>(Crc16Of(image)));
  for (int m = 1; m <= 2; ++m) {
    const auto line = nlohmann::json::parse(lines[m + 1]);
    EXPECT_EQ(line["module"], m);
    EXPECT_EQ(line["port"], port);
    EXPECT_EQ(line["file"], file);
    EXPECT_EQ(line["file_bytes"], image.size());
    EXPECT_EQ(line["file_crc"], crc);
    EXPECT_EQ(line["file_sha256"], sha);
    EXPECT_EQ(line["outcome"], "verified");
    EXPECT_EQ(line["version"], PALIMBO_VERSION);
    EXPECT_FALSE(line["host"].get<std::string>().empty());
    EXPECT_EQ(line["time"].get<std::string>().size(), 20u) << line["time"];
    EXPECT_GT(line["seconds"].get<double>(), 0.5);
  }
}

// A port that goes away while the station waits for a module (the serial server restarts) is
// no module: the station waits for it and goes on.
TEST(Station, ALostPortIsNoModule) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(300)));
  const std::string record = WriteTempFile("record.jsonl", "");
  Process module({PALIMBO_CLI, "simulate", "--replace-after-ms", "6000"},
                 WriteTempFile("simulate.err", ""));
  testing::Ser2net server({module.FirstLine(10000)});
  const std::string url = server.Url(0, true);
  Process station(
      {PALIMBO_CLI, "flash", "--station", "--count", "2", "--record", record, "--port", url, file},
      WriteTempFile("flash.err", ""));
  ASSERT_TRUE(station.WaitForText("module 1: verified", 60000)) << station.Output;
  // Lost while the station polls for the next module, not before it opens the port again.
  const size_t polling = station.Output.size();
  for (int i = 0;
       i < 100 && station.Output.find("Entering bootloader", polling) == std::string::npos; ++i) {
    station.WaitForText("\x01", 100);
  }
  server.Server->Signal(SIGKILL);
  server.Server->Wait();
  ASSERT_TRUE(station.WaitForText("; waiting for the port to come back", 20000)) << station.Output;
  // Looked for in vain a few times.
  sleep(2);
  server.Start();
  EXPECT_EQ(station.Wait(), 0) << station.Output;
  EXPECT_NE(station.Output.find("port " + url + " is back; waiting for the next module"),
            std::string::npos)
      << station.Output;
  EXPECT_NE(station.Output.find("station: 2 modules, 2 verified, 0 unverified, 0 failed"),
            std::string::npos)
      << station.Output;
  EXPECT_EQ(Lines(record).size(), 2u) << ReadAll(record);
}

// What is refused before the first module: the station counts nothing, records nothing.
TEST(Station, RefusalsBeforeTheFirstModule) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(64)));
  const std::string missing = (testing::TestFolder() / "gone.hex").string();
  const std::string noPort = "/dev/palimbo-no-such-port";
  // Another release's digest may differ in its last digit alone.
  std::string otherSha = Sha256Of(file);
  otherSha.back() = otherSha.back() == '0' ? '1' : '0';
  struct Row {
    std::vector<std::string> Args;
    int Status;
    std::string Message;
  } const rows[] = {
      {{"--port", noPort, missing}, 2, "cannot open file: No such file or directory"},
      {{"--port", noPort, "--expect-sha256", otherSha, file}, 2, "is not the approved " + otherSha},
      {{"--port", noPort, "--expect-sha256", "12ab", file}, 2, "'12ab' is no SHA-256"},
      {{"--port", noPort, "--expect-sha256", otherSha + "0", file}, 2, "0' is no SHA-256"},
      {{"--port", noPort, "--expect-sha256", otherSha.substr(1), file}, 2, "' is no SHA-256"},
      {{"--port", "rfc2217://rack7", file}, 2, "'rfc2217://rack7' has no port"},
      {{"--port", "socket://:3001", file}, 2, "'socket://:3001' has no host"},
      {{"--port", "rfc2217://rack7:65536", file}, 2, "not from 1 to 65535"},
      {{"--port", "socket://[::1:3001", file}, 2, "'socket://[::1:3001'"},
      {{"--port", "socket://a b:3001", file}, 2, "'socket://a b:3001'"},
      {{"--port", noPort, file}, 1, "cannot open port " + noPort + ": No such file"},
  };
  for (const Row& row : rows) {
    const std::string record = WriteTempFile("record.jsonl", "");
    const std::string err = WriteTempFile("flash.err", "");
    std::vector<std::string> args = {PALIMBO_CLI, "flash",    "--station", "--count",
                                     "200",       "--record", record};
    args.insert(args.end(), row.Args.begin(), row.Args.end());
    Process flash(args, err);
    EXPECT_EQ(flash.Wait(), row.Status) << row.Args[1];
    EXPECT_NE(ReadAll(err).find(row.Message), std::string::npos) << ReadAll(err);
    EXPECT_EQ(flash.Output.find("module 1"), std::string::npos) << flash.Output;
    EXPECT_EQ(ReadAll(record), "");
  }
}

// A record that cannot take a line fails the run, whole or at a station, and leaves no part of
// a line behind.
TEST(Record, ALineThatIsNotWrittenFailsTheRun) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(64)));
  Process modules({PALIMBO_CLI, "simulate", "--count", "7", "--replace-after-ms", "500"},
                  WriteTempFile("simulate.err", ""));
  const std::vector<std::string> ports = modules.Lines(10000);
  ASSERT_EQ(ports.size(), 7u);
  // Room for this much and no more: the line falls short, and its part must go again.
  const std::string before(200, 'x');
  const std::string small = WriteTempFile("small.jsonl", before + "\n");
  Process single(
      {PALIMBO_CLI, "flash", "--json", "--record", "/dev/full", "--port", ports[0], file},
      WriteTempFile("single.err", ""));
  Process station({PALIMBO_CLI, "flash", "--json", "--station", "--count", "3", "--record",
                   "/dev/full", "--port", ports[1], file},
                  WriteTempFile("station.err", ""));
  Process cut({"/bin/sh", "-c",
               "trap '' XFSZ; exec prlimit --fsize=300 " + std::string(PALIMBO_CLI) +
                   " flash --record " + small + " --port " + ports[2] + " " + file},
              WriteTempFile("cut.err", ""));
  // A line whose sync failed may not be on the disk: it goes, so that a re-run adds it once.
  const std::string unsynced = WriteTempFile("unsynced.jsonl", before + "\n");
  Process synced(
      {"/usr/bin/env", "LD_PRELOAD=" PALIMBO_FAILING_SYNC, "ASAN_OPTIONS=verify_asan_link_order=0",
       PALIMBO_CLI, "flash", "--record", unsynced, "--port", ports[3], file},
      WriteTempFile("synced.err", ""));
  // The summary of a station tells a module whose line failed.
  Process table({PALIMBO_CLI, "flash", "--station", "--count", "2", "--record", "/dev/full",
                 "--port", ports[4], "--port", ports[5], file},
                WriteTempFile("table.err", ""));
  // A record moved away under a station takes no more lines into a file nobody finds.
  const std::string moving = WriteTempFile("moving.jsonl", "");
  Process moved({PALIMBO_CLI, "flash", "--station", "--count", "3", "--record", moving, "--port",
                 ports[6], file},
                WriteTempFile("moved.err", ""));
  for (int waited = 0; ReadAll(moving).empty() && waited < 30000; waited += 50) usleep(50'000);
  std::filesystem::rename(moving, moving + ".away");
  EXPECT_EQ(single.Wait(), 1) << single.Output;
  EXPECT_EQ(station.Wait(), 1) << station.Output;
  EXPECT_EQ(cut.Wait(), 1) << cut.Output;
  EXPECT_EQ(synced.Wait(), 1) << synced.Output;
  EXPECT_EQ(ReadAll(unsynced), before + "\n");
  EXPECT_NE(ReadAll(testing::TestFolder() / "synced.err")
                .find("cannot write record file " + unsynced + ": Input/output error"),
            std::string::npos)
      << ReadAll(testing::TestFolder() / "synced.err");
  EXPECT_EQ(table.Wait(), 1) << table.Output;
  for (const int module : {4, 5}) {
    const size_t row = table.Output.find("\n" + ports[module] + " ");
    ASSERT_NE(row, std::string::npos) << table.Output;
    EXPECT_NE(table.Output.find("record not written: cannot write record file /dev/full", row),
              std::string::npos)
        << table.Output;
  }
  EXPECT_EQ(moved.Wait(), 1) << moved.Output;
  EXPECT_EQ(Lines(moving + ".away").size(), 1u);
  EXPECT_NE(ReadAll(testing::TestFolder() / "moved.err")
                .find("the file was deleted or renamed away while the run held it"),
            std::string::npos)
      << ReadAll(testing::TestFolder() / "moved.err");
  for (Process* run : {&single, &station}) {
    std::istringstream lines(run->Output);
    int results = 0;
    for (std::string line; std::getline(lines, line);) {
      const auto object = nlohmann::json::parse(line);
      if (object["type"] != "result") continue;
      ++results;
      EXPECT_EQ(object["outcome"], "verified");
      EXPECT_EQ(object["exit_status"], 1);
      EXPECT_EQ(object["record"].get<std::string>().rfind("not written: cannot write record file "
                                                          "/dev/full: No space left on device",
                                                          0),
                0u)
          << object;
    }
    EXPECT_EQ(results, 1) << run->Output;
  }
  EXPECT_NE(ReadAll(testing::TestFolder() / "station.err").find("the station stops"),
            std::string::npos);
  EXPECT_EQ(ReadAll(small), before + "\n");
  EXPECT_NE(ReadAll(testing::TestFolder() / "cut.err").find("File too large"), std::string::npos)
      << ReadAll(testing::TestFolder() / "cut.err");
}

// A profile runs the station its options would: the same record lines, the same ending; and it
// is the whole of a station.
TEST(Station, AProfileRunsAsItsOptionsWould) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(200)));
  Process modules({PALIMBO_CLI, "simulate", "--count", "3", "--replace-after-ms", "300"},
                  WriteTempFile("simulate.err", ""));
  const std::vector<std::string> ports = modules.Lines(10000);
  ASSERT_EQ(ports.size(), 3u);
  const std::string byOptions = WriteTempFile("options.jsonl", "");
  // The profiles' records, beside them and empty at the start.
  const std::string byProfile = WriteTempFile("profile.jsonl", ""),
                    checked = WriteTempFile("check.jsonl", "");
  Process options({PALIMBO_CLI, "flash", "--station", "--count", "2", "--skip-same", "--record",
                   byOptions, "--expect-sha256", Sha256Of(file), "--port", ports[0], file},
                  WriteTempFile("options.err", ""));
  const auto profile = [&](const std::string& Name, const std::string& Port,
                           const std::string& Keys) {
    return WriteTempFile(Name, R"({"file": "fw.hex", "port": ")" + Port + R"(", )" + Keys + "}");
  };
  const std::string station = profile("station.json", ports[1],
                                      R"("count": 2, "skip-same": true, "record": "profile.jsonl",
                                         "expect-sha256": ")" +
                                          Sha256Of(file) + R"(")");
  Process profiled({PALIMBO_CLI, "flash", "--profile", station}, WriteTempFile("profile.err", ""));
  Process check({PALIMBO_CLI, "verify", "--profile",
                 profile("check.json", ports[2], R"("count": 1, "record": "check.jsonl")")},
                WriteTempFile("check.err", ""));
  EXPECT_EQ(options.Wait(), 0) << options.Output;
  EXPECT_EQ(profiled.Wait(), 0) << profiled.Output;
  EXPECT_NE(profiled.Output.find("station: 2 modules, 2 verified, 0 already current"),
            std::string::npos)
      << profiled.Output;
  // A fresh module holds nothing: the checking station tells it and fails.
  EXPECT_EQ(check.Wait(), 1) << check.Output;
  EXPECT_NE(check.Output.find("station: 1 modules, 0 matching, 1 differing, 0 cannot tell"),
            std::string::npos)
      << check.Output;

  const std::vector<std::string> expected = Lines(byOptions), got = Lines(byProfile);
  ASSERT_EQ(got.size(), 2u);
  ASSERT_EQ(expected.size(), 2u);
  for (size_t i = 0; i < got.size(); ++i) {
    auto line = nlohmann::json::parse(got[i]), want = nlohmann::json::parse(expected[i]);
    for (auto* l : {&line, &want}) {
      for (const char* varies : {"id", "time", "seconds", "port"}) l->erase(varies);
    }
    EXPECT_EQ(line, want);
  }
  EXPECT_NE(ReadAll(checked).find(R"("outcome":"differs")"), std::string::npos) << ReadAll(checked);

  const std::pair<std::vector<std::string>, std::string> refusals[] = {
      {{"flash", "--profile", station, "--port", ports[0]}, "--port beside --profile"},
      {{"verify", "--profile", station}, "'skip-same' writes modules, and verify writes none"}};
  for (const auto& [args, message] : refusals) {
    std::vector<std::string> command{PALIMBO_CLI};
    command.insert(command.end(), args.begin(), args.end());
    const std::string err = WriteTempFile("refused.err", "");
    Process refused(command, err);
    EXPECT_EQ(refused.Wait(), 2);
    EXPECT_NE(ReadAll(err).find(message), std::string::npos) << ReadAll(err);
  }
}

// A barcode scanner at a station: each line names one module, a mis-scan is said and recorded
// nowhere, Ctrl-C ends the wait for the next scan, and every record line has an id of its own.
TEST(Station, EachModuleTakesTheUnitScannedForIt) {
  const std::string file = WriteTempFile("fw.hex", testing::HexOf(testing::TestImage(200)));
  const std::string record = WriteTempFile("record.jsonl", "");
  Process module({PALIMBO_CLI, "simulate", "--replace-after-ms", "300"},
                 WriteTempFile("simulate.err", ""));
  const std::string port = module.FirstLine(10000);
  // The scanner: input that stays open after its lines, as a scanner's does.
  const std::string scans = std::filesystem::path(record).replace_filename("scans");
  std::filesystem::remove(scans);  // one of an earlier run, which no one would open
  ASSERT_EQ(mkfifo(scans.c_str(), 0600), 0);
  const std::string err = WriteTempFile("station.err", "");
  Process station({"/bin/sh", "-c", "exec \"$0\" \"$@\" <" + scans, PALIMBO_CLI, "flash", "--json",
                   "--station", "--count", "3", "--ask-unit", "--unit-pattern", "SN-[0-9]{4}",
                   "--record", record, "--port", port, file},
                  err);
  std::ofstream scanner(scans);
  scanner << "SN-0001\r\n\nsn-2\nSN-0002\n" << std::flush;
  ASSERT_TRUE(station.WaitForText(R"("unit":"SN-0002")", 60000)) << ReadAll(err);
  station.Signal(SIGINT);
  ASSERT_TRUE(station.WaitForText("station: 2 modules", 10000)) << station.Output;
  EXPECT_EQ(station.Wait(), 0) << ReadAll(err);
  for (const char* refused : {"an empty line names no unit; nothing recorded",
                              "unit 'sn-2' does not match the pattern SN-[0-9]{4}; nothing"}) {
    EXPECT_NE(ReadAll(err).find(refused), std::string::npos) << ReadAll(err);
  }
  EXPECT_NE(station.Output.find(R"("type":"result",)"), std::string::npos);
  const std::vector<std::string> lines = Lines(record);
  ASSERT_EQ(lines.size(), 2u) << ReadAll(record);
  std::set<std::string> ids;
  for (size_t m = 0; m < lines.size(); ++m) {
    const auto line = nlohmann::json::parse(lines[m]);
    EXPECT_EQ(line["unit"], m == 0 ? "SN-0001" : "SN-0002");
    EXPECT_EQ(line["outcome"], "verified");
    ids.insert(line["id"].get<std::string>());
  }
  EXPECT_EQ(ids.size(), 2u);
}

}  // namespace
}  // namespace palimbo
