// What is handed to the thread pool for each device of a beampath.
#pragma once

#include "device/StimulationDevice.h"

#include <optional>

// Copied by value; the devices are not owned by the records.
struct SQsStimulationAsyncParams
{
    IQsStimulationDevice* pDevice = nullptr;
    IQsStimulationDevice::SQsStimulationType stimulation; // the request, with the groups that the device shall light
    // Count of the beampath's aborts and ends when it began; the device, one of the beampath's own, stays dark when it
    // has risen since. Nothing: it begins whatever has come.
    std::optional<std::uint64_t> withdrawals;
};

struct SQsStimulationEndParams
{
    IQsStimulationDevice* pDevice = nullptr;
    double dFirstTime = 0.0;  // out: what the device's StimulationEnd wrote, [ms of QS_GetTimeCounter]
    double dSecondTime = 0.0; // out
};
