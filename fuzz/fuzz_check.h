#pragma once

// What every fuzz target needs: a check that stops the run loudly, and the input as a stream.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace palimbo::fuzz {

/// Ends the run with a crash that libFuzzer keeps as a finding.
inline void Require(bool Condition, const char* What) {
  if (Condition) return;
  std::fprintf(stderr, "invariant broken: %s\n", What);
  std::abort();
}

/// Takes bytes from the front of the fuzzer's input; an input used up gives zeros.
class Input {
 public:
  Input(const uint8_t* Data, size_t Size) : data_(Data), size_(Size) {}
  bool Empty() const { return size_ == 0; }
  uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  std::string Take(size_t Count) {
    if (Count > size_) Count = size_;
    std::string bytes(reinterpret_cast<const char*>(data_), Count);
    data_ += Count;
    size_ -= Count;
    return bytes;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace palimbo::fuzz
