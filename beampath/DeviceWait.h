// Waiting for devices.
#pragma once

#include "manager/StimulationManager.h"

// Runs what waits for devices, or has them do what may take long, and lends the registry lock meanwhile, where the
// calling thread holds it, to the threads that work for `awaited` (0: for nobody in particular), to whoever is inside a
// device of a beampath, and to announcements of states: a device may need the manager to come to its end. `wait` ends
// holding no lock that it did not begin with, and its caller holds none that code of a device or a callback takes. [any
// thread]
inline void QsWaitForDevices(CQsRegistryLock::Run awaited, const std::function<void()>& wait)
{
    if (CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists())
        manager->LendRegistryWhile(awaited, wait);
    else
        wait();
}
