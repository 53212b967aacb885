#include "plugins/DeviceSettings.h"

#include "plugins/SettingsReader.h"

void ReadDeviceKeys(CQsSettingsReader& reader, SSimulatedDeviceSettings& settings)
{
    constexpr double greatestId = 4294967295.0;
    constexpr double greatestStatus = 2147483647.0;
    reader.Text("name", settings.name);
    reader.Text("displayName", settings.displayName);
    reader.Flag("visible", settings.visible);
    reader.Flag("connected", settings.connected);
    reader.Whole("mode", settings.mode, 0.0, greatestId);
    reader.WholeList("kinds", settings.kinds, 1.0, 3.0);
    reader.Whole("areas", settings.areas, 0.0, 65535.0);
    reader.Time("exposureMs", settings.exposureMs);
    reader.WholeList("logicalIds", settings.logicalIds, 1.0, greatestId);
    reader.WholeList("physicalIds", settings.physicalIds, 0.0, greatestId);
    reader.Time("beginMs", settings.beginMs);
    reader.Time("fireMs", settings.fireMs);
    reader.Time("endMs", settings.endMs);
    reader.Whole("beginStatus", settings.beginStatus, -greatestStatus, greatestStatus);
    reader.Whole("endStatus", settings.endStatus, -greatestStatus, greatestStatus);
    reader.Object("fireFault",
                  [&settings](CQsSettingsReader& fireFault)
                  {
                      fireFault.Whole("atFire", settings.fireFaultAt, 1.0, greatestId);
                      fireFault.Whole("status", settings.fireFaultStatus, -greatestStatus, greatestStatus);
                  });
    reader.Choice("throws", settings.throws, {"", "begin", "fire", "end"});
    reader.Flag("stateCallback", settings.stateCallback);
    reader.Time("ignoreAbortMs", settings.ignoreAbortMs);
}

SSimulatedDeviceSettings ReadDeviceSettings(const char* className, const SSimulatedDeviceSettings& defaults)
{
    SSimulatedDeviceSettings settings = defaults;
    const bool right =
        ReadHostSettings(className, [&settings](CQsSettingsReader& reader) { ReadDeviceKeys(reader, settings); });
    return right ? settings : defaults;
}
