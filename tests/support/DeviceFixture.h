// Small helpers of device tests.
#pragma once

#include "tests/support/CreatedDevice.h"

namespace QsTest {

inline IQsStimulationDevice::SQsStimulationType Request(unsigned kind, double durationMs = 0.0)
{
    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = kind;
    request.dDurationMs = durationMs;
    return request;
}

} // namespace QsTest
