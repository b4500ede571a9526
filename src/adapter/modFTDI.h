#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "adapter/d2xx_library.h"
#include "adapter/port_selection.h"

namespace palimbo {

/// Finds the COM port of a controller's USB adapter through the vendor's D2XX library.
///
/// The library is bound at the first scan that reaches it and then kept; a scan that cannot
/// bind it reports that and leaves nothing behind, so the next scan tries again.
class modFTDI {
 public:
  /// `LibraryPath` is what the binding loads, normally `d2xx::kLibraryName`.
  explicit modFTDI(std::string LibraryPath) : libraryPath_(std::move(LibraryPath)) {}

  /// Walks the adapters the library lists and returns the COM number of the accepted one with
  /// the highest index, 0 when none was accepted.
  int32_t ScanForAdapter();

  /// Description of the adapter accepted last, in its own case; never cleared.
  const std::string& AdapterDescription() const { return adapterDescription_; }
  /// True when the last scan stopped because the library was out of reach.
  bool FtdiLibraryMissing() const { return ftdiLibraryMissing_; }
  /// Every adapter the last scan accepted, in the order of the walk, with its COM number.
  const std::vector<std::pair<int32_t, std::string>>& Accepted() const { return accepted_; }

 private:
  std::string libraryPath_;
  std::unique_ptr<d2xx::Library> library_;
  std::string adapterDescription_;
  bool ftdiLibraryMissing_ = false;
  std::vector<std::pair<int32_t, std::string>> accepted_;
};

/// The scanner with COM numbers: modFTDI over the vendor library at a given path.
class D2xxAdapterScanner final : public AdapterScanner {
 public:
  explicit D2xxAdapterScanner(std::string LibraryPath) : module_(std::move(LibraryPath)) {}
  AdapterScanResult ScanForAdapter() override;

 private:
  modFTDI module_;
};

}  // namespace palimbo
