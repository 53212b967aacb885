#include "stimhost/Beampaths.h"

#include "beampath/StimulationDeviceAggregator.h"
#include "beampath/StimulationDeviceProxy.h"
#include "host/QsDevice.h"
#include "manager/StimulationManager.h"
#include "standalone/DatabaseContent.h"
#include "standalone/DeviceManager.h"
#include "stimhost/Database.h"
#include "stimhost/Text.h"

#include <algorithm>

namespace Stimhost {

using QsStandalone::CQsDeviceDatabase;
using QsStandalone::SDatabaseContent;

namespace {

constexpr qs_int32 s_stimulationBeampath = 2;
constexpr wchar_t s_storedOC[] = L"sLastActiveGlobalStimulationConfiguration";

// Of the last scope or statement that failed.
std::string DatabaseFault()
{
    const std::vector<QsStandalone::SDatabaseReport> reports = CQsDeviceDatabase::Reports();
    return "the device database failed: " +
           (reports.empty() ? std::string("it cannot be reached") : reports.back().error);
}

std::string NameForUser(const SDatabaseContent& content, qs_int32 id)
{
    for (const SDatabaseContent::SBeampath& row : content.beampaths)
        if (row.id == id)
            return row.userName.value_or(row.name);
    return "beampath " + std::to_string(id);
}

// The host's shutters write their light into the journal under the name of the toolbar.
std::string LightOf(IQsStimulationDevice& device, const std::string& name)
{
    SQsStimulationDeviceInfo info;
    if (device.GetStimulationDeviceType() == IQsStimulationDevice::eStimDevShutter &&
        device.GetStimulationDeviceInfo(info) == QS_OK && !info.vecLogDevIds.empty())
        for (const QsStandalone::SShutterSetup& shutter : QsStandalone::CQsDeviceManager::Shutters())
            if (shutter.logDevId == info.vecLogDevIds.front())
                return shutter.name;
    return name;
}

// A beampath does not say which devices it drives. A proxy of our own finds the same one for a sub-beampath.
void FindDevice(SSubbeampath& path)
{
    IQsInterface* const object =
        CQsRTTI::CreateAndQuery("CQsStimulationDeviceProxy", "IQsStimulationDevice", "no file", -1);
    auto* const proxy = dynamic_cast<CQsStimulationDeviceProxy*>(object);
    if (proxy != nullptr && proxy->SetStimulationSubbeampathId(path.id) == QS_OK)
    {
        const std::string name = ToUtf8(proxy->GetUniqueName());
        if (name != "StimulationDeviceProxy_" + std::to_string(path.id))
        {
            path.device = name;
            path.light = LightOf(*proxy, name);
        }
    }
    CQsRTTI::Release(object);
}

std::vector<SSubbeampath> Subbeampaths(CQsStimulationDeviceAggregator& device, const SDatabaseContent& content)
{
    std::vector<SSubbeampath> paths;
    for (const qs_int32 id : device.GetStimulationSubbeampathIds())
    {
        paths.push_back({id, NameForUser(content, id), {}, {}});
        FindDevice(paths.back());
    }
    return paths;
}

CQsStringW GroupsKey(qs_int32 beampathId)
{
    return CQsStringW::FromUtf8("CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_" +
                                std::to_string(beampathId));
}

std::string StoredText(const wchar_t* name)
{
    CQsStringW text;
    DeviceDBAppHelper::LoadParam(name, text, nullptr, DeviceDBApi::GetCurrentSetupID(),
                                 DeviceDBApi::GetCurrentUserID());
    return ToUtf8(text);
}

std::string BeampathNames(CQsStimulationDeviceManager& manager)
{
    std::vector<SBeampath> beampaths;
    std::string error;
    std::string names;
    if (Beampaths(manager, beampaths, error))
        for (const SBeampath& beampath : beampaths)
            names += (names.empty() ? "" : ", ") + beampath.name;
    return names.empty() ? "none" : names;
}

} // namespace

CQsStimulationDeviceAggregator* BeampathDevice(CQsStimulationDeviceManager& manager, qs_int32 id)
{
    return dynamic_cast<CQsStimulationDeviceAggregator*>(manager.GetStimulationDeviceInterfaceForBeampath(id));
}

bool Beampaths(CQsStimulationDeviceManager& manager, std::vector<SBeampath>& beampaths, std::string& error)
{
    SDatabaseContent content;
    if (!DatabaseContent(content, error))
        return false;
    std::vector<SDatabaseContent::SBeampath> rows;
    for (const SDatabaseContent::SBeampath& row : content.beampaths)
        if (row.setup == DeviceDBApi::GetCurrentSetupID() && row.type == s_stimulationBeampath)
            rows.push_back(row);
    std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.order < b.order; });

    CQsDeviceDatabase::ClearReports();
    manager.UpdateStimulationBeampathsIfNecessary();
    if (!CQsDeviceDatabase::Reports().empty())
    {
        error = DatabaseFault();
        return false;
    }
    for (const SDatabaseContent::SBeampath& row : rows)
    {
        SBeampath beampath;
        beampath.id = row.id;
        beampath.name = row.name;
        beampath.userName = row.userName.value_or("");
        beampath.active = manager.GetActiveStimulationBeampathId() == row.id;
        if (CQsStimulationDeviceAggregator* const device = BeampathDevice(manager, row.id))
        {
            beampath.hasDevice = true;
            beampath.connected = device->IsHWConnected();
            beampath.subbeampaths = Subbeampaths(*device, content);
            beampath.groups = device->GetStimulationGroupAssignments();
        }
        // The manager knows the name of one whose device could not be made, too.
        beampath.on = beampath.hasDevice || manager.GetStimulationBeampathIdByName(FromUtf8(row.name)) == row.id;
        beampaths.push_back(std::move(beampath));
    }
    return true;
}

CQsStimulationDeviceAggregator* ActiveBeampath(CQsStimulationDeviceManager& manager, std::vector<SSubbeampath>& paths,
                                               std::string& error)
{
    CQsStimulationDeviceAggregator* const device = BeampathDevice(manager, manager.GetActiveStimulationBeampathId());
    if (device == nullptr)
    {
        const std::string name = ToUtf8(manager.GetActiveStimulationBeampathName());
        error = name.empty() ? "no beampath is active; choose one with --oc or stimhost oc set"
                             : "the beampath " + name + " has no device in this hardware configuration";
        return nullptr;
    }
    SDatabaseContent content;
    if (!DatabaseContent(content, error))
        return nullptr;
    paths = Subbeampaths(*device, content);
    return device;
}

bool SetOC(CQsStimulationDeviceManager& manager, const std::string& name, std::string& error, bool& badInput)
{
    badInput = false;
    if (!CQsDeviceDatabase::IsOpen())
    {
        badInput = true;
        error = "optical configurations need a device database: a rig with one, or --database";
        return false;
    }
    CQsDeviceDatabase::ClearReports();
    const qs_int32 status = manager.SetStimulationOC(FromUtf8(name));
    // Without a connection the manager answers as if all were well, and the beampath from before stays active.
    const qs_int32 id = manager.GetActiveStimulationBeampathId();
    CQsStimulationDeviceAggregator* const device = BeampathDevice(manager, id);
    const bool asked =
        id != -1 && (device == nullptr || device->GetUniqueName() == manager.GetActiveStimulationBeampathName());
    if (status == QS_OK && asked)
        return true;
    if (status == QS_OK || !CQsDeviceDatabase::Reports().empty())
    {
        manager.SetStimulationOC(CQsStringW());
        error = DatabaseFault();
        return false;
    }
    badInput = true;
    error = name.find(':') == std::string::npos
                ? "expected BEAMPATH:CONFIGURATION, found \"" + name + "\""
                : "no stimulation beampath of the setup is named \"" + name.substr(0, name.find(':')) +
                      "\"; expected one of: " + BeampathNames(manager);
    return false;
}

bool StoreOC(const std::string& name, std::string& error)
{
    CQsDeviceDatabase::ClearReports();
    if (DeviceDBAppHelper::SaveParam(s_storedOC, FromUtf8(name), DeviceDBApi::GetCurrentSetupID(),
                                     DeviceDBApi::GetCurrentUserID()) == QS_OK)
        return true;
    error = "\"" + name + "\" cannot be stored: " + DatabaseFault();
    return false;
}

std::string StoredOC()
{
    return StoredText(s_storedOC);
}

std::string StoredGroups(qs_int32 beampathId)
{
    return StoredText(GroupsKey(beampathId).c_str());
}

} // namespace Stimhost
