#include "device/StimulationDevice.h"

#include "manager/StimulationManager.h"

void IQsStimulationDevice::DeviceStateChangedCallback(unsigned int state)
{
    if (CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists())
        manager->FireCallbackForDeviceStateChange(this, state);
}
