// A made-up sysfs tree of serial ports, for the scans that walk the real one.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace palimbo::testing {

struct Tty {
  std::string Name;
  std::string Device;          // below devices/; empty for a tty without one
  std::string Product;         // of that device; empty where it is not on USB
  std::string Subsystem = {};  // bus of the tty's device; empty for none
  std::string Latency = {};    // the latency_timer file of the tty's device; empty for none
};

// The tty's "device" link leads to its port, one folder below the device with the product.
inline void AddTty(const std::filesystem::path& Root, const Tty& T) {
  namespace fs = std::filesystem;
  fs::create_directories(Root / "class/tty" / T.Name);
  if (T.Device.empty()) return;
  const fs::path port = Root / "devices" / T.Device / "port";
  fs::create_directories(port);
  fs::create_directory_symlink("../../../devices/" + T.Device + "/port",
                               Root / "class/tty" / T.Name / "device");
  if (!T.Product.empty()) std::ofstream(Root / "devices" / T.Device / "product") << T.Product;
  if (!T.Subsystem.empty()) {
    fs::create_directories(Root / "bus" / T.Subsystem);
    fs::create_directory_symlink(fs::relative(Root / "bus" / T.Subsystem, port),
                                 port / "subsystem");
  }
  if (!T.Latency.empty()) std::ofstream(port / "latency_timer") << T.Latency << '\n';
}

}  // namespace palimbo::testing
