// The test double of the vendor's D2XX library: a shared library with the five calls over a
// device list that a test sets, plus counters of what the scan asked for.
#pragma once

extern "C" {

struct FakeD2xxDevice {
  const char* Description = "";
  int NoNul = 0;             // write the description without a closing NUL
  int DescriptionFails = 0;  // the description call fails for this index
  int OpenExFails = 0;
  int OpenFails = 0;
  int NumberFails = 0;  // FT_GetComPortNumber fails
  long ComNumber = 0;
};

enum { kFakeD2xxMaxDevices = 16 };

struct FakeD2xxCounters {
  int ListCalls;
  int OpenEx[kFakeD2xxMaxDevices];  // by the index whose description was asked for
  int Open[kFakeD2xxMaxDevices];
  int OpenHandles;  // opened and not closed again
  int BadCalls;     // flags or arguments the library would refuse
};

// Replaces the device list and clears the counters. `ReportedCount` below 0 reports `Count`;
// the count call returns `CountStatus`.
void fake_d2xx_set_devices(const FakeD2xxDevice* Devices, int Count, long ReportedCount,
                           unsigned long CountStatus);
void fake_d2xx_get_counters(FakeD2xxCounters* Out);
}
