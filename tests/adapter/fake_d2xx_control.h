// Sets up the D2XX test double from a test, through the same library instance that the
// product's binding loads from the same path.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake_d2xx.h"

class FakeD2xx {
 public:
  explicit FakeD2xx(const std::string& Path) : module_(dlopen(Path.c_str(), RTLD_NOW)) {
    EXPECT_NE(module_, nullptr) << dlerror();
    if (module_ == nullptr) return;
    set_ = reinterpret_cast<decltype(set_)>(dlsym(module_, "fake_d2xx_set_devices"));
    get_ = reinterpret_cast<decltype(get_)>(dlsym(module_, "fake_d2xx_get_counters"));
  }
  ~FakeD2xx() {
    if (module_ != nullptr) dlclose(module_);
  }
  FakeD2xx(const FakeD2xx&) = delete;
  FakeD2xx& operator=(const FakeD2xx&) = delete;

  void SetDevices(const std::vector<FakeD2xxDevice>& Devices, long ReportedCount = -1,
                  unsigned long CountStatus = 0) {
    ASSERT_NE(set_, nullptr);
    set_(Devices.data(), static_cast<int>(Devices.size()), ReportedCount, CountStatus);
  }
  FakeD2xxCounters Counters() const {
    FakeD2xxCounters counters{};
    if (get_ != nullptr) get_(&counters);
    return counters;
  }

 private:
  void* module_;
  decltype(&fake_d2xx_set_devices) set_ = nullptr;
  decltype(&fake_d2xx_get_counters) get_ = nullptr;
};
