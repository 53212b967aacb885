#include "beampath/StimulationDeviceAggregator.h"

#include "beampath/AggregatorTable.h"
#include "beampath/DeviceQuery.h"
#include "beampath/DeviceWait.h"
#include "beampath/JsonIds.h"
#include "device/ClassRegistration.h"
#include "device/Diagnostics.h"
#include "manager/DeviceCall.h"
#include "manager/RegistryLock.h"
#include "manager/StimulationManager.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#define QS_DIAG_UNIT L"StimulationDeviceAggregator"

namespace {

using Manager = CQsStimulationDeviceManager;

constexpr int s_noDatabase = -12;

constexpr const wchar_t* s_beforeShutdown = L"QS_MODULEEVENT_APP_BEFORESHUTDOWN";
constexpr const wchar_t* s_beforeSetupChange = L"QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE";
constexpr const wchar_t* s_saveSettings = L"QS_MODULEEVENT_SAVE_SETTINGS";

} // namespace

QS_REGISTER_STIMULATION_CLASS(CQsStimulationDeviceAggregator, "Beampath Aggregated Stimulation device");
QS_EXPORT_WIDE_CLASS_NAME(CQsStimulationDeviceAggregator);

// ---------------------------------------------------------------------------------------------------- sub-beampaths

namespace {

// With one reference; null when it could not be made.
CQsStimulationDeviceProxy* CreateProxy()
{
    IQsInterface* const object =
        CQsRTTI::CreateAndQuery("CQsStimulationDeviceProxy", "IQsStimulationDevice", "no file", -1);
    auto* const proxy = dynamic_cast<CQsStimulationDeviceProxy*>(object);
    if (proxy == nullptr)
        CQsRTTI::Release(object);
    return proxy;
}

// The name of the beampath; nothing when there is none, or it could not be asked for.
std::optional<CQsStringW> QueryBeampathName(qs_int32 id)
{
    const DeviceDBApi::CQsAutoDeviceDB database(L"CQsStimulationDeviceAggregator::SetStimulationBPId", 0);
    if (!database.IsOK())
        return std::nullopt;
    try
    {
        QSqlQuery query = QsRunDeviceQuery(database, QsDeviceStatements::beampathName, {{":iBeamPathID", id}});
        if (query.first())
            return QsQueryText(query, 0);
        QS_DIAG(L"CQsStimulationDeviceAggregator::SetStimulationBPId(%d): Invalid Stimulation BP Id, aborting...", id);
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {}
    return std::nullopt;
}

// Ids of the sub-beampaths, ascending: those that the beampath is merged from, else the beampath itself; none for a
// beampath that is not there. Nothing when it could not be asked for.
std::optional<std::vector<qs_int32>> QuerySubbeampaths(qs_int32 id)
{
    const DeviceDBApi::CQsAutoDeviceDB database(
        L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId", 0);
    if (!database.IsOK())
        return std::nullopt;
    try
    {
        QSqlQuery query = QsRunDeviceQuery(database, QsDeviceStatements::mergedBeampaths, {{":iBeamPathID", id}});
        if (!query.first())
            return std::vector<qs_int32>();
        const std::vector<qs_int32> merged = QsJsonIds(query.value(0).toByteArray());
        std::set<qs_int32> ids(merged.begin(), merged.end());
        if (ids.empty())
            ids.insert(id);
        return std::vector<qs_int32>(ids.begin(), ids.end());
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {
        return std::nullopt;
    }
}

} // namespace

CQsStimulationDeviceAggregator::CQsStimulationDeviceAggregator() : m_pTable(std::make_shared<const STable>())
{
    if (Manager* const manager = Manager::InstanceIfExists())
        manager->RegisterStimulationDeviceManagerEventListener(this);
    DMApi::AppRntm_RegisterConsumer(this);
    for (const wchar_t* const event : {s_beforeShutdown, s_beforeSetupChange, s_saveSettings})
        DMApi::AppRntm_RegisterEvent(this, event);
}

CQsStimulationDeviceAggregator::~CQsStimulationDeviceAggregator()
{
    if (Manager* const manager = Manager::InstanceIfExists())
        manager->UnregisterStimulationDeviceManagerEventListener(this);
    DMApi::AppRntm_UnregisterEvent(this, s_beforeShutdown);
    DMApi::AppRntm_UnregisterEvent(this, s_beforeSetupChange);
    // Registered once more and not unregistered, as hosts have always seen it; it goes with the consumer.
    DMApi::AppRntm_RegisterEvent(this, s_saveSettings);
    DMApi::AppRntm_UnregisterConsumer(this);
}

int CQsStimulationDeviceAggregator::SetStimulationBPId(qs_int32 id)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lock);
    m_id = id;
    {
        const CQsScopedLock<CQsMutex> lockTable(m_lockTable);
        m_settingsKey = CQsStringW::Format(L"CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_%d",
                                           static_cast<int>(id));
    }
    const std::optional<CQsStringW> name = QueryBeampathName(id);
    if (!name)
        return QS_ERR_FAIL;
    {
        const CQsScopedLock<CQsMutex> lockTable(m_lockTable);
        m_uniqueName = *name;
    }
    return UpdateAggregatedDevicesAccordingToBPId();
}

qs_int32 CQsStimulationDeviceAggregator::GetStimulationBPId()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lock);
    return m_id;
}

CQsStimulationDeviceAggregator::TablePtr CQsStimulationDeviceAggregator::Table() const
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    return m_pTable;
}

CQsStimulationDeviceAggregator::TablePtr CQsStimulationDeviceAggregator::ExchangeBegunTable(TablePtr table)
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    m_pBegunTable.swap(table);
    return table;
}

int CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId()
{
    // What goes with it, and the devices that sub-beampaths have given up, go after the lock: that is plug-in code.
    TablePtr old;
    std::vector<IQsStimulationDevice*> released;
    const int result = Rebuild(old, released);
    if (old != nullptr)
    {
        // Not left to the destructor: an operation that is under way may keep a sub-beampath for long.
        const TablePtr table = Table();
        old->ForEach(
            [&table](CQsStimulationDeviceProxy& proxy)
            {
                if (!table->Has(proxy))
                    QsWaitForDevices(0, [&proxy] { proxy.AbortIfBegun(); });
            });
    }
    for (IQsStimulationDevice* const device : released)
        CQsRTTI::Release(device);
    return result;
}

int CQsStimulationDeviceAggregator::Rebuild(TablePtr& old, std::vector<IQsStimulationDevice*>& released)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lock);
    if (!DeviceDBApi::IsInitialized())
        return s_noDatabase;
    if (Manager::InstanceIfExists() == nullptr)
        return QS_ERR_FAIL;
    const std::optional<std::vector<qs_int32>> ids = QuerySubbeampaths(m_id);
    if (!ids)
        return QS_ERR_FAIL;
    old = RebuildTable(*ids, released);
    RestoreAssignments();
    return QS_OK;
}

// The table before.
CQsStimulationDeviceAggregator::TablePtr
CQsStimulationDeviceAggregator::RebuildTable(const std::vector<qs_int32>& ids,
                                             std::vector<IQsStimulationDevice*>& released)
{
    const TablePtr old = Table();
    std::map<qs_int32, CQsStimulationDeviceProxy*> proxies; // each with a reference for the new table
    for (const STable::SEntry& entry : old->entries)
    {
        // The place of one that is gone stays, and stays empty when it comes back: the number of places decides how a
        // stimulation begins, and must not change under a host that has looked at it.
        const bool bStays = std::binary_search(ids.begin(), ids.end(), entry.id);
        CQsStimulationDeviceProxy* const proxy = bStays ? entry.pProxy : nullptr;
        CQsRTTI::AddRef(proxy);
        proxies.emplace(entry.id, proxy);
    }
    for (const qs_int32 id : ids)
        if (proxies.count(id) == 0)
            if (CQsStimulationDeviceProxy* const proxy = CreateProxy())
                proxies.emplace(id, proxy);

    const auto table = std::make_shared<STable>();
    for (const auto& entry : proxies)
        table->Append(entry.first, entry.second);
    for (const STable::SEntry& entry : table->entries)
        if (entry.pProxy != nullptr)
            entry.pProxy->AssignSubbeampath(entry.id, released);
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    m_pTable = table;
    return old;
}

std::vector<qs_int32> CQsStimulationDeviceAggregator::GetStimulationSubbeampathIds()
{
    std::vector<qs_int32> ids;
    for (const STable::SEntry& entry : Table()->entries)
        ids.push_back(entry.id);
    return ids;
}

int CQsStimulationDeviceAggregator::AvailableStimulationDevicesChanged()
{
    const CQsRegistryLock::CHoldingScope holding; // a rebuild that drops this beampath waits until it is left
    return UpdateAggregatedDevicesAccordingToBPId();
}

unsigned CQsStimulationDeviceAggregator::AppRntm_HandleEvent(const wchar_t* eventName, void*)
{
    const CQsStringW event(eventName);
    if (event == s_beforeShutdown || event == s_beforeSetupChange || event == s_saveSettings)
        SaveStimulationGroupDeviceAssignments();
    return 0;
}

// --------------------------------------------------------------------------------------------------------- class

const CQsClassInfo* CQsStimulationDeviceAggregator::GetCQsClassInfo()
{
    return &sm_classCQsStimulationDeviceAggregator;
}

const CQsClassInfo* CQsStimulationDeviceAggregator::GetClass() const
{
    return GetCQsClassInfo();
}

IQsInterface* CQsStimulationDeviceAggregator::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

int CQsStimulationDeviceAggregator::RegisterSimpleStimulationDevice()
{
    return QS_OK;
}

int CQsStimulationDeviceAggregator::UnregisterSimpleStimulationDevice()
{
    return QS_OK;
}
