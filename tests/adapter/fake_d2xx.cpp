#include "fake_d2xx.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kBufferSize = 100;
constexpr unsigned long kOk = 0;
constexpr unsigned long kInvalidHandle = 1;
constexpr unsigned long kDeviceNotFound = 2;
constexpr unsigned long kDeviceNotOpened = 3;
constexpr unsigned long kInvalidParameter = 6;

struct State {
  std::vector<FakeD2xxDevice> devices;
  std::vector<std::string> descriptions;
  long reportedCount = 0;
  unsigned long countStatus = kOk;
  FakeD2xxCounters counters{};
  bool open[kFakeD2xxMaxDevices] = {};
};

// A vendor library keeps its devices in process-wide state, and so does its stand-in.
State& TheState() {
  static State state;
  return state;
}

void* HandleOf(size_t Index) {
  return reinterpret_cast<void*>(Index + 1);
}

// The device of a handle that is open; any other handle is a caller's fault.
bool IndexOf(void* Handle, size_t* Index) {
  State& s = TheState();
  const auto value = reinterpret_cast<uintptr_t>(Handle);
  if (value == 0 || value > s.devices.size() || !s.open[value - 1]) {
    ++s.counters.BadCalls;
    return false;
  }
  *Index = value - 1;
  return true;
}

unsigned long Opened(size_t Index, void** Handle) {
  State& s = TheState();
  if (s.open[Index]) return kDeviceNotOpened;
  s.open[Index] = true;
  ++s.counters.OpenHandles;
  *Handle = HandleOf(Index);
  return kOk;
}

}  // namespace

extern "C" {

void fake_d2xx_set_devices(const FakeD2xxDevice* Devices, int Count, long ReportedCount,
                           unsigned long CountStatus) {
  State& s = TheState();
  s.devices.assign(Devices, Devices + (Count < kFakeD2xxMaxDevices ? Count : kFakeD2xxMaxDevices));
  s.descriptions.clear();
  for (const auto& device : s.devices) s.descriptions.emplace_back(device.Description);
  s.reportedCount = ReportedCount < 0 ? Count : ReportedCount;
  s.countStatus = CountStatus;
  s.counters = FakeD2xxCounters{};
  for (bool& open : s.open) open = false;
}

void fake_d2xx_get_counters(FakeD2xxCounters* Out) {
  *Out = TheState().counters;
}

unsigned long FT_ListDevices(void* Arg1, void* Arg2, unsigned long Flags) {
  State& s = TheState();
  ++s.counters.ListCalls;
  if (Flags == 0x80000000UL && Arg2 == nullptr) {
    *static_cast<unsigned long*>(Arg1) = static_cast<unsigned long>(s.reportedCount);
    return s.countStatus;
  }
  if (Flags != 0x40000002UL) {
    ++s.counters.BadCalls;
    return kInvalidParameter;
  }
  const auto index = reinterpret_cast<uintptr_t>(Arg1);
  if (index >= s.devices.size() || s.devices[index].DescriptionFails) return kDeviceNotFound;
  const std::string& text = s.descriptions[index];
  const size_t written = text.size() < kBufferSize ? text.size() : kBufferSize;
  std::memcpy(Arg2, text.data(), written);
  if (!s.devices[index].NoNul && written < kBufferSize) static_cast<char*>(Arg2)[written] = '\0';
  return kOk;
}

unsigned long FT_OpenEx(void* Arg1, unsigned long Flags, void** Handle) {
  State& s = TheState();
  if (Flags != 0x2UL) {
    ++s.counters.BadCalls;
    return kInvalidParameter;
  }
  for (size_t i = 0; i < s.devices.size(); ++i) {
    if (s.descriptions[i] != static_cast<const char*>(Arg1)) continue;
    ++s.counters.OpenEx[i];
    return s.devices[i].OpenExFails ? kDeviceNotOpened : Opened(i, Handle);
  }
  return kDeviceNotFound;
}

unsigned long FT_Open(int DeviceNumber, void** Handle) {
  State& s = TheState();
  if (DeviceNumber < 0 || static_cast<size_t>(DeviceNumber) >= s.devices.size()) {
    return kDeviceNotFound;
  }
  ++s.counters.Open[DeviceNumber];
  return s.devices[DeviceNumber].OpenFails ? kDeviceNotOpened : Opened(DeviceNumber, Handle);
}

unsigned long FT_GetComPortNumber(void* Handle, long* ComPortNumber) {
  size_t index = 0;
  if (!IndexOf(Handle, &index)) return kInvalidHandle;
  if (TheState().devices[index].NumberFails) return kDeviceNotFound;
  *ComPortNumber = TheState().devices[index].ComNumber;
  return kOk;
}

#ifndef FAKE_D2XX_WITHOUT_CLOSE
unsigned long FT_Close(void* Handle) {
  size_t index = 0;
  if (!IndexOf(Handle, &index)) return kInvalidHandle;
  TheState().open[index] = false;
  ++TheState().counters.Close;
  --TheState().counters.OpenHandles;
  return kOk;
}
#endif
}
