// What a device's settings file holds of calibrations.
#pragma once

#include "stimhost/CalibratedDevice.h"

#include <string>
#include <vector>

namespace Stimhost {

struct SSavedCalibration
{
    CQsStringW key;
    SQsConfigItem item; // the key, parsed
    CMatrix3 cameraFromDmd = s_identity3;
    CMatrix3 dmdFromCamera = s_identity3;
};

// All saved ones in the order of the file; none when there is no file. False, with one line, when the file cannot be
// read.
bool ReadSavedCalibrations(const CCalibratedDevice& device, std::vector<SSavedCalibration>& saved, std::string& error);

// Parts of the hardware that keep a saved calibration from fitting the hardware of now, in words; empty when it fits.
// Each watched part is compared by itself, on copies of the snapshots.
std::vector<std::string> WhyNot(const CCalibratedDevice& device, const SSavedCalibration& saved);
// What the device's calibration would make of it, were it the one in use.
EQsCalibrationState StateWith(const CCalibratedDevice& device, const SSavedCalibration& saved);

std::string CalibrationFile(const CCalibratedDevice& device);

} // namespace Stimhost
