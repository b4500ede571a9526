// The test double of the vendor's D2XX library: the five calls over adapters a test sets, with
// a record of the calls made on them.
#pragma once

struct FakeAdapter {
  const char* Description = "";
  long ComNumber = 0;
  // The calls that fail for it: 'e' FT_OpenEx, 'o' FT_Open, 'q' the number query.
  const char* Fails = "";
};

// Replaces the adapters and clears the record.
void fake_d2xx_set(const FakeAdapter* Adapters, int Count);
// One word a call: "e2", "o2", "q2", "c2" for FT_OpenEx, FT_Open, the number query and FT_Close
// on index 2; "!" for a call the vendor's library would refuse.
const char* fake_d2xx_calls();
