// The worker's way with a device that splits a stimulation into exposures.
#include "tests/manager/ManagerTest.h"

#include <cmath>
#include <limits>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::atomic<double> s_nowMs{0.0};

} // namespace

// A device with one area, exposures of 300 ms, and a clock that only its fires move.
class RepeatedPatterns : public ManagerTest
{
public:
    RepeatedPatterns()
    {
        s_nowMs = 5000.0;
        QsStandalone::SetTimeCounter([] { return s_nowMs.load(); });
    }

    CProbeDevice& Patterns(double dExposureMs = 300.0, double dFireMs = 100.0)
    {
        CProbeDevice& device = Active<CProbeDevice>(L"P");
        device.uiMode = IQsStimulationDevice::s_modeRepeatedPatterns;
        device.uiAreaCount = 1;
        device.dCombinedExposure = dExposureMs;
        device.onFire = [dFireMs, &device](const Request&)
        {
            s_nowMs = s_nowMs + dFireMs;
            const unsigned fire = device.FireCount() - 1;
            return fire < device.fireResults.size() ? device.fireResults[fire] : 0;
        };
        return device;
    }

    static SFinished Run(const Request& request)
    {
        CFinish finish;
        EXPECT_EQ(0, Start(finish, request));
        EXPECT_TRUE(WaitIdle());
        const auto calls = finish.Calls();
        EXPECT_EQ(1u, calls.size());
        return calls.empty() ? SFinished() : calls.front();
    }

    // Repetitions that the device is asked to prepare.
    static unsigned Count(CProbeDevice& device, double dDurationMs, double dExposureMs)
    {
        device.dCombinedExposure = dExposureMs;
        std::atomic<unsigned> repeats{0xFFFFFFFFu};
        device.onBegin = [&repeats](const Request& request)
        {
            repeats = request.uiRepeatCount;
            return -1; // nothing is fired
        };
        Run(Timed(dDurationMs));
        device.onBegin = nullptr;
        return repeats;
    }
};

TEST_F(RepeatedPatterns, WithoutAreasAreDoneAtOnceAndReportNoTimes)
{
    CProbeDevice& device = Patterns();
    device.uiAreaCount = 0;
    const SFinished end = Run(Timed(1000.0));
    EXPECT_EQ(0, end.result);
    EXPECT_EQ(0u, end.count);
    EXPECT_FALSE(end.bArrays);
    EXPECT_THAT(device.log.Entries(), IsEmpty());
}

TEST_F(RepeatedPatterns, FireAsOftenAsTheExposureFitsTheDuration)
{
    CProbeDevice& device = Patterns();
    device.endTimes = {{1.0, 2.0}, {3.0, 4.0}};
    const SFinished end = Run(Timed(1000.0)); // 1000/300 + 0.5 is 3.8
    EXPECT_THAT(device.log.Entries(), ElementsAre("StimulationBegin(3, 0)", "StimulationFire(3)", "StimulationFire(3)",
                                                  "StimulationFire(3)", "StimulationEnd(3)"));
    EXPECT_EQ(0, end.result);
    EXPECT_EQ(3u, end.count);
    EXPECT_THAT(end.begin, ElementsAre(1.0, 3.0, -1.0));
    EXPECT_THAT(end.end, ElementsAre(2.0, 4.0, -1.0));
    EXPECT_EQ(0u, device.exposureIndex);
    EXPECT_FALSE(device.bFireGotTimes);
}

TEST_F(RepeatedPatterns, ReportNoTimeWhereTheDeviceGivesNone)
{
    CProbeDevice& device = Patterns();
    device.onEndTimes = [](double* begin, double* end, std::uint64_t)
    {
        begin[1] = 7.0;
        end[2] = 8.0;
        return 0;
    };
    const SFinished end = Run(Timed(1000.0));
    EXPECT_THAT(end.begin, ElementsAre(-1.0, 7.0, -1.0));
    EXPECT_THAT(end.end, ElementsAre(-1.0, -1.0, 8.0));
}

TEST_F(RepeatedPatterns, TurnTheRequestIntoOneOfShots)
{
    CProbeDevice& device = Patterns();
    Request request;
    request.uiReserved = 0x01020304;
    request.uiType = 2;
    request.uiRepeatCount = 77;
    request.dDurationMs = 1000.0;
    request.uiGroupMask = 5;
    request.dReserved = 2.5;
    Request begin;
    device.onBegin = [&begin](const Request& seen)
    {
        begin = seen;
        return 0;
    };
    Run(request);
    for (const Request& seen : {begin, device.LastRequest()})
    {
        // Of the first word only the first byte is copied.
        const auto* const bytes = reinterpret_cast<const unsigned char*>(&seen);
        EXPECT_EQ(0x04, bytes[0]);
        EXPECT_THAT(std::vector<unsigned>(bytes + 1, bytes + 4), ElementsAre(0u, 0u, 0u));
        EXPECT_EQ(3u, seen.uiType);
        EXPECT_EQ(3u, seen.uiRepeatCount);
        EXPECT_EQ(0.0, seen.dDurationMs);
        EXPECT_EQ(5u, seen.uiGroupMask);
        EXPECT_EQ(2.5, seen.dReserved);
    }
}

TEST_F(RepeatedPatterns, EndAfterTheFireThatFails)
{
    CProbeDevice& device = Patterns();
    device.fireResults = {0, -7, 0};
    const SFinished end = Run(Timed(1000.0));
    EXPECT_EQ(-7, end.result);
    EXPECT_EQ(3u, end.count);
    EXPECT_THAT(device.log.Entries(),
                ElementsAre("StimulationBegin(3, 0)", "StimulationFire(3)", "StimulationFire(3)", "StimulationEnd(3)"));
}

TEST_F(RepeatedPatterns, FireNothingAfterABeginThatFailsAndAreStillEnded)
{
    CProbeDevice& device = Patterns();
    device.iBeginResult = -4;
    device.iEndResult = 0;
    const SFinished end = Run(Timed(1000.0));
    EXPECT_EQ(-4, end.result);
    EXPECT_THAT(device.log.Entries(), ElementsAre("StimulationBegin(3, 0)", "StimulationEnd(3)"));
}

TEST_F(RepeatedPatterns, ReportWhatTheFiresSayAndNotWhatTheEndSays)
{
    CProbeDevice& device = Patterns();
    device.iEndResult = -5;
    EXPECT_EQ(0, Run(Timed(1000.0)).result);
    EXPECT_EQ(3u, device.FireCount());
}

TEST_F(RepeatedPatterns, StopFiringWhenTheDurationHasPassed)
{
    CProbeDevice& device = Patterns(300.0, 1000.0);
    EXPECT_EQ(0, Run(Timed(1000.0)).result);
    EXPECT_EQ(1u, device.FireCount());
    EXPECT_EQ(1u, device.log.Count("StimulationEnd(3)"));
}

TEST_F(RepeatedPatterns, FireOnceMoreWhileAnyOfTheDurationIsLeft)
{
    CProbeDevice& device = Patterns(300.0, 999.5);
    EXPECT_EQ(0, Run(Timed(1000.0)).result);
    EXPECT_EQ(2u, device.FireCount());
}

TEST_F(RepeatedPatterns, MeasureTheDurationFromTheReturnOfTheBegin)
{
    CProbeDevice& device = Patterns(300.0, 400.0);
    device.onBegin = [](const Request&)
    {
        s_nowMs = s_nowMs + 10000.0;
        return 0;
    };
    Run(Timed(1000.0));
    EXPECT_EQ(3u, device.FireCount()); // at 0, 400 and 800 ms
}

TEST_F(RepeatedPatterns, OfADurationTooShortForOneExposureArePreparedAndEndedWithoutAFire)
{
    CProbeDevice& device = Patterns();
    // Devices may write the first time for any count.
    device.onEndTimes = [](double* begin, double* end, std::uint64_t count)
    {
        EXPECT_EQ(0u, count);
        if (begin != nullptr)
            begin[0] = 1.0;
        if (end != nullptr)
            end[0] = 2.0;
        return -5;
    };
    const SFinished end = Run(Timed(100.0)); // 100/300 + 0.5 is 0.8
    EXPECT_EQ(0, end.result);
    EXPECT_EQ(0u, end.count);
    EXPECT_EQ(0u, device.LastRequest().uiRepeatCount);
    EXPECT_THAT(device.log.Entries(), ElementsAre("StimulationBegin(3, 0)", "StimulationEnd(0)"));
}

TEST_F(RepeatedPatterns, CountsAreTheReferenceValues)
{
    CProbeDevice& device = Patterns();
    for (const Json* const vector : VectorsOf("exposure count"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const Json& input = Member(*vector, "input");
        EXPECT_EQ(Member(*vector, "output").GetUint(),
                  Count(device, ToDouble(Member(input, "dDurationMs")), ToDouble(Member(input, "exposure"))));
    }
}

TEST_F(RepeatedPatterns, CountsAreTheRatioPlusOneHalfTruncated)
{
    constexpr double inf = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    CProbeDevice& device = Patterns();
    EXPECT_EQ(1u, Count(device, 150.0, 300.0));  // 1.0
    EXPECT_EQ(0u, Count(device, 149.0, 300.0));  // 0.997
    EXPECT_EQ(1u, Count(device, 449.0, 300.0));  // 1.997
    EXPECT_EQ(2u, Count(device, 450.0, 300.0));  // 2.0
    EXPECT_EQ(4u, Count(device, 1000.0, 250.0)); // 4.5
    EXPECT_EQ(2000u, Count(device, 1000.0, 0.5));
    // No number: none.
    EXPECT_EQ(0u, Count(device, 1000.0, 0.0));
    EXPECT_EQ(0u, Count(device, 1000.0, -0.0));
    EXPECT_EQ(0u, Count(device, 1000.0, nan));
    EXPECT_EQ(0u, Count(device, nan, 300.0));
    EXPECT_EQ(0u, Count(device, inf, 300.0));
    EXPECT_EQ(0u, Count(device, inf, inf));
    EXPECT_EQ(0u, Count(device, 1000.0, inf)); // 0.5
    EXPECT_EQ(0u, Count(device, -1000.0, 300.0));
    EXPECT_EQ(0u, Count(device, 0.0, 300.0));
}

TEST_F(RepeatedPatterns, FailWithoutTimesWhenThereIsNoMemoryForThem)
{
    CProbeDevice& device = Patterns(1.0);
    const SFinished end = Run(Timed(4.0e9)); // two arrays of 32 GB
    EXPECT_EQ(-9, end.result);
    EXPECT_EQ(0u, end.count);
    EXPECT_FALSE(end.bArrays);
    EXPECT_EQ(0u, device.FireCount());
    EXPECT_EQ(0u, device.log.Count("StimulationBegin(3, 0)"));
    EXPECT_FALSE(Access::IsRequestPending(M()));
    // And the next one runs.
    device.dCombinedExposure = 300.0;
    EXPECT_EQ(0, Run(Timed(1000.0)).result);
    EXPECT_EQ(3u, device.FireCount());
}

TEST_F(RepeatedPatterns, OfAnExposureThatIsNextToNothingEndWithoutAFire)
{
    CProbeDevice& device = Patterns(1.0e-300);
    Run(Timed(1000.0)); // 1e303 exposures: no memory, or no number
    EXPECT_EQ(0u, device.FireCount());
    EXPECT_FALSE(Access::IsRequestPending(M()));
}

TEST_F(RepeatedPatterns, AreAbortedByWhoWaitsForTheirEnd)
{
    CProbeDevice& device = Patterns();
    std::atomic<bool> bAborted{false};
    device.onFire = [&bAborted](const Request&) { return bAborted ? -9 : 0; };
    device.onAbort = [&bAborted]
    {
        bAborted = true;
        return 0;
    };
    device.dCombinedExposure = 1.0e-3; // a million fires of a clock that stands
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Timed(1000.0)));
    ASSERT_TRUE(device.log.WaitFor("StimulationFire(3)"));
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 0, true));
    ASSERT_EQ(1u, finish.Calls().size());
    EXPECT_EQ(-9, finish.Calls().front().result);
    EXPECT_GE(device.log.Count("StimulationAbort()"), 1u);
    EXPECT_EQ(1u, device.log.Count("StimulationEnd(1000000)"));
}
