#include "beampath/StimulationDeviceAggregator.h"

#include "beampath/AbortAll.h"
#include "beampath/DeviceQuery.h"
#include "beampath/DeviceWait.h"
#include "beampath/PoolTask.h"
#include "beampath/StimulationDeviceProxy.h"
#include "device/ClassRegistration.h"
#include "device/Diagnostics.h"
#include "manager/DeviceCall.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>

#define QS_DIAG_UNIT L"StimulationDeviceAggregator"

namespace {

using Manager = CQsStimulationDeviceManager;
using SQsStimulationType = IQsStimulationDevice::SQsStimulationType;
using BeginTask = CQsPoolTask<SQsStimulationAsyncParams>;
using EndTask = CQsPoolTask<SQsStimulationEndParams>;
using BeginWork = CQsPoolWork<CQsStimulationDeviceAggregator, SQsStimulationAsyncParams>;
using EndWork = CQsPoolWork<CQsStimulationDeviceAggregator, SQsStimulationEndParams>;

constexpr int s_notImplemented = -2;
constexpr int s_phaseTooShort = -4;
constexpr int s_noDatabase = -12;
constexpr double s_shortestPhaseMs = 0.001;
constexpr unsigned s_roiKindPattern = 4;
constexpr int s_patternCount = 3;
constexpr std::uint32_t s_allGroups = 7;

constexpr DWORD s_continuousWaitMs = 1000;
constexpr DWORD s_shortestPhaseWaitMs = 100;
constexpr DWORD s_endWaitMs = 10000;

constexpr std::uint64_t s_withdrawn = ~std::uint64_t{0}; // a count that is never reached

constexpr const wchar_t* s_beforeShutdown = L"QS_MODULEEVENT_APP_BEFORESHUTDOWN";
constexpr const wchar_t* s_beforeSetupChange = L"QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE";
constexpr const wchar_t* s_saveSettings = L"QS_MODULEEVENT_SAVE_SETTINGS";

QByteArray ToBytes(const CQsStringW& text)
{
    return QString::fromStdWString(text.Std()).toUtf8();
}

// Whole numbers of a JSON list; another element counts as 0, as the list's writer reads it back. Empty for what is no
// list.
std::vector<qs_int32> JsonIds(const QByteArray& text)
{
    std::vector<qs_int32> ids;
    for (const QJsonValue& element : QJsonDocument::fromJson(text).array())
        ids.push_back(element.toInt());
    return ids;
}

// Time for all devices to finish a phase: twice its duration, and never so short that a busy machine misses it.
DWORD PhaseWaitMs(double dDurationMs)
{
    constexpr double longest = 4294967294.0; // one more means for ever
    const double wait = std::round(2.0 * dDurationMs);
    if (!std::isfinite(wait) || wait <= s_shortestPhaseWaitMs)
        return s_shortestPhaseWaitMs;
    return wait >= longest ? static_cast<DWORD>(longest) : static_cast<DWORD>(wait);
}

// For a log line.
CQsStringW NameOf(const IQsStimulationDevice& device)
{
    return QsCallOr(CQsStringW(L"?"), L"GetUniqueName", __LINE__, [&device] { return device.GetUniqueName(); });
}

// Whether all events were set in time. The call takes so many at once and no none.
bool WaitForAll(const std::vector<HANDLE>& events, DWORD milliseconds)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    bool bAll = true;
    for (std::size_t first = 0; first < events.size(); first += MAXIMUM_WAIT_OBJECTS)
    {
        const auto count = std::min<std::size_t>(events.size() - first, MAXIMUM_WAIT_OBJECTS);
        DWORD left = milliseconds;
        if (first != 0)
        {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
            left = rest > 0 ? static_cast<DWORD>(rest) : 0;
        }
        const DWORD result = WaitForMultipleObjects(static_cast<DWORD>(count), &events[first], TRUE, left);
        bAll = bAll && result < WAIT_OBJECT_0 + count;
    }
    return bAll;
}

} // namespace

QS_REGISTER_STIMULATION_CLASS(CQsStimulationDeviceAggregator, "Beampath Aggregated Stimulation device");
QS_EXPORT_WIDE_CLASS_NAME(CQsStimulationDeviceAggregator);

// ---------------------------------------------------------------------------------------------------- sub-beampaths

// The sub-beampaths as they were at one moment, in ascending order of ids. Holds a reference on each device, so that an
// operation that walks the table may go on while a rebuild replaces it.
struct CQsStimulationDeviceAggregator::STable
{
    struct SEntry
    {
        qs_int32 id = 0;
        CQsStimulationDeviceProxy* pProxy = nullptr; // null: the place of a sub-beampath that is gone
    };

    STable() = default;
    ~STable()
    {
        for (const SEntry& entry : entries)
            CQsRTTI::Release(entry.pProxy);
    }
    STable(const STable&) = delete;
    STable& operator=(const STable&) = delete;

    // Takes over a reference.
    void Append(qs_int32 id, CQsStimulationDeviceProxy* proxy) { entries.push_back({id, proxy}); }
    bool Has(qs_int32 id) const
    {
        return std::any_of(entries.begin(), entries.end(), [id](const SEntry& entry) { return entry.id == id; });
    }
    bool Has(const CQsStimulationDeviceProxy& proxy) const
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&proxy](const SEntry& entry) { return entry.pProxy == &proxy; });
    }
    // Of the devices that are there, in order, up to the first that says yes.
    template <class Ask>
    bool Any(Ask ask) const
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&ask](const SEntry& entry) { return entry.pProxy != nullptr && ask(*entry.pProxy); });
    }
    template <class Visit>
    void ForEach(Visit visit) const
    {
        for (const SEntry& entry : entries)
            if (entry.pProxy != nullptr)
                visit(*entry.pProxy);
    }

    std::vector<SEntry> entries;
};

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
        const std::vector<qs_int32> merged = JsonIds(query.value(0).toByteArray());
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

// ------------------------------------------------------------------------------------------------- group assignments

// At first every group is served by the first sub-beampath; what was saved counts as far as it still exists.
void CQsStimulationDeviceAggregator::RestoreAssignments()
{
    TablePtr table;
    CQsStringW key;
    {
        const CQsScopedLock<CQsMutex> lock(m_lockTable);
        table = m_pTable;
        key = m_settingsKey;
    }
    CQsStringW text;
    std::vector<qs_int32> saved;
    const int status = DeviceDBAppHelper::LoadParam(key.c_str(), text, nullptr, DeviceDBApi::GetCurrentSetupID(),
                                                    DeviceDBApi::GetCurrentUserID());
    if (status == QS_OK)
        saved = JsonIds(ToBytes(text));

    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    if (!table->entries.empty())
        m_groupAssignments.fill(table->entries.front().id);
    m_bAssignmentsUnknown = status == QS_ERR_FAIL;
    for (std::size_t group = 0; group < std::min(saved.size(), m_groupAssignments.size()); ++group)
        if (table->Has(saved[group]))
            m_groupAssignments[group] = saved[group];
}

std::array<qs_int32, 3> CQsStimulationDeviceAggregator::GetStimulationGroupAssignments()
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    return m_groupAssignments;
}

int CQsStimulationDeviceAggregator::SetStimulationGroupAssignment(unsigned group, qs_int32 subbeampathId)
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    if (group >= m_groupAssignments.size() || !m_pTable->Has(subbeampathId))
        return QS_ERR_FAIL;
    m_groupAssignments[group] = subbeampathId;
    m_bAssignmentsUnknown = false;
    return QS_OK;
}

int CQsStimulationDeviceAggregator::SaveStimulationGroupDeviceAssignments()
{
    // What a failing store did not tell must not be overwritten with a guess.
    if (m_bAssignmentsUnknown)
        RestoreAssignments();
    QJsonArray ids;
    CQsStringW key;
    {
        const CQsScopedLock<CQsMutex> lock(m_lockTable);
        if (m_pTable->entries.size() < 2)
            return QS_OK;
        for (const qs_int32 id : m_groupAssignments)
            ids.append(id);
        key = m_settingsKey;
    }
    const QByteArray text = QJsonDocument(ids).toJson(QJsonDocument::Compact);
    if (text.isEmpty())
        return QS_OK;
    return DeviceDBAppHelper::SaveParam(key.c_str(), CQsStringW::FromUtf8(text.toStdString()),
                                        DeviceDBApi::GetCurrentSetupID(), DeviceDBApi::GetCurrentUserID());
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

// --------------------------------------------------------------------------------------------------------- folds

// From 0. A device whose answer `selects` against the result so far is asked again, and the second answer is kept.
template <class Selects, class Ask>
int CQsStimulationDeviceAggregator::FoldStatus(Selects selects, Ask ask) const
{
    int result = QS_OK;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (selects(ask(device), result))
                result = ask(device);
        });
    return result;
}

template <class Ask>
int CQsStimulationDeviceAggregator::LowestStatus(Ask ask) const
{
    return FoldStatus(std::less<int>(), ask);
}

// The same, but a device that is as low as the lowest so far is asked again too.
template <class Ask>
int CQsStimulationDeviceAggregator::LastLowestStatus(Ask ask) const
{
    return FoldStatus(std::less_equal<int>(), ask);
}

CQsStringW CQsStimulationDeviceAggregator::GetUniqueName() const
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    return m_uniqueName;
}

bool CQsStimulationDeviceAggregator::IsHWConnected()
{
    const TablePtr table = Table();
    bool bConnected = !table->entries.empty();
    table->ForEach([&](IQsStimulationDevice& device) { bConnected = device.IsHWConnected() && bConnected; });
    return bConnected;
}

bool CQsStimulationDeviceAggregator::IsVisible()
{
    bool bVisible = false;
    Table()->ForEach([&](IQsStimulationDevice& device) { bVisible = device.IsVisible() || bVisible; });
    return bVisible;
}

int CQsStimulationDeviceAggregator::SetActive(bool bActive)
{
    m_bActive = bActive;
    return s_notImplemented;
}

bool CQsStimulationDeviceAggregator::IsFeatureSupported(unsigned int featureId)
{
    return Table()->Any([=](IQsStimulationDevice& device) { return device.IsFeatureSupported(featureId); });
}

bool CQsStimulationDeviceAggregator::IsFeatureEnabled(unsigned int featureId)
{
    bool bEnabled = false;
    Table()->ForEach([&](IQsStimulationDevice& device) { bEnabled = device.IsFeatureEnabled(featureId) || bEnabled; });
    return bEnabled;
}

IQsStimulationDevice::EQsStimulationDeviceType CQsStimulationDeviceAggregator::GetStimulationDeviceType() const
{
    return eStimDevGeneric;
}

CQsStringW CQsStimulationDeviceAggregator::GetLocalizedStringForUI(unsigned int)
{
    return {};
}

int CQsStimulationDeviceAggregator::HWSequencerEnable(bool bEnable)
{
    return LastLowestStatus([=](IQsStimulationDevice& device) { return device.HWSequencerEnable(bEnable); });
}

double CQsStimulationDeviceAggregator::GetAcquisitionExposureTime()
{
    double longest = 0.0;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (device.GetAcquisitionExposureTime() >= longest)
                longest = device.GetAcquisitionExposureTime();
        });
    return longest;
}

int CQsStimulationDeviceAggregator::GetStimulationExposureTime(double* pdExposure, unsigned int index)
{
    constexpr std::size_t stride = 8;
    const unsigned count = index;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (count == 0)
                return;
            // Zeroed by the system, page by page as they are used: a count that nobody can mean costs nothing.
            const std::unique_ptr<double, decltype(&std::free)> times(
                static_cast<double*>(std::calloc(count, sizeof(double))), &std::free);
            if (times == nullptr)
                return;
            device.GetStimulationExposureTime(times.get(), count);
            for (std::size_t i = 0; pdExposure != nullptr && i < count; ++i)
                pdExposure[stride * i] = std::max(pdExposure[stride * i], times.get()[i]);
        });
    return QS_OK;
}

double CQsStimulationDeviceAggregator::GetStimulationExposureTimeCombined(std::uint64_t index)
{
    double sum = 0.0;
    Table()->ForEach([&](IQsStimulationDevice& device) { sum += device.GetStimulationExposureTimeCombined(index); });
    return sum;
}

unsigned int CQsStimulationDeviceAggregator::StimulationModeGet()
{
    unsigned highest = 3;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (device.StimulationModeGet() > highest)
                highest = device.StimulationModeGet();
        });
    return highest;
}

unsigned int CQsStimulationDeviceAggregator::StimulationAreaGetCount()
{
    const CQsScopedLock<CQsMutex> lock(m_lockAreas);
    return static_cast<unsigned>(m_regions.size());
}

int CQsStimulationDeviceAggregator::StimulationAreaSet(const std::vector<CQsRoiObject>& regions,
                                                       const SQsRLEPicBuf& picture, const SQsScanAreaDesc* pScanArea,
                                                       const SQsGrabberFormatDesc& format,
                                                       const CQsRectBase<int>& cameraRegion)
{
    {
        const CQsScopedLock<CQsMutex> lock(m_lockAreas);
        m_regions = regions;
        CQsRLEPicBufAPI::Copy(m_picture, picture);
        if (pScanArea != nullptr)
            m_scanArea = *pScanArea;
        m_format = format;
        m_cameraRegion = cameraRegion;
    }
    LastLowestStatus([&](IQsStimulationDevice& device)
                     { return device.StimulationAreaSet(regions, picture, pScanArea, format, cameraRegion); });
    // The beampath has taken its areas; which device could not is asked with StimulationAreaIsUpToDate.
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture,
                                                       SQsScanAreaDesc* pScanArea, SQsGrabberFormatDesc* pFormat,
                                                       CQsRectBase<int>* pCameraRegion, std::uint64_t* pPatternMask)
{
    const CQsScopedLock<CQsMutex> lock(m_lockAreas);
    if (pRegions != nullptr)
        *pRegions = m_regions;
    if (pPicture != nullptr)
        CQsRLEPicBufAPI::Copy(*pPicture, m_picture);
    if (pScanArea != nullptr)
        *pScanArea = m_scanArea;
    if (pFormat != nullptr)
        *pFormat = m_format;
    if (pCameraRegion != nullptr)
        *pCameraRegion = m_cameraRegion;
    if (pPatternMask != nullptr)
    {
        *pPatternMask = 0;
        for (const CQsRoiObject& region : m_regions)
        {
            const int k = region.GetPatternIndex();
            if (region.GetKind() == s_roiKindPattern && k >= 0 && k < s_patternCount)
                *pPatternMask |= std::uint64_t{1} << k;
        }
    }
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions,
                                                                   const SQsRLEPicBuf& picture,
                                                                   const SQsScanAreaDesc* pScanArea,
                                                                   const SQsGrabberFormatDesc& format,
                                                                   const CQsRectBase<int>& cameraRegion)
{
    return LowestStatus(
        [&](IQsStimulationDevice& device)
        { return device.StimulationAreaAppendAsPattern(regions, picture, pScanArea, format, cameraRegion); });
}

int CQsStimulationDeviceAggregator::StimulationAreaUpload()
{
    return LowestStatus([](IQsStimulationDevice& device) { return device.StimulationAreaUpload(); });
}

bool CQsStimulationDeviceAggregator::StimulationAreaIsUpToDate()
{
    return !Table()->Any([](IQsStimulationDevice& device) { return !device.StimulationAreaIsUpToDate(); });
}

int CQsStimulationDeviceAggregator::StimulationReady(bool a, bool b)
{
    return LowestStatus([=](IQsStimulationDevice& device) { return device.StimulationReady(a, b); });
}

bool CQsStimulationDeviceAggregator::StimulationIsReady(bool flag, CQsStringW* pReason)
{
    return !Table()->Any([=](IQsStimulationDevice& device) { return !device.StimulationIsReady(flag, pReason); });
}

// --------------------------------------------------------------------------------------------------- stimulation

int CQsStimulationDeviceAggregator::StimulationBegin(const SQsStimulationType& type)
{
    Manager* const pManager = Manager::InstanceIfExists();
    if (pManager == nullptr)
        return QS_ERR_FAIL;
    // Before the callbacks: the host may abort out of them, or may have since it asked for this stimulation.
    const std::uint64_t present = m_withdrawals; // first: an abort raises it after what the manager looks at
    const std::uint64_t withdrawals = pManager->IsAbortedSinceItsStart() ? s_withdrawn : present;
    pManager->FireCallbackForChange(Manager::eChangeStimulationBegin);
    const bool bTimed = type.uiType == eStimTimed;
    if (bTimed && std::fabs(type.dDurationMs) <= s_shortestPhaseMs)
    {
        QS_DIAG(L"CQsStimulationDeviceAggregator::StimulationBegin: Invalid stimulation phase duration %f [ms].",
                type.dDurationMs);
        return s_phaseTooShort;
    }
    m_lastKind = type.uiType;
    pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationPhase);

    const TablePtr table = Table();
    ExchangeBegunTable(table);
    int result = QS_OK;
    bool bInTime = true;
    if (table->entries.size() >= 2)
        bInTime = BeginTogether(*table, type, withdrawals);
    else
        table->ForEach(
            [&](CQsStimulationDeviceProxy& proxy)
            {
                const auto begin = [&] { return proxy.BeginUnlessWithdrawn(type, m_withdrawals, withdrawals); };
                QsWaitForDevices(0, [&] { result = QsCallOr(QS_ERR_FAIL, L"StimulationBegin", __LINE__, begin); });
            });
    // Devices that are late, and kinds that nobody waits for, may still be on their way into their begin.
    if (bInTime && (bTimed || type.uiType == eStimContinuous))
        ExchangeBegunTable(nullptr);
    if (bTimed)
        pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    // No failure: the late devices still do their part, and the end reaches them.
    if (!bInTime)
        QS_DIAG(
            L"CQsStimulationDeviceAggregator::StimulationBegin: Timeout while waiting for devices to finish their tasks.");
    if (bTimed)
        pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationEnd);
    return result;
}

// False when devices were late.
bool CQsStimulationDeviceAggregator::BeginTogether(const STable& table, const SQsStimulationType& type,
                                                   std::uint64_t withdrawals)
{
    // Every device takes all groups of the request: the areas of a group are on the device that has them, whatever
    // sub-beampath the group is assigned to.
    SQsStimulationAsyncParams params;
    params.stimulation = type;
    params.stimulation.uiGroupMask = type.uiGroupMask & s_allGroups;
    params.withdrawals = withdrawals;
    if (params.stimulation.uiGroupMask == 0)
        return true;

    // All tasks are made before the first one is queued, so that the devices begin as close together as the pool can.
    std::vector<BeginTask*> tasks;
    std::vector<IQsStimulationDevice*> refused;
    table.ForEach(
        [&](IQsStimulationDevice& device)
        {
            params.pDevice = &device;
            if (BeginTask* const task = BeginTask::Create(params))
                tasks.push_back(task);
            else
                refused.push_back(&device);
        });
    const CQsRegistryLock::Run run = CQsRegistryLock::RunOfCaller();
    std::vector<HANDLE> events;
    events.reserve(tasks.size());
    for (BeginTask* const task : tasks)
    {
        if (BeginWork::Queue(*this, &CQsStimulationDeviceAggregator::StimulationBeginAsync, *task, run))
            events.push_back(task->Done());
        else
            refused.push_back(task->params.pDevice);
    }
    for (IQsStimulationDevice* const device : refused)
        QS_DIAG(L"CQsStimulationDeviceAggregator::StimulationBegin: Unable to queue a task for device %s.",
                NameOf(*device).c_str());
    bool bInTime = true;
    const bool bTimed = type.uiType == eStimTimed;
    if (bTimed || type.uiType == eStimContinuous)
        QsWaitForDevices(
            run, [&] { bInTime = WaitForAll(events, bTimed ? PhaseWaitMs(type.dDurationMs) : s_continuousWaitMs); });
    for (BeginTask* const task : tasks)
        task->Release();
    return bInTime;
}

std::uint32_t CQsStimulationDeviceAggregator::StimulationBeginAsync(SQsStimulationAsyncParams& params)
{
    const DWORD thread = GetCurrentThreadId();
    QS_DIAG(
        L"CQsStimulationDeviceAggregator::StimulationBeginAsync: Windows Threadpool thread (%#x) procedure has started.",
        thread);
    const auto begin = [this, &params]
    {
        auto* const proxy = params.withdrawals ? dynamic_cast<CQsStimulationDeviceProxy*>(params.pDevice) : nullptr;
        return proxy != nullptr ? proxy->BeginUnlessWithdrawn(params.stimulation, m_withdrawals, *params.withdrawals)
                                : params.pDevice->StimulationBegin(params.stimulation);
    };
    if (params.pDevice != nullptr && QsCallOr(QS_ERR_FAIL, L"StimulationBegin", __LINE__, begin) != QS_OK)
        // The text has always named another operation than the one that failed; who reads logs knows it so.
        QS_DIAG(
            L"CQsStimulationDeviceAggregator::StimulationBeginAsync: Failed to call StimulationROIPrepare on device %s, thread (%i)",
            NameOf(*params.pDevice).c_str(), static_cast<int>(thread));
    QS_DIAG(
        L"CQsStimulationDeviceAggregator::StimulationBeginAsync: Windows Threadpool thread (%#x) procedure has finished.",
        thread);
    return 0;
}

int CQsStimulationDeviceAggregator::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    ++m_withdrawals; // a device that is still on its way into its begin would light up after its end
    const bool bContinuous = m_lastKind == eStimContinuous;
    const auto fire = [bContinuous](Manager::EQsStimulationManagerOCCommand command)
    {
        Manager* const pManager = Manager::InstanceIfExists();
        if (bContinuous && pManager != nullptr)
            pManager->FireCallbackForStimulationOCCommand(command);
    };
    fire(Manager::eOCCommandStimulationBegin);
    const TablePtr table = Table();
    if (table->entries.size() >= 2)
        EndTogether(*table);
    else
        table->ForEach([&](IQsStimulationDevice& device)
                       { QsWaitForDevices(0, [&] { QsEndStimulation(device, pdBeginTimes, pdEndTimes, count); }); });
    ExchangeBegunTable(nullptr);
    fire(Manager::eOCCommandStimulationEnd);
    if (Manager* const pManager = Manager::InstanceIfExists())
        pManager->FireCallbackForChange(Manager::eChangeStimulationEnd);
    m_lastKind = 0;
    return QS_OK;
}

void CQsStimulationDeviceAggregator::EndTogether(const STable& table)
{
    const CQsRegistryLock::Run run = CQsRegistryLock::RunOfCaller();
    std::vector<EndTask*> tasks;
    std::vector<IQsStimulationDevice*> refused;
    for (const STable::SEntry& entry : table.entries)
    {
        SQsStimulationEndParams params;
        params.pDevice = entry.pProxy;
        EndTask* const task = EndTask::Create(params);
        if (task != nullptr && EndWork::Queue(*this, &CQsStimulationDeviceAggregator::StimulationEndAsync, *task, run))
        {
            tasks.push_back(task);
            continue;
        }
        refused.push_back(entry.pProxy);
        if (task != nullptr)
            task->Release();
    }
    // Late rather than never: the light must go out. After the others, which a device that hangs must not hold up.
    for (IQsStimulationDevice* const device : refused)
        QsWaitForDevices(run,
                         [this, device]
                         {
                             SQsStimulationEndParams params;
                             params.pDevice = device;
                             QsTry(L"StimulationEnd", __LINE__,
                                   [&] { return static_cast<int>(StimulationEndAsync(params)); });
                         });
    QsWaitForDevices(run,
                     [&]
                     {
                         for (EndTask* const task : tasks)
                             WaitForSingleObject(task->Done(), s_endWaitMs);
                     });
    for (EndTask* const task : tasks)
        task->Release();
}

std::uint32_t CQsStimulationDeviceAggregator::StimulationEndAsync(SQsStimulationEndParams& params)
{
    if (params.pDevice == nullptr)
        QS_DIAG(L"CQsStimulationDeviceAggregator::StimulationEndAsync: Error, nullptr.");
    else if (QsEndStimulation(*params.pDevice, &params.dFirstTime, &params.dSecondTime, 1).status != QS_OK)
        QS_DIAG(L"CQsStimulationDeviceAggregator::StimulationEndAsync: Async call to StimulationEnd of %s failed.",
                NameOf(*params.pDevice).c_str());
    return 0;
}

int CQsStimulationDeviceAggregator::StimulationFire(const SQsStimulationType& type, double* pdBeginTime,
                                                    double* pdEndTime)
{
    if (Table()->entries.empty())
    {
        if (pdBeginTime != nullptr)
            *pdBeginTime = -1.0;
        if (pdEndTime != nullptr)
            *pdEndTime = -1.0;
    }
    return LowestStatus([&](IQsStimulationDevice& device)
                        { return device.StimulationFire(type, pdBeginTime, pdEndTime); });
}

int CQsStimulationDeviceAggregator::StimulationAbort()
{
    ++m_withdrawals;
    TablePtr table;
    TablePtr begun;
    {
        const CQsScopedLock<CQsMutex> lock(m_lockTable);
        table = m_pTable;
        begun = m_pBegunTable;
    }
    std::vector<IQsStimulationDevice*> devices;
    table->ForEach([&devices](IQsStimulationDevice& device) { devices.push_back(&device); });
    const std::size_t present = devices.size();
    if (begun != nullptr && begun != table)
        begun->ForEach(
            [&devices](IQsStimulationDevice& device)
            {
                if (std::find(devices.begin(), devices.end(), &device) == devices.end())
                    devices.push_back(&device);
            });

    const std::vector<int> statuses =
        QsAbortAll(devices, std::make_shared<std::array<TablePtr, 2>>(std::array<TablePtr, 2>{table, begun}));
    // The fold of the other operations, over answers that came all at once.
    int result = QS_OK;
    for (std::size_t i = 0; i < present; ++i)
        if (statuses[i] < result)
            result = devices[i]->StimulationAbort();
    return result;
}

int CQsStimulationDeviceAggregator::StimulationROIPrepare(unsigned int roiIndex)
{
    return LowestStatus([=](IQsStimulationDevice& device) { return device.StimulationROIPrepare(roiIndex); });
}

int CQsStimulationDeviceAggregator::StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message)
{
    return LowestStatus([&](IQsStimulationDevice& device) { return device.StimulationValidate(pExperiment, message); });
}

int CQsStimulationDeviceAggregator::GetStimulationDeviceInfo(SQsStimulationDeviceInfo&) const
{
    return LowestStatus(
        [](IQsStimulationDevice& device)
        {
            SQsStimulationDeviceInfo own;
            return device.GetStimulationDeviceInfo(own);
        });
}
