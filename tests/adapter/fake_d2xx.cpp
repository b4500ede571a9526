#include "fake_d2xx.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr unsigned long kOk = 0, kInvalidHandle = 1, kDeviceNotFound = 2, kDeviceNotOpened = 3,
                        kInvalidParameter = 6;

struct Device {
  FakeD2xxDevice setup;
  std::string description;
  bool open = false;
};

// A vendor library keeps its devices in process-wide state, and so does its stand-in.
struct State {
  std::vector<Device> devices;
  long reportedCount = 0;
  unsigned long countStatus = kOk;
  FakeD2xxCounters counters{};
} g;

unsigned long Opened(Device& D, void** Handle) {
  if (D.open) return kDeviceNotOpened;
  D.open = true;
  *Handle = &D;
  return kOk;
}

// The device of a handle that is open; any other handle is the caller's fault.
Device* DeviceOf(void* Handle) {
  for (auto& device : g.devices) {
    if (&device == Handle && device.open) return &device;
  }
  ++g.counters.BadCalls;
  return nullptr;
}

}  // namespace

extern "C" {

void fake_d2xx_set_devices(const FakeD2xxDevice* Devices, int Count, long ReportedCount,
                           unsigned long CountStatus) {
  g = State{{}, ReportedCount < 0 ? Count : ReportedCount, CountStatus, {}};
  for (int i = 0; i < Count && i < kFakeD2xxMaxDevices; ++i) {
    g.devices.push_back({Devices[i], Devices[i].Description});
  }
}

void fake_d2xx_get_counters(FakeD2xxCounters* Out) {
  *Out = g.counters;
  for (const auto& device : g.devices) Out->OpenHandles += device.open ? 1 : 0;
}

unsigned long FT_ListDevices(void* Arg1, void* Arg2, unsigned long Flags) {
  ++g.counters.ListCalls;
  if (Flags == 0x80000000UL && Arg2 == nullptr) {
    *static_cast<unsigned long*>(Arg1) = static_cast<unsigned long>(g.reportedCount);
    return g.countStatus;
  }
  if (Flags != 0x40000002UL) return ++g.counters.BadCalls, kInvalidParameter;
  const auto index = reinterpret_cast<uintptr_t>(Arg1);
  if (index >= g.devices.size() || g.devices[index].setup.DescriptionFails) return kDeviceNotFound;
  // The caller's buffer holds 100 bytes; a longer description fills it without a NUL.
  const std::string& text = g.devices[index].description;
  const size_t length = text.size() < 100 ? text.size() : 100;
  std::memcpy(Arg2, text.data(), length);
  if (!g.devices[index].setup.NoNul && length < 100) static_cast<char*>(Arg2)[length] = '\0';
  return kOk;
}

unsigned long FT_OpenEx(void* Arg1, unsigned long Flags, void** Handle) {
  if (Flags != 0x2UL) return ++g.counters.BadCalls, kInvalidParameter;
  for (size_t i = 0; i < g.devices.size(); ++i) {
    if (g.devices[i].description != static_cast<const char*>(Arg1)) continue;
    ++g.counters.OpenEx[i];
    return g.devices[i].setup.OpenExFails ? kDeviceNotOpened : Opened(g.devices[i], Handle);
  }
  return kDeviceNotFound;
}

unsigned long FT_Open(int DeviceNumber, void** Handle) {
  if (DeviceNumber < 0 || static_cast<size_t>(DeviceNumber) >= g.devices.size()) {
    return kDeviceNotFound;
  }
  Device& device = g.devices[DeviceNumber];
  ++g.counters.Open[DeviceNumber];
  return device.setup.OpenFails ? kDeviceNotOpened : Opened(device, Handle);
}

unsigned long FT_GetComPortNumber(void* Handle, long* ComPortNumber) {
  const Device* device = DeviceOf(Handle);
  if (device == nullptr) return kInvalidHandle;
  if (device->setup.NumberFails) return kDeviceNotFound;
  *ComPortNumber = device->setup.ComNumber;
  return kOk;
}

#ifndef FAKE_D2XX_WITHOUT_CLOSE
unsigned long FT_Close(void* Handle) {
  Device* device = DeviceOf(Handle);
  if (device == nullptr) return kInvalidHandle;
  device->open = false;
  return kOk;
}
#endif
}
