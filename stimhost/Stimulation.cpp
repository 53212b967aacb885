#include "stimhost/Stimulation.h"

#include "beampath/StimulationDeviceAggregator.h"
#include "manager/StimulationManager.h"
#include "platform/ThreadSafety.h"
#include "platform/Timer.h"
#include "standalone/DeviceDatabase.h"
#include "standalone/DeviceManager.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/Journal.h"
#include "stimhost/Bounded.h"
#include "stimhost/Interruption.h"
#include "stimhost/ProgressLine.h"
#include "stimhost/Text.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <system_error>
#include <thread>

namespace Stimhost {

namespace {

using Clock = std::chrono::steady_clock;
using QsStandalone::CQsDiagnosticLog;
using QsStandalone::CQsJournal;

Clock::duration Milliseconds(double ms)
{
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(ms));
}

// One stimulation that runs: what its threads tell each other. Shared by them, so it lives as long as any of them.
class CRun : public std::enable_shared_from_this<CRun>
{
public:
    CRun(CQsStimulationDeviceManager& manager, IQsStimulationDevice& device, const SRequest& request)
        : m_manager(manager), m_device(device), m_request(request)
    {
        CQsRTTI::AddRef(&m_device);
    }
    ~CRun() { CQsRTTI::Release(&m_device); }
    CRun(const CRun&) = delete;
    CRun& operator=(const CRun&) = delete;

    // Every thread there will be is made before the light may come on. QS_ERR_FAIL when there is none to be had, or
    // what the manager answers; then no thread is left.
    int Start();
    void Abort(bool interrupted);
    // Aborts the device from here, and waits a second for the end.
    void Stop();
    // Wait for the end, of the stimulation and of the aborting thread; false when the time is over.
    bool WaitForEnd(Clock::time_point until);
    bool WaitForAborter(Clock::time_point until);
    bool Ended();
    void Collect(SPhase& phase);
    double StartedMs() const { return m_startedMs; }

    // Takes leave of the threads: waits for those that are over but for their last steps, leaves the others. False when
    // any was left.
    bool LeaveThreads();

private:
    int StartLight();
    void RunAborter();
    void AbortWhenDue();
    static void OnFinish(int result, double* begins, double* ends, unsigned count, void* user);
    void DriveContinuous();
    void Finish(int status, const double* begins, const double* ends, unsigned count);

    CQsStimulationDeviceManager& m_manager;
    IQsStimulationDevice& m_device;
    const SRequest m_request;
    double m_startedMs = 0.0;
    Clock::time_point m_start;

    std::thread m_driver; // this and the next belong to the thread that runs the stimulation
    std::thread m_aborter;

    CQsMutex m_lock;
    std::condition_variable_any m_changed;
    bool m_ended QS_GUARDED_BY(m_lock) = false;
    bool m_aborterEnded QS_GUARDED_BY(m_lock) = false;
    bool m_started QS_GUARDED_BY(m_lock) = false; // until then there is nothing to abort
    bool m_abort QS_GUARDED_BY(m_lock) = false;
    bool m_interrupted QS_GUARDED_BY(m_lock) = false;
    double m_abortCalledMs QS_GUARDED_BY(m_lock) = s_noTime;
    int m_abortStatus QS_GUARDED_BY(m_lock) = 0;
    int m_status QS_GUARDED_BY(m_lock) = 0;
    std::vector<double> m_begins QS_GUARDED_BY(m_lock);
    std::vector<double> m_ends QS_GUARDED_BY(m_lock);
};

int CRun::Start()
{
    int status = QS_ERR_FAIL;
    try
    {
        m_aborter = std::thread([self = shared_from_this()] { self->RunAborter(); });
        status = StartLight();
    }
    catch (const std::system_error&) // no thread
    {
        status = QS_ERR_FAIL;
    }
    {
        const CQsScopedLock<CQsMutex> hold(m_lock);
        m_started = true;
        m_ended = m_ended || status != QS_OK;
        m_changed.notify_all();
    }
    if (status != QS_OK && m_aborter.joinable())
        m_aborter.join();
    return status;
}

int CRun::StartLight()
{
    IQsStimulationDevice::SQsStimulationType type;
    type.uiType = IQsStimulationDevice::eStimTimed;
    type.uiRepeatCount = 1;
    type.dDurationMs = m_request.durationMs;
    type.uiGroupMask = m_request.groupMask;

    m_start = Clock::now();
    m_startedMs = QS_GetTimeCounter();
    if (m_request.kind == EKind::Continuous)
    {
        m_driver = std::thread([self = shared_from_this()] { self->DriveContinuous(); });
        return QS_OK;
    }
    auto user = std::make_unique<std::shared_ptr<CRun>>(shared_from_this());
    const int status = m_manager.StimulateTimedWithActiveAsync(type, &CRun::OnFinish, user.get());
    if (status == QS_OK)
        static_cast<void>(user.release()); // the finish function frees it
    return status;
}

void CRun::OnFinish(int result, double* begins, double* ends, unsigned count, void* user)
{
    const std::unique_ptr<std::shared_ptr<CRun>> run(static_cast<std::shared_ptr<CRun>*>(user));
    (*run)->Finish(result, begins, ends, count);
}

// The manager's worker ends a single shot at once, so a continuous light of some length is held from here.
void CRun::DriveContinuous()
{
    IQsStimulationDevice::SQsStimulationType type;
    type.uiType = IQsStimulationDevice::eStimContinuous;
    type.uiRepeatCount = 1;
    type.dDurationMs = m_request.durationMs;
    type.uiGroupMask = m_request.groupMask;

    const SAnswer begun = Ask([&] { return m_device.StimulationBegin(type); });
    if (begun.status == QS_OK)
    {
        const Clock::time_point until = Clock::now() + Milliseconds(m_request.durationMs);
        const CQsScopedLock<CQsMutex> hold(m_lock);
        while (!m_abort && Clock::now() < until)
            m_changed.wait_until(m_lock, until);
    }
    double begin = -1.0;
    double end = -1.0;
    // Also after a begin that threw, perhaps with its light on; where the end throws, the abort is what is left.
    const SAnswer ended = Ask([&] { return m_device.StimulationEnd(&begin, &end, 1); });
    if (ended.threw)
        Ask([this] { return m_device.StimulationAbort(); });
    Finish(begun.status != QS_OK ? begun.status : ended.status, &begin, &end, 1);
}

void CRun::Finish(int status, const double* begins, const double* ends, unsigned count)
{
    const CQsScopedLock<CQsMutex> hold(m_lock);
    m_status = status;
    if (begins != nullptr && ends != nullptr)
    {
        m_begins.assign(begins, begins + count);
        m_ends.assign(ends, ends + count);
    }
    m_ended = true;
    m_changed.notify_all();
}

void CRun::Abort(bool interrupted)
{
    const CQsScopedLock<CQsMutex> hold(m_lock);
    m_abort = true;
    m_interrupted = m_interrupted || interrupted;
    m_changed.notify_all();
}

void CRun::Stop()
{
    Abort(true);
    constexpr double longestMs = 1000.0;
    const Clock::time_point until = Clock::now() + Milliseconds(longestMs);
    RunBounded(longestMs, [self = shared_from_this()] { self->m_device.StimulationAbort(); });
    WaitForEnd(until);
}

bool CRun::LeaveThreads()
{
    const bool ended = Ended();
    const bool aborterEnded = WaitForAborter(Clock::now());
    if (m_driver.joinable())
        ended ? m_driver.join() : m_driver.detach();
    aborterEnded ? m_aborter.join() : m_aborter.detach();
    return ended && aborterEnded;
}

void CRun::RunAborter()
{
    AbortWhenDue();
    const CQsScopedLock<CQsMutex> hold(m_lock);
    m_aborterEnded = true;
    m_changed.notify_all();
}

// Aborts again until the stimulation is over: an abort that meets a device between opening and waiting is lost.
void CRun::AbortWhenDue()
{
    {
        const CQsScopedLock<CQsMutex> hold(m_lock);
        while (!m_started)
            m_changed.wait(m_lock);
        const Clock::time_point due = m_start + Milliseconds(m_request.abortAfterMs.value_or(0.0));
        while (!m_ended && !m_abort && !(m_request.abortAfterMs && Clock::now() >= due))
        {
            if (m_request.abortAfterMs)
                m_changed.wait_until(m_lock, due);
            else
                m_changed.wait(m_lock);
        }
        if (m_ended)
            return;
        m_abort = true;
        m_abortCalledMs = QS_GetTimeCounter();
    }
    for (bool first = true; !Ended(); first = false)
    {
        // The manager reaches the device of a beampath only; a plain active device is told here.
        const int status = Ask([this] { return m_manager.StimulationAbort(); }).status;
        if (status != QS_OK)
            Ask([this] { return m_device.StimulationAbort(); });
        const CQsScopedLock<CQsMutex> hold(m_lock);
        if (first)
            m_abortStatus = status;
        m_changed.notify_all();
        const Clock::time_point again = Clock::now() + std::chrono::milliseconds(10);
        while (!m_ended && Clock::now() < again)
            m_changed.wait_until(m_lock, again);
    }
}

bool CRun::WaitForEnd(Clock::time_point until)
{
    const CQsScopedLock<CQsMutex> hold(m_lock);
    while (!m_ended && Clock::now() < until)
        m_changed.wait_until(m_lock, until);
    return m_ended;
}

bool CRun::WaitForAborter(Clock::time_point until)
{
    const CQsScopedLock<CQsMutex> hold(m_lock);
    while (!m_aborterEnded && Clock::now() < until)
        m_changed.wait_until(m_lock, until);
    return m_aborterEnded;
}

bool CRun::Ended()
{
    const CQsScopedLock<CQsMutex> hold(m_lock);
    return m_ended;
}

// Times that a device did not give read -1.
double FromStart(double timeMs, double startedMs)
{
    return timeMs < 0.0 ? s_noTime : timeMs - startedMs;
}

void CRun::Collect(SPhase& phase)
{
    const CQsScopedLock<CQsMutex> hold(m_lock);
    phase.finished = m_ended;
    phase.status = m_status;
    phase.interrupted = m_interrupted;
    phase.abortCalledMs = m_abortCalledMs - m_startedMs;
    phase.abortStatus = m_abortStatus;
    for (const double begin : m_begins)
        phase.reportedBeginMs.push_back(FromStart(begin, m_startedMs));
    for (const double end : m_ends)
        phase.reportedEndMs.push_back(FromStart(end, m_startedMs));
}

void ShowProgress(CProgressLine& line, const SRequest& request, double passedMs)
{
    if (request.durationMs > 1000.0)
        line.Show(request.title + ": " + Number(passedMs / 1000.0, 1) + " of " +
                  Number(request.durationMs / 1000.0, 1) + " s ");
}

// Waits for the end of the stimulation; false when the device was given up.
bool Await(CRun& run, const SRequest& request)
{
    CProgressLine progress;
    bool told = !request.whileRunning;
    const Clock::time_point start = Clock::now();
    Clock::time_point limit = start + Milliseconds(request.durationMs + request.graceMs);
    bool shortened = false;
    for (;;)
    {
        const Clock::time_point tick = Clock::now() + std::chrono::milliseconds(told ? 100 : 2);
        if (run.WaitForEnd(std::min(limit, tick)))
            return true;
        const double passedMs = QS_GetTimeCounter() - run.StartedMs();
        if (!told && (!CQsJournal::LitDevices().empty() || passedMs > request.durationMs / 10.0))
        {
            told = true;
            request.whileRunning();
        }
        const bool aborted = WasInterrupted() || (request.abortAfterMs && passedMs > *request.abortAfterMs);
        if (aborted && !shortened)
        {
            shortened = true; // the rest of the duration no longer counts
            limit = std::min(limit, Clock::now() + Milliseconds(request.graceMs));
        }
        if (Clock::now() >= limit)
            break;
        ShowProgress(progress, request, passedMs);
    }
    return false;
}

// Whether the device answered: both the stimulation and the thread that may have aborted it are over. One that is held
// by a fault, or by hardware that is gone, is let go and aborted whatever it does next.
bool AwaitAnswer(CRun& run, const SRequest& request)
{
    if (Await(run, request) && run.WaitForAborter(Clock::now() + Milliseconds(request.graceMs)))
        return true;
    run.Abort(false);
    QsStandalone::CQsDeviceManager::ReleaseHangs();
    const Clock::time_point until = Clock::now() + std::chrono::seconds(2);
    run.WaitForEnd(until);
    run.WaitForAborter(until);
    return false;
}

// What stimulates: the device, and its name. Null, with the reason, when the manager would find none, and count as
// running for ever.
IQsStimulationDevice* FindDevice(CQsStimulationDeviceManager& manager, SPhase& phase)
{
    phase.throughBeampath = QsStandalone::CQsDeviceDatabase::IsOpen();
    if (!phase.throughBeampath)
    {
        CQsStimulationDeviceManager::SQsInfo info;
        IQsStimulationDevice* const device = manager.GetActive(info);
        phase.device = ToUtf8(info.sName);
        phase.refusal = device == nullptr ? "no device is active" : "";
        return device;
    }
    phase.device = ToUtf8(manager.GetActiveStimulationBeampathName());
    std::vector<SSubbeampath> paths;
    CQsStimulationDeviceAggregator* const device = ActiveBeampath(manager, paths, phase.refusal);
    for (SSubbeampath& path : paths)
        phase.paths.push_back({std::move(path), false, false});
    return device;
}

// The diagnostic log of its lifetime.
class CLogKeeper
{
public:
    CLogKeeper() { CQsDiagnosticLog::ToMemory(true); }
    ~CLogKeeper() { CQsDiagnosticLog::ToMemory(false); }
    CLogKeeper(const CLogKeeper&) = delete;
    CLogKeeper& operator=(const CLogKeeper&) = delete;
};

} // namespace

SPhase RunStimulation(CQsStimulationDeviceManager& manager, const SRequest& request)
{
    SPhase phase;
    phase.request = request;
    phase.request.whileRunning = nullptr; // it may use what is gone when the phase is read
    IQsStimulationDevice* const device = FindDevice(manager, phase);
    if (device == nullptr)
    {
        phase.startStatus = QS_ERR_FAIL;
        return phase;
    }

    phase.withoutAreas = request.kind == EKind::Timed &&
                         device->StimulationModeGet() == IQsStimulationDevice::s_modeRepeatedPatterns &&
                         device->StimulationAreaGetCount() == 0;

    const CLogKeeper log;
    const QsPlatform::CFinestTimer timer; // the module leaves it to its host how exactly a pulse ends
    CSignalListener signals(manager);
    const std::size_t firstEntry = CQsJournal::Count();
    const auto run = std::make_shared<CRun>(manager, *device, request);
    const CInterruptionHook hook([run] { run->Abort(true); }, [run] { run->Stop(); });
    phase.startStatus = run->Start();
    phase.startedMs = run->StartedMs();
    if (phase.startStatus != QS_OK)
        return phase;
    phase.gaveUp = !AwaitAnswer(*run, request);
    run->Collect(phase);
    if (!run->LeaveThreads())
        LeaveThreadBehind();
    else
        // The worker is still on its way out after the finish function, and counts as running until then. Handing in no
        // device does nothing but wait for it.
        RunBounded(request.graceMs, [&manager] { manager.OptConfDevicesAdd(nullptr); });
    phase.lights = MeasuredLights(firstEntry, phase.startedMs);
    phase.leftOn = CQsJournal::LitDevices();
    for (const QsStandalone::SJournalEntry& entry : CQsJournal::EntriesFrom(firstEntry))
        if (entry.kind == QsStandalone::EJournalKind::Fault)
            phase.faults.push_back(entry.device + ": " + entry.text);
    phase.signals = signals.Take();
    for (SSignal& signal : phase.signals)
        signal.timeMs -= phase.startedMs;
    phase.Evaluate(CQsDiagnosticLog::MemoryLines());
    return phase;
}

} // namespace Stimhost
