// This program once more, as a process of its own.
#pragma once

#include <string>
#include <vector>

namespace Stimhost {

struct SChildOutcome
{
    int exitCode = -1; // -1: it could not be started, crashed, or was ended after two minutes
    std::string out;
    std::string err;
};

// Without the caller's device database. [blocks]
SChildOutcome RunSelf(const std::vector<std::string>& arguments);

} // namespace Stimhost
