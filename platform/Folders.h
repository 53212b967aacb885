// Folders that the system gives a program.
#pragma once

#include "host/QsHostApi.h"

#include <string>

namespace QsPlatform {

// Where the user's settings files belong unless something else is said, UTF-8; it need not be there. With a registry of
// the program's own it is <its folder>/user/settings, so that one switch moves both.
QS_HOST_API std::string UserSettingsFolder();

} // namespace QsPlatform
