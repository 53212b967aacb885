// The timed stimulation on a worker thread, and the wait for its end.
#include "manager/StimulationManager.h"

#include "host/QsDevice.h"
#include "manager/DeviceCall.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

namespace {

using SQsStimulationType = IQsStimulationDevice::SQsStimulationType;

constexpr int statusNoBeampath = -13;

constexpr unsigned abortPollMs = 10;

// Exposures that fit the duration: the ratio plus 0.5, truncated. 0 when there is no such number.
unsigned ExposureCount(double dDurationMs, double dExposureMs)
{
    const double count = dDurationMs / dExposureMs + 0.5;
    constexpr unsigned most = std::numeric_limits<unsigned>::max();
    if (!std::isfinite(count) || count < 1.0)
        return 0;
    return count >= static_cast<double>(most) ? most : static_cast<unsigned>(count);
}

// Begin and end times of a stimulation, -1.0 where a device gives none.
struct STimes
{
    // Devices write element 0 for any count, so there is always one. False when there is no memory.
    bool Allocate(unsigned n)
    {
        // Each time is written, so memory that the system only promised would end the process, not fail. More exposures
        // than this do not fit into a stimulation.
        constexpr unsigned most = 1u << 26;
        if (n > most)
            return false;
        const std::size_t size = n == 0 ? 1 : n;
        begin.reset(new (std::nothrow) double[size]);
        end.reset(new (std::nothrow) double[size]);
        if (begin == nullptr || end == nullptr)
            return false;
        std::fill_n(begin.get(), size, -1.0);
        std::fill_n(end.get(), size, -1.0);
        count = n;
        return true;
    }
    void Drop()
    {
        begin.reset();
        end.reset();
        count = 0;
    }

    std::unique_ptr<double[]> begin;
    std::unique_ptr<double[]> end;
    unsigned count = 0;
};

// Whatever happened before it, a stimulation that may have begun is ended.
SQsCallOutcome End(IQsStimulationDevice& device, STimes& times)
{
    return QsEndStimulation(device, times.begin.get(), times.end.get(), times.count);
}

// Reports what the end says; what the begin says is not looked at, unless it throws.
int RunSingleShot(IQsStimulationDevice& device, const SQsStimulationType& request, STimes& times)
{
    if (!times.Allocate(1))
        return QS_ERR_FAIL;
    const SQsCallOutcome begin = QsTry(L"StimulationBegin", __LINE__, [&] { return device.StimulationBegin(request); });
    const SQsCallOutcome end = End(device, times);
    return begin.bThrew ? QS_ERR_FAIL : end.status;
}

// Reports what the begin or the last fire says; what the end says is not looked at, unless it throws.
int RunRepeatedPatterns(IQsStimulationDevice& device, const SQsStimulationType& request, STimes& times)
{
    const double dExposureMs = device.GetStimulationExposureTimeCombined(0);
    if (!times.Allocate(ExposureCount(request.dDurationMs, dExposureMs)))
    {
        times.Drop();
        return QS_ERR_FAIL;
    }

    SQsStimulationType shots;
    std::memcpy(&shots.uiReserved, &request.uiReserved, 1); // its first byte only: devices read no more of it in shots
    shots.uiType = IQsStimulationDevice::eStimRepeatedPatterns;
    shots.uiRepeatCount = times.count;
    shots.dDurationMs = 0.0;
    shots.uiGroupMask = request.uiGroupMask;
    shots.dReserved = request.dReserved;

    const SQsCallOutcome shooting = QsTry(
        L"StimulationBegin or StimulationFire", __LINE__,
        [&]
        {
            int status = device.StimulationBegin(shots);
            const double t0 = QS_GetTimeCounter();
            double now = t0;
            // Back to back, without a pause.
            for (unsigned left = times.count; status == QS_OK && left != 0 && request.dDurationMs > now - t0; --left)
            {
                status = device.StimulationFire(shots, nullptr, nullptr);
                now = QS_GetTimeCounter();
            }
            return status;
        });
    const SQsCallOutcome end = End(device, times);
    return end.bThrew ? QS_ERR_FAIL : shooting.status;
}

int Run(IQsStimulationDevice& device, const SQsStimulationType& request, STimes& times)
{
    const unsigned areas = device.StimulationAreaGetCount();
    if (device.StimulationModeGet() != IQsStimulationDevice::s_modeRepeatedPatterns)
        return RunSingleShot(device, request, times);
    return areas == 0 ? QS_OK : RunRepeatedPatterns(device, request, times);
}

} // namespace

int CQsStimulationDeviceManager::StimulateTimedWithActiveAsync(const SQsStimulationType& request,
                                                               StimulationFinishFunction finish, void* user)
{
    const CQsScopedLock<CQsThreadsMutex> lock(m_lockS);
    if (m_pRequest != nullptr)
        return QS_ERR_FAIL;

    m_pRequest.reset(new (std::nothrow) SQsStimulationType(request));
    if (m_pRequest == nullptr)
        return QS_ERR_FAIL;
    m_pFinish = finish;
    m_pUser = user;
    ++m_run;
    m_abortsAtStart = m_aborts;
    if (pthread_create(&m_thread, nullptr, &StimulateTimedAsyncThreadProc, this) != 0)
    {
        m_pRequest.reset();
        m_pFinish = nullptr;
        return QS_ERR_FAIL;
    }
    return QS_OK;
}

// Device of the stimulation that starts, with a reference of its own: a rebuild of the devices may drop it meanwhile.
IQsStimulationDevice* CQsStimulationDeviceManager::DeviceForStimulation()
{
    const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
    IQsStimulationDevice* const device =
        DeviceDBApi::IsInitialized() ? GetAggregatorForBeampath(GetActiveStimulationBeampathId()) : GetActive();
    CQsRTTI::AddRef(device);
    return device;
}

// Reads the request, the finish function and the user pointer without lock S: they were stored before this thread was
// made, and until it clears them itself nobody changes them.
void* CQsStimulationDeviceManager::StimulateTimedAsyncThreadProc(void* pManager)
{
    auto& manager = *static_cast<CQsStimulationDeviceManager*>(pManager);
    const CQsRegistryLock::CWorkerScope worker(manager.m_run);

    IQsStimulationDevice* const device = manager.DeviceForStimulation();
    // The request stays: a host that starts a stimulation without a device sees every later start refused until it
    // notices, instead of experiments that silently do nothing.
    if (device == nullptr)
        return nullptr;

    manager.SetRunningDevice(device);
    const SQsStimulationType& request = *manager.m_pRequest;
    const StimulationFinishFunction finish = manager.m_pFinish;
    void* const user = manager.m_pUser;

    STimes times;
    const int result =
        QsCallOr(QS_ERR_FAIL, L"the stimulation", __LINE__, [&] { return Run(*device, request, times); });
    if (finish != nullptr)
        QsCallOr(0, L"the finish function", __LINE__,
                 [&]
                 {
                     finish(result, times.begin.get(), times.end.get(), times.count, user);
                     return 0;
                 });
    times.Drop();
    manager.SetRunningDevice(nullptr);
    // Before the manager counts as idle: from then on an owner may destroy a device that is not reference counted.
    CQsRTTI::Release(device);

    manager.m_lockS.lock();
    manager.m_pRequest.reset();
    manager.m_pFinish = nullptr;
    manager.m_lockS.unlock();
    return nullptr;
}

int CQsStimulationDeviceManager::WaitForStimulationEnd(unsigned timeoutMs, bool bAbort)
{
    // While Update asks the devices what they are, the lists must not change; R may be lent meanwhile.
    if (m_bListing)
        return QS_ERR_FAIL;
    // Called out of a device or callback by an operation that has waited itself: what was started since has to wait for
    // R before it reaches a device.
    if (m_lockR.IsChanging())
        return QS_OK;

    for (;;)
    {
        QsThread thread;
        CQsRegistryLock::Run run = 0;
        {
            const CQsScopedLock<CQsThreadsMutex> lock(m_lockS);
            if (m_pRequest == nullptr)
                break;
            thread = m_thread; // keeps the handle valid when the next stimulation starts
            run = m_run;
        }
        const HANDLE hThread = pthread_getw32threadhandle_np(thread);
        // From the finish function or out of the device: it would wait for itself. Out of a device-state callback: the
        // device may wait for the callback. Out of any operation of a sub-beampath's device, or an OC-command callback:
        // the stimulation may wait for what the caller holds.
        const bool bAwaitsCaller = CQsRegistryLock::WorkerRun() == run || CQsRegistryLock::IsAnnouncingThread() ||
                                   CQsRegistryLock::IsHoldingThread();
        bool bEnded = false;
        {
            const CQsRegistryLock::CParked parked(m_lockR, run);
            bEnded = pthreadCancelableTimedWait(hThread, bAwaitsCaller ? 0 : timeoutMs) == 0;
        }
        if (bEnded)
            break;
        if (bAwaitsCaller || !bAbort)
            return QS_ERR_FAIL;
        AbortActiveDevice(run);
        timeoutMs = abortPollMs;
    }
    m_lockR.BeginChange();
    return QS_OK;
}

void CQsStimulationDeviceManager::SetRunningDevice(IQsStimulationDevice* device)
{
    const CQsScopedLock<CQsThreadsMutex> lock(m_lockS);
    m_pRunningDevice = device;
}

// With one more reference; null when nothing runs.
IQsStimulationDevice* CQsStimulationDeviceManager::ReferencedRunningDevice()
{
    const CQsScopedLock<CQsThreadsMutex> lock(m_lockS);
    CQsRTTI::AddRef(m_pRunningDevice);
    return m_pRunningDevice;
}

// The abort takes no lock that a rebuild of the beampaths, or another operation that waits, may hold. In database mode
// what runs may be another device than the active one, which the host may have changed since: that light goes out too.
int CQsStimulationDeviceManager::Abort(IQsStimulationDevice* active)
{
    const auto abort = [](IQsStimulationDevice* device)
    { return QsCallOr(QS_ERR_FAIL, L"StimulationAbort", __LINE__, [device] { return device->StimulationAbort(); }); };

    IQsStimulationDevice* const running = m_bDatabaseMode ? ReferencedRunningDevice() : nullptr;
    const int result = active != nullptr ? abort(active) : statusNoBeampath;
    if (running != nullptr && running != active)
        abort(running);
    CQsRTTI::Release(running);
    return result;
}

void CQsStimulationDeviceManager::AbortActiveDevice(CQsRegistryLock::Run run)
{
    IQsStimulationDevice* device = nullptr;
    if (m_bDatabaseMode)
        device = ReferencedBeampathDevice(GetActiveStimulationBeampathId());
    else
    {
        const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
        device = ActiveEntryDevice();
        CQsRTTI::AddRef(device);
    }
    {
        // The worker may need R to get to where the abort reaches it.
        const CQsRegistryLock::CParked parked(m_lockR, run);
        Abort(device);
    }
    CQsRTTI::Release(device);
}

int CQsStimulationDeviceManager::StimulationAbort()
{
    ++m_aborts; // first: a worker that has not come to its beampath yet looks at it there
    const qs_int32 id = GetActiveStimulationBeampathId();
    IQsStimulationDevice* device = ReferencedBeampathDevice(id);
    if (device == nullptr && m_bDatabaseMode && !IsStimulating())
    {
        // Nothing that the abort could be too late for: the beampath may only not have been built yet.
        const CQsScopedLock<CQsRegistryLock> lock(m_lockR);
        device = GetAggregatorForBeampath(id);
        CQsRTTI::AddRef(device);
    }
    const int result = Abort(device);
    CQsRTTI::Release(device);
    return result;
}

bool CQsStimulationDeviceManager::IsAbortedSinceItsStart()
{
    const CQsScopedLock<CQsThreadsMutex> lock(m_lockS);
    return m_run != 0 && CQsRegistryLock::WorkerRun() == m_run && m_abortsAtStart != m_aborts;
}

bool CQsStimulationDeviceManager::IsStimulating()
{
    const CQsScopedLock<CQsThreadsMutex> lock(m_lockS);
    return m_pRunningDevice != nullptr;
}

void CQsStimulationDeviceManager::LendRegistryWhile(CQsRegistryLock::Run awaited, const std::function<void()>& wait)
{
    const CQsRegistryLock::CParked parked(m_lockR, awaited);
    wait();
}
