// The registry of the program's own, if there is one.
#pragma once

#include <string>

namespace QsPlatform {

// The folder that names it, UTF-8; empty without one.
std::string OwnRegistryFolder();

} // namespace QsPlatform
