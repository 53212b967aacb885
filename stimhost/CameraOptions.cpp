#include "stimhost/CameraOptions.h"

#include "stimhost/Text.h"

#include <algorithm>

namespace Stimhost {

SQsDMApiHardware HardwareOf(SQsDMApiHardware hardware, const SOptions& options)
{
    if (options.objective)
        hardware.sObjective = FromUtf8(*options.objective);
    if (options.zoom)
        hardware.dManualZoom = *options.zoom;
    for (const SOptions::SFilter& filter : options.filters)
    {
        const CQsStringW key = FromUtf8(filter.key);
        auto changer = std::find_if(hardware.filterChangers.begin(), hardware.filterChangers.end(),
                                    [&](const SQsDMApiHardware::SFilterChanger& known) { return known.sKey == key; });
        if (changer == hardware.filterChangers.end())
            changer = hardware.filterChangers.emplace(changer);
        *changer = {key, FromUtf8(filter.name), filter.position};
    }
    return hardware;
}

bool SetCameraState(IQsGrabberCamera& camera, const SOptions& options, std::string& error)
{
    SQsCameraState state = camera.GetState();
    if (options.cameraRotation)
        state.dRotation = *options.cameraRotation;
    state.bFlipped = state.bFlipped || options.cameraFlip;
    state.iBinning = options.cameraBinning.value_or(state.iBinning);
    if (!options.cameraRegion.empty())
        state.rcRegion = {options.cameraRegion[0], options.cameraRegion[1], options.cameraRegion[2],
                          options.cameraRegion[3]};
    if (camera.SetState(state) == QS_OK)
        return true;
    SQsGrabberFormatDesc format;
    camera.GetFormat(format);
    error = ToUtf8(camera.GetName()) + ": expected a camera state that fits its sensor of " +
            std::to_string(format.rcSensor.Width()) + " x " + std::to_string(format.rcSensor.Height()) +
            " pixels, found one that it refuses";
    return false;
}

} // namespace Stimhost
