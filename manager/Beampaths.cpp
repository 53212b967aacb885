// The devices of the stimulation beampaths, and the optical configurations.
#include "manager/StimulationManager.h"

#include "beampath/DeviceQuery.h"
#include "beampath/StimulationDeviceAggregator.h"
#include "device/Diagnostics.h"
#include "manager/DeviceCall.h"

#include <algorithm>

#define QS_DIAG_UNIT L"StimulationManager"

namespace {

constexpr qs_int32 statusRebuildNotInitialised = -8;
constexpr qs_int32 statusOCNotInitialised = -12;

constexpr qs_int32 noBeampath = -1;
constexpr int stimulationBeampathType = 2;

QVariant ToVariant(const CQsStringW& text)
{
    return QString::fromStdWString(text.Std());
}

} // namespace

// ------------------------------------------------------------------------------------------------------- the rebuild

void CQsStimulationDeviceManager::SetStimulationBeampathsDirty()
{
    ++m_beampathMarks;
}

// In the order that the database returns them; nothing when it failed.
std::optional<std::vector<CQsStimulationDeviceManager::SBeampathRow>> CQsStimulationDeviceManager::QueryBeampaths()
{
    const DeviceDBApi::CQsAutoDeviceDB database(L"CQsStimulationDeviceManager::UpdateStimulationBeampaths", 0);
    if (!database.IsOK())
        return std::nullopt;
    try
    {
        QSqlQuery query = QsRunDeviceQuery(
            database, QsDeviceStatements::stimulationBeampaths,
            {{":iSetupID", DeviceDBApi::GetCurrentSetupID()}, {":iHWConfigID", DeviceDBApi::GetCurrentHWConfigID()}});
        std::vector<SBeampathRow> rows;
        while (query.next())
            rows.push_back({query.value(0).toInt(), QsQueryText(query, 1)});
        return rows;
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {
        return std::nullopt;
    }
}

// With one reference; null when it could not be made.
IQsStimulationDevice* CQsStimulationDeviceManager::CreateBeampathDevice(qs_int32 id)
{
    IQsInterface* const object =
        CQsRTTI::CreateAndQuery("CQsStimulationDeviceAggregator", "IQsStimulationDevice", "no file", -1);
    auto* const aggregator = dynamic_cast<CQsStimulationDeviceAggregator*>(object);
    if (aggregator == nullptr)
    {
        CQsRTTI::Release(object);
        return nullptr;
    }
    if (aggregator->SetStimulationBPId(id) == QS_OK)
        return aggregator;
    delete static_cast<CQsClass*>(aggregator); // the one reference goes with it
    QS_DIAG(
        L"CQsStimulationDeviceManager::UpdateStimulationBeampaths: Unable to create stimulation device aggregator for beampath id %d",
        id);
    return nullptr;
}

void CQsStimulationDeviceManager::RebuildBeampaths(const std::vector<SBeampathRow>& rows)
{
    std::set<qs_int32> added;
    std::set<qs_int32> removed;
    {
        const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
        for (const SBeampathRow& row : rows)
        {
            m_beampathIdsByName.emplace(row.name, row.id); // the first of a name stays
            if (m_beampathDevices.count(row.id) == 0)
                added.insert(row.id);
        }
        for (const auto& entry : m_beampathDevices)
            if (std::none_of(rows.begin(), rows.end(), [&](const auto& row) { return row.id == entry.first; }))
                removed.insert(entry.first);
    }
    // Devices are made and released without the lock of the tables: their code is the host's and the plug-ins' too.
    for (const qs_int32 id : removed)
    {
        IQsStimulationDevice* device = nullptr;
        {
            const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
            device = m_beampathDevices[id];
            m_beampathDevices.erase(id);
        }
        // A stimulation may keep the device for a while; the notification below is not for it any more.
        UnregisterStimulationDeviceManagerEventListener(
            dynamic_cast<IQsStimulationDeviceManagerEventListener*>(device));
        CQsRTTI::Release(device);
    }
    for (const qs_int32 id : added)
    {
        IQsStimulationDevice* const device = CreateBeampathDevice(id);
        const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
        m_beampathDevices[id] = device;
    }
}

qs_int32 CQsStimulationDeviceManager::UpdateStimulationBeampaths()
{
    if (!m_bDatabaseMode)
        return statusRebuildNotInitialised;
    if (m_beampathMarks == m_beampathMarksBuilt)
        return QS_OK;

    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    const std::uint64_t marks = m_beampathMarks; // one that is set from here on asks for another rebuild
    // Rebuilt by another thread meanwhile; or this thread, or the worker that R was lent to, came out of the rebuild.
    if (marks == m_beampathMarksBuilt || m_bRebuilding)
        return QS_OK;
    struct SRebuilding
    {
        explicit SRebuilding(bool& bFlag) : m_bFlag(bFlag) { m_bFlag = true; }
        ~SRebuilding() { m_bFlag = false; }
        bool& m_bFlag;
    } const rebuilding(m_bRebuilding);

    {
        const CQsScopedLock<CQsRecursiveMutex> lockTables(m_lockBeampath);
        m_beampathIdsByName.clear();
    }
    if (const std::optional<std::vector<SBeampathRow>> rows = QueryBeampaths())
    {
        RebuildBeampaths(*rows);
        m_beampathMarksBuilt = marks;
        NotifyStimulationDeviceManagerEventListeners();
        FireCallbackForChange(eChangeBeampaths);
    }
    // Also on success: lookups by name answer null after a rebuild, so that their callers choose anew.
    return QS_ERR_FAIL;
}

qs_int32 CQsStimulationDeviceManager::UpdateStimulationBeampathsIfNecessary()
{
    return UpdateStimulationBeampaths();
}

// ------------------------------------------------------------------------------------------------------- the lookups

// Each refreshes first, which may take R, and then takes the lock of the tables, which is a leaf.

unsigned CQsStimulationDeviceManager::GetStimulationBeampathCount()
{
    UpdateStimulationBeampathsIfNecessary();
    return GetStimulationBPCount();
}

unsigned CQsStimulationDeviceManager::GetStimulationBPCount()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
    return static_cast<unsigned>(m_beampathDevices.size());
}

qs_int32 CQsStimulationDeviceManager::GetStimulationBeampathIdByName(CQsStringW name)
{
    UpdateStimulationBeampathsIfNecessary();
    if (name.IsEmpty())
        return 0;
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
    const auto entry = m_beampathIdsByName.find(name);
    return entry != m_beampathIdsByName.end() ? entry->second : noBeampath;
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetAggregatorForBeampath(qs_int32 id)
{
    if (!m_bDatabaseMode)
        return nullptr;
    UpdateStimulationBeampathsIfNecessary();
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
    const auto entry = m_beampathDevices.find(id);
    return entry != m_beampathDevices.end() ? entry->second : nullptr;
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetAggregatorForBeampath(const CQsStringW& name)
{
    if (!m_bDatabaseMode || UpdateStimulationBeampathsIfNecessary() != QS_OK)
        return nullptr;
    const qs_int32 id = GetStimulationBeampathIdByName(name);
    return id > 0 ? GetAggregatorForBeampath(id) : nullptr;
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetStimulationDeviceInterfaceForBeampath(qs_int32 id)
{
    return GetAggregatorForBeampath(id);
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetStimulationDeviceInterfaceForBeampath(CQsStringW name)
{
    return GetAggregatorForBeampath(name);
}

// The device as the tables stand, with one more reference, taken before a rebuild can drop it; null when there is none.
// Waits for nothing: an abort takes this way.
IQsStimulationDevice* CQsStimulationDeviceManager::ReferencedBeampathDevice(qs_int32 id)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
    const auto entry = m_beampathDevices.find(id);
    if (!m_bDatabaseMode || entry == m_beampathDevices.end())
        return nullptr;
    CQsRTTI::AddRef(entry->second);
    return entry->second;
}

// -------------------------------------------------------------------------------------------- optical configurations

qs_int32 CQsStimulationDeviceManager::GetActiveStimulationBeampathId()
{
    return m_activeBeampathId;
}

qs_int32 CQsStimulationDeviceManager::SetActiveStimulationBPId(qs_int32 id)
{
    if (m_activeBeampathId.exchange(id) != id)
        FireCallbackForChange(eChangeActiveBeampath);
    return QS_OK;
}

qs_int32 CQsStimulationDeviceManager::SetStimulationOC(CQsStringW name)
{
    if (!m_bDatabaseMode)
        return statusOCNotInitialised;

    qs_int32 result = QS_OK;
    bool bChanged = false;
    bool bOtherBeampath = false;
    {
        const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
        bChanged = m_stimulationOC != name;
        m_stimulationOC = std::move(name);
        const SOCLookup found = FindBeampathOfOC();
        result = found.status;
        if (result != QS_OK)
            m_stimulationOC = m_activeBeampathName = CQsStringW();
        if (found.id)
            bOtherBeampath = m_activeBeampathId.exchange(*found.id) != *found.id;
    }
    // After the lock: callbacks may take R, whose holder may be waiting for the lock.
    if (bOtherBeampath)
        FireCallbackForChange(eChangeActiveBeampath);
    if (bChanged && result == QS_OK)
    {
        FireCallbackForChange(eChangeStimulationOC);
        FireCallbackForChange(eChangeActiveDevice);
    }
    return result;
}

// Reads the stimulation OC and sets the active beampath's name from it.
CQsStimulationDeviceManager::SOCLookup CQsStimulationDeviceManager::FindBeampathOfOC()
{
    const SOCLookup none{QS_ERR_FAIL, noBeampath};
    const std::size_t colon = m_stimulationOC.Find(L":");
    if (colon == CQsStringW::npos)
    {
        // The empty text clears the choice; that is no mistake of anybody's, though it has this status.
        if (!m_stimulationOC.IsEmpty())
            QS_DIAG(
                L"CQsStimulationDeviceManager::SetStimulationOC: Invalid stimulation OC Name, aborting stimulation...");
        return none;
    }
    m_activeBeampathName = m_stimulationOC.Left(colon);

    const DeviceDBApi::CQsAutoDeviceDB database(L"CQsStimulationDeviceManager::SetStimulationOC", 0);
    if (!database.IsOK())
        return {QS_OK, std::nullopt};
    try
    {
        QSqlQuery query = QsRunDeviceQuery(database, QsDeviceStatements::beampathOfStimulationOC,
                                           {{":sName", ToVariant(m_activeBeampathName)},
                                            {":iSetupID", DeviceDBApi::GetCurrentSetupID()},
                                            {":eType", stimulationBeampathType}});
        if (query.first())
            return {QS_OK, query.value(0).toInt()};
        QS_DIAG(
            L"CQsStimulationDeviceManager::SetStimulationOC: Unable to obtain active stimulation beampath ID from device database, invalid OC Name (%s) or beampath name (%s), aborting stimulation...",
            m_stimulationOC.c_str(), m_activeBeampathName.c_str());
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {
        QS_DIAG(
            L"CQsStimulationDeviceManager::SetStimulationOC: Unable to obtain active stimulation beampath ID from device database due to database error, aborting stimulation...");
    }
    return none;
}

CQsStringW CQsStimulationDeviceManager::GetStimulationOC()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    return m_stimulationOC;
}

CQsStringW CQsStimulationDeviceManager::GetActiveStimulationOC()
{
    return GetStimulationOC();
}

CQsStringW CQsStimulationDeviceManager::GetActiveStimulationBeampathName()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    return m_activeBeampathName;
}

qs_int32 CQsStimulationDeviceManager::SetSystemActiveStimulationOC(CQsStringW name)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    m_systemActiveOC = std::move(name);
    // Looked up for the empty text alone, which names no beampath. Setting a name never asks the database, and hosts
    // that do so from their user interface count on that; the id stays what it was.
    return m_systemActiveOC.IsEmpty() ? FindSystemActiveBeampath(m_systemActiveOC) : QS_OK;
}

qs_int32 CQsStimulationDeviceManager::FindSystemActiveBeampath(const CQsStringW& name)
{
    const std::size_t colon = name.Find(L":");
    if (colon == CQsStringW::npos || colon == 0)
        return QS_ERR_FAIL;
    const DeviceDBApi::CQsAutoDeviceDB database(L"CQsStimulationDeviceManager::SetSystemActiveStimulationOC", 0);
    if (!database.IsOK())
        return QS_ERR_FAIL;
    try
    {
        QSqlQuery query = QsRunDeviceQuery(
            database, QsDeviceStatements::beampathOfSystemActiveOC,
            {{":sName", ToVariant(name.Left(colon))}, {":iSetupID", DeviceDBApi::GetCurrentSetupID()}});
        if (!query.first())
            return QS_ERR_FAIL;
        m_systemActiveBeampathId = query.value(0).toInt();
        return QS_OK;
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {
        return QS_ERR_FAIL;
    }
}

CQsStringW CQsStimulationDeviceManager::GetSystemActiveStimulationOC()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    return m_systemActiveOC;
}

qs_int32 CQsStimulationDeviceManager::GetSystemActiveStimulationBPId()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    return m_systemActiveBeampathId;
}

void CQsStimulationDeviceManager::SetBackupSystemOC(CQsStringW name)
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    m_backupSystemOC = std::move(name);
}

CQsStringW CQsStimulationDeviceManager::GetBackupSystemOC()
{
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockOCNames);
    return m_backupSystemOC;
}
