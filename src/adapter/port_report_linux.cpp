#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "adapter/controller_family.h"
#include "adapter/port_report.h"
#include "adapter/sysfs_scanner.h"

namespace palimbo {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> FirstLineOf(const fs::path& File) {
  std::ifstream in(File);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  return line;
}

// A tty with a driver behind it; the legacy ports of the platform's UART driver are listed
// whether or not a UART is there, so they count only when they are on a bus of their own.
bool IsHardwareTty(const fs::path& TtyEntry) {
  std::error_code ec;
  const fs::path device = fs::canonical(TtyEntry / "device", ec);
  if (ec) return false;
  const fs::path subsystem = fs::canonical(device / "subsystem", ec);
  return ec || subsystem.filename() != "platform";
}

std::optional<int32_t> LatencyTimerOf(const fs::path& TtyEntry) {
  const auto text = FirstLineOf(TtyEntry / "device" / "latency_timer");
  if (!text) return std::nullopt;
  try {
    return std::stoi(*text);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// Programs other than this one with the device open, as /proc tells them; the processes of
// other users stay hidden from a user without the right to look.
std::vector<std::string> HoldersOf(const fs::path& Proc, const fs::path& Device) {
  std::vector<std::string> holders;
  std::error_code ec;
  const std::string self = std::to_string(::getpid());
  for (fs::directory_iterator pid(Proc, ec), end; !ec && pid != end; pid.increment(ec)) {
    const std::string name = pid->path().filename().string();
    if (name == self || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code fdError;
    for (fs::directory_iterator fd(pid->path() / "fd", fdError), fdEnd; !fdError && fd != fdEnd;
         fd.increment(fdError)) {
      std::error_code linkError;
      if (fs::read_symlink(fd->path(), linkError) != Device) continue;
      holders.push_back(FirstLineOf(pid->path() / "comm").value_or("?") + " (pid " + name + ")");
      break;
    }
  }
  return holders;
}

std::vector<int64_t> OwnGroups() {
  std::vector<gid_t> groups(static_cast<size_t>(std::max(::getgroups(0, nullptr), 0)));
  groups.resize(static_cast<size_t>(
      std::max(::getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
  std::vector<int64_t> gids(groups.begin(), groups.end());
  gids.push_back(::getegid());
  return gids;
}

std::string GroupNameOf(int64_t Gid) {
  const group* entry = ::getgrgid(static_cast<gid_t>(Gid));
  return entry != nullptr ? entry->gr_name : std::to_string(Gid);
}

}  // namespace

std::vector<SerialPortReport> ReportSerialPorts(const PortSystemView& View) {
  std::vector<SerialPortReport> ports;
  std::error_code ec;
  const fs::path classDir = fs::path(View.Sysfs) / "class" / "tty";
  const fs::path top = fs::weakly_canonical(View.Sysfs, ec);
  const std::vector<int64_t> gids = OwnGroups();
  for (fs::directory_iterator it(classDir, ec), end; !ec && it != end; it.increment(ec)) {
    if (!IsHardwareTty(it->path())) continue;
    SerialPortReport port;
    const fs::path device = fs::path(View.Dev) / it->path().filename();
    port.Port = device.string();
    port.UsbDescription = UsbProductOf(top, it->path()).value_or("");
    port.Controller = IsFamilyDescription(port.UsbDescription);
    port.LatencyTimerMs = LatencyTimerOf(it->path());
    struct stat info {};
    if (::stat(port.Port.c_str(), &info) == 0) {
      port.MayOpen =
          MayReadAndWrite({info.st_mode & 0777u, info.st_uid, info.st_gid}, ::geteuid(), gids);
      if (!port.MayOpen) port.Fix = AccessFix(port.Controller, GroupNameOf(info.st_gid));
    } else {
      port.Fix = "no device file " + port.Port;
    }
    port.HeldBy = HoldersOf(View.Proc, device);
    ports.push_back(std::move(port));
  }
  std::sort(ports.begin(), ports.end(),
            [](const SerialPortReport& a, const SerialPortReport& b) { return a.Port < b.Port; });
  return ports;
}

}  // namespace palimbo
