#include <windows.h>

#include "adapter/d2xx_library.h"
#include "adapter/d2xx_loader.h"

namespace palimbo::d2xx {

const char* const kLibraryName = "FTD2XX.DLL";

namespace loader {

void* Open(const std::string& Path) {
  return LoadLibraryA(Path.c_str());
}

void* Find(void* Module, const char* Name) {
  // Through void*, because FARPROC names no real signature.
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(Module), Name));
}

void Close(void* Module) {
  FreeLibrary(static_cast<HMODULE>(Module));
}

}  // namespace loader
}  // namespace palimbo::d2xx
