// The commands about beampaths, optical configurations and stimulation groups.

#include "beampath/StimulationDeviceAggregator.h"
#include "host/QsDevice.h"
#include "manager/StimulationManager.h"
#include "standalone/DeviceDatabase.h"
#include "stimhost/Beampaths.h"
#include "stimhost/Commands.h"
#include "stimhost/Database.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace Stimhost {

namespace {

constexpr unsigned s_groupCount = 3;

int Refuse(const std::string& error)
{
    Complain(error);
    return eExitBadUse;
}

bool HasDatabase(std::string& error)
{
    if (QsStandalone::CQsDeviceDatabase::IsOpen())
        return true;
    error = "expected a device database: a rig with one, or --database";
    return false;
}

// After what a command stores: it may be gone with the run.
std::string HowLong()
{
    return DatabaseIsPrivate() ? ", in a database of this run alone; name one with --database" : "";
}

const char* StateOf(const SBeampath& beampath)
{
    return !beampath.on          ? "off"
           : !beampath.hasDevice ? "no device"
           : beampath.connected  ? "connected"
                                 : "not connected";
}

std::string DeviceText(const SSubbeampath& path)
{
    return path.device.empty() ? "no device" : path.device;
}

void WriteSubbeampaths(CJson& json, const std::vector<SSubbeampath>& paths)
{
    json.Array("subbeampaths");
    for (const SSubbeampath& path : paths)
        json.Object().Integer("id", path.id).Text("name", path.name).Text("device", DeviceText(path)).EndObject();
    json.EndArray();
}

void WriteCurrent(CJson& json)
{
    json.Text("database", QsStandalone::DeviceDatabaseText(QsStandalone::CQsDeviceDatabase::Setup()));
    json.Integer("setup", DeviceDBApi::GetCurrentSetupID());
    json.Integer("hwConfig", DeviceDBApi::GetCurrentHWConfigID());
    json.Integer("user", DeviceDBApi::GetCurrentUserID());
}

std::string BeampathsJson(const std::vector<SBeampath>& beampaths)
{
    CJson json;
    json.Object().Integer("version", 1);
    WriteCurrent(json);
    json.Array("beampaths");
    for (const SBeampath& beampath : beampaths)
    {
        json.Object().Integer("id", beampath.id).Text("name", beampath.name).Text("userName", beampath.userName);
        json.Flag("on", beampath.on).Flag("hasDevice", beampath.hasDevice);
        json.Flag("active", beampath.active).Flag("connected", beampath.connected);
        WriteSubbeampaths(json, beampath.subbeampaths);
        json.Array("groups");
        for (const qs_int32 id : beampath.groups)
            json.Whole(id);
        json.EndArray().EndObject();
    }
    json.EndArray().EndObject();
    return json.Take();
}

struct SAssignment
{
    unsigned group = 0;
    qs_int32 subbeampath = 0;
};

bool ReadWhole(const std::string& text, int& value)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

std::optional<SAssignment> ReadAssignment(const std::string& text)
{
    const std::size_t equals = text.find('=');
    int group = 0;
    int id = 0;
    if (equals == std::string::npos || !ReadWhole(text.substr(0, equals), group) ||
        !ReadWhole(text.substr(equals + 1), id) || group < 0 || group >= static_cast<int>(s_groupCount))
        return std::nullopt;
    return SAssignment{static_cast<unsigned>(group), id};
}

std::string Ids(const std::vector<SSubbeampath>& paths)
{
    std::string text;
    for (const SSubbeampath& path : paths)
        text += (text.empty() ? "" : ", ") + std::to_string(path.id);
    return text;
}

void PrintGroups(const SOptions& options, CQsStimulationDeviceAggregator& device,
                 const std::vector<SSubbeampath>& paths, const std::string& note)
{
    const std::array<qs_int32, s_groupCount> groups = device.GetStimulationGroupAssignments();
    const std::string name = ToUtf8(device.GetUniqueName());
    const std::string stored = StoredGroups(device.GetStimulationBPId());
    CJson json;
    json.Object().Integer("version", 1);
    WriteCurrent(json);
    json.Object("beampath").Integer("id", device.GetStimulationBPId()).Text("name", name).EndObject();
    json.Text("stored", stored).Flag("kept", !stored.empty() && !DatabaseIsPrivate()).Array("groups");
    std::string text = name + (stored.empty() ? ": nothing is stored" : ": stored is " + stored) + note + "\n";
    for (unsigned group = 0; group < s_groupCount; ++group)
    {
        const auto path = std::find_if(paths.begin(), paths.end(),
                                       [&](const SSubbeampath& known) { return known.id == groups[group]; });
        const bool known = path != paths.end();
        json.Object().Integer("group", group).Integer("subbeampath", groups[group]);
        json.Text("name", known ? path->name : "").Text("device", known ? DeviceText(*path) : "").EndObject();
        text += "  group " + std::to_string(group) + "  " + Padded(std::to_string(groups[group]), 6, true) + "  " +
                (known ? Padded(path->name, 24) + "  " + DeviceText(*path) : "none") + "\n";
    }
    json.EndArray().EndObject();
    Print(options.json ? json.Take() : text);
}

} // namespace

std::string BeampathsText(const std::vector<SBeampath>& beampaths)
{
    const std::string database = DatabaseIsPrivate()
                                     ? "of this run"
                                     : QsStandalone::DeviceDatabaseText(QsStandalone::CQsDeviceDatabase::Setup());
    std::string text = "Device database " + database + ", setup " + std::to_string(DeviceDBApi::GetCurrentSetupID()) +
                       ", hardware configuration " + std::to_string(DeviceDBApi::GetCurrentHWConfigID()) + ", user " +
                       std::to_string(DeviceDBApi::GetCurrentUserID()) + "\n";
    for (const SBeampath& beampath : beampaths)
    {
        text += std::string(beampath.active ? "* " : "  ") + Padded(std::to_string(beampath.id), 4, true) + "  " +
                Padded(beampath.name, 24) + "  " + Padded(beampath.userName, 32) + "  " + StateOf(beampath) + "\n";
        for (const SSubbeampath& path : beampath.subbeampaths)
        {
            std::string groups;
            for (unsigned group = 0; group < s_groupCount; ++group)
                if (beampath.groups[group] == path.id)
                    groups += (groups.empty() ? "  groups " : ", ") + std::to_string(group);
            text += "    " + Padded(std::to_string(path.id), 6, true) + "  " + Padded(path.name, 24) + "  " +
                    (groups.empty() ? DeviceText(path) : Padded(DeviceText(path), 24) + groups) + "\n";
        }
    }
    return beampaths.empty() ? text + "  no stimulation beampaths\n" : text;
}

std::optional<int> ApplyOC(const SOptions& options, CQsStimulationDeviceManager& manager)
{
    std::string error;
    bool badInput = false;
    if (!options.oc || SetOC(manager, *options.oc, error, badInput))
        return std::nullopt;
    Complain(error);
    return badInput ? eExitBadUse : eExitFailed;
}

int ShowBeampaths(const SOptions& options, CSession& session)
{
    std::string error;
    std::vector<SBeampath> beampaths;
    if (!HasDatabase(error))
        return Refuse(error);
    if (!Beampaths(*session.Manager(), beampaths, error))
    {
        Complain(error);
        return eExitFailed;
    }
    Print(options.json ? BeampathsJson(beampaths) : BeampathsText(beampaths));
    return eExitDone;
}

int OCShow(const SOptions& options, CSession& session)
{
    std::string error;
    if (!HasDatabase(error))
        return Refuse(error);
    CQsStimulationDeviceManager& manager = *session.Manager();
    const std::string name = ToUtf8(manager.GetStimulationOC());
    const std::string beampath = ToUtf8(manager.GetActiveStimulationBeampathName());
    const qs_int32 id = manager.GetActiveStimulationBeampathId();
    const bool hasDevice = BeampathDevice(manager, id) != nullptr;
    const std::string stored = StoredOC();
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1);
        WriteCurrent(json);
        json.Text("stimulationOC", name).Text("beampath", beampath).Integer("beampathId", id);
        json.Flag("hasDevice", hasDevice).Text("stored", stored).EndObject();
        Print(json.Take());
        return eExitDone;
    }
    std::string text = name.empty() ? "no stimulation optical configuration is set" : name;
    if (!name.empty())
        text += ", beampath " + beampath + ", id " + std::to_string(id) +
                (hasDevice ? "" : ", without a device in this hardware configuration");
    if (stored != name)
        text += "; stored is " + stored + ", which names no beampath of the setup";
    Print(text + "\n");
    return eExitDone;
}

int OCSet(const SOptions& options, CSession& session)
{
    CQsStimulationDeviceManager& manager = *session.Manager();
    if (const std::optional<int> code = ApplyOC(options, manager))
        return *code;
    std::string error;
    if (!StoreOC(*options.oc, error))
        return Refuse(error);
    const qs_int32 id = manager.GetActiveStimulationBeampathId();
    const bool hasDevice = BeampathDevice(manager, id) != nullptr;
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1);
        WriteCurrent(json);
        json.Text("stimulationOC", *options.oc).Integer("beampathId", id).Flag("hasDevice", hasDevice);
        json.Flag("kept", !DatabaseIsPrivate()).EndObject();
        Print(json.Take());
    }
    else
        Print(*options.oc + ": set and stored" + HowLong() + "\n");
    if (!hasDevice)
        Complain("the beampath has no device in this hardware configuration");
    return eExitDone;
}

int GroupsShow(const SOptions& options, CSession& session)
{
    CQsStimulationDeviceManager& manager = *session.Manager();
    if (const std::optional<int> code = ApplyOC(options, manager))
        return *code;
    std::string error;
    std::vector<SSubbeampath> paths;
    CQsStimulationDeviceAggregator* const device = HasDatabase(error) ? ActiveBeampath(manager, paths, error) : nullptr;
    if (device == nullptr)
        return Refuse(error);
    PrintGroups(options, *device, paths, "");
    return eExitDone;
}

int GroupsSave(const SOptions& options, CSession& session)
{
    std::vector<SAssignment> assignments;
    for (const std::string& text : options.assignments)
    {
        const std::optional<SAssignment> assignment = ReadAssignment(text);
        if (!assignment)
            return Refuse("--assign \"" + text + "\": expected GROUP=ID with a group from 0 to 2");
        assignments.push_back(*assignment);
    }
    CQsStimulationDeviceManager& manager = *session.Manager();
    if (const std::optional<int> code = ApplyOC(options, manager))
        return *code;
    std::string error;
    std::vector<SSubbeampath> paths;
    CQsStimulationDeviceAggregator* const device = HasDatabase(error) ? ActiveBeampath(manager, paths, error) : nullptr;
    if (device == nullptr)
        return Refuse(error);
    const std::string name = ToUtf8(device->GetUniqueName());
    const std::array<qs_int32, s_groupCount> before = device->GetStimulationGroupAssignments();
    for (const SAssignment& assignment : assignments)
        if (device->SetStimulationGroupAssignment(assignment.group, assignment.subbeampath) != QS_OK)
        {
            // At its end the program saves what the beampath has: it must not be half of what was asked.
            for (unsigned group = 0; group < s_groupCount; ++group)
                device->SetStimulationGroupAssignment(group, before[group]);
            return Refuse("group " + std::to_string(assignment.group) + " of " + name +
                          ": expected a sub-beampath, one of " + Ids(paths) + ", found " +
                          std::to_string(assignment.subbeampath));
        }
    QsStandalone::CQsDeviceDatabase::ClearReports();
    const int status = device->SaveStimulationGroupDeviceAssignments();
    if (status != QS_OK)
    {
        const auto reports = QsStandalone::CQsDeviceDatabase::Reports();
        return Refuse("the groups of " + name + " cannot be saved, status " + std::to_string(status) +
                      (reports.empty() ? "" : ": " + reports.back().error));
    }
    PrintGroups(options, *device, paths,
                paths.size() < 2 ? "; with one sub-beampath there is nothing to store" : HowLong());
    return eExitDone;
}

} // namespace Stimhost
