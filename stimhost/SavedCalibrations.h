// What a device's settings file holds of calibrations.
#pragma once

#include "stimhost/CalibratedDevice.h"

#include <set>
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

// The line of ReadSavedCalibrations; empty when the file can be read, or there is none.
std::string FaultOfSaved(const CCalibratedDevice& device);

// Parts of the hardware of now that its key reads back as others: a name in it holds one of the key's marks. Under such
// a key a calibration is found, and never fits.
std::vector<std::string> ReadsBackOtherwise(const CCalibratedDevice& device);

// Files beside the settings file that saves have kept because they were damaged.
std::set<std::string> KeptAside(const CCalibratedDevice& device);

// Parts of the hardware that keep a saved calibration from fitting the hardware of now, in words; empty when it fits.
// Each watched part is compared by itself, on copies of the snapshots.
std::vector<std::string> WhyNot(const CCalibratedDevice& device, const SSavedCalibration& saved);
// What the device's calibration would make of it, were it the one in use.
EQsCalibrationState StateWith(const CCalibratedDevice& device, const SSavedCalibration& saved);

std::string CalibrationFile(const CCalibratedDevice& device);

} // namespace Stimhost
