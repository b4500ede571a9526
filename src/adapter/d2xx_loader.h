#pragma once

#include <string>

// What loading the vendor library takes from the platform: the rest of the binding is the same
// on each.
namespace palimbo::d2xx::loader {

/// Loads the library at `Path` with all its symbols resolved; nullptr when it cannot.
void* Open(const std::string& Path);
/// The address of the entry point `Name`; nullptr when the library lacks it.
void* Find(void* Module, const char* Name);
void Close(void* Module);

}  // namespace palimbo::d2xx::loader
