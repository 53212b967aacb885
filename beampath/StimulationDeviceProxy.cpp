#include "beampath/StimulationDeviceProxy.h"

#include "beampath/DeviceQuery.h"
#include "beampath/DeviceWait.h"
#include "device/ClassRegistration.h"
#include "device/Diagnostics.h"
#include "device/WaitTime.h"
#include "manager/DeviceCall.h"

#include <chrono>
#include <cstring>
#include <optional>

#define QS_DIAG_UNIT L"StimulationDeviceProxy"

namespace {

constexpr int s_notImplemented = -2;

thread_local unsigned t_targets = 0; // that the thread is inside of

// The wake-up of who waits for a target may be missed by a hair; it looks again after this time.
constexpr std::chrono::milliseconds s_ownerPoll{10};

// Puts a device out that began and that nobody will end any more, and gives its reference back.
void PutOut(IQsStimulationDevice* device)
{
    QsWaitForDevices(0,
                     [device]
                     {
                         QsTry(L"StimulationAbort", __LINE__, [device] { return device->StimulationAbort(); });
                         QsTry(L"StimulationEnd", __LINE__,
                               [device] { return device->StimulationEnd(nullptr, nullptr, 0); });
                     });
    CQsRTTI::Release(device);
}

// Former targets, put out at the end of the scope.
struct SBegunBefore
{
    SBegunBefore() = default;
    ~SBegunBefore()
    {
        for (IQsStimulationDevice* const device : devices)
            PutOut(device);
    }
    SBegunBefore(const SBegunBefore&) = delete;
    SBegunBefore& operator=(const SBegunBefore&) = delete;

    std::vector<IQsStimulationDevice*> devices;
};

// What the device database says of a sub-beampath; nothing where it could not be asked.
struct SSubbeampath
{
    std::optional<std::vector<int>> logicalDevices; // database ids
    std::optional<CQsStringW> name;
};

SSubbeampath QuerySubbeampath(qs_int32 id)
{
    SSubbeampath found;
    const DeviceDBApi::CQsAutoDeviceDB database(L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId", 0);
    if (!database.IsOK())
        return found;
    try
    {
        {
            QSqlQuery query =
                QsRunDeviceQuery(database, QsDeviceStatements::devicesOfSubbeampath, {{":iBeamPathID", id}});
            std::vector<int> logicalDevices;
            while (query.next())
                logicalDevices.push_back(query.value(0).toInt());
            found.logicalDevices = std::move(logicalDevices);
        }
        QSqlQuery query = QsRunDeviceQuery(database, QsDeviceStatements::nameOfSubbeampath, {{":iBeamPathID", id}});
        found.name = query.first() ? QsQueryText(query, 0) : CQsStringW();
    }
    catch (const DeviceDBApi::DeviceDBE&)
    {} // reported; what was read before it counts
    return found;
}

// The device that drives one of the logical devices, with a reference; null when there is none. Of several the one with
// the lowest address: arbitrary, but the same throughout a run. The others' references go to `released`.
IQsStimulationDevice* FindDevice(CQsStimulationDeviceManager& manager, const std::vector<int>& logicalDevices,
                                 std::vector<IQsStimulationDevice*>& released)
{
    IQsStimulationDevice* lowest = nullptr;
    for (const int databaseId : logicalDevices)
    {
        const CDMApi_LogDevId logDevId = DMApi::LogDev_GetIdByDBId(databaseId);
        DMApi::LogDev_GetPhysDevId(
            logDevId); // not used here; hosts see every look at a logical device as these two calls
        if (logDevId.value == 0)
            continue;
        std::set<IQsStimulationDevice*> devices;
        manager.GetReferencedDevicesForLogDevId(logDevId.value, devices);
        for (IQsStimulationDevice* const device : devices)
        {
            const bool bLower = lowest == nullptr || std::less<IQsStimulationDevice*>()(device, lowest);
            released.push_back(bLower ? std::exchange(lowest, device) : device);
        }
    }
    return lowest;
}

} // namespace

QS_REGISTER_STIMULATION_CLASS(CQsStimulationDeviceProxy, "Beampath Proxy Stimulation device");
QS_EXPORT_WIDE_CLASS_NAME(CQsStimulationDeviceProxy);

// ---------------------------------------------------------------------------------------------------------- the target

// Holds the target's lock for one operation, and the target with it: an exchange waits for the operation's end.
class QS_SCOPED_CAPABILITY CQsStimulationDeviceProxy::CTarget
{
public:
    // Without the analysis: a loop that it cannot follow.
    explicit CTarget(const CQsStimulationDeviceProxy& proxy)
        QS_ACQUIRE(proxy.m_lockTarget) QS_NO_THREAD_SAFETY_ANALYSIS;
    ~CTarget() QS_RELEASE() QS_NO_THREAD_SAFETY_ANALYSIS;
    CTarget(const CTarget&) = delete;
    CTarget& operator=(const CTarget&) = delete;

    explicit operator bool() const { return m_pTarget != nullptr; }
    IQsStimulationDevice& operator*() const { return *m_pTarget; }
    IQsStimulationDevice* operator->() const { return m_pTarget; }

private:
    bool Lock() QS_NO_THREAD_SAFETY_ANALYSIS;

    const CQsStimulationDeviceProxy& m_proxy;
    bool m_bLocked = false;
    IQsStimulationDevice* m_pTarget = nullptr;
    IQsStimulationDevice* m_pReleased = nullptr; // after the lock: a device's end is plug-in code
    const CQsRegistryLock::CHoldingScope m_holding;
};

// False for a thread that is inside another target already: two that wait for each other's target would wait for ever,
// with both lights on.
bool CQsStimulationDeviceProxy::CTarget::Lock()
{
    while (!m_proxy.m_lockTarget.try_lock())
    {
        if (t_targets != 0)
            return false;
        m_proxy.WaitForTarget();
    }
    return true;
}

CQsStimulationDeviceProxy::CTarget::CTarget(const CQsStimulationDeviceProxy& proxy) : m_proxy(proxy), m_bLocked(Lock())
{
    if (!m_bLocked)
    {
        // As an abort goes: beside the operation that is under way, on a target of its own reference.
        const CQsScopedLock<CQsMutex> lock(proxy.m_lockState);
        m_pTarget = m_pReleased = proxy.m_pTarget;
        CQsRTTI::AddRef(m_pTarget);
        return;
    }
    ++t_targets;
    if (proxy.m_depth++ == 0)
    {
        proxy.m_targetThread.store(std::this_thread::get_id(), std::memory_order_relaxed); // who waits looks again
        m_pReleased = proxy.AdoptNextTarget();
    }
    m_pTarget = proxy.m_pTarget;
}

CQsStimulationDeviceProxy::CTarget::~CTarget()
{
    if (m_bLocked)
    {
        --t_targets;
        const bool bOutermost = --m_proxy.m_depth == 0;
        if (bOutermost)
            m_proxy.m_targetThread.store(std::thread::id(), std::memory_order_relaxed);
        m_proxy.m_lockTarget.unlock();
        if (bOutermost && m_proxy.m_targetWaiters != 0)
        {
            const std::lock_guard<std::mutex> lock(m_proxy.m_waitMutex);
            m_proxy.m_targetLeft.notify_all();
        }
    }
    if (m_pReleased != nullptr)
        CQsRTTI::Release(m_pReleased);
}

// The operation that is under way may last a phase, and its device may need the manager to come to its end. So a thread
// that holds the registry lock lends it, and never takes it back holding the target's lock.
void CQsStimulationDeviceProxy::WaitForTarget() const
{
    ++m_targetWaiters;
    QsWaitForDevices(0,
                     [this]
                     {
                         std::unique_lock<std::mutex> lock(m_waitMutex);
                         m_targetLeft.wait_for(lock, s_ownerPoll,
                                               [this] { return m_targetThread == std::thread::id(); });
                     });
    --m_targetWaiters;
}

// Takes over the caller's reference.
void CQsStimulationDeviceProxy::SetTarget(IQsStimulationDevice* target, std::vector<IQsStimulationDevice*>& released)
{
    {
        const CQsScopedLock<CQsMutex> lock(m_lockState);
        released.push_back(std::exchange(m_pNextTarget, target));
        m_bNextTarget = true;
    }
    // An operation that is under way keeps its target, and may last long; the next one adopts the new target. Waiting
    // for it here would hold up everybody who waits for the rebuild that this belongs to.
    if (!m_lockTarget.try_lock())
        return;
    if (m_depth == 0)
        released.push_back(AdoptNextTarget());
    m_lockTarget.unlock();
}

// The device whose reference is left over; null when there is none.
IQsStimulationDevice* CQsStimulationDeviceProxy::AdoptNextTarget() const
{
    if (!m_bNextTarget.load(std::memory_order_acquire))
        return nullptr;
    const CQsScopedLock<CQsMutex> lock(m_lockState);
    m_bNextTarget = false;
    IQsStimulationDevice* const next = std::exchange(m_pNextTarget, nullptr);
    if (next == nullptr || next == m_pTarget)
        return next;
    IQsStimulationDevice* const old = std::exchange(m_pTarget, next);
    if (!m_bBegun.exchange(false))
        return old;
    m_begunBefore.push_back(old);
    return nullptr;
}

CQsStimulationDeviceProxy::CQsStimulationDeviceProxy()
{
    constexpr const char* operation = "CQsStimulationDeviceProxy::CQsStimulationDeviceProxy";
    QS_DIAG(L"%hs - begin", operation);
    m_hAbortEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    QS_DIAG(L"%hs - end", operation);
}

CQsStimulationDeviceProxy::~CQsStimulationDeviceProxy()
{
    constexpr const char* operation = "CQsStimulationDeviceProxy::~CQsStimulationDeviceProxy";
    QS_DIAG(L"%hs - begin", operation);
    {
        const CTarget target(*this); // adopts one that waits to be it
    }
    for (IQsStimulationDevice* const device : TakeBegunBefore())
        PutOut(device);
    if (m_bBegun)
        PutOut(m_pTarget);
    else
        CQsRTTI::Release(m_pTarget);
    if (m_hAbortEvent != nullptr)
        CloseHandle(m_hAbortEvent);
    QS_DIAG(L"%hs - end", operation);
}

std::vector<IQsStimulationDevice*> CQsStimulationDeviceProxy::TakeBegunBefore()
{
    const CQsScopedLock<CQsMutex> lock(m_lockState);
    return std::exchange(m_begunBefore, {});
}

int CQsStimulationDeviceProxy::SetStimulationSubbeampathId(qs_int32 id)
{
    std::vector<IQsStimulationDevice*> released;
    const int result = AssignSubbeampath(id, released);
    for (IQsStimulationDevice* const device : released)
        CQsRTTI::Release(device);
    return result;
}

int CQsStimulationDeviceProxy::AssignSubbeampath(qs_int32 id, std::vector<IQsStimulationDevice*>& released)
{
    CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists();
    if (manager == nullptr)
        return QS_ERR_FAIL;
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockId);
    m_id = id;
    if (id <= 0)
        return QS_OK;

    const SSubbeampath found = QuerySubbeampath(id);
    if (found.logicalDevices)
        if (IQsStimulationDevice* const device = FindDevice(*manager, *found.logicalDevices, released))
            SetTarget(device, released);
    if (found.name)
    {
        const CQsScopedLock<CQsMutex> lockState(m_lockState);
        m_beampathName = *found.name;
    }
    return QS_OK;
}

void CQsStimulationDeviceProxy::AbortIfBegun()
{
    if (m_bBegun)
        StimulationAbort();
}

qs_int32 CQsStimulationDeviceProxy::GetStimulationSubbeampathId() const
{
    return m_id;
}

std::uint32_t CQsStimulationDeviceProxy::StimulationBeginAsync(SQsStimulationAsyncParams& params)
{
    if (params.pDevice != nullptr)
        params.pDevice->StimulationBegin(params.stimulation);
    return 0;
}

std::uint32_t CQsStimulationDeviceProxy::StimulationEndAsync(SQsStimulationEndParams& params)
{
    if (params.pDevice != nullptr)
        params.pDevice->StimulationEnd(&params.dFirstTime, &params.dSecondTime, 1);
    return 0;
}

const CQsClassInfo* CQsStimulationDeviceProxy::GetCQsClassInfo()
{
    return &sm_classCQsStimulationDeviceProxy;
}

const CQsClassInfo* CQsStimulationDeviceProxy::GetClass() const
{
    return GetCQsClassInfo();
}

IQsInterface* CQsStimulationDeviceProxy::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

int CQsStimulationDeviceProxy::RegisterSimpleStimulationDevice()
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::UnregisterSimpleStimulationDevice()
{
    return QS_OK;
}

// --------------------------------------------------------------------------------------------------------- forwarding

// What `call` answers with the target; `without` where there is none.
template <class Result, class Call>
Result CQsStimulationDeviceProxy::Forward(Result without, Call call) const
{
    const CTarget target(*this);
    return target ? call(*target) : without;
}

CQsStringW CQsStimulationDeviceProxy::GetUniqueName() const
{
    const CTarget target(*this);
    return target ? target->GetUniqueName() : CQsStringW::Format(L"StimulationDeviceProxy_%d", m_id.load());
}

bool CQsStimulationDeviceProxy::IsHWConnected()
{
    return Forward(m_id > 0, [](IQsStimulationDevice& target) { return target.IsHWConnected(); });
}

bool CQsStimulationDeviceProxy::IsVisible()
{
    return Forward(m_id > 0, [](IQsStimulationDevice& target) { return target.IsVisible(); });
}

int CQsStimulationDeviceProxy::SetActive(bool bActive)
{
    return Forward(s_notImplemented, [=](IQsStimulationDevice& target) { return target.SetActive(bActive); });
}

bool CQsStimulationDeviceProxy::IsFeatureSupported(unsigned int featureId)
{
    return Forward(featureId >= 1 && featureId <= 3,
                   [=](IQsStimulationDevice& target) { return target.IsFeatureSupported(featureId); });
}

bool CQsStimulationDeviceProxy::IsFeatureEnabled(unsigned int featureId)
{
    return Forward(featureId >= 1 && featureId <= 3,
                   [=](IQsStimulationDevice& target) { return target.IsFeatureEnabled(featureId); });
}

IQsStimulationDevice::EQsStimulationDeviceType CQsStimulationDeviceProxy::GetStimulationDeviceType() const
{
    return Forward(eStimDevGeneric, [](IQsStimulationDevice& target) { return target.GetStimulationDeviceType(); });
}

CQsStringW CQsStimulationDeviceProxy::GetLocalizedStringForUI(unsigned int stringId)
{
    const CTarget target(*this);
    if (target)
        return target->GetLocalizedStringForUI(stringId);
    // Filled in without the formatter: a translation may hold more than the one place for the name.
    const CQsStringW text = QS_GetTranslation(L"Stimulation Device for Beampath %s", __FILE__);
    const std::size_t place = text.Find(L"%s");
    const CQsScopedLock<CQsMutex> lock(m_lockState);
    return place == CQsStringW::npos ? text : text.Left(place) + m_beampathName + CQsStringW(text.c_str() + place + 2);
}

int CQsStimulationDeviceProxy::HWSequencerEnable(bool bEnable)
{
    return Forward(QS_OK, [=](IQsStimulationDevice& target) { return target.HWSequencerEnable(bEnable); });
}

double CQsStimulationDeviceProxy::GetAcquisitionExposureTime()
{
    return Forward(0.0, [](IQsStimulationDevice& target) { return target.GetAcquisitionExposureTime(); });
}

int CQsStimulationDeviceProxy::GetStimulationExposureTime(double* pdExposure, unsigned int index)
{
    return Forward(QS_OK,
                   [=](IQsStimulationDevice& target) { return target.GetStimulationExposureTime(pdExposure, index); });
}

double CQsStimulationDeviceProxy::GetStimulationExposureTimeCombined(std::uint64_t index)
{
    return Forward(0.0, [=](IQsStimulationDevice& target) { return target.GetStimulationExposureTimeCombined(index); });
}

unsigned int CQsStimulationDeviceProxy::StimulationModeGet()
{
    return Forward(3u, [](IQsStimulationDevice& target) { return target.StimulationModeGet(); });
}

unsigned int CQsStimulationDeviceProxy::StimulationAreaGetCount()
{
    return Forward(0u, [](IQsStimulationDevice& target) { return target.StimulationAreaGetCount(); });
}

int CQsStimulationDeviceProxy::StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                                  const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                                  const CQsRectBase<int>& cameraRegion)
{
    return Forward(QS_OK, [&](IQsStimulationDevice& target)
                   { return target.StimulationAreaSet(regions, picture, pScanArea, format, cameraRegion); });
}

int CQsStimulationDeviceProxy::StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture,
                                                  SQsScanAreaDesc* pScanArea, SQsGrabberFormatDesc* pFormat,
                                                  CQsRectBase<int>* pCameraRegion, std::uint64_t* pPatternMask)
{
    return Forward(
        QS_OK, [=](IQsStimulationDevice& target)
        { return target.StimulationAreaGet(pRegions, pPicture, pScanArea, pFormat, pCameraRegion, pPatternMask); });
}

int CQsStimulationDeviceProxy::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions,
                                                              const SQsRLEPicBuf& picture,
                                                              const SQsScanAreaDesc* pScanArea,
                                                              const SQsGrabberFormatDesc& format,
                                                              const CQsRectBase<int>& cameraRegion)
{
    return Forward(QS_OK,
                   [&](IQsStimulationDevice& target) {
                       return target.StimulationAreaAppendAsPattern(regions, picture, pScanArea, format, cameraRegion);
                   });
}

int CQsStimulationDeviceProxy::StimulationAreaUpload()
{
    // What the target says is dropped: whether the areas are there is asked with StimulationAreaIsUpToDate, and a
    // failed upload of one device must not keep a beampath's others from theirs.
    Forward(QS_OK, [](IQsStimulationDevice& target) { return target.StimulationAreaUpload(); });
    return QS_OK;
}

bool CQsStimulationDeviceProxy::StimulationAreaIsUpToDate()
{
    return Forward(true, [](IQsStimulationDevice& target) { return target.StimulationAreaIsUpToDate(); });
}

int CQsStimulationDeviceProxy::StimulationReady(bool a, bool b)
{
    return Forward(QS_OK, [=](IQsStimulationDevice& target) { return target.StimulationReady(a, b); });
}

bool CQsStimulationDeviceProxy::StimulationIsReady(bool flag, CQsStringW* pReason)
{
    const CTarget target(*this);
    return target ? target->StimulationIsReady(flag, pReason) : StimulationAreaIsUpToDate();
}

int CQsStimulationDeviceProxy::StimulationBegin(const SQsStimulationType& type)
{
    return BeginUnlessWithdrawn(type, m_aborts, m_aborts);
}

int CQsStimulationDeviceProxy::BeginUnlessWithdrawn(const SQsStimulationType& type,
                                                    const std::atomic<std::uint64_t>& withdrawals,
                                                    std::uint64_t expected)
{
    if (CQsStimulationDeviceManager::InstanceIfExists() == nullptr)
        return QS_ERR_FAIL;
    const CTarget target(*this);
    if (type.uiType != eStimContinuous && type.uiType != eStimTimed)
    {
        QS_DIAG(L"CQsStimulationDeviceProxy::StimulationBegin: Entered default case for Stimulation Begin...");
        return QS_ERR_FAIL;
    }
    m_lastKind = type.uiType;
    // Under the target's lock: an end that raises the count and then comes here finds the begin done, or never done.
    if (withdrawals != expected)
        return QS_OK;
    if (target)
    {
        m_bBegun = true;
        const int result = target->StimulationBegin(type);
        // An abort that came between the look above and the device found it dark.
        if (type.uiType == eStimContinuous && withdrawals != expected)
            target->StimulationAbort();
        return result;
    }
    if (type.uiType == eStimTimed)
    {
        ResetEvent(m_hAbortEvent);
        WaitForSingleObject(m_hAbortEvent, QsStimulationWaitMs(type.dDurationMs));
    }
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    {
        SBegunBefore before; // after the present target, and without its lock
        const CTarget target(*this);
        before.devices = TakeBegunBefore();
        if (target)
        {
            const int result = target->StimulationEnd(pdBeginTimes, pdEndTimes, count);
            m_bBegun = false; // not when it throws
            return result;
        }
        m_lastKind = 0;
    }
    // Outside the lock, since the host's callbacks may come back to this device from another thread.
    if (CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists())
        manager->FireCallbackForStimulationOCCommand(CQsStimulationDeviceManager::eOCCommandStimulationEnd);
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime)
{
    const CTarget target(*this);
    if (target)
        return target->StimulationFire(type, pdBeginTime, pdEndTime);
    if (pdBeginTime != nullptr)
        *pdBeginTime = -1.0;
    if (pdEndTime != nullptr)
        *pdEndTime = -1.0;
    return QS_OK;
}

// Not under the target's lock: it is there to reach a begin that holds it.
int CQsStimulationDeviceProxy::StimulationAbort()
{
    ++m_aborts;
    IQsStimulationDevice* target = nullptr;
    std::vector<IQsStimulationDevice*> begunBefore;
    {
        const CQsScopedLock<CQsMutex> lock(m_lockState);
        target = m_pTarget;
        begunBefore = m_begunBefore;
        CQsRTTI::AddRef(target);
        for (IQsStimulationDevice* const device : begunBefore)
            CQsRTTI::AddRef(device);
    }
    for (IQsStimulationDevice* const device : begunBefore)
    {
        QsCallOr(QS_ERR_FAIL, L"StimulationAbort", __LINE__, [device] { return device->StimulationAbort(); });
        CQsRTTI::Release(device);
    }
    if (target == nullptr)
    {
        SetEvent(m_hAbortEvent);
        return QS_OK;
    }
    const int result =
        QsCallOr(QS_ERR_FAIL, L"StimulationAbort", __LINE__, [target] { return target->StimulationAbort(); });
    CQsRTTI::Release(target);
    return result;
}

int CQsStimulationDeviceProxy::StimulationROIPrepare(unsigned int roiIndex)
{
    return Forward(QS_OK, [=](IQsStimulationDevice& target) { return target.StimulationROIPrepare(roiIndex); });
}

int CQsStimulationDeviceProxy::StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message)
{
    return Forward(QS_OK,
                   [&](IQsStimulationDevice& target) { return target.StimulationValidate(pExperiment, message); });
}

IQsLaserPowerControl* CQsStimulationDeviceProxy::GetLaserPowerControl()
{
    return Forward(static_cast<IQsLaserPowerControl*>(nullptr),
                   [](IQsStimulationDevice& target) { return target.GetLaserPowerControl(); });
}

int CQsStimulationDeviceProxy::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const
{
    return Forward(s_notImplemented,
                   [&](IQsStimulationDevice& target) { return target.GetStimulationDeviceInfo(info); });
}
