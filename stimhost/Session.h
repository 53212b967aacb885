// One run of the program on one rig: the host set up as the rig says, and the manager with its devices.
#pragma once

#include "standalone/Rig.h"
#include "stimhost/Options.h"

#include <string>
#include <vector>

class CQsStimulationDeviceManager;

namespace Stimhost {

class CSession
{
public:
    // Log, registry, settings folder and, when `withRig`, the rig's microscope, cameras and devices, the device
    // database and the manager. False, with one line, when the input is bad.
    bool Open(const SOptions& options, bool withRig, std::string& error);

    // Null before Open with a rig.
    CQsStimulationDeviceManager* Manager() const { return m_manager; }
    const QsStandalone::SRig& Rig() const { return m_rig; }

private:
    bool OpenLog(const SOptions& options, std::string& error);
    bool ScanModules(const SOptions& options, std::string& error);
    bool ScanFolder(const std::string& folder, const std::string& named, std::string& error);
    bool AddHostDevices(std::string& error);
    bool AddCameras(const SOptions& options, std::string& error);
    bool AnnounceStaticDevices(std::string& error);
    bool AddShutters(std::string& error);
    bool AddDevices(std::string& error);
    bool CheckSettings(std::string& error) const;

    QsStandalone::SRig m_rig;
    CQsStimulationDeviceManager* m_manager = nullptr;
};

// Names of the lights that are on. Closes every shutter, ends hangs, aborts every device of the session and the active
// beampath, and waits for a stimulation that still runs. Call it on every way out: what does not answer is given up
// after a second. [any thread]
std::vector<std::string> LeaveNoLight();

} // namespace Stimhost
