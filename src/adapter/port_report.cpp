#include "adapter/port_report.h"

namespace palimbo {

bool MayReadAndWrite(const DeviceAccess& Device, int64_t Uid, const std::vector<int64_t>& Gids) {
  constexpr uint32_t kReadWrite = 06;
  if (Uid == 0) return true;
  // As the kernel does: the owner's bits for the owner, else the group's for a member, else the
  // others' bits; the first class that applies decides, even when a later one would allow it.
  uint32_t bits = Device.Mode & 07;
  if (Uid == Device.Owner) {
    bits = (Device.Mode >> 6) & 07;
  } else {
    for (const int64_t gid : Gids) {
      if (gid == Device.Group) bits = (Device.Mode >> 3) & 07;
    }
  }
  return (bits & kReadWrite) == kReadWrite;
}

std::string AccessFix(bool Controller, const std::string& GroupName) {
  const std::string group = GroupName.empty() ? "dialout" : GroupName;
  const std::string join = "sudo usermod -aG " + group + " $USER, then log in again";
  if (!Controller) return join;
  return "install the udev rule 70-palimbo-kestrolar.rules (part of the palimbo package) and "
         "plug the adapter in again; or " +
         join;
}

}  // namespace palimbo
