// The begin and the end of a stimulation on a beampath: what is told to whom, in which order, and what comes back.
#include "tests/support/BeampathFixture.h"

#include <array>
#include <cmath>
#include <limits>

using namespace QsTest;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

namespace {

constexpr char s_timeout[] =
    "CQsStimulationDeviceAggregator::StimulationBegin: Timeout while waiting for devices to finish their tasks.";

} // namespace

class Stimulation : public BeampathTest
{
public:
    // The log, in which the devices of a beampath have no order among themselves: from `first` on as many as there are
    // devices.
    std::vector<std::string> Sorted(std::size_t first, std::size_t devices)
    {
        std::vector<std::string> entries = Log().Entries();
        if (entries.size() >= first + devices)
            std::sort(entries.begin() + static_cast<std::ptrdiff_t>(first),
                      entries.begin() + static_cast<std::ptrdiff_t>(first + devices));
        return entries;
    }
    std::vector<std::string> LastTwo()
    {
        std::vector<std::string> entries = Log().Entries();
        if (entries.size() > 2)
            entries.erase(entries.begin(), entries.end() - 2);
        return entries;
    }
};

// ----------------------------------------------------------------------------------------------- one sub-beampath

TEST_F(Stimulation, OfOneDeviceForAPhaseTellsTheHostAroundIt)
{
    MakeBeampath(1);
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_THAT(Log().Entries(),
                ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(2, 30000)", "OC 1", "OC 16"));
    Log().Clear();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(Log().Entries(), ElementsAre("A: StimulationEnd(0)", "code 16"));
}

TEST_F(Stimulation, OfOneDeviceUntilItsEndTellsTheHostAroundBoth)
{
    MakeBeampath(1);
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_THAT(Log().Entries(), ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(1, 0)"));
    Log().Clear();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(Log().Entries(), ElementsAre("OC 1", "A: StimulationEnd(0)", "OC 16", "code 16"));
    // The kind is forgotten with the end.
    Log().Clear();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(Log().Entries(), ElementsAre("A: StimulationEnd(0)", "code 16"));
}

TEST_F(Stimulation, OfOneDeviceGivesTheBeginsStatusAndNotTheEnds)
{
    const Devices devices = MakeBeampath(1);
    devices[0]->iBeginResult = -5;
    devices[0]->iEndResult = -6;
    LogEverything();
    EXPECT_EQ(-5, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_THAT(Log().Entries(),
                ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(2, 30000)", "OC 1", "OC 16"));
    EXPECT_EQ(-5, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Stimulation, OfOneDeviceHandsTheRequestAndTheTimesThrough)
{
    const Devices devices = MakeBeampath(1);
    devices[0]->endTimes = {{1.0, 2.0}, {3.0, 4.0}};
    Request request = OfKind(2, 12.0, 0xFFFFFFF8u);
    request.uiReserved = 77;
    request.uiRepeatCount = 5;
    request.dReserved = 0.25;
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(request));
    const Request got = devices[0]->LastRequest();
    EXPECT_EQ(0xFFFFFFF8u, got.uiGroupMask); // untouched, also without a group that there is
    EXPECT_EQ(77u, got.uiReserved);
    EXPECT_EQ(5u, got.uiRepeatCount);
    EXPECT_EQ(0.25, got.dReserved);
    EXPECT_EQ(12.0, got.dDurationMs);

    std::array<double, 3> begins{s_unwritten, s_unwritten, s_unwritten};
    std::array<double, 3> ends = begins;
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(begins.data(), ends.data(), 2));
    EXPECT_THAT(begins, ElementsAre(1.0, 3.0, s_unwritten));
    EXPECT_THAT(ends, ElementsAre(2.0, 4.0, s_unwritten));
    EXPECT_EQ(1u, devices[0]->log.Count("StimulationEnd(2)"));
}

TEST_F(Stimulation, OfOneDeviceUsesNoThreadOfThePool)
{
    const Devices devices = MakeBeampath(1);
    std::thread::id beginThread;
    devices[0]->onBegin = [&](const Request&)
    {
        beginThread = std::this_thread::get_id();
        return 0;
    };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(1.0)));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(std::this_thread::get_id(), beginThread);
    EXPECT_THAT(CHostCalls::PoolFlags(), IsEmpty());
}

// -------------------------------------------------------------------------------------------- several sub-beampaths

TEST_F(Stimulation, OfTwoDevicesForAPhaseTellsTheHostWhenAllHaveBegun)
{
    MakeBeampath(2);
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_THAT(Sorted(3, 2), ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(2, 30000)",
                                          "B: StimulationBegin(2, 30000)", "OC 1", "OC 16"));
    Log().Clear();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 7));
    EXPECT_THAT(Sorted(0, 2), ElementsAre("A: StimulationEnd(1)", "B: StimulationEnd(1)", "code 16"));
}

TEST_F(Stimulation, OfTwoDevicesUntilTheirEndTellsTheHostAroundBoth)
{
    MakeBeampath(2);
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_THAT(Sorted(3, 2),
                ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(1, 0)", "B: StimulationBegin(1, 0)"));
    Log().Clear();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 1));
    EXPECT_THAT(Sorted(1, 2), ElementsAre("OC 1", "A: StimulationEnd(1)", "B: StimulationEnd(1)", "OC 16", "code 16"));
}

TEST_F(Stimulation, OfTwoDevicesGivesEveryDeviceTheGroupsOfTheRequest)
{
    const Devices devices = MakeBeampath(2);
    Request request = OfKind(2, 12.0, 0xFFFFFFFDu);
    request.uiReserved = 77;
    request.uiRepeatCount = 5;
    request.dReserved = 0.25;
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(request));
    for (const CScriptedDevice* const device : devices)
    {
        const Request got = device->LastRequest();
        EXPECT_EQ(5u, got.uiGroupMask); // groups 0 and 2; there are no others
        EXPECT_EQ(77u, got.uiReserved);
        EXPECT_EQ(2u, got.uiType);
        EXPECT_EQ(5u, got.uiRepeatCount);
        EXPECT_EQ(12.0, got.dDurationMs);
        EXPECT_EQ(0.25, got.dReserved);
    }
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Stimulation, OfTwoDevicesWithoutAGroupStartsNoneAndSaysNothing)
{
    const Devices devices = MakeBeampath(2);
    for (const unsigned groups : {0u, 8u, 0xFFFFFFF8u})
    {
        SCOPED_TRACE(groups);
        LogEverything();
        ForgetLines();
        CHostCalls::ForgetWaits();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(OfKind(2, 30000.0, groups)));
        EXPECT_THAT(Log().Entries(), ElementsAre("code 8", "OC 1", "OC 2", "OC 1", "OC 16"));
        EXPECT_THAT(Lines(s_aggregatorUnit), IsEmpty());
        EXPECT_THAT(CHostCalls::WaitsOf(60000), IsEmpty());
        EXPECT_THAT(CHostCalls::PoolFlags(), IsEmpty());
        for (const CScriptedDevice* const device : devices)
            EXPECT_THAT(device->log.Entries(), IsEmpty());
    }
}

TEST_F(Stimulation, OfTwoDevicesLeavesTheCallersTimesAlone)
{
    const Devices devices = MakeBeampath(2);
    for (CScriptedDevice* const device : devices)
        device->endTimes = {{1.0, 2.0}};
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    std::array<double, 2> times{s_unwritten, s_unwritten};
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(&times[0], &times[1], 1));
    EXPECT_THAT(times, ElementsAre(s_unwritten, s_unwritten));
}

TEST_F(Stimulation, OfTwoDevicesSucceedsAlsoWhenOneFailsWhichIsLogged)
{
    const Devices devices = MakeBeampath(2);
    std::atomic<DWORD> thread{0};
    devices[1]->onBegin = [&](const Request&)
    {
        thread = GetCurrentThreadId();
        return -5;
    };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    const std::string failed =
        CQsStringW::Format(
            L"CQsStimulationDeviceAggregator::StimulationBeginAsync: Failed to call StimulationROIPrepare on device %s, thread (%i)",
            L"B", static_cast<int>(thread.load()))
            .ToUtf8();
    EXPECT_EQ(1u, LineCount(s_aggregatorUnit, failed));
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));

    devices[0]->iEndResult = -6;
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(
        Lines(s_aggregatorUnit),
        ElementsAre("CQsStimulationDeviceAggregator::StimulationEndAsync: Async call to StimulationEnd of A failed."));
}

TEST_F(Stimulation, OfTwoDevicesLogsTheThreadsThatBegin)
{
    const Devices devices = MakeBeampath(2);
    std::atomic<DWORD> threads[2] = {};
    for (std::size_t i = 0; i < 2; ++i)
        devices[i]->onBegin = [&threads, i](const Request&)
        {
            threads[i] = GetCurrentThreadId();
            return 0;
        };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    // The pool may have given both to the same thread, one after the other.
    const std::size_t items = threads[0] == threads[1] ? 2 : 1;
    for (const std::atomic<DWORD>& thread : threads)
    {
        EXPECT_NE(GetCurrentThreadId(), thread);
        for (const wchar_t* const what : {L"started", L"finished"})
        {
            const std::string line =
                CQsStringW::Format(
                    L"CQsStimulationDeviceAggregator::StimulationBeginAsync: Windows Threadpool thread (%#x) procedure has %s.",
                    static_cast<unsigned>(thread.load()), what)
                    .ToUtf8();
            EXPECT_EQ(items, LineCount(s_aggregatorUnit, line)) << line;
        }
    }
    EXPECT_EQ(4u, Lines(s_aggregatorUnit).size());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

// ------------------------------------------------------------------------------------------------ phases that are none

TEST_F(Stimulation, OfAPhaseThatIsTooShortIsRefusedAfterTheChangeCodeAlone)
{
    const Devices devices = MakeBeampath(2);
    for (const double duration : {0.0005, 0.001, -0.0005, -0.001, 0.0})
    {
        SCOPED_TRACE(duration);
        LogEverything();
        ForgetLines();
        EXPECT_EQ(-4, BeampathDevice().StimulationBegin(Phase(duration)));
        EXPECT_THAT(Log().Entries(), ElementsAre("code 8"));
        EXPECT_THAT(
            Lines(s_aggregatorUnit),
            ElementsAre(
                CQsStringW::Format(
                    L"CQsStimulationDeviceAggregator::StimulationBegin: Invalid stimulation phase duration %f [ms].",
                    duration)
                    .ToUtf8()));
    }
    EXPECT_THAT(
        Lines(s_aggregatorUnit),
        ElementsAre(
            "CQsStimulationDeviceAggregator::StimulationBegin: Invalid stimulation phase duration 0.000000 [ms]."));
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), IsEmpty());
}

TEST_F(Stimulation, OfAPhaseThatIsNotTooShortGoesOn)
{
    MakeBeampath(2);
    for (const double duration : {0.0011, -5.0, -0.0011, std::numeric_limits<double>::quiet_NaN()})
    {
        SCOPED_TRACE(duration);
        LogEverything();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(duration)));
        EXPECT_EQ(7u, Log().Entries().size());
        EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    }
}

TEST_F(Stimulation, ThatIsRefusedDoesNotForgetTheOneThatRuns)
{
    MakeBeampath(1);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_EQ(-4, BeampathDevice().StimulationBegin(Phase(0.0)));
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(Log().Entries(), ElementsAre("OC 1", "A: StimulationEnd(0)", "OC 16", "code 16"));
}

TEST_F(Stimulation, WithoutAManagerIsRefusedAndItsEndReachesTheDevice)
{
    const Devices devices = MakeBeampath(2);
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    ASSERT_EQ(0, beampath->StimulationBegin(Continuous()));
    SelectHWConfig(s_otherHWConfig);
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_otherHWConfig, s_beampath, 0}); });
    M().SetStimulationBeampathsDirty();
    EXPECT_FALSE(HasBeampathDevice(s_beampath)); // only the test's own is left
    for (CScriptedDevice* const device : devices)
        ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(device));
    M().Update();
    Access::DeleteInstance();
    EXPECT_EQ(-9, beampath->StimulationBegin(Phase(30000.0)));
    EXPECT_EQ(-9, beampath->StimulationBegin(Phase(0.0)));
    for (CScriptedDevice* const device : devices)
        EXPECT_EQ(0u, device->log.Count("StimulationBegin(2, 30000)"));
    EXPECT_EQ(0, beampath->StimulationEnd(nullptr, nullptr, 0));
    for (CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
    // The end forgot the kind: the next manager hears of no end of it.
    LogEverything();
    EXPECT_EQ(0, beampath->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(0u, Log().Count("OC 1"));
}

// ------------------------------------------------------------------------------------------- how long the begin waits

TEST_F(Stimulation, WaitsForItsDevicesAsLongAsTheReferenceValuesSay)
{
    const Devices devices = MakeBeampath(2);
    for (const Json* const vector : VectorsOf("begin wait"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const Json& input = Member(*vector, "input");
        const Json& output = Member(*vector, "output");
        CHostCalls::ForgetWaits();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(
                         OfKind(Member(input, "uiType").GetUint(), ToDouble(Member(input, "dDurationMs")))));
        const std::vector<SWaitCall> waits = CHostCalls::Waits();
        if (output.IsNull())
            EXPECT_THAT(waits, IsEmpty());
        else
        {
            ASSERT_EQ(1u, waits.size());
            EXPECT_EQ(2u, waits[0].count);
            EXPECT_EQ(output.GetUint(), waits[0].milliseconds);
        }
        EXPECT_TRUE(CHostCalls::WaitForPool());
        EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    }
}

// Twice the duration, rounded half away from zero, and at least 100 ms.
TEST_F(Stimulation, WaitsForItsDevicesTwiceThePhaseRounded)
{
    MakeBeampath(2);
    for (const auto& [duration, expected] :
         std::vector<std::pair<double, DWORD>>{{50.2, 100},  // 100.4
                                               {50.25, 101}, // 100.5
                                               {60.25, 121}, // 120.5, which half to even would make 120
                                               {60.75, 122}, // 121.5
                                               {-500.0, 100},
                                               {1e9, 2000000000}})
    {
        SCOPED_TRACE(duration);
        CHostCalls::ForgetWaits();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(duration)));
        ASSERT_EQ(1u, CHostCalls::Waits().size());
        EXPECT_EQ(expected, CHostCalls::Waits()[0].milliseconds);
        EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    }
}

TEST_F(Stimulation, NeverWaitsForEver)
{
    MakeBeampath(2);
    for (const double duration :
         {3e9, 1e300, std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(), 2147483647.5})
    {
        SCOPED_TRACE(duration);
        CHostCalls::ForgetWaits();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(duration)));
        ASSERT_EQ(1u, CHostCalls::Waits().size());
        EXPECT_NE(INFINITE, CHostCalls::Waits()[0].milliseconds);
        EXPECT_GE(CHostCalls::Waits()[0].milliseconds, 100u);
        EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    }
}

TEST_F(Stimulation, IsNotHeldUpByADeviceThatIsTooSlowWhichIsLogged)
{
    const Devices devices = MakeBeampath(2);
    devices[1]->bBeginBlocks = true;
    devices[1]->bAbortEndsBegin = false;
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30.0)));
    EXPECT_EQ(1u, LineCount(s_aggregatorUnit, s_timeout));
    ASSERT_TRUE(devices[1]->log.WaitFor("StimulationBegin(2, 30)"));
    EXPECT_THAT(LastTwo(), ElementsAre("OC 1", "OC 16"));
    EXPECT_TRUE(devices[1]->IsLit());
    // It finishes later, on its own, and is ended like the other.
    devices[1]->ReleaseBegin();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), ElementsAre("StimulationBegin(2, 30)", "StimulationEnd(1)"));
}

TEST_F(Stimulation, OfOtherKindsIsNotWaitedForAndFailsOnItsOwn)
{
    const Devices devices = MakeBeampath(2);
    for (const unsigned kind : {0u, 3u, 99u})
    {
        SCOPED_TRACE(kind);
        ForgetLines();
        LogEverything();
        CHostCalls::HoldPool();
        CHostCalls::ForgetWaits();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(OfKind(kind, 30000.0)));
        EXPECT_EQ(2u, CHostCalls::HeldPoolItems()); // nobody waited for them
        EXPECT_THAT(CHostCalls::Waits(), IsEmpty());
        EXPECT_THAT(Log().Entries(), ElementsAre("code 8", "OC 1", "OC 2"));
        EXPECT_TRUE(CHostCalls::WaitForPool());
        // The sub-beampaths refuse the kind; their devices see nothing of it.
        EXPECT_EQ(
            2u,
            LineCount(s_proxyUnit,
                      "CQsStimulationDeviceProxy::StimulationBegin: Entered default case for Stimulation Begin..."));
        std::size_t failed = 0;
        for (const std::string& line : Lines(s_aggregatorUnit))
            failed += line.find("Failed to call StimulationROIPrepare on device") != std::string::npos ? 1u : 0u;
        EXPECT_EQ(2u, failed);
        for (const CScriptedDevice* const device : devices)
            EXPECT_THAT(device->log.Entries(), IsEmpty());
    }
}

// ------------------------------------------------------------------------------------------- how long the end waits

TEST_F(Stimulation, WaitsTenSecondsForTheEndOfEachDevice)
{
    MakeBeampath(3);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    CHostCalls::ForgetWaits();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(3u, CHostCalls::Waits().size());
    EXPECT_EQ(3u, CHostCalls::WaitsOf(10000).size());
    for (const SWaitCall& wait : CHostCalls::Waits())
        EXPECT_EQ(1u, wait.count);
}

TEST_F(Stimulation, IsNotHeldUpByADeviceThatDoesNotEnd)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    CGate gate;
    devices[0]->onEnd = [&gate]
    {
        gate.Pass();
        return 0;
    };
    CHostCalls::ShortenWaits(10000);
    LogEverything();
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(devices[0]->IsLit()); // still inside its end
    EXPECT_THAT(LastTwo(), ElementsAre("OC 16", "code 16"));
    EXPECT_THAT(Lines(s_aggregatorUnit), IsEmpty());
    gate.Open();
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
}

// --------------------------------------------------------------------------------------------- places without a device

TEST_F(Stimulation, SkipsAPlaceWithoutADeviceInTheBeginAndLogsItInTheEnd)
{
    const Devices devices = MakeBeampath(2);
    SetMerged(s_beampath, "[51]");
    Rebuild();
    LogEverything();
    ForgetLines();
    CHostCalls::ForgetWaits();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    // One device and one place are two sub-beampaths: it begins on the pool.
    EXPECT_EQ(1u, CHostCalls::PoolFlags().size());
    ASSERT_EQ(1u, CHostCalls::WaitsOf(60000).size());
    EXPECT_EQ(1u, CHostCalls::WaitsOf(60000)[0].count);
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));
    EXPECT_THAT(Log().Entries(),
                ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(2, 30000)", "OC 1", "OC 16"));
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(Lines(s_aggregatorUnit),
                ElementsAre("CQsStimulationDeviceAggregator::StimulationEndAsync: Error, nullptr."));
    EXPECT_THAT(devices[0]->log.Entries(), ElementsAre("StimulationBegin(2, 30000)", "StimulationEnd(1)"));
    EXPECT_THAT(devices[1]->log.Entries(), IsEmpty());
}

TEST_F(Stimulation, OfPlainLightPathsAloneWaitsOutThePhase)
{
    MakeBeampathOf({L"", L""});
    LogEverything();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(60.0)));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(60));
    EXPECT_THAT(Log().Entries(), ElementsAre("code 8", "OC 1", "OC 2", "OC 1", "OC 16"));
    Log().Clear();
    // Each light path says that it ended.
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(Log().Entries(), ElementsAre("OC 16", "OC 16", "code 16"));
}

TEST_F(Stimulation, OfADeviceAndAPlainLightPathRunsTogether)
{
    const Devices devices = MakeBeampathOf({L"A", L""});
    LogEverything();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_THAT(Log().Entries(), ElementsAre("code 8", "OC 1", "OC 2", "A: StimulationBegin(1, 0)"));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_FALSE(devices[0]->IsLit());
}
