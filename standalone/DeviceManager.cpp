#include "standalone/DeviceManager.h"

#include "host/QsDMApi.h"
#include "platform/ThreadSafety.h"
#include "standalone/SimulatedShutter.h"

#include <array>
#include <map>
#include <memory>

namespace QsStandalone {

namespace {

struct SShutterNode
{
    SShutterNode(const SShutterSetup& setup, std::uint32_t index) : shutter(setup, index) {}

    CQsSimulatedShutter shutter;
    SShutterNode* next = nullptr; // in its bucket
};

// Shutters by id, read without a lock: a command may come from a light's critical path. Nodes are put in front and
// never freed, since a thread may be inside a shutter that was removed.
constexpr std::size_t bucketCount = 64;
std::array<std::atomic<SShutterNode*>, bucketCount> s_buckets{};

struct SDevices
{
    CQsMutex lock;
    std::vector<std::unique_ptr<SShutterNode>> nodes QS_GUARDED_BY(lock);   // every one there ever was
    std::vector<SShutterNode*> shutters QS_GUARDED_BY(lock);                // those of now, in the order of adding
    std::map<std::uint32_t, std::uint32_t> physicalIds QS_GUARDED_BY(lock); // by logical id, shutters included
    std::map<int, std::uint32_t> databaseIds QS_GUARDED_BY(lock);           // logical id by database id
    std::map<int, std::uint32_t> loadedIds QS_GUARDED_BY(lock);             // the same, of the open database
};

// Never destroyed: threads may still be inside a shutter while the process ends.
SDevices& Devices()
{
    static SDevices& devices = *new SDevices;
    return devices;
}

CQsSimulatedShutter* Find(std::uint32_t logDevId)
{
    const auto& bucket = s_buckets[logDevId % bucketCount];
    for (SShutterNode* node = bucket.load(std::memory_order_acquire); node; node = node->next)
        if (node->shutter.Id() == logDevId)
            return &node->shutter;
    return nullptr;
}

std::vector<CQsSimulatedShutter*> AllShutters()
{
    SDevices& devices = Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    std::vector<CQsSimulatedShutter*> shutters;
    for (SShutterNode* node : devices.shutters)
        shutters.push_back(&node->shutter);
    return shutters;
}

// Empty when the device database and the devices say the same.
std::string Contradiction(int databaseId, std::uint32_t ofDatabase, std::uint32_t ofDevice)
{
    if (ofDatabase == ofDevice)
        return {};
    return "expected database id " + std::to_string(databaseId) + " to mean logical device " +
           std::to_string(ofDevice) + ", as the devices have it, found " + std::to_string(ofDatabase) +
           " in the device database";
}

std::string CheckIds(SDevices& devices, std::uint32_t logDevId, int databaseId) QS_REQUIRES(devices.lock)
{
    if (logDevId == 0)
        return "expected a logical device id of 1 or more, found 0";
    if (devices.physicalIds.count(logDevId) != 0)
        return "expected a logical device id of its own, found " + std::to_string(logDevId) + ", which is taken";
    if (databaseId != 0 && devices.databaseIds.count(databaseId) != 0)
        return "expected a database id of its own, found " + std::to_string(databaseId) + ", which is taken";
    const auto loaded = devices.loadedIds.find(databaseId);
    return loaded != devices.loadedIds.end() ? Contradiction(databaseId, loaded->second, logDevId) : std::string();
}

void Enter(SDevices& devices, std::uint32_t logDevId, std::uint32_t physDevId, int databaseId) QS_REQUIRES(devices.lock)
{
    devices.physicalIds[logDevId] = physDevId;
    if (databaseId != 0)
        devices.databaseIds[databaseId] = logDevId;
}

bool IsTime(double ms)
{
    return ms >= 0.0 && ms <= CQsSimulatedShutter::s_longestTimeMs;
}

} // namespace

bool CQsDeviceManager::AddShutter(const SShutterSetup& setup, std::string& error)
{
    if (!IsTime(setup.openLatencyMs) || !IsTime(setup.closeLatencyMs) || !IsTime(setup.jitterMs) ||
        !IsTime(setup.hangMs))
    {
        error = "expected times of 0 ms or more of shutter " + std::to_string(setup.logDevId) +
                ", found one that is negative, too long or no number";
        return false;
    }
    SDevices& devices = Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    const std::string fault = CheckIds(devices, setup.logDevId, setup.databaseId);
    if (!fault.empty())
    {
        error = fault;
        return false;
    }
    const auto index = static_cast<std::uint32_t>(devices.shutters.size());
    devices.nodes.push_back(std::make_unique<SShutterNode>(setup, index));
    SShutterNode* node = devices.nodes.back().get();
    devices.shutters.push_back(node);
    Enter(devices, setup.logDevId, setup.physDevId, setup.databaseId);
    auto& bucket = s_buckets[setup.logDevId % bucketCount];
    node->next = bucket.load(std::memory_order_relaxed);
    bucket.store(node, std::memory_order_release);
    return true;
}

bool CQsDeviceManager::AddLogicalDevice(const SLogicalDevice& device, std::string& error)
{
    SDevices& devices = Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    const std::string fault = CheckIds(devices, device.logDevId, device.databaseId);
    if (!fault.empty())
    {
        error = fault;
        return false;
    }
    Enter(devices, device.logDevId, device.physDevId, device.databaseId);
    return true;
}

std::vector<SShutterSetup> CQsDeviceManager::Shutters()
{
    std::vector<SShutterSetup> setups;
    for (const CQsSimulatedShutter* shutter : AllShutters())
    {
        setups.push_back(shutter->Setup());
        setups.back().connected = shutter->IsConnected();
    }
    return setups;
}

bool CQsDeviceManager::IsShutterOpen(std::uint32_t logDevId)
{
    CQsSimulatedShutter* shutter = Find(logDevId);
    return shutter != nullptr && shutter->IsOpen();
}

std::uint32_t CQsDeviceManager::ShutterCalls(std::uint32_t logDevId)
{
    CQsSimulatedShutter* shutter = Find(logDevId);
    return shutter != nullptr ? shutter->Calls() : 0;
}

void CQsDeviceManager::ReleaseHangs()
{
    HangsReleased().store(true);
    for (CQsSimulatedShutter* shutter : AllShutters())
        shutter->WakeHangs();
}

std::vector<std::string> CQsDeviceManager::CloseAllShutters()
{
    std::vector<std::string> open;
    for (CQsSimulatedShutter* shutter : AllShutters())
        if (shutter->ForceClosed())
            open.push_back(shutter->Setup().name);
    return open;
}

bool CQsDeviceManager::SetDatabaseIds(const std::vector<std::pair<int, std::uint32_t>>& ids, std::string& error)
{
    SDevices& devices = Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    for (const auto& [databaseId, logDevId] : ids)
    {
        const auto own = devices.databaseIds.find(databaseId);
        const std::string fault =
            own != devices.databaseIds.end() ? Contradiction(databaseId, logDevId, own->second) : std::string();
        if (!fault.empty())
        {
            error = fault;
            return false;
        }
    }
    devices.loadedIds = {ids.begin(), ids.end()};
    return true;
}

void CQsDeviceManager::Reset()
{
    // What is removed must not stay open nor be opened by a thread that found it before; its threads must come out.
    for (CQsSimulatedShutter* shutter : AllShutters())
        shutter->Disconnect();
    SDevices& devices = Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    for (auto& bucket : s_buckets)
        bucket.store(nullptr, std::memory_order_release);
    devices.shutters.clear();
    devices.physicalIds.clear();
    devices.databaseIds.clear();
    HangsReleased().store(false);
}

} // namespace QsStandalone

using QsStandalone::CQsSimulatedShutter;

CQsDMApiBool DMApi::Shutter_SetState(CDMApi_LogDevId_Shutter id, bool bOpen, bool bTriggered, bool bWait)
{
    CQsSimulatedShutter* shutter = QsStandalone::Find(id.value);
    // There is no trigger that a shutter could wait for.
    return shutter != nullptr && shutter->SetState(bOpen, bTriggered, bWait);
}

CDMApi_LogDevIndex_Shutter DMApi::Shutter_GetIndex(CDMApi_LogDevId_Shutter id)
{
    const CQsSimulatedShutter* shutter = QsStandalone::Find(id.value);
    return shutter != nullptr && shutter->IsConnected() ? CDMApi_LogDevIndex_Shutter(shutter->Index())
                                                        : CDMApi_LogDevIndex_Shutter();
}

const wchar_t* DMApi::Shutter_GetToolbarName(CDMApi_LogDevId_Shutter id)
{
    const CQsSimulatedShutter* shutter = QsStandalone::Find(id.value);
    return shutter != nullptr ? shutter->ToolbarName() : nullptr;
}

unsigned int DMApi::LogDev_GetPhysDevId(CDMApi_LogDevId id)
{
    QsStandalone::SDevices& devices = QsStandalone::Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    const auto found = devices.physicalIds.find(id.value);
    return found != devices.physicalIds.end() ? found->second : 0;
}

CDMApi_LogDevId DMApi::LogDev_GetIdByDBId(int databaseId)
{
    QsStandalone::SDevices& devices = QsStandalone::Devices();
    CQsScopedLock<CQsMutex> lock(devices.lock);
    for (const auto* ids : {&devices.databaseIds, &devices.loadedIds})
    {
        const auto found = ids->find(databaseId);
        if (found != ids->end())
            return found->second;
    }
    return 0;
}
