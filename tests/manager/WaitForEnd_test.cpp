// Waiting for the end of a running stimulation, with and without aborting it.
#include "tests/manager/ManagerTest.h"

#include <future>

using namespace QsTest;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

int Wait(unsigned timeoutMs, bool bAbort)
{
    return Access::WaitForStimulationEnd(ManagerTest::M(), timeoutMs, bAbort);
}

} // namespace

class WaitForEnd : public ManagerTest
{
public:
    // Runs a stimulation on an active device that waits in its begin.
    CProbeDevice& Running(bool bHearsAborts)
    {
        CProbeDevice& device = Active<CProbeDevice>(L"A");
        device.bBeginBlocks = true;
        device.bAbortEndsBegin = bHearsAborts;
        EXPECT_EQ(0, Start(m_finish));
        EXPECT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
        return device;
    }

    CFinish& m_finish = NewFinish();
};
class WaitForEndOnDatabase : public WaitForEnd
{
public:
    WaitForEndOnDatabase() { QsStandalone::SetDeviceDatabaseInitialized(true); }
};

TEST_F(WaitForEnd, ReturnsAtOnceWhenNothingRuns)
{
    EXPECT_EQ(0, Wait(0, false));
    EXPECT_EQ(0, Wait(30000, true));
    Active(L"A");
    EXPECT_EQ(0, Wait(0, true));
}

TEST_F(WaitForEnd, SucceedsWhenTheStimulationEndsInTime)
{
    CProbeDevice& device = Running(true);
    auto waiting = std::async(std::launch::async, [] { return Wait(30000, true); });
    device.ReleaseBegin();
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(s_patience));
    EXPECT_EQ(0, waiting.get());
    EXPECT_EQ(0u, device.log.Count("StimulationAbort()"));
    EXPECT_EQ(1u, m_finish.Calls().size()); // the end includes the finish function
}

TEST_F(WaitForEnd, FailsAfterTheTimeoutAndAbortsNothingWhenItIsNotToAbort)
{
    CProbeDevice& device = Running(true);
    const auto begin = Clock::now();
    EXPECT_EQ(-9, Wait(150, false));
    EXPECT_GE(Clock::now() - begin, milliseconds(149));
    EXPECT_LT(Clock::now() - begin, s_patience);
    EXPECT_EQ(-9, Wait(0, false));
    EXPECT_EQ(0u, device.log.Count("StimulationAbort()"));
    EXPECT_THAT(m_finish.Calls(), IsEmpty());
}

TEST_F(WaitForEnd, AbortsTheActiveDeviceWhenTheTimeoutHasPassedAndNotBefore)
{
    CProbeDevice& device = Running(true);
    std::atomic<Clock::rep> abortedAt{0};
    device.onAbort = [&abortedAt]
    {
        abortedAt = Clock::now().time_since_epoch().count();
        return 0;
    };
    const auto begin = Clock::now();
    EXPECT_EQ(0, Wait(200, true));
    ASSERT_GE(device.log.Count("StimulationAbort()"), 1u);
    EXPECT_GE(Clock::duration(abortedAt.load()) - begin.time_since_epoch(), milliseconds(199));
    EXPECT_EQ(1u, m_finish.Calls().size());
    device.onAbort = nullptr;
}

TEST_F(WaitForEnd, AbortsAgainAboutEveryTenMillisecondsUntilTheStimulationEnds)
{
    CProbeDevice& device = Running(false);
    std::mutex mutex;
    std::vector<Clock::time_point> aborts;
    device.onAbort = [&]
    {
        const std::lock_guard<std::mutex> lock(mutex);
        aborts.push_back(Clock::now());
        if (aborts.size() == 11)
            device.ReleaseBegin();
        return -7; // what the device answers does not matter
    };
    CWatchdog watchdog("the wait with aborts"); // eleven waits of the first time-out would take too long
    EXPECT_EQ(0, Wait(4000, true));
    ASSERT_GE(aborts.size(), 11u);
    // Ten pauses of 10 ms. Upper bound: far more than they take, far less than ten of the first time-out.
    EXPECT_GE(aborts[10] - aborts[0], milliseconds(90));
    EXPECT_LT(aborts[10] - aborts[0], milliseconds(20000));
    device.onAbort = nullptr;
}

TEST_F(WaitForEnd, ServesSeveralWaitersAtOnceAndAfterwards)
{
    CProbeDevice& device = Running(true);
    std::vector<std::future<int>> waiting;
    for (int i = 0; i < 6; ++i)
        waiting.push_back(std::async(std::launch::async, [] { return Wait(30000, false); }));
    device.ReleaseBegin();
    for (auto& wait : waiting)
    {
        ASSERT_EQ(std::future_status::ready, wait.wait_for(s_patience));
        EXPECT_EQ(0, wait.get());
    }
    EXPECT_EQ(0, Wait(0, false));
    EXPECT_EQ(0, Wait(0, true));
}

// The optical configuration may change in the middle of a stimulation. Aborting what is active now would leave the light of
// what runs on until its end.
TEST_F(WaitForEndOnDatabase, AbortsWhatRunsWhenNoBeampathIsActiveAnyMore)
{
    CProbeDevice& beampath = Make<CProbeDevice>(L"beampath");
    beampath.bBeginBlocks = true;
    Access::SetBeampathDevices(M(), {{4, &beampath}});
    Access::SetActiveBeampathId(M(), 4);
    ASSERT_EQ(0, Start(m_finish));
    ASSERT_TRUE(beampath.log.WaitFor("StimulationBegin(2, 1)"));
    Access::SetActiveBeampathId(M(), -1);
    EXPECT_EQ(0, Wait(0, true));
    EXPECT_GE(beampath.log.Count("StimulationAbort()"), 1u);
    Access::SetBeampathDevices(M(), {});
}

TEST_F(WaitForEndOnDatabase, AbortsWhatRunsAndWhatIsActiveWhereTheyDiffer)
{
    CProbeDevice& running = Make<CProbeDevice>(L"running");
    CProbeDevice& active = Make<CProbeDevice>(L"active");
    running.bBeginBlocks = true;
    Access::SetBeampathDevices(M(), {{4, &running}, {5, &active}});
    Access::SetActiveBeampathId(M(), 4);
    ASSERT_EQ(0, Start(m_finish));
    ASSERT_TRUE(running.log.WaitFor("StimulationBegin(2, 1)"));
    Access::SetActiveBeampathId(M(), 5);
    active.iAbortResult = -7;
    EXPECT_EQ(-7, M().StimulationAbort()); // the active one's status
    EXPECT_EQ(1u, active.log.Count("StimulationAbort()"));
    ASSERT_TRUE(running.log.WaitFor("StimulationAbort()"));
    EXPECT_EQ(0, Wait(30000, false));
    Access::SetBeampathDevices(M(), {});
}

TEST_F(WaitForEndOnDatabase, AbortsTheDeviceOfTheBeampathThatIsActiveNow)
{
    CProbeDevice& beampath = Make<CProbeDevice>(L"beampath");
    beampath.bBeginBlocks = true;
    Access::SetBeampathDevices(M(), {{4, &beampath}});
    Access::SetActiveBeampathId(M(), 4);
    ASSERT_EQ(0, Start(m_finish));
    ASSERT_TRUE(beampath.log.WaitFor("StimulationBegin(2, 1)"));
    EXPECT_EQ(0, Wait(0, true));
    EXPECT_GE(beampath.log.Count("StimulationAbort()"), 1u);
    Access::SetBeampathDevices(M(), {});
}

TEST_F(WaitForEnd, IsRefusedAtOnceOnTheStimulationsOwnWorker)
{
    CWatchdog watchdog("a worker that waits for itself");
    CQsFakeDevice& device = Active(L"A");
    std::vector<int> results;
    m_finish.onFinish = [&results] { results = {Wait(30000, true), Wait(30000, false), Wait(0, true)}; };
    ASSERT_EQ(0, Start(m_finish));
    ASSERT_TRUE(m_finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_THAT(results, ElementsAre(-9, -9, -9));
    EXPECT_EQ(0u, device.log.Count("StimulationAbort()"));
}

TEST_F(WaitForEnd, RefusesTheWorkerEveryChangeOfTheDevicesAndOfTheActiveOne)
{
    CWatchdog watchdog("a worker that changes devices");
    CQsFakeDevice& special = Special(L"S");
    CQsFakeDevice& device = Active(L"A");
    CQsFakeDevice& other = Make(L"B");
    const unsigned references = QsStandalone::ReferenceCount(&other);
    std::vector<int> results;
    m_finish.onFinish = [&]
    {
        results = {M().RegisterSimpleStimulationDevice(&other),
                   M().UnregisterSimpleStimulationDevice(&device),
                   M().SetActive(L"S", false),
                   M().SetActive(L"A", false),
                   M().SetActiveV4(true),
                   M().SetActiveV4(false),
                   M().Update()};
        M().SpecialDevicesAdd(&other);
        M().ShuttersAdd(&other);
        M().OptConfDevicesAdd(&other);
        M().SpecialDevicesRemoveAll();
        M().ShuttersRemoveAll();
        M().OptConfDevicesRemoveAll();
        EXPECT_EQ(-13, M().SetActiveMru(0));
    };
    ASSERT_EQ(0, Start(m_finish));
    ASSERT_TRUE(m_finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_THAT(results, Each(-9));
    EXPECT_EQ(&device, M().GetActive());
    EXPECT_THAT(Access::SpecialDevices(M()), ElementsAre(&special));
    EXPECT_THAT(Access::Shutters(M()), IsEmpty());
    EXPECT_THAT(Access::OptConfDevices(M()), IsEmpty());
    EXPECT_THAT(DeviceNames(), ElementsAre("A", "S"));
    EXPECT_EQ(references, QsStandalone::ReferenceCount(&other));
}

TEST_F(WaitForEnd, LetsTheWorkerAskWhatItLikes)
{
    CWatchdog watchdog("a worker that asks");
    CQsFakeDevice& device = Active(L"A");
    m_finish.onFinish = [&device]
    {
        EXPECT_EQ(&device, M().GetActive());
        EXPECT_EQ(&device, M().GetDevice(L"A"));
        EXPECT_EQ(0, M().SetVisible(L"A", false));
        EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&device)); // is registered already
        EXPECT_FALSE(M().IsV4Active());
        EXPECT_EQ(-13, M().StimulationAbort());
    };
    ASSERT_EQ(0, Start(m_finish));
    ASSERT_TRUE(m_finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_FALSE(Info(L"A").bVisible);
}
