// What the device interface promises of every device, checked on one of them.
//
// The checks return what they found instead of asserting, so that devices that are wrong on purpose show that they find
// it.
#pragma once

#include "tests/support/CreatedDevice.h"

#include <functional>
#include <string>
#include <vector>

namespace QsTest {

struct SConformance
{
    std::string name;                // for messages and test names: letters and digits
    std::function<DevicePtr()> make; // a fresh device
    // Promises that not every device makes.
    bool bRefusesUnknownKinds = false; // begin answers an unknown kind with a status
    bool bWaitsTimed = false;          // a begin of kind 2 blocks for the duration, and an abort ends it
};

// One line for each promise that the device breaks; empty for a good device. Needs a manager where the device does.
// [blocks for some seconds when the device does not hear an abort]
std::vector<std::string> Violations(const SConformance& subject);

} // namespace QsTest
