// The timeline of a run as a self-contained SVG picture.
#pragma once

#include "stimhost/Phase.h"

#include <string>
#include <vector>

namespace Stimhost {

// One panel for each phase with an axis of its own, one lane for each sub-beampath or device: what was requested as an
// outlined band, the measured light as filled bars, the abort call as a mark; below it the skews, what the manager told
// its host and when, and what went wrong. The same phases give the same text.
std::string TimelineSvg(const std::string& title, const std::vector<SPhase>& phases);

} // namespace Stimhost
