// Devices that a test creates through the class registry.
#pragma once

#include "device/StimulationDevice.h"

#include <memory>

namespace QsTest {

// A device with one counted reference, or with none where it does not count.
using DevicePtr = std::shared_ptr<IQsStimulationDevice>;

// Null when it cannot be created. (DeviceFixture.cpp)
DevicePtr CreateDevice(const char* className);

// The interface's value for an output that nothing wrote.
constexpr double s_unwritten = -98765.25;

} // namespace QsTest
