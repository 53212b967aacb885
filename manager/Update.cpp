// The rebuilding of the device map.
#include "manager/StimulationManager.h"

#include "host/QsDevice.h"
#include "manager/DeviceCall.h"

namespace {

constexpr int statusNoDevice = -13;

constexpr unsigned updateTimeoutMs = 5000;

// Update asks the devices what they are.
struct SListing
{
    explicit SListing(std::atomic<bool>& bListing) : m_bListing(bListing) { m_bListing = true; }
    ~SListing() { m_bListing = false; }
    SListing(const SListing&) = delete;
    SListing& operator=(const SListing&) = delete;

private:
    std::atomic<bool>& m_bListing;
};

// What the device map shall say of a device; nothing for one that is not listed.
using Description = std::optional<CQsStimulationDeviceManager::SQsInfoEx>;

Description Describe(CQsStringW name, IQsStimulationDevice& device, bool bVisible)
{
    Description description(std::in_place, std::move(name), &device);
    description->bVisible = bVisible;
    return description;
}

Description DescribeItself(IQsStimulationDevice& device, bool bOnlyConnected)
{
    return QsCallOr(Description(), L"a device's description", __LINE__,
                    [&]
                    {
                        if (bOnlyConnected && !device.IsHWConnected())
                            return Description();
                        return Describe(device.GetUniqueName(), device, device.IsVisible());
                    });
}

} // namespace

int CQsStimulationDeviceManager::Update()
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    if (WaitForStimulationEnd(updateTimeoutMs, true) != QS_OK)
        return QS_ERR_FAIL;

    // Referenced until it has been switched off: a static device whose module is gone is released by the rebuild.
    IQsStimulationDevice* const previous = ActiveEntryDevice();
    CQsRTTI::AddRef(previous);

    EmptyDeviceMap();
    {
        const SListing listing(m_bListing);
        FillDeviceMap();
        FillIdMaps();
    }
    SetStimulationBeampathsDirty();
    if (m_bDatabaseMode)
        RestoreStimulationOC();

    // Also when it is chosen again below: a device sees every activation begin with "off".
    if (previous != nullptr)
        QsCallOr(QS_ERR_FAIL, L"SetActive", __LINE__, [previous] { return previous->SetActive(false); });
    CQsRTTI::Release(previous);

    const int result = ActivateAfterUpdate();
    FireCallbackForChange(eChangeDeviceList);
    return result;
}

// What the user stimulated with last, on this setup. Nothing stored clears the present choice: it belongs to what was
// before.
void CQsStimulationDeviceManager::RestoreStimulationOC()
{
    CQsStringW name;
    DeviceDBAppHelper::LoadParam(L"sLastActiveGlobalStimulationConfiguration", name, nullptr,
                                 DeviceDBApi::GetCurrentSetupID(), DeviceDBApi::GetCurrentUserID());
    SetStimulationOC(name);
}

// The most recently used device that is there, else the first by name.
int CQsStimulationDeviceManager::ActivateAfterUpdate()
{
    if (SetActiveMru(0) == QS_OK)
        return QS_OK;
    SQsInfo first;
    if (GetDeviceInfo(0, first) != QS_OK)
    {
        FireCallbackForChange(eChangeActiveDevice); // nothing is active any more
        return statusNoDevice;
    }
    return SetActive(first.sName.c_str(), false);
}

// The lookups by id keep their content until FillIdMaps changes it at once: they do not wait for the rebuild.
void CQsStimulationDeviceManager::EmptyDeviceMap()
{
    DeviceMap old;
    old.swap(m_devices);
    m_active = m_devices.end();
    if (m_bDatabaseMode)
        for (const auto& entry : old)
            CQsRTTI::Release(entry.second.pDevice);
}

// A device that throws while it is asked is left out; the others are still listed.
void CQsStimulationDeviceManager::FillDeviceMap()
{
    for (SQsDeviceInfo& info : m_staticDevices)
    {
        // A device whose module is gone is released; lookups by id, which do not wait for the rebuild, must forget it
        // first.
        IQsStimulationDevice* const before = info.pDevice;
        CQsRTTI::AddRef(before);
        InsertEntry(QsCallOr(Description(), L"a static device's description", __LINE__,
                             [&info]
                             {
                                 CQsStringW name;
                                 IQsStimulationDevice* device = nullptr;
                                 return info.IsHwConnected(name, &device)
                                            ? Describe(std::move(name), *device, info.IsDeviceVisible())
                                            : Description();
                             }));
        if (before != nullptr && before != info.pDevice)
            ForgetIds(before);
        CQsRTTI::Release(before);
    }
    for (IQsStimulationDevice* const device : m_specialDevices)
        InsertEntry(DescribeItself(*device, true));
    for (IQsStimulationDevice* const device : m_optConfDevices)
        InsertEntry(DescribeItself(*device, false));
    // In database mode shutters stimulate as part of a beampath.
    if (!m_bDatabaseMode)
        for (IQsStimulationDevice* const device : m_shutters)
            InsertEntry(DescribeItself(*device, true));
    for (IQsStimulationDevice* const device : m_simpleDevices)
        InsertEntry(DescribeItself(*device, false));
}

// An entry never replaces one of the same name, so the order of the sources decides name clashes.
void CQsStimulationDeviceManager::InsertEntry(std::optional<SQsInfoEx> entry)
{
    if (!entry)
        return;
    const auto inserted = m_devices.try_emplace(entry->sName, std::move(*entry));
    if (inserted.second && m_bDatabaseMode)
        CQsRTTI::AddRef(inserted.first->second.pDevice);
}

void CQsStimulationDeviceManager::FillIdMaps()
{
    DeviceIdMap byLogDevId;
    DeviceIdMap byPhysDevId;
    SQsStimulationDeviceInfo info;
    const auto insert = [](DeviceIdMap& map, const std::vector<std::uint32_t>& ids, IQsStimulationDevice* device)
    {
        for (const std::uint32_t id : ids)
            if (id != 0)
                map.emplace(id, device);
    };
    for (const auto& entry : m_devices)
    {
        IQsStimulationDevice* const device = entry.second.pDevice;
        info.vecLogDevIds.clear();
        info.vecPhysDevIds.clear();
        if (QsCallOr(QS_ERR_FAIL, L"GetStimulationDeviceInfo", __LINE__,
                     [&] { return device->GetStimulationDeviceInfo(info); }) != QS_OK)
            continue;
        insert(byLogDevId, info.vecLogDevIds, device);
        insert(byPhysDevId, info.vecPhysDevIds, device);
    }
    const CQsScopedLock<CQsMutex> lock(m_lockIds);
    m_devicesByLogDevId.swap(byLogDevId);
    m_devicesByPhysDevId.swap(byPhysDevId);
}
