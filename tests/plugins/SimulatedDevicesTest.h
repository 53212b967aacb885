// Devices of the module of simulated devices, made as a host makes them, and what the journal says about their light.
#pragma once

#include "device/StimulationDevice.h"
#include "host/QsPluginManager.h"
#include "standalone/Journal.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace QsTest {

struct SReleaseDevice
{
    void operator()(IQsStimulationDevice* device) const { CQsRTTI::Release(device); }
};
using DevicePtr = std::unique_ptr<IQsStimulationDevice, SReleaseDevice>;

constexpr double longMs = 60000.0;     // of a wait that the test must cut short
constexpr double generousMs = 20000.0; // for anything that should be done at once
constexpr double unwritten = -777.0;

// Makes a device with these settings; null when that fails.
DevicePtr MakeDevice(const std::string& className, const std::string& settings = "{}");

IQsStimulationDevice::SQsStimulationType Request(std::uint32_t kind, double durationMs = 0.0, std::uint32_t repeat = 0);

// Times of the device's light [ms]; -1.0 while it is on.
struct SPulse
{
    double on = -1.0;
    double off = -1.0;
};
std::vector<SPulse> Pulses(const std::string& device);

bool Eventually(const std::function<bool()>& condition);

} // namespace QsTest
