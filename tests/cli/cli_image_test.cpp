// palimbo-cli info and hex2bin, run as the real program.
#include <filesystem>
#include <regex>

#include <gtest/gtest.h>

#include "support/process.h"
#include "support/temp_file.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;
using testing::WriteTempFile;

struct Case {
  std::vector<std::string> Args;  // "@name" stands for a file in the test's folder
  int Status;
  std::string Out;       // regular expression the whole stdout must match
  std::string Err;       // regular expression somewhere in stderr
  std::string Bin = "";  // what hex2bin must leave in out.bin
};

TEST(CliImage, StatusOutputAndImage) {
  // good.hex: 17 bytes whose CRC is 6800; marked.hex: 513 bytes, CRC 10157, three pages.
  const fs::path dir =
      fs::path(WriteTempFile("good.hex", ":02000000AABB99\r\n:0100100011DE\r\n:00000001FF\r\n"))
          .parent_path();
  WriteTempFile("marked.hex", ":000000FF01\r\n:0102000055A8\r\n");
  WriteTempFile("bad.hex", ":02000000AABB99\r\n:0100100011DF\r\n");
  // other.hex: a linear address of another memory map, and data behind the end of file.
  WriteTempFile("other.hex",
                ":020000040800F2\r\n:0100000055AA\r\n:00000001FF\r\n:01000100AA54\r\n");
  const std::string linear =
      "line 1: extended linear address 0x0800 \\(type 4\\): its data land at their 16-bit "
      "addresses";
  const std::string behind =
      "line 4: data behind the end-of-file record: they are read into the image";
  const std::string hint = "; the file was probably built for another target\n";
  const std::string warned =
      "warning: \\S+other.hex " + linear + hint + "warning: \\S+other.hex " + behind + hint;
  // The warnings go to stderr alone, never into the run's log.
  const std::string noWarning = "(?![\\s\\S]*warning)[\\s\\S]*read once for the whole run[\\s\\S]*";
  const std::string noPort = "/dev/palimbo-no-such-port";
  const std::string bin17 = std::string("\xAA\xBB", 2) + std::string(14, '\0') + "\x11";
  // clang-format off
  const std::vector<Case> cases = {
      {{"info", "--json", "@good.hex"}, 0, R"(\{"length":17,"crc":6800,"encrypted":false,"pages":1\}\n)", "^$"},
      {{"info", "@marked.hex", "--json"}, 0, R"(\{"length":513,"crc":10157,"encrypted":true,"pages":3\}\n)", "^$"},
      {{"info", "--json", "@bad.hex"}, 2, R"(\{"error":"line 2: checksum mismatch"\}\n)", "line 2: checksum mismatch"},
      {{"info", "@good.hex"}, 0, R"([\s\S]*Length: +17 bytes\n[\s\S]*CRC: +0x1A90 \(6800\)\nEncrypted: +no\nPages: +1 [\s\S]*)", "^$"},
      {{"info", "@other.hex"}, 0, R"([\s\S]*Pages: +1 of 256 bytes\nNote: +)" + linear + "\nNote: +" + behind + "\n", "^$"},
      {{"info", "--json", "@other.hex"}, 0, R"(\{"length":2,"crc":19421,"encrypted":false,"pages":1,"notes":\[")" + linear + R"(",")" + behind + "\"\\]\\}\n", "^$"},
      {{"hex2bin", "@other.hex", "@out.bin"}, 0, "wrote 2 bytes to .*out.bin\n", "^$", "\x55\xAA"},
      {{"verify", "--port", noPort, "@other.hex"}, 1, noWarning, warned},
      {{"flash", "--json", "--port", noPort, "@other.hex"}, 1, noWarning, warned},
      {{"info", "@missing.hex"}, 2, "", "cannot open file: No such file or directory"},
      {{"info"}, 2, "", "FILE is required"},
      {{"info", "--bogus", "@good.hex"}, 2, "", "not expected: --bogus"},
      {{"info", "--help"}, 0, R"(Usage: palimbo-cli info [\s\S]*)", "^$"},
      {{"hex2bin", "@good.hex"}, 2, "", "OUT is required"},
      {{"hex2bin", "@bad.hex", "@out.bin"}, 2, "", "line 2: checksum mismatch"},
      {{"hex2bin", "@good.hex", "@out.bin"}, 0, "wrote 17 bytes to .*out.bin\n", "^$", bin17},
      {{"hex2bin", "@marked.hex", "@out.bin"}, 0, "wrote 513 .*\n", "^$", std::string(512, '\0') + "\x55"},
      {{"hex2bin", "@good.hex", "@no/such/dir/out.bin"}, 1, "", "cannot write .*: No such file or directory"},
      {{"--version"}, 0, "palimbo-cli [0-9.]+\n", "^$"},
      {{"frobnicate"}, 2, "", "unknown command 'frobnicate'"},
  };
  // clang-format on
  for (const Case& c : cases) {
    fs::remove(dir / "out.bin");
    std::vector<std::string> args = {PALIMBO_CLI};
    for (const auto& arg : c.Args)
      args.push_back(arg[0] == '@' ? (dir / arg.substr(1)).string() : arg);
    const std::string errFile = (dir / "stderr").string();
    testing::Process cli(args, errFile);
    const int status = cli.Wait();
    const std::string err = testing::ReadAll(errFile);
    const std::string name = ::testing::PrintToString(c.Args);
    EXPECT_EQ(status, c.Status) << name << "\n" << err;
    EXPECT_TRUE(std::regex_match(cli.Output, std::regex(c.Out))) << name << "\n" << cli.Output;
    EXPECT_TRUE(std::regex_search(err, std::regex(c.Err))) << name << "\n" << err;
    // A bad file leaves no output behind.
    const std::string bin = testing::ReadAll(dir / "out.bin");
    EXPECT_EQ(fs::exists(dir / "out.bin"), !c.Bin.empty()) << name;
    EXPECT_EQ(bin, c.Bin) << name;
  }
}

}  // namespace
}  // namespace palimbo
