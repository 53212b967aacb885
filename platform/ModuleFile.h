// Files of code: loading them, their symbols, and which one holds an address.
#pragma once

#include "host/QsHostApi.h"

#include <string>

namespace QsPlatform {

// Loads the module with everything that it needs; its own symbols stay private to it. Null, with one line, when that
// fails. A module that is loaded already gives the same handle.
QS_HOST_API void* LoadModuleFile(const std::string& path, std::string& error);
// Address of an exported symbol, or null.
QS_HOST_API void* ModuleSymbol(void* module, const char* name);
// Full path of the file whose code or data is at `address`, with the system's own separators, as the calls for modules
// take it; empty when it lies in none.
QS_HOST_API std::string ModuleFileOfAddress(const void* address);
// Whether the file is loaded in this process, by whomever.
QS_HOST_API bool IsModuleFileLoaded(const std::string& path);

} // namespace QsPlatform
