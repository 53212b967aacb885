// Simulated devices without patterns: a confocal scanner, and one whose behaviour is all settings.
#include "device/ClassRegistration.h"
#include "plugins/SimulatedDevice.h"

namespace {

SSimulatedDeviceSettings PlainSettings(const CQsClassInfo& info, const char* name, const char* displayName)
{
    SSimulatedDeviceSettings settings;
    settings.name = name;
    settings.displayName = displayName;
    settings.kinds = {IQsStimulationDevice::eStimContinuous, IQsStimulationDevice::eStimTimed};
    return ReadDeviceSettings(info.GetName(), settings);
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
    : CQsSimulatedDevice(
          sm_classCQsSimConfocalDevice,
          PlainSettings(sm_classCQsSimConfocalDevice, "CQsStimulationDeviceV4New", "Simulated confocal device"))
{}

class CQsSimGenericDevice : public CQsSimulatedDevice
{
public:
    CQsSimGenericDevice();
};

QS_REGISTER_STIMULATION_CLASS(CQsSimGenericDevice, "Simulated device");

CQsSimGenericDevice::CQsSimGenericDevice()
    : CQsSimulatedDevice(sm_classCQsSimGenericDevice,
                         PlainSettings(sm_classCQsSimGenericDevice, "CQsSimGenericDevice", "Simulated device"))
{}
