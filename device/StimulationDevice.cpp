#include "device/StimulationDevice.h"

#include "manager/StimulationManager.h"

// Programs that take a reference to such a constant import it, so the library must have it as an object.
constexpr unsigned IQsStimulationDevice::s_modeRepeatedPatterns;

void IQsStimulationDevice::DeviceStateChangedCallback(unsigned int state)
{
    if (CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists())
        manager->FireCallbackForDeviceStateChange(this, state);
}
