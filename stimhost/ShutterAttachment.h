#pragma once

#include <cstdint>

class IQsStimulationDevice;

namespace Stimhost {

// A new shutter device of the module's for the host's shutter, with the caller's reference and registered with the
// manager; null when the class cannot be created. `status` is what the registration said.
IQsStimulationDevice* AttachNewShutter(std::uint32_t logDevId, int& status);

} // namespace Stimhost
