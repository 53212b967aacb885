// Settings of one simulated device, from the JSON object that the host holds for its class (docs/formats.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class CQsSettingsReader;

struct SSimulatedDeviceSettings
{
    std::string name;        // unique name
    std::string displayName; // name for the user; empty: the unique name
    bool visible = true;
    bool connected = true;
    std::uint32_t mode = 3;           // StimulationModeGet
    std::vector<std::uint32_t> kinds; // of stimulation that StimulationBegin takes
    std::uint32_t areas = 0;          // present before any is set
    double exposureMs = 0.0;          // light of one shot
    std::vector<std::uint32_t> logicalIds;
    std::vector<std::uint32_t> physicalIds; // beside them; where it is shorter the host's device manager is asked

    // Work without light: before StimulationBegin lights or returns, before a shot, inside StimulationEnd.
    double beginMs = 0.0;
    double fireMs = 0.0;
    double endMs = 0.0;

    // Faults.
    int beginStatus = 0; // other than 0: StimulationBegin answers it and nothing is lit
    int endStatus = 0;
    std::uint32_t fireFaultAt = 0; // shot of each stimulation, from 1, that fails without light; 0: none
    int fireFaultStatus = 0;
    std::string throws;         // "begin", "fire" or "end": that operation throws; its light is off
    bool stateCallback = false; // StimulationBegin reports a change of state from a thread of its own
    double ignoreAbortMs = 0.0; // aborts that come within this time of StimulationBegin are refused with -9
};

// The settings that the host holds for `className`, over `defaults`; the defaults where they are malformed.
SSimulatedDeviceSettings ReadDeviceSettings(const char* className, const SSimulatedDeviceSettings& defaults);
// The keys that all devices have, for classes that read more than these.
void ReadDeviceKeys(CQsSettingsReader& reader, SSimulatedDeviceSettings& settings);
