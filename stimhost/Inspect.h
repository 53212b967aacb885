#pragma once

#include "stimhost/Options.h"

namespace Stimhost {

// The class records of module files, read without loading them. Exit code.
int Inspect(const SOptions& options);

} // namespace Stimhost
