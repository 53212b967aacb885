// An abort must get through to every device of a beampath: while a device is inside its begin, while the beampath is
// being rebuilt, and before a device has begun at all.
#include "tests/support/BeampathFixture.h"
#include "tests/support/SystemFaults.h"

#include <future>

using namespace QsTest;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::IsEmpty;

class Abort : public BeampathTest
{
public:
    using Result = std::future<int>;

    // Runs `call` on another thread. What comes back is waited for with Get, which fails the test after patience.
    static Result Async(std::function<int()> call) { return std::async(std::launch::async, std::move(call)); }
    static int Get(Result& result)
    {
        if (result.wait_for(s_patience) == std::future_status::ready)
            return result.get();
        ADD_FAILURE() << "no result";
        return 12345;
    }
    // Begins a phase that only an abort ends, and waits until every device is inside it.
    static Result BeginForEver(const Devices& devices)
    {
        for (CScriptedDevice* const device : devices)
            device->bBeginBlocks = true;
        Result begin = Async([&beampath = BeampathDevice()] { return beampath.StimulationBegin(Phase(600000.0)); });
        for (const CScriptedDevice* const device : devices)
            EXPECT_TRUE(device->log.WaitFor("StimulationBegin(2, 600000)"));
        return begin;
    }

protected:
    CWatchdog m_watchdog{"an abort"};
};

TEST_F(Abort, ReachesTheDeviceOfABeampathInsideItsBegin)
{
    const Devices devices = MakeBeampath(1);
    devices[0]->iAbortResult = -3;
    Result begin = BeginForEver(devices);
    EXPECT_EQ(-3, BeampathDevice().StimulationAbort());
    EXPECT_EQ(0, Get(begin));
    EXPECT_FALSE(devices[0]->IsLit());
}

TEST_F(Abort, ReachesEveryDeviceOfABeampathInsideItsBegin)
{
    const Devices devices = MakeBeampath(3);
    Result begin = BeginForEver(devices);
    EXPECT_EQ(0, BeampathDevice().StimulationAbort());
    EXPECT_EQ(0, Get(begin));
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_EQ(1u, device->log.Count("StimulationAbort()"));
        EXPECT_FALSE(device->IsLit());
    }
}

TEST_F(Abort, ReachesThePlainLightPathsOfABeampath)
{
    MakeBeampathOf({L"", L""});
    Aggregator& beampath = BeampathDevice();
    Result begin = Async([&beampath] { return beampath.StimulationBegin(Phase(600000.0)); });
    // Repeated, since an abort that comes before a light path waits is lost.
    EXPECT_TRUE(Eventually(
        [&]
        {
            EXPECT_EQ(0, beampath.StimulationAbort());
            return begin.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
        }));
    EXPECT_EQ(0, Get(begin));
}

TEST_F(Abort, OfTheManagerReachesTheActiveBeampath)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(-13, M().StimulationAbort());
    ActivateBeampath();
    CFinish& finish = NewFinish();
    for (CScriptedDevice* const device : devices)
        device->bBeginBlocks = true;
    ASSERT_EQ(0, Start(finish, Phase(600000.0)));
    for (const CScriptedDevice* const device : devices)
        ASSERT_TRUE(device->log.WaitFor("StimulationBegin(2, 600000)"));
    EXPECT_EQ(0, M().StimulationAbort());
    ASSERT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    EXPECT_EQ(0, finish.Calls()[0].result);
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(),
                    ElementsAre("StimulationBegin(2, 600000)", "StimulationAbort()", "StimulationEnd(1)"));
}

TEST_F(Abort, GivesTheLowestStatusOfTheDevices)
{
    const Devices devices = MakeBeampath(2);
    ActivateBeampath();
    devices[0]->iAbortResult = -3;
    devices[1]->iAbortResult = -5;
    EXPECT_EQ(-5, M().StimulationAbort());
    // A device with a lower status than the lowest so far is told again.
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(2u, device->log.Count("StimulationAbort()"));
}

TEST_F(Abort, ReachesTheOtherDevicesWhenOneThrows)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->onAbort = []() -> int { throw 5; };
    Result begin = BeginForEver(devices);
    EXPECT_LT(BeampathDevice().StimulationAbort(), 0);
    EXPECT_GE(devices[1]->log.Count("StimulationAbort()"), 1u);
    EXPECT_EQ(0, Get(begin));
}

// ----------------------------------------------------------------------------------------------- before it has begun

TEST_F(Abort, KeepsDevicesDarkThatHaveNotBegunYet)
{
    const Devices devices = MakeBeampath(2);
    CHostCalls::HoldPool();
    Result begin = Async([&beampath = BeampathDevice()] { return beampath.StimulationBegin(Phase(600000.0)); });
    ASSERT_TRUE(Eventually([] { return CHostCalls::HeldPoolItems() == 2; }));
    EXPECT_EQ(0, BeampathDevice().StimulationAbort());
    CHostCalls::LetPoolGo();
    EXPECT_EQ(0, Get(begin));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_EQ(0u, device->log.Count("StimulationBegin(2, 600000)"));
        EXPECT_FALSE(device->IsLit());
    }
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Abort, KeepsADeviceDarkThatIsBusyWithSomethingElse)
{
    class CBusy : public CScriptedDevice
    {
    public:
        using CScriptedDevice::CScriptedDevice;
        CGate gate;
        int StimulationAreaUpload() override
        {
            const int result = CScriptedDevice::StimulationAreaUpload();
            gate.Pass();
            return result;
        }
    };
    auto& busy = Simple<CBusy>(L"A");
    PutOn(51, busy);
    CScriptedDevice& other = DeviceOn(52, L"B");
    MakeBeampathOf({L"", L""});
    Aggregator& beampath = BeampathDevice();
    Result upload = Async([&beampath] { return beampath.StimulationAreaUpload(); });
    ASSERT_TRUE(busy.log.WaitFor("StimulationAreaUpload()"));
    Result begin = Async([&beampath] { return beampath.StimulationBegin(Continuous()); });
    ASSERT_TRUE(other.log.WaitFor("StimulationBegin(1, 0)"));
    // The busy device's task is on its thread by now, and waits for the upload.
    ASSERT_TRUE(Eventually(
        []
        {
            std::size_t started = 0;
            for (const std::string& line : Lines(s_aggregatorUnit))
                started += line.find("procedure has started.") != std::string::npos ? 1u : 0u;
            return started == 2;
        }));
    EXPECT_EQ(0, beampath.StimulationAbort());
    busy.gate.Open();
    EXPECT_EQ(0, Get(upload));
    EXPECT_EQ(0, Get(begin));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_FALSE(other.IsLit());
    EXPECT_FALSE(busy.IsLit());
    EXPECT_EQ(0, beampath.StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Abort, DoesNotConcernTheNextStimulation)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(0, BeampathDevice().StimulationAbort());
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    for (const CScriptedDevice* const device : devices)
        EXPECT_TRUE(device->IsLit());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

// ------------------------------------------------------------------------------------------------- beside a rebuild

TEST_F(Abort, ReachesTheDevicesWhileTheBeampathIsBeingRebuilt)
{
    const Devices devices = MakeBeampath(2);
    Aggregator& beampath = BeampathDevice();
    Result begin = BeginForEver(devices);
    Result rebuild = Async([&beampath] { return beampath.UpdateAggregatedDevicesAccordingToBPId(); });
    EXPECT_EQ(0, beampath.StimulationAbort());
    EXPECT_EQ(0, Get(begin));
    EXPECT_EQ(0, Get(rebuild));
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
}

// A rebuild takes effect with a device's next operation and does not wait for the one in hand.
TEST_F(Abort, IsNotNeededForARebuildToGoOn)
{
    const Devices devices = MakeBeampath(2);
    Aggregator& beampath = BeampathDevice();
    Result begin = BeginForEver(devices);
    Result rebuild = Async([&beampath] { return beampath.UpdateAggregatedDevicesAccordingToBPId(); });
    EXPECT_EQ(0, Get(rebuild));
    EXPECT_EQ(std::future_status::timeout, begin.wait_for(std::chrono::seconds(0)));
    EXPECT_EQ(0, beampath.StimulationAbort());
    EXPECT_EQ(0, Get(begin));
}

TEST_F(Abort, OfTheManagerPassesARebuildThatIsHeldUpByAListener)
{
    class CHeldUp final : public IQsStimulationDeviceManagerEventListener
    {
    public:
        CCallLog log;
        CGate gate;
        int AvailableStimulationDevicesChanged() override
        {
            log.Add("told");
            gate.Pass();
            return 0;
        }
    };
    const Devices devices = MakeBeampath(2);
    ActivateBeampath();
    CFinish& finish = NewFinish();
    for (CScriptedDevice* const device : devices)
        device->bBeginBlocks = true;
    ASSERT_EQ(0, Start(finish, Phase(600000.0)));
    for (const CScriptedDevice* const device : devices)
        ASSERT_TRUE(device->log.WaitFor("StimulationBegin(2, 600000)"));

    CHeldUp listener;
    M().RegisterStimulationDeviceManagerEventListener(&listener);
    M().SetStimulationBeampathsDirty();
    Result rebuild = Async([] { return M().UpdateStimulationBeampaths(); });
    ASSERT_TRUE(listener.log.WaitFor("told"));
    Result abort = Async([] { return M().StimulationAbort(); });
    EXPECT_EQ(0, Get(abort));
    for (const CScriptedDevice* const device : devices)
        EXPECT_TRUE(device->log.WaitFor("StimulationAbort()"));
    listener.gate.Open();
    EXPECT_EQ(-9, Get(rebuild));
    M().UnregisterStimulationDeviceManagerEventListener(&listener);
    EXPECT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
}

// A shutter's abort returns when its blade has come to rest; the other lights must not wait for that.
TEST_F(Abort, DoesNotKeepTheOthersLitWhileADeviceIsSlowToAnswer)
{
    const Devices devices = MakeBeampath(4);
    const auto othersAreAborted = [&devices](std::size_t slow)
    {
        for (std::size_t i = slow + 1; i < devices.size(); ++i)
            EXPECT_TRUE(devices[i]->log.WaitFor("StimulationAbort()")) << i;
        return 0;
    };
    devices[0]->onAbort = [&] { return othersAreAborted(0); };
    devices[1]->onAbort = [&] { return othersAreAborted(1); };
    Result begin = BeginForEver(devices);
    EXPECT_EQ(0, BeampathDevice().StimulationAbort());
    EXPECT_EQ(0, Get(begin));
    for (CScriptedDevice* const device : devices)
    {
        EXPECT_EQ(1u, device->log.Count("StimulationAbort()"));
        device->onAbort = nullptr;
    }
}

TEST_F(Abort, ReachesEveryDeviceWhereThePoolTakesNoMoreItems)
{
    const Devices devices = MakeBeampath(3);
    Result begin = BeginForEver(devices);
    FailPoolItems(1000);
    EXPECT_EQ(0, BeampathDevice().StimulationAbort());
    FailPoolItems(0);
    EXPECT_EQ(0, Get(begin));
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(1u, device->log.Count("StimulationAbort()"));
}

// A device that begins while its sub-beampath is taken away is still aborted.
TEST_F(Abort, ReachesADeviceThatTheRebuildTookAway)
{
    const Devices devices = MakeBeampath(3);
    Aggregator& beampath = BeampathDevice();
    Result begin = BeginForEver(devices);
    SetMerged(s_beampath, "[51,53]");
    Result rebuild = Async([&beampath] { return beampath.UpdateAggregatedDevicesAccordingToBPId(); });
    EXPECT_EQ(0, Get(rebuild));
    EXPECT_EQ(0, beampath.StimulationAbort());
    EXPECT_EQ(0, Get(begin));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
}

TEST_F(Abort, OfAnUpdateEndsTheStimulationOfTheBeampath)
{
    const Devices devices = MakeBeampath(2);
    ActivateBeampath();
    CFinish& finish = NewFinish();
    for (CScriptedDevice* const device : devices)
        device->bBeginBlocks = true;
    ASSERT_EQ(0, Start(finish, Phase(600000.0)));
    for (const CScriptedDevice* const device : devices)
        ASSERT_TRUE(device->log.WaitFor("StimulationBegin(2, 600000)"));
    auto waiting = Async([] { return Access::WaitForStimulationEnd(M(), 0, true); });
    EXPECT_EQ(0, Get(waiting));
    EXPECT_EQ(1u, finish.Calls().size());
    for (const CScriptedDevice* const device : devices)
    {
        EXPECT_GE(device->log.Count("StimulationAbort()"), 1u);
        EXPECT_FALSE(device->IsLit());
    }
}
