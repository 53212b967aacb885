// The rig: what a stand-alone microscope consists of, read from one JSON file (docs/formats.md).
#pragma once

#include "host/QsDMApi.h"
#include "standalone/DeviceManager.h"

#include <string>
#include <vector>

namespace QsStandalone {

// A device of a plug-in.
struct SRigDevice
{
    std::string className;
    // Where the manager learns of it: "simple" (registered by the plug-in), "special", "option", or "static" (made by
    // the manager itself from its class; at most one of a class).
    std::string list;
    std::string name;     // unique name that the device shall have; empty: the class's own
    std::string settings; // JSON object as text, for the device; the keys are the plug-in's
};

// A camera of a plug-in.
struct SRigCamera
{
    std::string className;
    std::string name;     // that the camera shall have; empty: the class's own
    std::string settings; // JSON object as text, for the camera; the keys are the plug-in's
};

struct SRig
{
    std::string path;
    std::string name;
    std::vector<std::string> moduleFolders; // absolute; relative ones in the file are relative to the file
    std::vector<SShutterSetup> shutters;
    // Shutters that become stimulation devices: "simple" (attached, registers itself) or "list" (handed in as shutter).
    struct SStimulationShutter
    {
        std::uint32_t logDevId = 0;
        std::string list;
    };
    std::vector<SStimulationShutter> stimulationShutters;
    std::vector<SLogicalDevice> logicalDevices;
    std::vector<SRigDevice> devices;
    std::vector<SRigCamera> cameras;
    SQsDMApiHardware hardware; // what the microscope is set to, for SetHardware
    std::string translations;  // catalogue file, absolute; empty: none
    // The file has the content of a device database too, for ReadDatabaseContent.
    bool hasDatabaseContent = false;
};

// False, with one line "file:line: what was expected, what was found", for a file that is missing, not JSON, or has an
// unknown key, a wrong type, a duplicate id or an impossible value. `rig` is then unchanged.
QS_HOST_API bool ReadRig(const std::string& path, SRig& rig, std::string& error);

// What a file says that it is: the text of its "format". Empty when it is no JSON object or says nothing.
QS_HOST_API std::string FormatOfFile(const std::string& path);

} // namespace QsStandalone
