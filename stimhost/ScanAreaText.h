// A scan area as people write it: "zoom=2,angle=30,x=0.1".
#pragma once

#include "device/StimulationDevice.h"

#include <string>

namespace Stimhost {

struct SScanArea
{
    IQsStimulationDevice::SQsScanAreaDesc area;
    double referenceZoom = 0.0; // 0: the text does not say
};

// Keys zoom, angle [deg], x, y, aspect, crop-zoom, crop-aspect, crop-x, crop-y, reference-zoom, with commas between
// them; what is not named keeps its default, and any of the crop's keys switches the crop on. Zooms and aspects are
// above 0. False, with one line, and `read` unchanged.
bool ReadScanArea(const std::string& text, SScanArea& read, std::string& error);

} // namespace Stimhost
