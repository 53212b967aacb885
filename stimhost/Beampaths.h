// The stimulation beampaths of the current setup, as the module and the device database say.
#pragma once

#include "host/QsSystem.h"

#include <array>
#include <string>
#include <vector>

class CQsStimulationDeviceAggregator;
class CQsStimulationDeviceManager;

namespace Stimhost {

struct SSubbeampath
{
    qs_int32 id = 0;
    std::string name;   // the user's, where there is one
    std::string device; // unique name of its device; empty: a path without a device
    std::string light;  // name of that device's light in the journal; empty: a path without a device
};

struct SBeampath
{
    qs_int32 id = 0;
    std::string name;
    std::string userName;   // empty: none
    bool on = false;        // in the current hardware configuration; only then the rest holds
    bool hasDevice = false; // false: it could not be made
    bool active = false;
    bool connected = false;
    std::vector<SSubbeampath> subbeampaths; // in ascending order of ids
    std::array<qs_int32, 3> groups = {-1, -1, -1};
};

// The device of a beampath; null when it is off or could not be made. [any thread]
CQsStimulationDeviceAggregator* BeampathDevice(CQsStimulationDeviceManager& manager, qs_int32 id);

// All stimulation beampaths of the current setup, in the order of display. False, with one line, when the database
// fails.
bool Beampaths(CQsStimulationDeviceManager& manager, std::vector<SBeampath>& beampaths, std::string& error);
// The device of the active beampath, with its sub-beampaths; null, with one line that says why, when there is none or
// the database fails.
CQsStimulationDeviceAggregator* ActiveBeampath(CQsStimulationDeviceManager& manager, std::vector<SSubbeampath>& paths,
                                               std::string& error);

// Sets the stimulation optical configuration at the manager. False, with one line, and none is set; `badInput` when it
// was the name.
bool SetOC(CQsStimulationDeviceManager& manager, const std::string& name, std::string& error, bool& badInput);
// Stores one for the current setup and user: the manager's next Update, of any process, restores it. False, with one
// line, when the database fails.
bool StoreOC(const std::string& name, std::string& error);
std::string StoredOC(); // empty when there is none

// The group assignments that are stored for the current setup and user; empty when there are none.
std::string StoredGroups(qs_int32 beampathId);

} // namespace Stimhost
