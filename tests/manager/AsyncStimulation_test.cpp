// Starting a timed stimulation, the worker of a single shot, and the abort from outside.
#include "tests/manager/ManagerTest.h"

#include "tests/support/SystemFaults.h"

#include <future>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AsyncStimulation : public ManagerTest
{};
class AsyncStimulationOnDatabase : public DatabaseManagerTest
{
public:
    template <class Device = CQsFakeDevice>
    Device& Beampath(int id)
    {
        Device& device = Make<Device>(L"beampath");
        Access::SetBeampathDevices(M(), {{id, &device}});
        Access::SetActiveBeampathId(M(), id);
        return device;
    }
    ~AsyncStimulationOnDatabase() override
    {
        if (Manager* const manager = Manager::InstanceIfExists())
            Access::SetBeampathDevices(*manager, {});
    }
};

TEST_F(AsyncStimulation, OfASingleShotReportsTheEndsStatusAndTimes)
{
    CQsFakeDevice& device = Active(L"A");
    device.iBeginResult = -5;
    device.endTimes = {{10.5, 20.25}};
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Timed(12.0)));
    ASSERT_TRUE(finish.WaitFor());
    const SFinished end = finish.Calls().front();
    EXPECT_EQ(0, end.result);
    EXPECT_EQ(1u, end.count);
    EXPECT_THAT(end.begin, ElementsAre(10.5));
    EXPECT_THAT(end.end, ElementsAre(20.25));
    EXPECT_THAT(device.log.Entries(), ElementsAre("StimulationBegin(2, 12)", "StimulationEnd(1)"));
    EXPECT_TRUE(WaitIdle());
    EXPECT_EQ(1u, finish.Calls().size());
}

TEST_F(AsyncStimulation, OfASingleShotReportsAFailedEnd)
{
    Active(L"A").iEndResult = -5;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(-5, finish.Calls().front().result);
}

TEST_F(AsyncStimulation, ReportsNoTimeWhereTheDeviceGivesNone)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.onEndTimes = [](double*, double*, std::uint64_t) { return 0; };
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_THAT(finish.Calls().front().begin, ElementsAre(-1.0));
    EXPECT_THAT(finish.Calls().front().end, ElementsAre(-1.0));
}

TEST_F(AsyncStimulation, AsksTheDeviceForItsModeAndAreasOnceAndForNoExposureOfASingleShot)
{
    CQsFakeDevice& device = Active(L"A");
    device.uiMode = 0xFFFFFFFEu;
    device.uiAreaCount = 0;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(1u, device.queries.Count("StimulationModeGet()"));
    EXPECT_EQ(1u, device.queries.Count("StimulationAreaGetCount()"));
    EXPECT_EQ(0u, device.queries.Count("GetStimulationExposureTimeCombined()"));
    EXPECT_EQ(1u, finish.Calls().front().count);
}

TEST_F(AsyncStimulation, ReturnsWhileTheStimulationGoesOnOnAnotherThread)
{
    CQsFakeDevice& device = Active(L"A");
    device.bBeginBlocks = true;
    std::promise<std::thread::id> beginThread;
    CProbeDevice& probe = Simple<CProbeDevice>(L"B");
    M().Update();
    ASSERT_EQ(0, M().SetActive(L"B", false));
    probe.onModeGet = [&beginThread] { beginThread.set_value(std::this_thread::get_id()); };
    probe.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(probe.log.WaitFor("StimulationBegin(2, 1)"));
    EXPECT_THAT(finish.Calls(), IsEmpty());
    EXPECT_TRUE(Access::IsRequestPending(M()));
    probe.ReleaseBegin();
    ASSERT_TRUE(finish.WaitFor());
    const std::thread::id worker = beginThread.get_future().get();
    EXPECT_NE(std::this_thread::get_id(), worker);
    EXPECT_EQ(worker, finish.Calls().front().thread);
    EXPECT_TRUE(WaitIdle());
    EXPECT_FALSE(Access::IsRequestPending(M()));
}

TEST_F(AsyncStimulation, HandsTheDeviceTheRequestAsItWasWhenItStarted)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    CGate gate;
    device.onModeGet = [&gate] { gate.Pass(); };
    Request request;
    request.uiReserved = 0x01020304;
    request.uiType = 1;
    request.uiRepeatCount = 9;
    request.dDurationMs = 12.5;
    request.uiGroupMask = 5;
    request.dReserved = 2.5;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, request));
    request = Request();
    gate.Open();
    ASSERT_TRUE(finish.WaitFor());
    const Request seen = device.LastRequest();
    EXPECT_EQ(0x01020304u, seen.uiReserved);
    EXPECT_EQ(1u, seen.uiType);
    EXPECT_EQ(9u, seen.uiRepeatCount);
    EXPECT_EQ(12.5, seen.dDurationMs);
    EXPECT_EQ(5u, seen.uiGroupMask);
    EXPECT_EQ(2.5, seen.dReserved);
}

TEST_F(AsyncStimulation, IsRefusedWhileOneRunsAndLeavesThatAlone)
{
    CQsFakeDevice& device = Active(L"A");
    device.bBeginBlocks = true;
    CFinish& first = NewFinish();
    CFinish& second = NewFinish();
    ASSERT_EQ(0, Start(first, Timed(3.0)));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 3)"));
    EXPECT_EQ(-9, Start(second, Timed(4.0)));
    EXPECT_EQ(-9, M().StimulateTimedWithActiveAsync(Timed(4.0), nullptr, nullptr));
    device.ReleaseBegin();
    ASSERT_TRUE(first.WaitFor());
    ASSERT_TRUE(WaitIdle());
    EXPECT_THAT(second.Calls(), IsEmpty());
    EXPECT_THAT(device.log.Entries(), ElementsAre("StimulationBegin(2, 3)", "StimulationEnd(1)"));
    // And the next one starts again.
    EXPECT_EQ(0, Start(second, Timed(4.0)));
    EXPECT_TRUE(second.WaitFor());
}

TEST_F(AsyncStimulation, IsRefusedInItsOwnFinishFunction)
{
    Active(L"A");
    CFinish& finish = NewFinish();
    CFinish& second = NewFinish();
    std::atomic<int> status{0};
    finish.onFinish = [&] { status = Start(second); };
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(-9, status);
    EXPECT_TRUE(WaitIdle());
    EXPECT_THAT(second.Calls(), IsEmpty());
}

TEST_F(AsyncStimulation, NeedsNoFinishFunction)
{
    CQsFakeDevice& device = Active(L"A");
    ASSERT_EQ(0, M().StimulateTimedWithActiveAsync(Timed(1.0), nullptr, nullptr));
    EXPECT_TRUE(device.log.WaitFor("StimulationEnd(1)"));
    EXPECT_TRUE(WaitIdle());
    EXPECT_FALSE(Access::IsRequestPending(M()));
}

TEST_F(AsyncStimulation, IsNotStartedWhenItsThreadCannotBeMade)
{
    CQsFakeDevice& device = Active(L"A");
    CFinish& finish = NewFinish();
    FailThreadCreations(1);
    EXPECT_EQ(-9, Start(finish));
    EXPECT_FALSE(Access::IsRequestPending(M()));
    EXPECT_THAT(device.log.Entries(), IsEmpty());
    // No lock is left behind: another thread may start the next one.
    CWatchdog watchdog("a start after a failed one");
    std::thread other([&finish] { EXPECT_EQ(0, Start(finish)); });
    other.join();
    EXPECT_TRUE(finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_EQ(1u, finish.Calls().size());
}

TEST_F(AsyncStimulation, KeepsTheManagerFreeWhileTheDeviceWorks)
{
    CWatchdog watchdog("calls beside a stimulation");
    CQsFakeDevice& device = Active(L"A");
    device.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    EXPECT_EQ(&device, M().GetActive());
    EXPECT_EQ(&device, M().GetDevice(L"A"));
    EXPECT_EQ(0, M().SetVisible(L"A", false));
    EXPECT_FALSE(M().IsV4Active());
    EXPECT_THAT(finish.Calls(), IsEmpty());
}

TEST_F(AsyncStimulation, WithoutADeviceNeverFinishesAndCountsAsRunningFromThenOn)
{
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 30000, false)); // the worker has ended
    EXPECT_EQ(-9, Start(finish));
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 30000, false));
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 0, true));
    EXPECT_TRUE(Access::IsRequestPending(M()));

    // What waits for the end of a stimulation goes on, but no stimulation starts any more.
    CQsFakeDevice& device = Simple(L"A");
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(&device, M().GetActive());
    EXPECT_EQ(-9, Start(finish));
    EXPECT_THAT(finish.Calls(), IsEmpty());
    EXPECT_EQ(0u, device.log.Count("StimulationBegin(2, 1)"));
}

TEST_F(AsyncStimulation, TakesTheDeviceThatIsActiveWhenItsWorkerBegins)
{
    CQsFakeDevice& b = Simple(L"B");
    CQsFakeDevice& a = Active(L"A");
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, M().SetActive(L"B", false));
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(1u, b.log.Count("StimulationBegin(2, 1)"));
    EXPECT_EQ(0u, a.log.Count("StimulationBegin(2, 1)"));
}

TEST_F(AsyncStimulation, CanBeStartedAgainAndAgain)
{
    CQsFakeDevice& device = Active(L"A");
    CFinish& finish = NewFinish();
    for (unsigned i = 1; i <= 200; ++i)
    {
        ASSERT_EQ(0, Start(finish));
        ASSERT_TRUE(WaitIdle());
        ASSERT_EQ(i, finish.Calls().size());
    }
    EXPECT_EQ(200u, device.log.Count("StimulationEnd(1)"));
}

// -------------------------------------------------------------------------------------------------------------- abort

TEST_F(AsyncStimulation, IsNotAbortedOutsideTheDeviceDatabase)
{
    CQsFakeDevice& device = Active(L"A");
    device.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    EXPECT_EQ(-13, M().StimulationAbort());
    EXPECT_EQ(0u, device.log.Count("StimulationAbort()"));
    EXPECT_THAT(finish.Calls(), IsEmpty());
}

TEST_F(AsyncStimulationOnDatabase, HasNothingToAbortWithoutAnActiveBeampath)
{
    CQsFakeDevice& entry = Simple(L"A");
    M().Update();
    EXPECT_EQ(-13, M().StimulationAbort());
    CQsFakeDevice& beampath = Beampath(4);
    Access::SetActiveBeampathId(M(), 5);
    EXPECT_EQ(-13, M().StimulationAbort());
    EXPECT_EQ(0u, beampath.log.Count("StimulationAbort()"));
    EXPECT_EQ(0u, entry.log.Count("StimulationAbort()"));
}

TEST_F(AsyncStimulationOnDatabase, AbortsTheDeviceOfTheActiveBeampathAndGivesItsAnswer)
{
    CQsFakeDevice& beampath = Beampath(4);
    beampath.iAbortResult = -3;
    EXPECT_EQ(-3, M().StimulationAbort());
    EXPECT_EQ(1u, beampath.log.Count("StimulationAbort()"));
}

TEST_F(AsyncStimulationOnDatabase, EndsWhenTheDevicesBeginReturnsAfterTheAbort)
{
    CQsFakeDevice& beampath = Beampath(4);
    beampath.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(beampath.log.WaitFor("StimulationBegin(2, 1)"));
    EXPECT_EQ(0, M().StimulationAbort());
    EXPECT_TRUE(finish.WaitFor());
    EXPECT_THAT(beampath.log.Entries(),
                ElementsAre("StimulationBegin(2, 1)", "StimulationAbort()", "StimulationEnd(1)"));
}

TEST_F(AsyncStimulationOnDatabase, StimulatesWithTheDeviceOfTheActiveBeampath)
{
    CQsFakeDevice& entry = Simple(L"A");
    M().Update();
    CQsFakeDevice& beampath = Beampath(4);
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(1u, beampath.log.Count("StimulationBegin(2, 1)"));
    EXPECT_EQ(0u, entry.log.Count("StimulationBegin(2, 1)"));
}

TEST_F(AsyncStimulationOnDatabase, HasNoDeviceWithoutABeampathAlthoughThereIsAnActiveEntry)
{
    CQsFakeDevice& entry = Simple(L"A");
    M().Update();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    EXPECT_TRUE(WaitIdle());
    EXPECT_EQ(-9, Start(finish));
    EXPECT_THAT(finish.Calls(), IsEmpty());
    EXPECT_EQ(0u, entry.log.Count("StimulationBegin(2, 1)"));
}

TEST_F(AsyncStimulation, AsksAnewWhetherThereIsADeviceDatabase)
{
    CQsFakeDevice& device = Active(L"A");
    QsStandalone::SetDeviceDatabaseInitialized(true); // after the manager was made without one
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    EXPECT_TRUE(WaitIdle());
    // There is no beampath, so there is no device; the active entry is not asked.
    EXPECT_EQ(-9, Start(finish));
    EXPECT_THAT(finish.Calls(), IsEmpty());
    EXPECT_THAT(device.log.Entries(), IsEmpty());
}

TEST_F(AsyncStimulationOnDatabase, KeepsItsDeviceAliveUntilItHasEnded)
{
    auto alive = std::make_shared<std::atomic<int>>(1);
    auto device = Ref<CProbeDevice>::Make(L"beampath");
    device->pAlive = alive;
    device->bBeginBlocks = true;
    device->bAbortEndsBegin = false;
    Access::SetBeampathDevices(M(), {{4, device.get()}});
    Access::SetActiveBeampathId(M(), 4);
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device->log.WaitFor("StimulationBegin(2, 1)"));

    // As a rebuild of the beampaths would do.
    Access::SetBeampathDevices(M(), {});
    CProbeDevice* const last = device.get();
    device = Ref<CProbeDevice>();
    ASSERT_EQ(1, *alive);
    last->ReleaseBegin();
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    const auto deadline = std::chrono::steady_clock::now() + s_patience;
    while (*alive != 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(0, *alive);
}
