// The stand-alone host's device manager: simulated shutters and the identities of devices.
#pragma once

#include "host/QsHostApi.h"

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace QsStandalone {

// A simulated shutter. Its blade needs openLatencyMs (closeLatencyMs) plus a random jitter of up to +-jitterMs; light
// is on from the end of the opening to the end of the closing. Calls are counted from 1 and include every
// Shutter_SetState. A command that asks for the other way turns a moving blade round, and ends a hang: the last command
// wins. The call that it overtakes answers false.
struct SShutterSetup
{
    static constexpr std::uint32_t never = std::numeric_limits<std::uint32_t>::max();

    std::uint32_t logDevId = 0;  // 1 and up, unique
    std::uint32_t physDevId = 0; // 0: none
    int databaseId = 0;          // 0: none; unique
    std::string name;            // toolbar name, UTF-8
    bool connected = true;
    bool lightOnWhenOpen = true; // false: a shutter of something that is not light
    double openLatencyMs = 0.0;
    double closeLatencyMs = 0.0;
    double jitterMs = 0.0;
    std::uint32_t jitterSeed = 1;

    // Faults. A call that is refused changes nothing and answers false. A call that hangs blocks for hangMs, or until
    // CQsDeviceManager::ReleaseHangs, and then does its work. A shutter that drops out springs shut, is no longer
    // connected and refuses every later call.
    std::uint32_t refuseFromCall = never;
    std::uint32_t refuseToCall = never; // last refused call
    std::uint32_t hangAtCall = never;
    double hangMs = 0.0;
    std::uint32_t dropOutAtCall = never;
};

// A logical device that is no shutter of the host's.
struct SLogicalDevice
{
    std::uint32_t logDevId = 0;
    std::uint32_t physDevId = 0;
    int databaseId = 0;
};

// One process-wide device manager behind DMApi. [any thread]
class QS_HOST_API CQsDeviceManager
{
public:
    // False, and nothing changed, when an id is 0 or taken, or a time is negative or no number; `error` says which in
    // one line.
    static bool AddShutter(const SShutterSetup& setup, std::string& error);
    static bool AddLogicalDevice(const SLogicalDevice& device, std::string& error);
    static std::vector<SShutterSetup> Shutters(); // in the order of adding, with the present `connected`
    static bool IsShutterOpen(std::uint32_t logDevId);
    static std::uint32_t ShutterCalls(std::uint32_t logDevId);
    static void ReleaseHangs(); // ends every hang, now and later
    // Closes every shutter, past all faults, as a host does when it ends. Returns the names of those that were open.
    static std::vector<std::string> CloseAllShutters();
    // Which logical device each id of the open device database means, beside those that devices were added with;
    // replaces those of the last call. False, and nothing changed, when a device was added with such an id and another
    // logical device.
    static bool SetDatabaseIds(const std::vector<std::pair<int, std::uint32_t>>& ids, std::string& error);
    static void Reset(); // removes every device; the ids of the open database stay
};

} // namespace QsStandalone
