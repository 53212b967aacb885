// Surroundings of a device test: a registry of its own in a temporary folder, and small helpers.
#pragma once

#include "tests/support/CreatedDevice.h"

#include <string>

namespace QsTest {

// Points the registry to a temporary folder for its lifetime and removes the folder afterwards. Stands before the first
// use of the manager, which reads and writes the registry when it is made.
class CTemporaryRegistry
{
public:
    CTemporaryRegistry();
    ~CTemporaryRegistry();
    CTemporaryRegistry(const CTemporaryRegistry&) = delete;
    CTemporaryRegistry& operator=(const CTemporaryRegistry&) = delete;

private:
    std::string m_folder;
};

inline IQsStimulationDevice::SQsStimulationType Request(unsigned kind, double durationMs = 0.0)
{
    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = kind;
    request.dDurationMs = durationMs;
    return request;
}

} // namespace QsTest
