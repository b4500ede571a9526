#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "adapter/port_report.h"
#include "support/temp_file.h"
#include "sysfs_tree.h"

namespace palimbo {
namespace {

namespace fs = std::filesystem;
using testing::AddTty;
using testing::TempDir;

TEST(ReportSerialPorts, ListsHardwarePortsWithDescriptionLatencyAndHolders) {
  TempDir root;
  const fs::path sys = fs::path(root.Path) / "sys", dev = fs::path(root.Path) / "dev",
                 proc = fs::path(root.Path) / "proc";
  AddTty(sys, {"ttyUSB0", "usb1/1-1", "KV Kestrolar 12", "usb-serial", "16"});
  AddTty(sys, {"ttyACM0", "usb1/1-2", "Arduino Uno", "usb", ""});
  AddTty(sys, {"ttyS0", "platform/serial8250", "", "platform", ""});  // a UART that may not exist
  AddTty(sys, {"tty1", "", "", "", ""});                              // a virtual console
  fs::create_directories(dev);
  for (const char* name : {"ttyUSB0", "ttyACM0", "ttyS0", "tty1"}) std::ofstream(dev / name);
  // Another program with the controller's port open, and this process, which never counts.
  fs::create_directories(proc / "4242/fd");
  std::ofstream(proc / "4242/comm") << "minicom\n";
  fs::create_symlink(dev / "ttyUSB0", proc / "4242/fd/3");
  const fs::path self = proc / std::to_string(getpid());
  fs::create_directories(self / "fd");
  fs::create_symlink(dev / "ttyACM0", self / "fd/5");

  const auto ports = ReportSerialPorts({sys.string(), dev.string(), proc.string()});
  ASSERT_EQ(ports.size(), 2u);
  EXPECT_EQ(ports[0].Port, (dev / "ttyACM0").string());
  EXPECT_EQ(ports[0].UsbDescription, "Arduino Uno");
  EXPECT_FALSE(ports[0].Controller);
  EXPECT_FALSE(ports[0].LatencyTimerMs.has_value());
  EXPECT_TRUE(ports[0].HeldBy.empty());
  EXPECT_EQ(ports[1].Port, (dev / "ttyUSB0").string());
  EXPECT_TRUE(ports[1].Controller);
  EXPECT_EQ(ports[1].LatencyTimerMs, 16);
  EXPECT_EQ(ports[1].HeldBy, std::vector<std::string>{"minicom (pid 4242)"});
}

struct AccessCase {
  const char* Name;
  DeviceAccess Device;
  int64_t Uid;
  std::vector<int64_t> Gids;
  bool Allowed;
};

const AccessCase kAccess[] = {
    {"RootAlways", {0000, 0, 20}, 0, {0}, true},
    {"GroupDialout", {0660, 0, 20}, 1000, {1000, 20}, true},
    {"NotInTheGroup", {0660, 0, 20}, 1000, {1000}, false},
    {"Others", {0666, 0, 20}, 1000, {1000}, true},
    {"OwnerReadOnly", {0460, 1000, 20}, 1000, {20}, false},  // the owner's bits decide alone
    {"GroupWriteOnly", {0620, 0, 20}, 1000, {20}, false},
    {"UaccessOwner", {0600, 1000, 20}, 1000, {1000}, true},
};

TEST(MayReadAndWrite, OwnerThenGroupThenOthers) {
  for (const AccessCase& c : kAccess) {
    EXPECT_EQ(MayReadAndWrite(c.Device, c.Uid, c.Gids), c.Allowed) << c.Name;
  }
}

TEST(AccessFix, UdevRuleForControllersGroupForAll) {
  EXPECT_NE(AccessFix(true, "dialout").find("70-palimbo-kestrolar.rules"), std::string::npos);
  EXPECT_NE(AccessFix(true, "dialout").find("usermod -aG dialout"), std::string::npos);
  EXPECT_EQ(AccessFix(false, "uucp").find("udev"), std::string::npos);
  EXPECT_NE(AccessFix(false, "uucp").find("usermod -aG uucp"), std::string::npos);
}

}  // namespace
}  // namespace palimbo
