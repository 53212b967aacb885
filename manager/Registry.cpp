// The instance, the device lists and the lookups.
#include "manager/StimulationManager.h"

#include "host/QsDevice.h"
#include "manager/DeviceCall.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

namespace {

constexpr int statusNullDevice = -4;
constexpr int statusNotFound = -13;

constexpr unsigned listChangeTimeoutMs = 5000;

std::atomic<CQsStimulationDeviceManager*> s_instance{nullptr};
std::atomic<bool> s_bInstanceReady{false};

// Recursive: what LoadStaticDevices calls may ask for the instance.
CQsRecursiveMutex& CreationLock()
{
    static CQsRecursiveMutex lock;
    return lock;
}

// Classes that are not static devices: they are made for a device of the host, or for a beampath, and register
// themselves. The two galvo scanner classes are not among them: they would be left out in database mode only, where no
// static device is loaded at all.
constexpr std::array<const char*, 12> notStaticClasses = {
    "CQsShutterStimulationDevice",   "CQsOptConfStimulationDevice",    "CQsStimulationDeviceMosaic",
    "CQsStimulationDeviceMosaicSim", "CQsStimulationDeviceMightex",    "CQsStimulationDeviceMightexSim",
    "CQsMightexAggregator",          "CQsMightexAggregatorSim",        "CQsStimulationDeviceFrappa",
    "CQsStimulationDeviceFrappaSim", "CQsStimulationDeviceAggregator", "CQsStimulationDeviceProxy"};

template <class Container>
bool Contains(const Container& container, IQsStimulationDevice* device)
{
    return std::find(container.begin(), container.end(), device) != container.end();
}

void EraseDevice(std::multimap<unsigned, IQsStimulationDevice*>& map, IQsStimulationDevice* device)
{
    for (auto entry = map.begin(); entry != map.end();)
        entry = entry->second == device ? map.erase(entry) : std::next(entry);
}

IQsStimulationDevice* FindByUniqueName(IQsStimulationDevice* device, const CQsStringW& name)
{
    return device != nullptr && device->GetUniqueName() == name ? device : nullptr;
}

// The device that `text` means among `candidates`: equal name, then name that contains it, then longest common prefix.
// `nameOf` yields false for a candidate that does not take part. The prefix search starts with `result` and
// `bestScore`; a later candidate wins with a greater score only.
template <class Candidates, class NameOf, class Result, class ResultOf>
Result FindByText(const Candidates& candidates, const wchar_t* text, NameOf nameOf, ResultOf resultOf, Result result,
                  std::ptrdiff_t bestScore)
{
    struct SNamed
    {
        Result value;
        CQsStringW name;
    };
    std::vector<SNamed> named;
    for (const auto& candidate : candidates)
    {
        SNamed entry{resultOf(candidate), CQsStringW()};
        if (entry.value != nullptr)
        {
            entry.name = nameOf(candidate);
            named.push_back(std::move(entry));
        }
    }

    for (const SNamed& entry : named)
        if (entry.name == text)
            return entry.value;
    for (const SNamed& entry : named)
        if (entry.name.Find(text) != CQsStringW::npos)
            return entry.value;

    // The score of a name is min(common prefix, length of text - 1, length of name - 1).
    for (const SNamed& entry : named)
    {
        const wchar_t* const name = entry.name.c_str();
        for (std::ptrdiff_t i = 0; text[i] != L'\0' && name[i] != L'\0'; ++i)
        {
            if (i > bestScore)
            {
                bestScore = i;
                result = entry.value;
            }
            if (text[i] != name[i])
                break;
        }
    }
    return result;
}

} // namespace

// ------------------------------------------------------------------------------------------------------ the instance

CQsStimulationDeviceManager* CQsStimulationDeviceManager::GetInstance()
{
    if (!s_bInstanceReady.load(std::memory_order_acquire))
    {
        const CQsScopedLock<CQsRecursiveMutex> lock(CreationLock());
        if (s_instance.load() == nullptr)
        {
            auto* const manager = new CQsStimulationDeviceManager;
            s_instance = manager; // before the calls out, which may ask for the instance
            manager->LoadStaticDevices();
            manager->MruLoad();
            manager->SetStimulationBeampathsDirty();
            s_bInstanceReady = true;
        }
    }
    return s_instance;
}

CQsStimulationDeviceManager* CQsStimulationDeviceManager::InstanceIfExists()
{
    return s_instance;
}

CQsStimulationDeviceManager::CQsStimulationDeviceManager() : m_bDatabaseMode(DeviceDBApi::IsInitialized())
{
    SetActiveStimulationBPId(-1);
    OpenUserKey();
    m_active = m_devices.end();
    SetStimulationBeampathsDirty();
    RefreshRegOptions();
}

// Devices keep the references of the lists: the process is about to end, or a test ends and its devices live on.
CQsStimulationDeviceManager::~CQsStimulationDeviceManager()
{
    m_changeCallbacks.Clear();
    m_deviceStateCallbacks.Clear();
    m_ocCommandCallbacks.Clear();
    if (IQsStimulationDevice* const device = ActiveEntryDevice())
        device->SetActive(false); // may still call the manager
    s_bInstanceReady = false;
    s_instance = nullptr;
    RegCloseKey(m_hRegistryKey);
}

void CQsStimulationDeviceManager::LoadStaticDevices()
{
    if (m_bDatabaseMode)
        return;

    std::vector<SQsClassEntry> classes;
    CQsRTTI::FindClasses("IQsStimulationDevice", "", "", classes);
    for (const SQsClassEntry& entry : classes)
    {
        const auto isThis = [&entry](const char* name) { return entry.cls.Compare(name) == 0; };
        if (std::none_of(notStaticClasses.begin(), notStaticClasses.end(), isThis))
            StaticDeviceAdd(SQsDeviceInfo(entry.cls.c_str(), entry.module.c_str()));
    }
}

// ---------------------------------------------------------------------------------------------------- static devices

bool CQsStimulationDeviceManager::SQsDeviceInfo::IsModuleLoaded() const
{
    HMODULE module = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, sModuleFile.c_str(), &module) != FALSE &&
           module != nullptr;
}

bool CQsStimulationDeviceManager::SQsDeviceInfo::ProvideDevice()
{
    if (!IsModuleLoaded())
    {
        CQsRTTI::Release(pDevice);
        pDevice = nullptr;
    }
    else if (pDevice == nullptr)
    {
        IQsInterface* const object = CQsRTTI::CreateAndQuery(sClassName.c_str(), "IQsStimulationDevice", "no file", -1);
        pDevice = dynamic_cast<IQsStimulationDevice*>(object);
        if (pDevice == nullptr)
            CQsRTTI::Release(object);
    }
    return pDevice != nullptr;
}

bool CQsStimulationDeviceManager::SQsDeviceInfo::IsHwConnected(CQsStringW& sUniqueName, IQsStimulationDevice** ppDevice)
{
    if (!ProvideDevice() || !pDevice->IsHWConnected())
        return false;
    sUniqueName = pDevice->GetUniqueName();
    if (ppDevice != nullptr)
        *ppDevice = pDevice;
    return true;
}

bool CQsStimulationDeviceManager::SQsDeviceInfo::IsDeviceVisible()
{
    return !ProvideDevice() || pDevice->IsVisible();
}

int CQsStimulationDeviceManager::StaticDeviceAdd(const SQsDeviceInfo& info)
{
    m_staticDevices.push_back(info);
    if (m_staticDevices.size() == 1)
        RegisterScriptCommand();
    return QS_OK;
}

// The device of the class keeps the reference of its creation: the device map and the host may still know it.
int CQsStimulationDeviceManager::StaticDeviceRemove(const char* className)
{
    const auto found =
        std::find_if(m_staticDevices.begin(), m_staticDevices.end(),
                     [className](const SQsDeviceInfo& info) { return info.sClassName.Compare(className) == 0; });
    if (found == m_staticDevices.end())
        return statusNotFound;
    m_staticDevices.erase(found);
    if (m_staticDevices.empty())
        UnregisterScriptCommand();
    return QS_OK;
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetStaticDevice(const wchar_t* name) const
{
    const CQsStringW sName(name);
    for (const SQsDeviceInfo& info : m_staticDevices)
        if (IQsStimulationDevice* const device = FindByUniqueName(info.pDevice, sName))
            return device;
    return nullptr;
}

IQsStimulationDevice* CQsStimulationDeviceManager::GetSpecialDevice(const wchar_t* name) const
{
    const CQsStringW sName(name);
    for (IQsStimulationDevice* const candidate : m_specialDevices)
        if (IQsStimulationDevice* const device = FindByUniqueName(candidate, sName))
            return device;
    return nullptr;
}

// Static devices that were never created have no name and take no part.
IQsStimulationDevice* CQsStimulationDeviceManager::FindStimulationDeviceByNameIntelligent(const wchar_t* text) const
{
    const auto deviceOf = [](const SQsDeviceInfo& info) { return info.pDevice; };
    const auto nameOf = [](const SQsDeviceInfo& info) { return info.pDevice->GetLocalizedStringForUI(0); };
    const auto first = std::find_if(m_staticDevices.begin(), m_staticDevices.end(), deviceOf);
    // The first device is the answer when nothing matches at all: scripts name devices loosely and count on it.
    IQsStimulationDevice* const fallback = first != m_staticDevices.end() ? first->pDevice : nullptr;
    return FindByText(m_staticDevices, text != nullptr ? text : L"", nameOf, deviceOf, fallback, 0);
}

IQsStimulationDeviceEx* CQsStimulationDeviceManager::FindExStimulationDeviceByNameIntelligent(const wchar_t* text) const
{
    const auto extendedOf = [](const SQsDeviceInfo& info)
    {
        IQsInterface* const answer = CQsRTTI::Query(info.pDevice, "IQsStimulationDeviceEx");
        auto* const extended = dynamic_cast<IQsStimulationDeviceEx*>(answer);
        CQsRTTI::Release(answer); // the list keeps the device
        return extended;
    };
    const auto nameOf = [](const SQsDeviceInfo& info) { return info.pDevice->GetLocalizedStringForUI(0); };
    return FindByText(m_staticDevices, text != nullptr ? text : L"", nameOf, extendedOf,
                      static_cast<IQsStimulationDeviceEx*>(nullptr), -1);
}

// ----------------------------------------------------------------------------------------------------- simple devices

int CQsStimulationDeviceManager::RegisterSimpleStimulationDevice(IQsStimulationDevice* device)
{
    if (device == nullptr)
        return statusNullDevice;
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (m_simpleDevices.count(device) != 0)
        return QS_OK;
    if (WaitForStimulationEnd(listChangeTimeoutMs, true) != QS_OK)
        return QS_ERR_FAIL;
    if (m_simpleDevices.insert(device).second)
        CQsRTTI::AddRef(device);
    return QS_OK;
}

int CQsStimulationDeviceManager::UnregisterSimpleStimulationDevice(IQsStimulationDevice* device)
{
    if (device == nullptr)
        return statusNullDevice;
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (WaitForStimulationEnd(listChangeTimeoutMs, true) != QS_OK)
        return QS_ERR_FAIL;
    if (ActiveEntryDevice() == device)
        m_active = m_devices.end();
    if (m_simpleDevices.erase(device) != 0)
    {
        ForgetDeviceUnlessListed(device);
        CQsRTTI::Release(device);
    }
    return QS_OK;
}

// ------------------------------------------------------------------------------------------------------- device lists

void CQsStimulationDeviceManager::DeviceListAdd(std::vector<IQsStimulationDevice*>& list, IQsStimulationDevice* device)
{
    // Waits for a null device too: callers hand in null to stop what runs.
    if (WaitForStimulationEnd(listChangeTimeoutMs, true) == QS_OK && device != nullptr)
        list.push_back(device);
}

void CQsStimulationDeviceManager::DeviceListRemoveAll(std::vector<IQsStimulationDevice*>& list)
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (WaitForStimulationEnd(listChangeTimeoutMs, true) != QS_OK)
        return;

    std::vector<IQsStimulationDevice*> removed;
    removed.swap(list);
    for (IQsStimulationDevice* const device : removed)
    {
        // By name, as the map is keyed: where two devices share a name the entry that goes may be the other's.
        const CQsStringW name =
            QsCallOr(CQsStringW(), L"GetUniqueName", __LINE__, [device] { return device->GetUniqueName(); });
        const auto entry = m_devices.find(name);
        if (entry != m_devices.end())
        {
            if (entry == m_active)
                m_active = m_devices.end();
            IQsStimulationDevice* const entryDevice = entry->second.pDevice;
            m_devices.erase(entry);
            if (m_bDatabaseMode)
                CQsRTTI::Release(entryDevice);
        }
        ForgetDeviceUnlessListed(device);
        CQsRTTI::Release(device);
    }
}

void CQsStimulationDeviceManager::SpecialDevicesAdd(IQsStimulationDevice* device)
{
    DeviceListAdd(m_specialDevices, device);
}

void CQsStimulationDeviceManager::ShuttersAdd(IQsStimulationDevice* device)
{
    DeviceListAdd(m_shutters, device);
}

void CQsStimulationDeviceManager::OptConfDevicesAdd(IQsStimulationDevice* device)
{
    DeviceListAdd(m_optConfDevices, device);
}

void CQsStimulationDeviceManager::SpecialDevicesRemoveAll()
{
    DeviceListRemoveAll(m_specialDevices);
}

void CQsStimulationDeviceManager::ShuttersRemoveAll()
{
    DeviceListRemoveAll(m_shutters);
}

void CQsStimulationDeviceManager::OptConfDevicesRemoveAll()
{
    DeviceListRemoveAll(m_optConfDevices);
}

// A device that left its list may be destroyed at any moment, so no lookup may hand it out any more. Its entry stays in
// the device map until the next Update, under its name and flags but without the device.
void CQsStimulationDeviceManager::ForgetDeviceUnlessListed(IQsStimulationDevice* device)
{
    const auto isStatic = [device](const SQsDeviceInfo& info) { return info.pDevice == device; };
    if (m_simpleDevices.count(device) != 0 || Contains(m_specialDevices, device) ||
        Contains(m_optConfDevices, device) || Contains(m_shutters, device) ||
        std::any_of(m_staticDevices.begin(), m_staticDevices.end(), isStatic))
        return;
    for (auto entry = m_devices.begin(); entry != m_devices.end(); ++entry)
    {
        if (entry->second.pDevice != device)
            continue;
        if (entry == m_active)
            m_active = m_devices.end();
        entry->second.pDevice = nullptr;
        if (m_bDatabaseMode)
            CQsRTTI::Release(device);
    }
    ForgetIds(device);
}

void CQsStimulationDeviceManager::ForgetIds(IQsStimulationDevice* device)
{
    const CQsScopedLock<CQsMutex> lock(m_lockIds);
    EraseDevice(m_devicesByLogDevId, device);
    EraseDevice(m_devicesByPhysDevId, device);
}

// ----------------------------------------------------------------------------------------------------------- lookups

IQsStimulationDevice* CQsStimulationDeviceManager::GetDevice(const wchar_t* name)
{
    const CQsStringW sName(name);
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (m_active != m_devices.end() && m_active->first.Compare(sName) == 0)
        return m_active->second.pDevice;
    for (const auto& entry : m_devices)
        if (entry.first.Compare(sName) == 0)
            return entry.second.pDevice;
    return nullptr;
}

unsigned CQsStimulationDeviceManager::GetDeviceCount() const
{
    return static_cast<unsigned>(m_devices.size());
}

int CQsStimulationDeviceManager::GetDeviceInfo(unsigned index, SQsInfo& info) const
{
    if (index >= m_devices.size())
        return QS_ERR_FAIL;
    info = std::next(m_devices.begin(), index)->second;
    return QS_OK;
}

int CQsStimulationDeviceManager::SetVisible(const wchar_t* name, bool bVisible)
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    const auto entry = m_devices.find(CQsStringW(name));
    if (entry == m_devices.end())
        return QS_ERR_FAIL;
    entry->second.bVisible = bVisible;
    return QS_OK;
}

int CQsStimulationDeviceManager::DevicesForId(const DeviceIdMap& map, unsigned id,
                                              std::set<IQsStimulationDevice*>& devices)
{
    devices.clear();
    const auto range = map.equal_range(id);
    for (auto entry = range.first; entry != range.second; ++entry)
        devices.insert(entry->second);
    return devices.empty() ? QS_ERR_FAIL : QS_OK;
}

int CQsStimulationDeviceManager::GetStimulationDevicesForLogDevId(unsigned id, std::set<IQsStimulationDevice*>& devices)
{
    const CQsScopedLock<CQsMutex> lock(m_lockIds);
    return DevicesForId(m_devicesByLogDevId, id, devices);
}

int CQsStimulationDeviceManager::GetStimulationDevicesForPhysDevId(unsigned id,
                                                                   std::set<IQsStimulationDevice*>& devices)
{
    const CQsScopedLock<CQsMutex> lock(m_lockIds);
    return DevicesForId(m_devicesByPhysDevId, id, devices);
}

int CQsStimulationDeviceManager::GetReferencedDevicesForLogDevId(unsigned id, std::set<IQsStimulationDevice*>& devices)
{
    // A device leaves the lookup before the manager gives back its reference.
    const CQsScopedLock<CQsMutex> lock(m_lockIds);
    const int result = DevicesForId(m_devicesByLogDevId, id, devices);
    for (IQsStimulationDevice* const device : devices)
        CQsRTTI::AddRef(device);
    return result;
}

// Asks in ascending order of ids, and after the lock: a device may announce its state, which takes R.
template <class Query>
bool CQsStimulationDeviceManager::AnyBeampathDevice(Query query)
{
    std::vector<IQsStimulationDevice*> devices;
    {
        const CQsScopedLock<CQsRecursiveMutex> lock(m_lockBeampath);
        for (const auto& entry : m_beampathDevices)
        {
            CQsRTTI::AddRef(entry.second);
            devices.push_back(entry.second);
        }
    }
    bool bAny = false;
    for (IQsStimulationDevice* const device : devices)
    {
        bAny = bAny ||
               (device != nullptr && QsCallOr(false, L"a feature query", __LINE__, [&] { return query(*device); }));
        CQsRTTI::Release(device);
    }
    return bAny;
}

bool CQsStimulationDeviceManager::QueryFeatureSupported(unsigned featureId)
{
    return AnyBeampathDevice([featureId](IQsStimulationDevice& device)
                             { return device.IsFeatureSupported(featureId); });
}

bool CQsStimulationDeviceManager::QueryFeatureEnabled(unsigned featureId)
{
    return AnyBeampathDevice([featureId](IQsStimulationDevice& device) { return device.IsFeatureEnabled(featureId); });
}

CQsStimulationDeviceManager::SQsInfoEx::SQsInfoEx(CQsStringW name, IQsStimulationDevice* device) : pDevice(device)
{
    bVisible = true;
    sName = std::move(name);
    sDisplayName = device->GetLocalizedStringForUI(0);
    if (sDisplayName.IsEmpty())
        sDisplayName = sName;
}
