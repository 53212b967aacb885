// Runs one stimulation and measures what its light did.
#pragma once

#include "stimhost/Phase.h"

class CQsStimulationDeviceManager;

namespace Stimhost {

// Stimulates with the device of the active beampath, or without a device database with the active device. An interrupt
// aborts the stimulation. Ends within the duration and the grace time and three seconds, whatever the devices do; a
// phase that was not finished leaves threads behind that may still be inside a device. [blocks]
SPhase RunStimulation(CQsStimulationDeviceManager& manager, const SRequest& request);

} // namespace Stimhost
