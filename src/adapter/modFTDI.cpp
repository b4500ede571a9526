#include "adapter/modFTDI.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "adapter/controller_family.h"

namespace palimbo {

using namespace d2xx;

namespace {

constexpr size_t kDescriptionSize = 100;
// The walk counts its indexes in 16 bits.
constexpr int64_t kLastWalkableIndex = INT16_MAX;
// Indexes that get the second open attempt by number.
constexpr int kLastOpenByNumberIndex = 8;

void* IndexArgument(int64_t Index) {
  return reinterpret_cast<void*>(static_cast<uintptr_t>(Index));
}

}  // namespace

int32_t modFTDI::ScanForAdapter() {
  ftdiLibraryMissing_ = false;
  accepted_.clear();
  int32_t result = 0;
  if (library_ == nullptr) library_ = Library::Load(libraryPath_);
  if (library_ == nullptr) {
    ftdiLibraryMissing_ = true;
    return result;
  }

  DWORD count = 0;
  if (library_->FT_ListDevices(&count, nullptr, FT_LIST_NUMBER_ONLY) != FT_OK) return result;
  const int64_t last = int64_t{static_cast<int32_t>(count)} - 1;
  // A count the walk cannot reach is a fault inside the scan, not a status of the library.
  if (last > kLastWalkableIndex) {
    ftdiLibraryMissing_ = true;
    return result;
  }

  for (int64_t index = 0; index <= last; ++index) {
    // One byte past the 100 stays NUL, as it does behind any text handed to a C call.
    std::array<char, kDescriptionSize + 1> buffer{};
    std::memset(buffer.data(), ' ', kDescriptionSize);
    if (library_->FT_ListDevices(IndexArgument(index), buffer.data(),
                                 FT_LIST_BY_INDEX | FT_OPEN_BY_DESCRIPTION) != FT_OK) {
      continue;
    }
    const std::string description(buffer.data(), strnlen(buffer.data(), kDescriptionSize));
    if (!IsFamilyDescription(description)) continue;

    FT_HANDLE adapterHandle = nullptr;
    FT_STATUS status = library_->FT_OpenEx(const_cast<char*>(description.c_str()),
                                           FT_OPEN_BY_DESCRIPTION, &adapterHandle);
    if (status != FT_OK && index <= kLastOpenByNumberIndex) {
      status = library_->FT_Open(static_cast<int>(index), &adapterHandle);
    }
    if (status != FT_OK) continue;

    LONG number = 0;
    const FT_STATUS numberStatus = library_->FT_GetComPortNumber(adapterHandle, &number);
    library_->FT_Close(adapterHandle);
    if (numberStatus != FT_OK) continue;

    result = static_cast<int32_t>(number);
    adapterDescription_ = description;
    accepted_.emplace_back(result, description);
  }
  return result;
}

AdapterScanResult D2xxAdapterScanner::ScanForAdapter() {
  AdapterScanResult scan;
  scan.ComNumber = module_.ScanForAdapter();
  scan.AdapterDescription = module_.AdapterDescription();
  scan.FtdiLibraryMissing = module_.FtdiLibraryMissing();
  for (const auto& [number, description] : module_.Accepted()) {
    if (number > 0) scan.Accepted.push_back({"COM" + std::to_string(number), description});
  }
  return scan;
}

}  // namespace palimbo
