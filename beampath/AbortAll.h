// Aborts several devices without letting one that is slow to answer keep the others lit.
#pragma once

#include "device/StimulationDevice.h"

#include <memory>
#include <vector>

// Calls StimulationAbort of every device, in their order, and returns when all have answered; their statuses, -9 for
// one that throws. The calling thread does as much as it can; while it is inside a device, a thread of the pool goes on
// with the next, and another one after that. `keep` is copied and kept until no thread uses a device any more. [any
// thread, blocks for the slowest device]
std::vector<int> QsAbortAll(const std::vector<IQsStimulationDevice*>& devices, const std::shared_ptr<const void>& keep);
