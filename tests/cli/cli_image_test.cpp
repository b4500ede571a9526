#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct RunResult {
  int Status = -1;
  std::string Out;
  std::string Err;
};

std::string Slurp(const fs::path& Path) {
  std::ifstream in(Path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class CliImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(::testing::TempDir()) / "palimbo_cli_image";
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    Write("good.hex", ":02000000AABB99\r\n:0100100011DE\r\n:00000001FF\r\n");
    Write("marked.hex", ":000000FF01\r\n:0102000055A8\r\n");
    Write("bad.hex", ":02000000AABB99\r\n:0100100011DF\r\n");
  }
  void TearDown() override { fs::remove_all(dir_); }

  void Write(const std::string& Name, const std::string& Text) {
    std::ofstream(dir_ / Name, std::ios::binary) << Text;
  }

  // Runs the built palimbo-cli with `Args`, where "@name" stands for a file in the test folder.
  RunResult Run(const std::vector<std::string>& Args) {
    std::string command = "'" PALIMBO_CLI "'";
    for (std::string arg : Args) {
      if (arg.starts_with("@")) arg = (dir_ / arg.substr(1)).string();
      command += " '" + arg + "'";
    }
    command += " >'" + (dir_ / "stdout").string() + "' 2>'" + (dir_ / "stderr").string() + "'";
    const int raw = std::system(command.c_str());
    RunResult result;
    result.Status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.Out = Slurp(dir_ / "stdout");
    result.Err = Slurp(dir_ / "stderr");
    return result;
  }

  fs::path dir_;
};

TEST_F(CliImageTest, StatusAndOutput) {
  struct Case {
    std::vector<std::string> Args;
    int Status;
    const char* Out;       // regular expression the whole stdout must match
    const char* Err;       // regular expression somewhere in stderr
    std::string Bin = {};  // what hex2bin must leave in out.bin
  };
  // good.hex: 17 bytes whose CRC is 6800; marked.hex: 513 bytes, CRC 10157, three pages.
  const std::vector<Case> cases = {
      {{"info", "--json", "@good.hex"},
       0,
       R"(\{"length": 17, "crc": 6800, "encrypted": false, "pages": 1\}\n)",
       "^$"},
      {{"info", "@marked.hex", "--json"},
       0,
       R"(\{"length": 513, "crc": 10157, "encrypted": true, "pages": 3\}\n)",
       "^$"},
      {{"info", "--json", "@bad.hex"},
       2,
       R"(\{"error": "line 2: checksum mismatch"\}\n)",
       "line 2: checksum mismatch"},
      {{"info", "@good.hex"},
       0,
       R"([\s\S]*Length: +17 bytes\n[\s\S]*CRC: +0x1A90 \(6800\)\nEncrypted: +no\nPages: +1 [\s\S]*)",
       "^$"},
      {{"info", "@bad.hex"}, 2, "", "line 2: checksum mismatch"},
      {{"info", "@missing.hex"}, 2, "", "cannot open file: No such file or directory"},
      {{"info"}, 2, "", "missing FILE"},
      {{"info", "--bogus", "@good.hex"}, 2, "", "unknown option --bogus"},
      {{"info", "--help"}, 0, R"(Usage: palimbo-cli info [\s\S]*)", "^$"},
      {{"hex2bin", "--help"}, 0, R"(Usage: palimbo-cli hex2bin [\s\S]*)", "^$"},
      {{"hex2bin", "@good.hex"}, 2, "", "missing FILE and OUT"},
      {{"hex2bin", "@bad.hex", "@out.bin"}, 2, "", "line 2: checksum mismatch"},
      {{"hex2bin", "@good.hex", "@out.bin"},
       0,
       "wrote 17 bytes to .*out.bin\n",
       "^$",
       std::string("\xAA\xBB", 2) + std::string(14, '\0') + "\x11"},
      {{"hex2bin", "@marked.hex", "@out.bin"},
       0,
       "wrote 513 .*\n",
       "^$",
       std::string(512, '\0') + "\x55"},
      {{"hex2bin", "@good.hex", "@no/such/dir/out.bin"},
       1,
       "",
       "cannot write .*: No such file or directory"},
  };
  for (const Case& c : cases) {
    fs::remove(dir_ / "out.bin");
    std::string name;
    for (const auto& arg : c.Args) name += arg + " ";
    const RunResult result = Run(c.Args);
    EXPECT_EQ(result.Status, c.Status) << name << "\n" << result.Err;
    EXPECT_TRUE(std::regex_match(result.Out, std::regex(c.Out))) << name << "\n" << result.Out;
    EXPECT_TRUE(std::regex_search(result.Err, std::regex(c.Err))) << name << "\n" << result.Err;
    // A bad file must leave no output behind.
    EXPECT_EQ(fs::exists(dir_ / "out.bin"), !c.Bin.empty()) << name;
    if (!c.Bin.empty()) {
      EXPECT_EQ(Slurp(dir_ / "out.bin"), c.Bin) << name;
    }
  }
}

}  // namespace
