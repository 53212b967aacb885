// The run's own folder, for what must not outlive it: the private device database, the demo's registry and images.
#pragma once

#include <string>

namespace Stimhost {

// Path of a file in the folder, which is made first, and those of runs that could not remove theirs are removed. Empty,
// with one line, when it cannot be. [any thread]
std::string TemporaryPath(const std::string& name, std::string& error);
void RemoveTemporaryFolder(); // with all that is in it; call it on every way out [any thread]

} // namespace Stimhost
