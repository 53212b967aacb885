// From a start to the device's begin, and from an abort to the return of a begin that waits.
#include "bench/Devices.h"
#include "bench/Paired.h"
#include "standalone/DeviceManager.h"
#include "standalone/Journal.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include <pthread.h>

namespace {

using namespace QsBench;

// ----------------------------------------------------------------------------------------------------------- start

// A bare thread that takes the time of its first instruction and says that it has.
class CBareStart
{
public:
    // Time from the creation to the first instruction [ns]; negative when no thread could be made.
    double Measure()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_bDone = false;
        pthread_t thread;
        const double t0 = NowNs();
        if (pthread_create(&thread, nullptr, &ThreadProc, this) != 0)
            return -1.0;
        pthread_detach(thread);
        m_done.wait(lock, [this] { return m_bDone; });
        return m_dFirstNs - t0;
    }

private:
    static void* ThreadProc(void* context)
    {
        const double dNowNs = NowNs();
        auto& self = *static_cast<CBareStart*>(context);
        const std::lock_guard<std::mutex> lock(self.m_mutex);
        self.m_dFirstNs = dNowNs;
        self.m_bDone = true;
        self.m_done.notify_one(); // under the lock: afterwards the object may be gone
        return nullptr;
    }

    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_bDone = false;
    double m_dFirstNs = 0.0;
};

void StartToBegin(benchmark::State& state)
{
    double dBeginNs = 0.0;
    const std::unique_ptr<IQsStimulationDevice> device = MakeStartDevice(dBeginNs);
    const CRegistered registered({device.get()});
    CQsStimulationDeviceManager& manager = *CQsStimulationDeviceManager::GetInstance();
    const CQsStringW name = device->GetUniqueName();
    if (!registered.IsListed() || manager.SetActive(name.c_str(), false) != QS_OK)
        return Fail(state, "the device could not be activated");

    const IQsStimulationDevice::SQsStimulationType request;
    bool bStarted = true;
    const auto ours = [&]
    {
        const double t0 = NowNs();
        bStarted = manager.StimulateTimedWithActiveAsync(request, nullptr, nullptr) == QS_OK && bStarted;
        bStarted = manager.SetActive(name.c_str(), true) == QS_OK && bStarted; // returns when the stimulation has ended
        const double time = dBeginNs - t0;
        Settle();
        return time;
    };
    CBareStart bare;
    const auto limit = [&]
    {
        const double time = bare.Measure();
        bStarted = time >= 0.0 && bStarted;
        Settle();
        return time;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    if (!bStarted)
        return Fail(state, "a thread could not be started");
    ReportMedians(samples, "start call to the device's begin", "thread creation to first instruction", 1.2);
}
BENCHMARK(StartToBegin)->Iterations(2000)->UseManualTime();

// ----------------------------------------------------------------------------------------------------------- abort

// A thread that does what it is handed, one thing after the other, and takes the time at which each has returned.
class CPartner
{
public:
    CPartner() : m_thread([this] { Run(); }) {}
    ~CPartner()
    {
        Hand(nullptr);
        m_thread.join();
    }
    CPartner(const CPartner&) = delete;
    CPartner& operator=(const CPartner&) = delete;

    void Hand(std::function<void()> wait)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_wait = std::move(wait);
        m_bBusy = true;
        m_changed.notify_all();
    }
    // Waits until what was handed last has returned; false when that takes longer than `most`.
    bool WaitForReturn(std::chrono::milliseconds most)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, most, [this] { return !m_bBusy; });
    }
    double ReturnedNs()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_dReturnedNs;
    }

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;)
        {
            m_changed.wait(lock, [this] { return m_bBusy; });
            if (!m_wait)
                return;
            lock.unlock();
            m_wait();
            const double dNowNs = NowNs();
            lock.lock();
            m_dReturnedNs = dNowNs;
            m_bBusy = false;
            m_changed.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::function<void()> m_wait;
    bool m_bBusy = false;
    double m_dReturnedNs = 0.0;
    std::thread m_thread; // last: it uses the others
};

void AbortToReturn(benchmark::State& state)
{
    const CShutters shutters(1);
    if (!shutters.IsComplete())
        return Fail(state, "the shutter could not be made");
    IQsStimulationDevice& device = *shutters.Devices()[0];
    IQsStimulationDevice::SQsStimulationType request;
    request.uiType = IQsStimulationDevice::eStimTimed;
    request.dDurationMs = 60000.0;

    QsStandalone::CQsJournal::SetRecording(false);
    constexpr std::chrono::milliseconds patience(200);
    CPartner partner;
    int worst = QS_OK;
    const auto ours = [&]
    {
        partner.Hand([&] { worst = std::min(worst, device.StimulationBegin(request)); });
        while (!QsStandalone::CQsDeviceManager::IsShutterOpen(CShutters::IdOf(0)) && !partner.WaitForReturn({}))
            std::this_thread::yield();
        Settle();
        // An abort that comes before the shutter's wait does not end it, and is no sample.
        double t0 = 0.0;
        do
        {
            t0 = NowNs();
            device.StimulationAbort();
        } while (!partner.WaitForReturn(patience));
        device.StimulationEnd(nullptr, nullptr, 0);
        return partner.ReturnedNs() - t0;
    };
    std::mutex mutex;
    std::condition_variable woken;
    bool bWaiting = false;
    bool bWake = false;
    const auto limit = [&]
    {
        partner.Hand(
            [&]
            {
                std::unique_lock<std::mutex> lock(mutex);
                bWaiting = true;
                woken.wait(lock, [&] { return bWake; });
                bWaiting = bWake = false;
            });
        for (bool bReady = false; !bReady;)
        {
            std::this_thread::yield();
            const std::lock_guard<std::mutex> lock(mutex);
            bReady = bWaiting;
        }
        Settle();
        const double t0 = NowNs();
        {
            const std::lock_guard<std::mutex> lock(mutex);
            bWake = true;
        }
        woken.notify_one();
        while (!partner.WaitForReturn(patience))
        {}
        return partner.ReturnedNs() - t0;
    };
    const SSamples samples = MeasurePairs(state, ours, limit);
    QsStandalone::CQsJournal::SetRecording(true);
    if (worst != QS_OK)
        return Fail(state, "a timed stimulation was refused");
    ReportMedians(samples, "abort call to the waiting begin's return", "condition variable, notify to return", 1.2);
}
BENCHMARK(AbortToReturn)->Iterations(2000)->UseManualTime();

} // namespace
