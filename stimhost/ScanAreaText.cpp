#include "stimhost/ScanAreaText.h"

#include "stimhost/RoiText.h"

#include <sstream>

namespace Stimhost {

bool ReadScanArea(const std::string& text, SScanArea& read, std::string& error)
{
    SScanArea scan;
    IQsStimulationDevice::SQsScanAreaDesc& area = scan.area;
    const struct
    {
        const char* key;
        double* value;
        bool aboveZero;
    } keys[] = {{"zoom", &area.dZoom, true},
                {"angle", &area.dAngle, false},
                {"x", &area.dXOffset, false},
                {"y", &area.dYOffset, false},
                {"aspect", &area.dScanAreaAspect, true},
                {"crop-zoom", &area.dCropZoom, true},
                {"crop-aspect", &area.dCropAspect, true},
                {"crop-x", &area.dCropXOffset, false},
                {"crop-y", &area.dCropYOffset, false},
                {"reference-zoom", &scan.referenceZoom, true}};
    std::istringstream parts(text);
    std::string part;
    while (std::getline(parts, part, ','))
    {
        const std::size_t equals = std::min(part.find('='), part.size());
        const std::string key = part.substr(0, equals);
        const auto number = ReadNumbers(equals < part.size() ? part.substr(equals + 1) : std::string(), 1);
        bool known = false;
        std::string names;
        for (const auto& candidate : keys)
        {
            names += (names.empty() ? "" : ", ") + std::string(candidate.key);
            if (key != candidate.key)
                continue;
            known = true;
            if (!number || (candidate.aboveZero && number->front() <= 0.0))
            {
                error = "expected " + key + "= with a number" + (candidate.aboveZero ? " above 0" : "") + ", found \"" +
                        part + "\"";
                return false;
            }
            *candidate.value = number->front();
            area.bIsCrop = area.bIsCrop || key.compare(0, 5, "crop-") == 0;
        }
        if (!known)
        {
            error = "expected one of " + names + ", found \"" + part + "\"";
            return false;
        }
    }
    read = scan;
    return true;
}

} // namespace Stimhost
