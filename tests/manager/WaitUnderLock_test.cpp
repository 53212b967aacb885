// Operations that wait for the running stimulation while they hold the registry lock, against a worker, a finish
// function and device threads that need that lock to come to an end. These hang where the lock is not lent.
#include "tests/manager/ManagerTest.h"

using namespace QsTest;
using ::testing::ElementsAre;

namespace {

constexpr unsigned s_runs = 1000;

std::atomic<unsigned> s_announcements{0};

void CountAnnouncement(IQsStimulationDevice*, unsigned)
{
    ++s_announcements;
}

} // namespace

class WaitUnderLock : public ManagerTest
{
public:
    WaitUnderLock() { s_announcements = 0; }

    // Operations that take the lock and wait for the stimulation, one after the other.
    void WaitInSomeOperation(unsigned run)
    {
        switch (run % 5)
        {
        case 0:
            EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(m_other));
            break;
        case 1:
            EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(m_other));
            break;
        case 2:
            EXPECT_EQ(0, M().Update());
            break;
        case 3:
            M().ShuttersRemoveAll();
            break;
        default:
            EXPECT_EQ(0, M().SetActive(L"A", false));
            break;
        }
    }

protected:
    // A device for the operations above, never active: its name comes last.
    CQsFakeDevice* const m_other = &Make(L"Z");
};

TEST_F(WaitUnderLock, LetsTheWorkerOfAStartBeginThatTheSameThreadWaitsFor)
{
    CWatchdog watchdog("start, then register");
    CQsFakeDevice& device = Active(L"A");
    CFinish& finish = NewFinish();
    for (unsigned run = 1; run <= s_runs; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(m_other));
        ASSERT_EQ(run, finish.Calls().size()); // it waited for the end
        ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(m_other));
        watchdog.Step();
    }
    EXPECT_EQ(s_runs, device.log.Count("StimulationBegin(2, 1)"));
    EXPECT_EQ(0u, device.log.Count("StimulationAbort()")); // none was in need of one
}

TEST_F(WaitUnderLock, LetsTheWorkerBeginBesideEveryOperationThatWaits)
{
    CWatchdog watchdog("start, then an operation that waits");
    Active(L"A");
    CFinish& finish = NewFinish();
    for (unsigned run = 0; run < s_runs; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        WaitInSomeOperation(run);
        ASSERT_EQ(run + 1, finish.Calls().size());
        watchdog.Step();
    }
}

TEST_F(WaitUnderLock, LetsTheFinishFunctionCallTheManager)
{
    CWatchdog watchdog("a finish function that calls back");
    CQsFakeDevice& device = Active(L"A");
    CQsFakeDevice& stranger = Make(L"Stranger");
    CFinish& finish = NewFinish();
    unsigned refused = 0;
    unsigned answered = 0;
    finish.onFinish = [&]
    {
        answered += M().GetActive() == &device && M().GetDevice(L"A") == &device && M().SetVisible(L"A", true) == 0;
        refused += M().RegisterSimpleStimulationDevice(&stranger) == -9 && M().Update() == -9;
    };
    for (unsigned run = 0; run < s_runs; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        WaitInSomeOperation(run);
        ASSERT_EQ(run + 1, finish.Calls().size());
        watchdog.Step();
    }
    EXPECT_EQ(s_runs, answered);
    EXPECT_EQ(s_runs, refused);
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&stranger));
}

TEST_F(WaitUnderLock, LetsTheFinishFunctionCallTheManagerWhileSeveralThreadsWait)
{
    CWatchdog watchdog("a finish function beside several waiting threads");
    CQsFakeDevice& device = Active(L"A");
    CFinish& finish = NewFinish();
    unsigned answered = 0;
    finish.onFinish = [&] { answered += M().GetDevice(L"A") == &device && M().Update() == -9; };

    std::atomic<bool> bDone{false};
    std::atomic<unsigned> rounds{0};
    std::thread registering(
        [&]
        {
            while (!bDone)
            {
                EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(m_other));
                EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(m_other));
                ++rounds;
            }
        });
    std::thread asking(
        [&]
        {
            while (!bDone)
                EXPECT_EQ(nullptr, M().GetDevice(L"nobody"));
        });
    for (unsigned run = 0; run < s_runs; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        ASSERT_EQ(0, M().Update());
        ASSERT_EQ(run + 1, finish.Calls().size());
        watchdog.Step();
    }
    bDone = true;
    registering.join();
    asking.join();
    EXPECT_EQ(s_runs, answered);
    EXPECT_GT(rounds, 0u);
}

TEST_F(WaitUnderLock, LetsTheWorkerAnnounceADevicesState)
{
    CWatchdog watchdog("an announcement of the worker");
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForDeviceStateChange(&CountAnnouncement);
    device.onBegin = [&device](const Request&)
    {
        device.DeviceStateChangedCallback(1);
        return 0;
    };
    CFinish& finish = NewFinish();
    for (unsigned run = 0; run < s_runs; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        WaitInSomeOperation(run);
        ASSERT_EQ(run + 1, finish.Calls().size());
        watchdog.Step();
    }
    EXPECT_EQ(s_runs, s_announcements);
}

TEST_F(WaitUnderLock, LetsADriversThreadAnnounceADevicesStateThatTheDeviceWaitsFor)
{
    CWatchdog watchdog("an announcement of a driver's thread");
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForDeviceStateChange(&CountAnnouncement);
    device.onBegin = [&device](const Request&)
    {
        std::thread driver([&device] { device.DeviceStateChangedCallback(1); });
        driver.join();
        return 0;
    };
    CFinish& finish = NewFinish();
    for (unsigned run = 0; run < s_runs; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        WaitInSomeOperation(run);
        ASSERT_EQ(run + 1, finish.Calls().size());
        watchdog.Step();
    }
    EXPECT_EQ(s_runs, s_announcements);
}

TEST_F(WaitUnderLock, LetsAStateCallbackAskTheManagerOnADriversThread)
{
    CWatchdog watchdog("a state callback that asks");
    static std::atomic<unsigned> s_answered;
    s_answered = 0;
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForDeviceStateChange(
        [](IQsStimulationDevice* announced, unsigned)
        {
            if (M().GetActive() == announced && M().GetDevice(L"A") == announced && M().SetVisible(L"A", true) == 0)
                ++s_answered;
        });
    device.onBegin = [&device](const Request&)
    {
        std::thread driver([&device] { device.DeviceStateChangedCallback(1); });
        driver.join();
        return 0;
    };
    CFinish& finish = NewFinish();
    for (unsigned run = 0; run < 200; ++run)
    {
        ASSERT_EQ(0, Start(finish));
        WaitInSomeOperation(run);
        watchdog.Step();
    }
    EXPECT_EQ(200u, s_answered);
}

TEST_F(WaitUnderLock, LetsAnAbortedDeviceAnnounceItsStateFromItsAbort)
{
    CWatchdog watchdog("an announcement from an abort");
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    M().AddCallbackForDeviceStateChange(&CountAnnouncement);
    device.bBeginBlocks = true;
    device.bAbortEndsBegin = false;
    device.onAbort = [&device]
    {
        // The driver's thread announces the stop, and only that lets the begin return.
        std::thread driver(
            [&device]
            {
                device.DeviceStateChangedCallback(2);
                device.ReleaseBegin();
            });
        driver.join();
        return 0;
    };
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    const CQsScopedLock<CQsRegistryLock> lock(Access::LockR(M())); // as Update and the others do
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 0, true));
    EXPECT_GE(s_announcements, 1u);
    EXPECT_EQ(1u, finish.Calls().size());
    device.onAbort = nullptr;
}

TEST_F(WaitUnderLock, IsRefusedAtOnceToAStateCallbackThatTheDeviceWaitsFor)
{
    CWatchdog watchdog("a state callback that waits");
    static CQsFakeDevice* s_stranger;
    static std::vector<int> s_statuses; // handed over with the end of the driver's thread
    s_stranger = m_other;
    CQsFakeDevice& device = Active(L"A");
    M().AddCallbackForDeviceStateChange(
        [](IQsStimulationDevice*, unsigned)
        {
            s_statuses = {M().RegisterSimpleStimulationDevice(s_stranger),
                          M().UnregisterSimpleStimulationDevice(s_stranger), M().Update(), M().SetActive(L"A", false),
                          Access::WaitForStimulationEnd(M(), 30000, true)};
        });
    std::chrono::steady_clock::duration lasted{};
    device.onBegin = [&](const Request&)
    {
        const auto begin = std::chrono::steady_clock::now();
        std::thread driver([&device] { device.DeviceStateChangedCallback(1); });
        driver.join();
        lasted = std::chrono::steady_clock::now() - begin;
        return 0;
    };
    CFinish& finish = NewFinish();
    std::size_t runs = 0;
    for (const bool bSomebodyWaits : {false, true})
    {
        s_statuses.clear();
        ASSERT_EQ(0, Start(finish));
        if (bSomebodyWaits)
        {
            EXPECT_EQ(0, M().Update());
        }
        ASSERT_TRUE(finish.WaitFor(++runs));
        ASSERT_TRUE(WaitIdle());
        EXPECT_THAT(s_statuses, ElementsAre(-9, -9, -9, -9, -9));
        EXPECT_LT(lasted, std::chrono::seconds(2)); // the shortest of the waits
        EXPECT_EQ(0u, device.log.Count("StimulationAbort()"));
        watchdog.Step();
    }
    EXPECT_EQ(&device, M().GetActive());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(m_other));
}

TEST_F(WaitUnderLock, KeepsOtherThreadsOutOfTheMapWhileItWaits)
{
    CWatchdog watchdog("other threads beside a wait");
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.bBeginBlocks = true;
    device.bAbortEndsBegin = false;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));

    std::atomic<bool> bThrough{false};
    std::thread other;
    {
        const CQsScopedLock<CQsRegistryLock> lock(Access::LockR(M()));
        other = std::thread(
            [&bThrough]
            {
                M().GetDevice(L"A");
                bThrough = true;
            });
        EXPECT_EQ(-9, Access::WaitForStimulationEnd(M(), 50, false));
        EXPECT_FALSE(bThrough);
        device.ReleaseBegin();
        EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 30000, false));
        EXPECT_FALSE(bThrough);
    }
    other.join();
    EXPECT_TRUE(bThrough);
}
