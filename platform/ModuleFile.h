// Files of code: loading them, their symbols, and which one holds an address.
#pragma once

#include <string>

namespace QsPlatform {

// Loads the module with everything that it needs; its own symbols stay private to it. Null, with one line, when that
// fails. A module that is loaded already gives the same handle.
void* LoadModuleFile(const std::string& path, std::string& error);
// Address of an exported symbol, or null.
void* ModuleSymbol(void* module, const char* name);
// Full path of the file whose code or data is at `address`; empty when it lies in none.
std::string ModuleFileOfAddress(const void* address);
// Whether the file is loaded in this process, by whomever.
bool IsModuleFileLoaded(const std::string& path);

} // namespace QsPlatform
