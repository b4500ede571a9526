#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "adapter/sysfs_tree.h"
#include "support/process.h"
#include "support/temp_file.h"

namespace palimbo::testing {
namespace {

namespace fs = std::filesystem;

// Every port of the tree as JSON Lines, in name order; the device files are the system's, so
// made-up ports have none and name that as their fix.
TEST(CliPorts, AllAsJsonLines) {
  TempDir root;
  AddTty(root.Path, {"ttyUSB7", "usb1/1-1", "KV Mini-Kestrolar 3", "usb-serial", "1"});
  AddTty(root.Path, {"ttyACM9", "usb1/1-2", "Arduino Uno", "usb", ""});
  Process cli({PALIMBO_CLI, "ports", "--all", "--json", "--sysfs", root.Path},
              WriteTempFile("stderr", ""));
  EXPECT_EQ(cli.Wait(), 0) << "a controller's adapter is among them";

  std::istringstream lines(cli.Output);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  const auto first = nlohmann::json::parse(line);
  EXPECT_EQ(first["port"], "/dev/ttyACM9");
  EXPECT_EQ(first["controller"], false);
  EXPECT_FALSE(first.contains("latency_timer_ms"));
  ASSERT_TRUE(std::getline(lines, line));
  const auto second = nlohmann::json::parse(line);
  EXPECT_EQ(second["port"], "/dev/ttyUSB7");
  EXPECT_EQ(second["description"], "KV Mini-Kestrolar 3");
  EXPECT_EQ(second["controller"], true);
  EXPECT_EQ(second["latency_timer_ms"], 1);
  EXPECT_EQ(second["may_open"], false);
  EXPECT_EQ(second["fix"], "no device file /dev/ttyUSB7");
  EXPECT_FALSE(std::getline(lines, line));
}

// A port this user may not open: flash says what would give access.
TEST(CliPorts, PermissionDeniedNamesTheFix) {
  if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0) {
    GTEST_SKIP() << "needs root to become another user";
  }
  TempDir dir;
  fs::permissions(dir.Path, fs::perms::all);
  const std::string port = dir.Path + "/ttyLOCKED";
  std::ofstream(port) << "";
  fs::permissions(port, fs::perms::owner_read | fs::perms::owner_write);
  const std::string file = dir.Path + "/fw.hex";
  std::ofstream(file) << ":0100000055AA\r\n";
  fs::permissions(file, fs::perms::all);
  const std::string err = WriteTempFile("stderr", "");
  Process cli({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", PALIMBO_CLI,
               "flash", "--port", port, file},
              err);
  EXPECT_EQ(cli.Wait(), 1);
  const std::string said = testing::ReadAll(err);
  EXPECT_NE(said.find("cannot open port " + port + ": Permission denied"), std::string::npos)
      << said;
  EXPECT_NE(said.find("fix: sudo usermod -aG dialout"), std::string::npos) << said;
}

}  // namespace
}  // namespace palimbo::testing
