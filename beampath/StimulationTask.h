// What is handed to the thread pool for each device of a beampath.
#pragma once

#include "device/StimulationDevice.h"

#include <optional>

// Copied by value; the devices are not owned by the records.
struct SQsStimulationAsyncParams
{
    IQsStimulationDevice* pDevice = nullptr;
    IQsStimulationDevice::SQsStimulationType stimulation; // the request, with the groups that the device shall light
    std::optional<std::uint64_t> aborts; // of the beampath when it began: the device stays dark after another one
};

struct SQsStimulationEndParams
{
    IQsStimulationDevice* pDevice = nullptr;
    double dFirstTime = 0.0;  // out: what the device's StimulationEnd wrote, [ms of QS_GetTimeCounter]
    double dSecondTime = 0.0; // out
};
