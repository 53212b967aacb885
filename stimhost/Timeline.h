// The timeline of a run as a self-contained SVG picture.
#pragma once

#include "stimhost/Stimulation.h"

#include <string>
#include <vector>

namespace Stimhost {

// One panel for each phase with an axis of its own, one lane for each device: what was requested as an outlined band,
// the measured light as filled bars, the abort call as a mark. The same phases give the same text.
std::string TimelineSvg(const std::string& title, const std::vector<SPhase>& phases);

} // namespace Stimhost
