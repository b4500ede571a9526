#include <gtest/gtest.h>

#include <filesystem>
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

}  // namespace
}  // namespace palimbo::testing
