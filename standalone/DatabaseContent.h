// What a device database holds, as a tree, and its JSON.
//
// The JSON stands in a file of its own or as the member "deviceDatabase" of a rig (docs/formats.md).
#pragma once

#include "host/QsHostApi.h"
#include "host/QsSystem.h"
#include "standalone/DeviceDatabase.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace QsStandalone {

struct SDatabaseContent
{
    struct SUser
    {
        qs_int32 id = 0;
        std::string name;
    };
    struct SSetup
    {
        qs_int32 id = 0;
        std::string name;
    };
    struct SHWConfig
    {
        qs_int32 id = 0;
        qs_int32 setup = 0;
        std::string name;
    };
    struct SBeampath
    {
        qs_int32 id = 0;
        qs_int32 setup = 0;
        std::string name;
        std::optional<std::string> userName;
        qs_int32 type = 2;       // 2: stimulation
        bool onByDefault = true; // eDefHWCBehaviour 1, else 0
        qs_int32 order = 0;
        std::optional<std::string> merged; // jMergedBeamPathIDs as it stands in the table
        unsigned line = 0;                 // of the file it was read from; 0: none
    };
    // What a hardware configuration says of a beampath; no behaviour: the beampath's default.
    struct SHWConfigBeampath
    {
        qs_int32 hwConfig = 0;
        qs_int32 beampath = 0;
        std::optional<qs_int32> behaviour;
    };
    // A logical device on a beampath.
    struct SConfiguration
    {
        qs_int32 beampath = 0;
        qs_int32 logicalDevice = 0; // the database's id
        qs_int32 type = 1;          // 1, 2, 8 and 10 stimulate
        unsigned line = 0;
    };
    // Which logical device of the device manager a database id means.
    struct SLogicalId
    {
        qs_int32 databaseId = 0;
        std::uint32_t logDevId = 0;
    };
    struct SParameter
    {
        std::string name;
        qs_int32 setup = 0;
        qs_int32 user = 0;
        std::string text;
    };

    std::vector<SUser> users;
    std::vector<SSetup> setups;
    std::vector<SHWConfig> hwConfigs;
    std::vector<SBeampath> beampaths;
    std::vector<SHWConfigBeampath> hwConfigBeampaths;
    std::vector<SConfiguration> configurations;
    std::vector<SLogicalId> logicalIds;
    std::vector<SParameter> parameters;
};

// Content of a JSON file: one of its own, or the member "deviceDatabase" of a rig. False, with one line "file:line:
// what was expected, what was found". `content` is then unchanged.
QS_HOST_API bool ReadDatabaseContent(const std::string& path, SDatabaseContent& content, std::string& error);
// The same as text, readable, with a newline at the end. What is written reads back equal.
QS_HOST_API std::string DatabaseContentJson(const SDatabaseContent& content);

// Replaces everything that the database holds, in one transaction. False, with one line, and the database as it was.
// The current ids of an open database, and what its logical ids mean, are those of its opening.
QS_HOST_API bool ImportDatabase(const SDeviceDatabaseSetup& setup, const SDatabaseContent& content, std::string& error);
QS_HOST_API bool ExportDatabase(const SDeviceDatabaseSetup& setup, SDatabaseContent& content, std::string& error);

// What contradicts itself, one line each: a merged id that does not exist or belongs to another setup than its beampath
// (a merged list that is no list of whole numbers, too), a reference to a setup, hardware configuration, beampath,
// user or logical device that is not there, a hardware configuration of another setup than its beampath, an id that
// stands twice, a name that two stimulation beampaths of one setup share, a logical device on a beampath that nobody
// drives. `drivenLogDevIds`: the device manager's logical devices that some device of the rig drives; empty: not asked.
QS_HOST_API std::vector<std::string> CheckDatabaseContent(const SDatabaseContent& content,
                                                          const std::vector<std::uint32_t>& drivenLogDevIds);

} // namespace QsStandalone
