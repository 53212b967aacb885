// Simulated device that fires patterns shot by shot, with a chip of 1024 x 768 mirrors but without optics.
#include "device/ClassRegistration.h"
#include "plugins/PatternedDevice.h"

namespace {

SSimulatedDeviceSettings PatternSettings(const CQsClassInfo& info)
{
    SSimulatedDeviceSettings settings;
    settings.name = "CQsSimPatternDevice";
    settings.displayName = "Simulated pattern device";
    settings.mode = IQsStimulationDevice::s_modeRepeatedPatterns;
    settings.kinds = {IQsStimulationDevice::eStimContinuous, IQsStimulationDevice::eStimTimed,
                      IQsStimulationDevice::eStimRepeatedPatterns};
    settings.areas = 1;
    settings.exposureMs = 20.0;
    return ReadDeviceSettings(info.GetName(), settings);
}

} // namespace

class CQsSimPatternDevice : public CQsSimPatternedDevice
{
public:
    CQsSimPatternDevice();
};

QS_REGISTER_STIMULATION_CLASS(CQsSimPatternDevice, "Simulated pattern device");

CQsSimPatternDevice::CQsSimPatternDevice()
    : CQsSimPatternedDevice(sm_classCQsSimPatternDevice, PatternSettings(sm_classCQsSimPatternDevice), {1024, 768})
{}
