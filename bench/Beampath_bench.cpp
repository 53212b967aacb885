// Beampaths: how close together their devices begin, what passing an operation on costs, and how fast their lights are
// out.
#include "bench/Beampaths.h"
#include "bench/Devices.h"
#include "bench/Paired.h"
#include "platform/ThreadSafety.h"
#include "standalone/DeviceManager.h"
#include "standalone/Journal.h"

#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using namespace QsBench;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds driverTime(20);
constexpr microseconds startWork(200);

void Wait(std::chrono::nanoseconds time)
{
    std::this_thread::sleep_for(time);
}

// Needs a processor all the time.
void Compute(std::chrono::nanoseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end)
    {}
}

IQsStimulationDevice::SQsStimulationType RequestOf(std::uint32_t kind, double dDurationMs = 0.0)
{
    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = kind;
    request.dDurationMs = dDurationMs;
    request.uiGroupMask = 7;
    return request;
}

std::vector<std::uint32_t> IdsFrom(std::uint32_t first, unsigned count)
{
    std::vector<std::uint32_t> ids;
    for (unsigned i = 0; i < count; ++i)
        ids.push_back(first + i);
    return ids;
}

// Devices that all do the same work when they begin, with the logical ids 1, 2, ...
class CWorkers
{
public:
    CWorkers(unsigned count, const std::function<void()>& work) : m_beginNs(count)
    {
        for (unsigned i = 0; i < count; ++i)
            m_devices.push_back(MakeWorkDevice(i + 1, m_beginNs[i], work));
    }

    std::vector<IQsStimulationDevice*> Devices() const
    {
        std::vector<IQsStimulationDevice*> devices;
        for (const auto& device : m_devices)
            devices.push_back(device.get());
        return devices;
    }
    // From the first begin to the last one [ns].
    double Skew() const { return SkewOf(m_beginNs); }
    static double SkewOf(const std::vector<double>& times)
    {
        const auto ends = std::minmax_element(times.begin(), times.end());
        return *ends.second - *ends.first;
    }
    void Forget() { std::fill(m_beginNs.begin(), m_beginNs.end(), 0.0); }
    bool HaveBegun() const
    {
        return std::none_of(m_beginNs.begin(), m_beginNs.end(), [](double time) { return time == 0.0; });
    }

private:
    std::vector<double> m_beginNs;
    std::vector<std::unique_ptr<IQsStimulationDevice>> m_devices;
};

// ------------------------------------------------------------------------------------------------- begins together

void BeampathBegin(benchmark::State& state)
{
    const auto count = static_cast<unsigned>(state.range(0));
    CWorkers workers(count, [] { Wait(driverTime); });
    const CBeampaths beampaths({IdsFrom(1, count)});
    const CRegistered registered(workers.Devices());
    IQsStimulationDevice* const beampath = beampaths.Error().empty() ? CBeampaths::Device(1) : nullptr;
    if (beampath == nullptr || !registered.IsListed())
        return Fail(state, "the beampath could not be made: " + beampaths.Error());

    const auto request = RequestOf(IQsStimulationDevice::eStimContinuous);
    bool bBegun = true;
    const auto ours = [&]
    {
        workers.Forget();
        const double t0 = NowNs();
        bBegun = beampath->StimulationBegin(request) == QS_OK && bBegun;
        const double time = NowNs() - t0;
        bBegun = workers.HaveBegun() && bBegun;
        beampath->StimulationEnd(nullptr, nullptr, 0);
        Settle();
        return time;
    };
    IQsStimulationDevice* const alone = workers.Devices().front();
    const auto limit = [&]
    {
        const double t0 = NowNs();
        alone->StimulationBegin(request);
        const double time = NowNs() - t0;
        Settle();
        return time;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bBegun)
        return Fail(state, "a device did not begin");
    ReportMedians(samples, "begin of a beampath of " + std::to_string(count) + ", 20 ms of driver work each",
                  "one of its devices alone", 1.03);
}
BENCHMARK(BeampathBegin)->Arg(2)->Arg(4)->Arg(5)->Iterations(60)->UseManualTime();

// The second argument: whether the work needs a processor, or waits as a driver does for its hardware. With more
// devices than processors the first kind cannot start together.
void StartSkew(benchmark::State& state)
{
    const auto count = static_cast<unsigned>(state.range(0));
    const bool bComputes = state.range(1) != 0;
    const auto work = [bComputes] { bComputes ? Compute(startWork) : Wait(startWork); };
    CWorkers workers(count, work);
    const CBeampaths beampaths({IdsFrom(1, count)});
    const CRegistered registered(workers.Devices());
    IQsStimulationDevice* const beampath = beampaths.Error().empty() ? CBeampaths::Device(1) : nullptr;
    if (beampath == nullptr || !registered.IsListed())
        return Fail(state, "the beampath could not be made: " + beampaths.Error());

    const auto request = RequestOf(IQsStimulationDevice::eStimContinuous);
    bool bBegun = true;
    const auto ours = [&]
    {
        workers.Forget();
        bBegun = beampath->StimulationBegin(request) == QS_OK && workers.HaveBegun() && bBegun;
        const double skew = workers.Skew();
        beampath->StimulationEnd(nullptr, nullptr, 0);
        Settle();
        return skew;
    };
    QThreadPool pool;
    pool.setMaxThreadCount(500);
    std::vector<double> begins(count);
    const auto limit = [&]
    {
        for (double& begin : begins)
            pool.start(
                [&begin, &work]
                {
                    begin = NowNs();
                    work();
                });
        pool.waitForDone();
        Settle();
        return CWorkers::SkewOf(begins);
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bBegun)
        return Fail(state, "a device did not begin");
    ReportMedians(samples,
                  "start skew of " + std::to_string(count) + " devices, 200 us of " +
                      (bComputes ? "computing" : "waiting"),
                  "Qt's pool with bare closures", 1.0);
}
BENCHMARK(StartSkew)->ArgsProduct({{2, 4, 8}, {1, 0}})->Iterations(1000)->UseManualTime();

// ------------------------------------------------------------------------------------------------ passing on

class CLockedDevices
{
public:
    explicit CLockedDevices(std::vector<IQsStimulationDevice*> devices)
    {
        for (IQsStimulationDevice* const device : devices)
            m_devices.emplace_back().device = device;
    }

    int Ready()
    {
        int result = QS_OK;
        for (SLocked& locked : m_devices)
        {
            const CQsScopedLock<CQsRecursiveMutex> lock(locked.lock);
            result = std::min(result, locked.device->StimulationReady(true, true));
        }
        return result;
    }

private:
    struct SLocked
    {
        CQsRecursiveMutex lock;
        IQsStimulationDevice* device = nullptr;
    };
    std::deque<SLocked> m_devices;
};

void Forwarding(benchmark::State& state)
{
    constexpr unsigned operations = 10000;
    const auto count = static_cast<unsigned>(state.range(0));
    const CWorkers workers(count, nullptr);
    const CBeampaths beampaths({IdsFrom(1, count)});
    const CRegistered registered(workers.Devices());
    IQsStimulationDevice* const beampath = beampaths.Error().empty() ? CBeampaths::Device(1) : nullptr;
    if (beampath == nullptr || !registered.IsListed())
        return Fail(state, "the beampath could not be made: " + beampaths.Error());

    CLockedDevices bare(workers.Devices());
    int worst = QS_OK;
    const auto ours = [&]
    { return TimeEach(operations, [&] { worst = std::min(worst, beampath->StimulationReady(true, true)); }) / count; };
    const auto limit = [&] { return TimeEach(operations, [&] { worst = std::min(worst, bare.Ready()); }) / count; };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (worst != QS_OK)
        return Fail(state, "a device was not ready");
    ReportMedians(samples, "operation through a beampath of " + std::to_string(count) + ", each device",
                  "lock + virtual call", 2.0);
}
BENCHMARK(Forwarding)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->Iterations(300)->UseManualTime();

// Both ways are timed while the device of the other beampath is inside its begin.
void BusyNeighbour(benchmark::State& state)
{
    constexpr unsigned operations = 10000;
    constexpr unsigned busyId = 100;
    const auto count = static_cast<unsigned>(state.range(0));
    std::atomic<bool> bBusy{false};
    double dBeginNs = 0.0;
    const auto busyDevice = MakeWorkDevice(busyId, dBeginNs,
                                           [&bBusy]
                                           {
                                               bBusy = true;
                                               Wait(driverTime);
                                               bBusy = false;
                                           });
    const CWorkers workers(count, nullptr);
    std::vector<IQsStimulationDevice*> devices = workers.Devices();
    devices.push_back(busyDevice.get());
    const CBeampaths beampaths({IdsFrom(1, count), {busyId}});
    const CRegistered registered(devices);
    IQsStimulationDevice* const freeBeampath = beampaths.Error().empty() ? CBeampaths::Device(1) : nullptr;
    IQsStimulationDevice* const busyBeampath = beampaths.Error().empty() ? CBeampaths::Device(2) : nullptr;
    if (busyBeampath == nullptr || freeBeampath == nullptr || !registered.IsListed())
        return Fail(state, "the beampaths could not be made: " + beampaths.Error());

    const auto request = RequestOf(IQsStimulationDevice::eStimContinuous);
    CLockedDevices bare(workers.Devices());
    bool bStayedBusy = true;
    int worst = QS_OK;
    const auto timeBeside = [&](const auto& operation)
    {
        std::thread other([&] { busyBeampath->StimulationBegin(request); });
        while (!bBusy)
            std::this_thread::yield();
        const double time = TimeEach(operations, [&] { worst = std::min(worst, operation()); }) / count;
        bStayedBusy = bBusy && bStayedBusy;
        other.join();
        busyBeampath->StimulationEnd(nullptr, nullptr, 0);
        return time;
    };
    const auto ours = [&] { return timeBeside([&] { return freeBeampath->StimulationReady(true, true); }); };
    const auto limit = [&] { return timeBeside([&] { return bare.Ready(); }); };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bStayedBusy || worst != QS_OK)
        return Fail(state, "the other device was not busy, or one of these not ready");
    ReportMedians(samples, "operation through a beampath of " + std::to_string(count) + " beside a busy one",
                  "free lock + virtual call", 2.0);
}
BENCHMARK(BusyNeighbour)->Arg(1)->Arg(4)->Iterations(100)->UseManualTime();

// ---------------------------------------------------------------------------------------------------------- abort

// Threads that each wait for a wake of their own, and take the time at which they have it.
class CWaiters
{
public:
    explicit CWaiters(unsigned count) : m_waiters(count)
    {
        for (SWaiter& waiter : m_waiters)
            waiter.thread = std::thread([this, &waiter] { Run(waiter); });
    }
    ~CWaiters()
    {
        m_bEnd = true;
        Wake();
        for (SWaiter& waiter : m_waiters)
            waiter.thread.join();
    }
    CWaiters(const CWaiters&) = delete;
    CWaiters& operator=(const CWaiters&) = delete;

    // From the first wake to the moment at which the last one has it [ns].
    double Measure()
    {
        while (m_waiting != m_waiters.size())
            std::this_thread::yield();
        Settle();
        m_waiting = 0;
        const double t0 = NowNs();
        Wake();
        double last = 0.0;
        for (SWaiter& waiter : m_waiters)
        {
            std::unique_lock<std::mutex> lock(waiter.mutex);
            waiter.changed.wait(lock, [&waiter] { return !waiter.bWake; });
            last = std::max(last, waiter.dWokenNs);
        }
        return last - t0;
    }

private:
    struct SWaiter
    {
        std::mutex mutex;
        std::condition_variable changed;
        bool bWake = false;
        double dWokenNs = 0.0;
        std::thread thread;
    };

    void Wake()
    {
        for (SWaiter& waiter : m_waiters)
        {
            {
                const std::lock_guard<std::mutex> lock(waiter.mutex);
                waiter.bWake = true;
            }
            waiter.changed.notify_one();
        }
    }
    void Run(SWaiter& waiter)
    {
        std::unique_lock<std::mutex> lock(waiter.mutex);
        while (!m_bEnd)
        {
            ++m_waiting;
            waiter.changed.wait(lock, [&waiter] { return waiter.bWake; });
            waiter.dWokenNs = NowNs();
            waiter.bWake = false;
            waiter.changed.notify_one();
        }
    }

    std::deque<SWaiter> m_waiters;
    std::atomic<std::size_t> m_waiting{0};
    std::atomic<bool> m_bEnd{false};
};

// The end of a stimulation, for the host that waits for it.
class CFinish
{
public:
    static void Function(int, double*, double*, unsigned, void* user)
    {
        auto& self = *static_cast<CFinish*>(user);
        const std::lock_guard<std::mutex> lock(self.m_mutex);
        self.m_bFinished = true;
        self.m_changed.notify_one(); // under the lock: afterwards the object may be gone
    }
    bool WaitFor(milliseconds most)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, most, [this] { return m_bFinished; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bFinished = false;
};

// Time at which the last of so many lights went off [ms]; negative when it was another number.
double LastLightOffMs(unsigned count)
{
    double last = -1.0;
    unsigned offs = 0;
    for (const QsStandalone::SJournalEntry& entry : QsStandalone::CQsJournal::Entries())
    {
        if (entry.kind != QsStandalone::EJournalKind::LightOff)
            continue;
        ++offs;
        last = std::max(last, entry.timeMs);
    }
    return offs == count ? last : -1.0;
}

void AbortToDark(benchmark::State& state)
{
    constexpr unsigned count = 8;
    constexpr milliseconds patience(200);
    const CBeampaths beampaths({IdsFrom(CShutters::IdOf(0), count)});
    const CShutters shutters(count);
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    manager.Update(); // the beampath finds the shutters
    if (!beampaths.Error().empty() || !shutters.IsComplete() || CBeampaths::Device(1) == nullptr ||
        manager.SetStimulationOC(CBeampaths::OCOf(1)) != QS_OK)
        return Fail(state, "the beampath could not be made: " + beampaths.Error());

    const auto request = RequestOf(IQsStimulationDevice::eStimTimed, 60000.0);
    const auto areAllOpen = []
    {
        for (unsigned i = 0; i < count; ++i)
            if (!QsStandalone::CQsDeviceManager::IsShutterOpen(CShutters::IdOf(i)))
                return false;
        return true;
    };
    bool bDark = true;
    const auto ours = [&]
    {
        QsStandalone::CQsJournal::Clear();
        CFinish finish;
        // Refused while the worker of the one before is on its way out.
        while (manager.StimulateTimedWithActiveAsync(request, &CFinish::Function, &finish) != QS_OK)
            std::this_thread::yield();
        while (!areAllOpen() && !finish.WaitFor(milliseconds(0)))
            std::this_thread::yield();
        Settle();
        const double t0 = QS_GetTimeCounter();
        do // an abort that comes before a shutter's wait does not end it
            manager.StimulationAbort();
        while (!finish.WaitFor(patience));
        const double off = LastLightOffMs(count);
        bDark = off >= 0.0 && bDark;
        return (off - t0) * 1e6;
    };
    CWaiters waiters(count);
    const auto limit = [&] { return waiters.Measure(); };
    const SSamples samples = MeasurePairs(state, ours, limit);
    QsStandalone::CQsJournal::Clear();
    if (!bDark)
        return Fail(state, "not every light went off once");
    ReportMedians(samples, "abort of a phase on 8 devices, until the last is dark", "bare wake of 8 waiters", 1.2);
}
BENCHMARK(AbortToDark)->Iterations(300)->UseManualTime();

} // namespace
