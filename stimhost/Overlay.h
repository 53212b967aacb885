// Pictures of what the camera saw, with what was asked for and what was found drawn over it.
#pragma once

#include "stimhost/CalibrationMeasurement.h"
#include "stimhost/Landing.h"

#include <string>

namespace Stimhost {

// The found spots and their residuals, magnified, with a scale bar. Self-contained SVG.
std::string CalibrationSvg(const std::string& title, const SMeasurement& measurement);

// The requested region, the measured light, and the way from the centre of the one to that of the other, magnified.
std::string LandingSvg(const std::string& title, const SRoi& roi, const SLanding& landing);

} // namespace Stimhost
