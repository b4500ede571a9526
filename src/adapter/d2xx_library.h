#pragma once

#include <memory>
#include <string>

namespace palimbo::d2xx {

// The vendor's D2XX types. `unsigned long` and `long` are 32 bits on Windows and 64 bits on
// Linux, exactly as the vendor's own library takes them on each.
using FT_STATUS = unsigned long;
using FT_HANDLE = void*;
using DWORD = unsigned long;
using LONG = long;

inline constexpr DWORD FT_LIST_NUMBER_ONLY = 0x80000000;
inline constexpr DWORD FT_LIST_BY_INDEX = 0x40000000;
inline constexpr DWORD FT_OPEN_BY_DESCRIPTION = 0x00000002;
inline constexpr FT_STATUS FT_OK = 0;

/// The file name under which the vendor ships the library on this platform.
extern const char* const kLibraryName;

/// The adapter vendor's D2XX library, bound at run time with the five calls the scan makes.
///
/// Loading binds every entry point at once, so a loaded library can always be called; the
/// library stays loaded for as long as this object lives.
class Library {
 public:
  /// Loads the library at `Path` (a file name alone uses the system's search). Returns nullptr
  /// when the library cannot be loaded or lacks one of the five entry points.
  static std::unique_ptr<Library> Load(const std::string& Path);
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  FT_STATUS FT_ListDevices(void* Arg1, void* Arg2, DWORD Flags) const;
  FT_STATUS FT_OpenEx(void* Arg1, DWORD Flags, FT_HANDLE* Handle) const;
  FT_STATUS FT_Open(int DeviceNumber, FT_HANDLE* Handle) const;
  FT_STATUS FT_GetComPortNumber(FT_HANDLE Handle, LONG* ComPortNumber) const;
  FT_STATUS FT_Close(FT_HANDLE Handle) const;

 private:
  struct Binding;  // the platform's module handle and the entry points found in it
  explicit Library(std::unique_ptr<Binding> Bound);
  std::unique_ptr<Binding> bound_;
};

}  // namespace palimbo::d2xx
