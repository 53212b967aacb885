// Stimulations that are started while another thread changes the devices. Where they reach a device in the middle of
// the change, they find none and never end, or use one that its owner has destroyed.
#include "tests/manager/ManagerTest.h"

using namespace QsTest;

using std::chrono::milliseconds;

namespace {

// Starts as soon as the manager is idle; false after patience.
template <class Starter>
bool StartWhenIdle(Starter start)
{
    const auto deadline = std::chrono::steady_clock::now() + s_patience;
    while (start() != 0)
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// A host function that takes its time.
void HandleStateSlowly(IQsStimulationDevice*, unsigned)
{
    std::this_thread::sleep_for(milliseconds(1));
}

} // namespace

class StartBeside : public ManagerTest
{
public:
    // Updates with B the device to activate, while A is active and `whileUpdating` runs in one of its queries or when
    // it is switched off, and expects that the stimulation which is started in it goes to B.
    void ExpectTheStimulationOnB(CProbeDevice& a, CProbeDevice& b)
    {
        EXPECT_EQ(0, M().Update());
        a.onVisible = nullptr;
        a.onSetActive = nullptr;
        EXPECT_EQ(0, m_started);
        ASSERT_TRUE(m_finish.WaitFor());
        EXPECT_TRUE(WaitIdle());
        EXPECT_EQ(0u, a.log.Count("StimulationBegin(2, 1)"));
        EXPECT_EQ(1u, b.log.Count("StimulationBegin(2, 1)"));
        ASSERT_EQ(0, Start(m_finish));
        EXPECT_TRUE(m_finish.WaitFor(2));
    }
    void StartOnAnotherThread()
    {
        std::thread([this] { m_started = Start(m_finish); }).join();
    }

protected:
    CFinish& m_finish = NewFinish();
    int m_started = 1;
};

TEST_F(StartBeside, AnUpdateFindsTheDeviceThatIsActivatedAndFinishes)
{
    constexpr unsigned rounds = 500;
    CWatchdog watchdog("starts beside updates");
    CQsFakeDevice& active = Active(L"A");
    for (const wchar_t* const name : {L"B", L"C", L"D", L"E"})
        Simple(name);
    std::atomic<bool> bDone{false};
    std::atomic<unsigned> updates{0};
    std::thread updating(
        [&]
        {
            while (!bDone)
            {
                EXPECT_EQ(0, M().Update());
                ++updates;
            }
        });
    unsigned finished = 0;
    while (finished < rounds && StartWhenIdle([this] { return Start(m_finish); }) && m_finish.WaitFor(finished + 1))
    {
        ++finished;
        watchdog.Step();
    }
    bDone = true;
    updating.join();
    EXPECT_EQ(rounds, finished);
    EXPECT_EQ(rounds, active.log.Count("StimulationBegin(2, 1)"));
    EXPECT_GT(updates, 0u);
}

TEST_F(StartBeside, AnUpdateThatAsksTheDevicesGoesToTheOneThatItActivates)
{
    CWatchdog watchdog("a start out of a query");
    auto& a = Active<CProbeDevice>(L"A");
    auto& b = Simple<CProbeDevice>(L"B");
    Access::SetMru(M(), {L"B"});
    a.onVisible = [this] { StartOnAnotherThread(); };
    ExpectTheStimulationOnB(a, b);
}

TEST_F(StartBeside, AnUpdateWhoseOldDeviceRegistersAnotherGoesToTheOneThatItActivates)
{
    CWatchdog watchdog("a start and a registration while the old device is switched off");
    auto& a = Active<CProbeDevice>(L"A");
    auto& b = Simple<CProbeDevice>(L"B");
    CQsFakeDevice& other = Make(L"C");
    Access::SetMru(M(), {L"B"});
    int registered = 1;
    a.onSetActive = [&](bool bActive)
    {
        if (!bActive)
        {
            StartOnAnotherThread();
            registered =
                M().RegisterSimpleStimulationDevice(&other); // waits for no stimulation in the middle of Update
        }
        return 0;
    };
    ExpectTheStimulationOnB(a, b);
    EXPECT_EQ(0, registered);
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(&other));
}

TEST_F(StartBeside, AnUnregistrationLeavesNoStimulationInsideTheDevice)
{
    CWatchdog watchdog("starts beside an unregistration");
    for (unsigned round = 0; round < 20; ++round)
    {
        std::atomic<int> inside{0};
        std::atomic<unsigned> begun{0};
        auto device = std::make_unique<CQsUncountedFakeDevice>(L"D");
        device->onBegin = [&](const Request&)
        {
            ++inside;
            ++begun;
            std::this_thread::sleep_for(milliseconds(2)); // the pulse
            --inside;
            return 0;
        };
        ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(device.get()));
        ASSERT_EQ(0, M().Update());
        M().AddCallbackForDeviceStateChange(&HandleStateSlowly);

        std::atomic<bool> bStop{false};
        std::atomic<bool> bSilent{false};
        const auto keepStarting = [&bStop]
        {
            while (!bStop)
                M().StimulateTimedWithActiveAsync(Timed(1.0), nullptr, nullptr);
        };
        std::thread firstStarter(keepStarting);
        std::thread secondStarter(keepStarting);
        // Its announcements hold the unregistration back after the stimulation that it waited for has ended.
        std::thread announcer(
            [&]
            {
                while (!bSilent)
                    device->DeviceStateChangedCallback(1);
            });
        while (begun == 0) // the watchdog's business
            std::this_thread::yield();

        const int result = M().UnregisterSimpleStimulationDevice(device.get());
        const int insideThen = inside;
        const unsigned begunThen = begun;
        bSilent = true;
        announcer.join();
        device.reset(); // its owner may do so now
        bStop = true;
        firstStarter.join();
        secondStarter.join();
        EXPECT_EQ(0, result);
        EXPECT_EQ(0, insideThen);
        EXPECT_TRUE(WaitIdle());
        EXPECT_EQ(begunThen, begun);
        // The start that found no device keeps this manager from starting any more.
        Access::DeleteInstance();
        watchdog.Step();
    }
}
