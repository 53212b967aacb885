// What the command line says of the microscope and of the rig's first camera.
#pragma once

#include "host/QsDMApi.h"
#include "host/QsGrabber.h"
#include "stimhost/Options.h"

#include <string>

namespace Stimhost {

// The rig's hardware with the options' changes: a filter takes the place of that of the same changer.
SQsDMApiHardware HardwareOf(SQsDMApiHardware hardware, const SOptions& options);

// False, with one line, when the camera cannot take that state.
bool SetCameraState(IQsGrabberCamera& camera, const SOptions& options, std::string& error);

} // namespace Stimhost
