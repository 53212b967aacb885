// Simulated devices without patterns: a confocal scanner, and one whose behaviour is all settings.
#include "device/ClassRegistration.h"
#include "plugins/SimulatedDevice.h"

namespace {

SSimulatedDeviceSettings PlainDefaults(const char* name, const char* displayName)
{
    SSimulatedDeviceSettings settings;
    settings.name = name;
    settings.displayName = displayName;
    settings.kinds = {IQsStimulationDevice::eStimContinuous, IQsStimulationDevice::eStimTimed};
    return settings;
}

} // namespace

// Hosts fall back to the confocal device under this unique name.
class CQsSimConfocalDevice : public CQsSimulatedDevice
{
public:
    CQsSimConfocalDevice();
};

QS_REGISTER_STIMULATION_CLASS(CQsSimConfocalDevice, "Simulated confocal device");

CQsSimConfocalDevice::CQsSimConfocalDevice()
    : CQsSimulatedDevice(sm_classCQsSimConfocalDevice,
                         PlainDefaults("CQsStimulationDeviceV4New", "Simulated confocal device"))
{}

class CQsSimGenericDevice : public CQsSimulatedDevice
{
public:
    CQsSimGenericDevice();
};

QS_REGISTER_STIMULATION_CLASS(CQsSimGenericDevice, "Simulated device");

CQsSimGenericDevice::CQsSimGenericDevice()
    : CQsSimulatedDevice(sm_classCQsSimGenericDevice, PlainDefaults("CQsSimGenericDevice", "Simulated device"))
{}
