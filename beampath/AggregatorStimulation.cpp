// Stimulation of a beampath: begin and end of all devices together, fire, abort.
#include "beampath/AbortAll.h"
#include "beampath/AggregatorTable.h"
#include "beampath/DeviceWait.h"
#include "beampath/PoolTask.h"
#include "device/Diagnostics.h"
#include "manager/DeviceCall.h"
#include "manager/StimulationManager.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#define QS_DIAG_UNIT L"StimulationDeviceAggregator"

namespace {

using Manager = CQsStimulationDeviceManager;
using SQsStimulationType = IQsStimulationDevice::SQsStimulationType;
using BeginTask = CQsPoolTask<SQsStimulationAsyncParams>;
using EndTask = CQsPoolTask<SQsStimulationEndParams>;
using BeginWork = CQsPoolWork<CQsStimulationDeviceAggregator, SQsStimulationAsyncParams>;
using EndWork = CQsPoolWork<CQsStimulationDeviceAggregator, SQsStimulationEndParams>;

constexpr int s_phaseTooShort = -4;
constexpr double s_shortestPhaseMs = 0.001;
constexpr std::uint32_t s_allGroups = 7;

constexpr DWORD s_continuousWaitMs = 1000;
constexpr DWORD s_shortestPhaseWaitMs = 100;
constexpr DWORD s_endWaitMs = 10000;

constexpr std::uint64_t s_withdrawn = ~std::uint64_t{0}; // a count that is never reached

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
