#pragma once

#include "platform/Win32.h"

#include <string>

namespace QsPlatform {

// Path of the file that the module was loaded from; null: the program. Empty when the system does not tell.
std::wstring FileOfModule(HMODULE module);

} // namespace QsPlatform
