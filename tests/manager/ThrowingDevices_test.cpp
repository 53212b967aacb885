// Devices and finish functions that break their promise not to throw: the process lives, the light goes out, the end is
// reported, and the next stimulation runs.
#include "tests/manager/ManagerTest.h"

#include <ostream>
#include <stdexcept>

using namespace QsTest;
using ::testing::HasSubstr;

namespace {

[[noreturn]] void Throw()
{
    throw std::runtime_error("the driver went away");
}

enum class EOperation
{
    Areas,
    Mode,
    Exposure,
    Begin,
    Fire,
    End
};

struct SCase
{
    EOperation operation;
    bool bPatterns;     // a device that splits the stimulation into exposures
    bool bMayHaveLight; // the operation can leave a light on
};

// Also how the test's parameter is printed.
std::ostream& operator<<(std::ostream& stream, const SCase& tested)
{
    const char* const names[] = {"Areas", "Mode", "Exposure", "Begin", "Fire", "End"};
    return stream << names[static_cast<int>(tested.operation)] << (tested.bPatterns ? "OfPatterns" : "OfASingleShot");
}

std::string Name(const ::testing::TestParamInfo<SCase>& info)
{
    return ::testing::PrintToString(info.param);
}

} // namespace

class ThrowingDevice : public ManagerTest, public ::testing::WithParamInterface<SCase>
{
public:
    CProbeDevice& Device()
    {
        CProbeDevice& device = Active<CProbeDevice>(L"A");
        device.uiMode = GetParam().bPatterns ? 7 : 3;
        device.uiAreaCount = 1;
        device.dCombinedExposure = 100.0;
        return device;
    }
    template <class Thrower>
    void MakeThrow(CProbeDevice& device, Thrower thrower)
    {
        const auto status = [thrower](auto&&...) -> int
        {
            thrower();
            return 0;
        };
        switch (GetParam().operation)
        {
        case EOperation::Areas:
            device.onAreaCount = thrower;
            break;
        case EOperation::Mode:
            device.onModeGet = thrower;
            break;
        case EOperation::Exposure:
            device.onExposure = thrower;
            break;
        case EOperation::Begin:
            device.onBegin = status;
            break;
        case EOperation::Fire:
            device.onFire = status;
            break;
        case EOperation::End:
            device.onEnd = status;
            break;
        }
    }
    static void Heal(CProbeDevice& device)
    {
        device.onAreaCount = nullptr;
        device.onModeGet = nullptr;
        device.onExposure = nullptr;
        device.onBegin = nullptr;
        device.onFire = nullptr;
        device.onEnd = nullptr;
    }
    static std::size_t CommandsThatEndLight(const CProbeDevice& device)
    {
        std::size_t count = 0;
        for (const std::string& entry : device.log.Entries())
            count += entry.rfind("StimulationEnd(", 0) == 0 || entry == "StimulationAbort()" ? 1u : 0u;
        return count;
    }
};

TEST_P(ThrowingDevice, IsReportedAsFailedWithItsLightOutAndTheNextStimulationRuns)
{
    CProbeDevice& device = Device();
    MakeThrow(device, &Throw);
    const std::size_t lines = DiagnosticTexts().size();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Timed(100.0)));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(-9, finish.Calls().front().result);
    EXPECT_TRUE(WaitIdle());
    EXPECT_FALSE(Access::IsRequestPending(M()));
    EXPECT_EQ(1u, finish.Calls().size());
    if (GetParam().operation == EOperation::End)
    {
        EXPECT_EQ(1u, device.log.Count("StimulationAbort()"));
    }
    else if (GetParam().bMayHaveLight)
    {
        EXPECT_GE(CommandsThatEndLight(device), 1u);
    }

    const std::vector<std::string> texts = DiagnosticTexts();
    ASSERT_GT(texts.size(), lines);
    EXPECT_THAT(texts.back(), HasSubstr("the driver went away"));

    Heal(device);
    device.log.Clear();
    ASSERT_EQ(0, Start(finish, Timed(100.0)));
    ASSERT_TRUE(finish.WaitFor(2));
    EXPECT_EQ(0, finish.Calls().back().result);
    EXPECT_EQ(1u, device.log.Count("StimulationEnd(1)"));
}

TEST_P(ThrowingDevice, MayThrowWhatIsNoException)
{
    CProbeDevice& device = Device();
    MakeThrow(device, [] { throw 5; });
    const std::size_t lines = DiagnosticTexts().size();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Timed(100.0)));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_GT(DiagnosticTexts().size(), lines);
    Heal(device);
    EXPECT_EQ(0, Start(finish, Timed(100.0)));
    EXPECT_TRUE(finish.WaitFor(2));
}

INSTANTIATE_TEST_SUITE_P(Operations, ThrowingDevice,
                         ::testing::Values(SCase{EOperation::Areas, false, false},
                                           SCase{EOperation::Mode, false, false}, SCase{EOperation::Begin, false, true},
                                           SCase{EOperation::End, false, true},
                                           SCase{EOperation::Exposure, true, false},
                                           SCase{EOperation::Begin, true, true}, SCase{EOperation::Fire, true, true},
                                           SCase{EOperation::End, true, true}),
                         Name);

class ThrowingCall : public ManagerTest
{};

TEST_F(ThrowingCall, OfTheFinishFunctionLeavesTheManagerIdle)
{
    CQsFakeDevice& device = Active(L"A");
    CFinish& finish = NewFinish();
    finish.onFinish = &Throw;
    const std::size_t lines = DiagnosticTexts().size();
    ASSERT_EQ(0, Start(finish));
    EXPECT_TRUE(WaitIdle());
    EXPECT_FALSE(Access::IsRequestPending(M()));
    EXPECT_EQ(1u, device.log.Count("StimulationEnd(1)"));
    EXPECT_GT(DiagnosticTexts().size(), lines);
    finish.onFinish = nullptr;
    ASSERT_EQ(0, Start(finish));
    EXPECT_TRUE(finish.WaitFor());
}

TEST_F(ThrowingCall, OfBeginAndEndTogetherStillEndsInAnAbort)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.onBegin = [](const Request&) -> int { Throw(); };
    device.onEnd = []() -> int { Throw(); };
    device.onAbort = []() -> int { Throw(); };
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_EQ(-9, finish.Calls().front().result);
    EXPECT_GE(device.log.Count("StimulationAbort()"), 1u);
    EXPECT_TRUE(WaitIdle());
    EXPECT_FALSE(Access::IsRequestPending(M()));
    device.onAbort = nullptr;
}

TEST_F(ThrowingCall, OfAnAbortDoesNotStopTheWaitForTheEnd)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.bBeginBlocks = true; // the fake's begin has heard the abort before the hook throws
    device.onAbort = []() -> int { Throw(); };
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 0, true));
    EXPECT_EQ(1u, finish.Calls().size());
    device.onAbort = nullptr;
}

TEST_F(ThrowingCall, OfSetActiveLeavesTheDeviceActive)
{
    CQsFakeDevice& b = Simple(L"B");
    CQsFakeDevice& a = Active(L"A");
    a.onSetActive = [](bool) -> int { Throw(); };
    b.onSetActive = [](bool) -> int { Throw(); };
    EXPECT_EQ(0, M().SetActive(L"B", false));
    EXPECT_EQ(&b, M().GetActive());
    EXPECT_FALSE(Info(L"A").bActive);
    EXPECT_TRUE(Info(L"B").bActive);
}

TEST_F(ThrowingCall, OfGetUniqueNameDoesNotStopTheRemovalOfAList)
{
    Special(L"A");
    CProbeDevice& throwing = Special<CProbeDevice>(L"B");
    CQsFakeDevice& last = Special(L"C");
    M().Update();
    throwing.onName = [] { Throw(); };
    M().SpecialDevicesRemoveAll();
    EXPECT_TRUE(Access::SpecialDevices(M()).empty());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&throwing));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&last));
    for (const wchar_t* const name : {L"A", L"B", L"C"})
        EXPECT_EQ(nullptr, M().GetDevice(name));
    throwing.onName = nullptr;
    EXPECT_EQ(-13, M().Update());
    EXPECT_EQ(0u, M().GetDeviceCount());
}
