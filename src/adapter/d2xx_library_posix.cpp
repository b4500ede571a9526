#include <dlfcn.h>

#include "adapter/d2xx_library.h"
#include "adapter/d2xx_loader.h"

namespace palimbo::d2xx {

const char* const kLibraryName = "libftd2xx.so";

namespace loader {

void* Open(const std::string& Path) {
  // RTLD_NOW: a library that cannot be used whole fails here, not inside a scan.
  return dlopen(Path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* Find(void* Module, const char* Name) {
  return dlsym(Module, Name);
}

void Close(void* Module) {
  dlclose(Module);
}

}  // namespace loader
}  // namespace palimbo::d2xx
