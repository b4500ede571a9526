#include "adapter/d2xx_library.h"

#include "adapter/d2xx_loader.h"

namespace palimbo::d2xx {

// 64-bit Windows has a single calling convention, so the entry points are plain function
// pointers on both platforms.
struct Library::Binding {
  using ListDevicesFn = FT_STATUS (*)(void*, void*, DWORD);
  using OpenExFn = FT_STATUS (*)(void*, DWORD, FT_HANDLE*);
  using OpenFn = FT_STATUS (*)(int, FT_HANDLE*);
  using GetComPortNumberFn = FT_STATUS (*)(FT_HANDLE, LONG*);
  using CloseFn = FT_STATUS (*)(FT_HANDLE);

  explicit Binding(void* Module) : module(Module) {}
  ~Binding() { loader::Close(module); }
  Binding(const Binding&) = delete;
  Binding& operator=(const Binding&) = delete;

  template <typename Fn>
  bool Bind(Fn& Entry, const char* Name) {
    Entry = reinterpret_cast<Fn>(loader::Find(module, Name));
    return Entry != nullptr;
  }

  void* module;
  ListDevicesFn listDevices = nullptr;
  OpenExFn openEx = nullptr;
  OpenFn open = nullptr;
  GetComPortNumberFn getComPortNumber = nullptr;
  CloseFn close = nullptr;
};

std::unique_ptr<Library> Library::Load(const std::string& Path) {
  void* module = loader::Open(Path);
  if (module == nullptr) return nullptr;
  auto bound = std::make_unique<Binding>(module);
  if (!bound->Bind(bound->listDevices, "FT_ListDevices") ||
      !bound->Bind(bound->openEx, "FT_OpenEx") || !bound->Bind(bound->open, "FT_Open") ||
      !bound->Bind(bound->getComPortNumber, "FT_GetComPortNumber") ||
      !bound->Bind(bound->close, "FT_Close")) {
    return nullptr;
  }
  return std::unique_ptr<Library>(new Library(std::move(bound)));
}

Library::Library(std::unique_ptr<Binding> Bound) : bound_(std::move(Bound)) {}
Library::~Library() = default;

FT_STATUS Library::FT_ListDevices(void* Arg1, void* Arg2, DWORD Flags) const {
  return bound_->listDevices(Arg1, Arg2, Flags);
}
FT_STATUS Library::FT_OpenEx(void* Arg1, DWORD Flags, FT_HANDLE* Handle) const {
  return bound_->openEx(Arg1, Flags, Handle);
}
FT_STATUS Library::FT_Open(int DeviceNumber, FT_HANDLE* Handle) const {
  return bound_->open(DeviceNumber, Handle);
}
FT_STATUS Library::FT_GetComPortNumber(FT_HANDLE Handle, LONG* ComPortNumber) const {
  return bound_->getComPortNumber(Handle, ComPortNumber);
}
FT_STATUS Library::FT_Close(FT_HANDLE Handle) const {
  return bound_->close(Handle);
}

}  // namespace palimbo::d2xx
