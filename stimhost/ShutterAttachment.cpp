#include "stimhost/ShutterAttachment.h"

#include "device/ShutterStimulationDevice.h"

namespace Stimhost {

IQsStimulationDevice* AttachNewShutter(std::uint32_t logDevId, int& status)
{
    IQsInterface* object =
        CQsRTTI::CreateAndQuery("CQsShutterStimulationDevice", "IQsStimulationDevice", __FILE__, __LINE__);
    auto* device = dynamic_cast<IQsStimulationDevice*>(object);
    if (device == nullptr)
    {
        CQsRTTI::Release(object);
        return nullptr;
    }
    // The class is the module's own and exports nothing but its table; this reaches the slot after the interface's.
    status = static_cast<CQsShutterStimulationDevice*>(device)->AttachShutter(logDevId);
    return device;
}

} // namespace Stimhost
