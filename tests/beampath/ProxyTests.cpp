#include "beampath/StimulationDeviceProxy.h"
#include "manager/StimulationManager.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/OwnRegistry.h"
#include "tests/support/SystemFaults.h"

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <future>

using Manager = CQsStimulationDeviceManager;
using QsStandalone::CQsDiagnosticLog;
using QsTest::Request;
using QsTest::s_unwritten;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

namespace {

std::vector<unsigned> s_commands;

void OnCommand(unsigned command)
{
    s_commands.push_back(command);
}

std::vector<std::wstring> LoggedBy(const wchar_t* unit)
{
    std::vector<std::wstring> texts;
    for (const QsStandalone::SLogLine& line : CQsDiagnosticLog::MemoryLines())
    {
        if (line.unit == unit)
            texts.push_back(line.text.Std());
    }
    return texts;
}

class Proxy : public testing::Test
{
protected:
    Proxy() : m_device(QsTest::CreateDevice("CQsStimulationDeviceProxy")) {}

    void SetUp() override { ASSERT_NE(nullptr, m_device); }
    CQsStimulationDeviceProxy& Get() { return dynamic_cast<CQsStimulationDeviceProxy&>(*m_device); }

    const QsTest::COwnRegistry m_registry;
    QsTest::DevicePtr m_device;
};

} // namespace

TEST_F(Proxy, StandsForNoSubBeampathAtFirst)
{
    EXPECT_EQ(0, Get().GetStimulationSubbeampathId());
    EXPECT_TRUE(m_device->GetUniqueName() == L"StimulationDeviceProxy_0");
    EXPECT_FALSE(m_device->IsHWConnected());
    EXPECT_FALSE(m_device->IsVisible());
}

TEST_F(Proxy, IsConnectedAndVisibleWithTheIdOfASubBeampath)
{
    Manager::GetInstance();
    EXPECT_EQ(0, Get().SetStimulationSubbeampathId(7));
    EXPECT_EQ(7, Get().GetStimulationSubbeampathId());
    EXPECT_TRUE(m_device->GetUniqueName() == L"StimulationDeviceProxy_7");
    EXPECT_TRUE(m_device->IsHWConnected());
    EXPECT_TRUE(m_device->IsVisible());
    for (const int id : {0, -3})
    {
        EXPECT_EQ(0, Get().SetStimulationSubbeampathId(id));
        EXPECT_EQ(id, Get().GetStimulationSubbeampathId());
        EXPECT_FALSE(m_device->IsHWConnected());
        EXPECT_FALSE(m_device->IsVisible());
    }
    EXPECT_TRUE(m_device->GetUniqueName() == L"StimulationDeviceProxy_-3");
}

TEST_F(Proxy, TakesNoIdWithoutAManager)
{
    EXPECT_EQ(-9, Get().SetStimulationSubbeampathId(7));
    EXPECT_EQ(0, Get().GetStimulationSubbeampathId());
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST_F(Proxy, AnswersDefaults)
{
    EXPECT_EQ(-2, m_device->SetActive(true));
    for (const unsigned id : {1u, 2u, 3u})
    {
        EXPECT_TRUE(m_device->IsFeatureSupported(id));
        EXPECT_TRUE(m_device->IsFeatureEnabled(id));
    }
    for (const unsigned id : {0u, 4u})
    {
        EXPECT_FALSE(m_device->IsFeatureSupported(id));
        EXPECT_FALSE(m_device->IsFeatureEnabled(id));
    }
    EXPECT_EQ(IQsStimulationDevice::eStimDevGeneric, m_device->GetStimulationDeviceType());
    EXPECT_TRUE(m_device->GetLocalizedStringForUI(0) == L"Stimulation Device for Beampath ");
    EXPECT_TRUE(m_device->GetLocalizedStringForUI(5) == L"Stimulation Device for Beampath ");
    EXPECT_EQ(0, m_device->HWSequencerEnable(true));
    EXPECT_EQ(0.0, m_device->GetAcquisitionExposureTime());
    double exposure = s_unwritten;
    EXPECT_EQ(0, m_device->GetStimulationExposureTime(&exposure, 1));
    EXPECT_EQ(s_unwritten, exposure);
    EXPECT_EQ(0.0, m_device->GetStimulationExposureTimeCombined(0));
    EXPECT_EQ(3u, m_device->StimulationModeGet());
    const std::vector<CQsRoiObject> regions(2);
    EXPECT_EQ(0, m_device->StimulationAreaSet(regions, {}, nullptr, {}, {}));
    EXPECT_EQ(0u, m_device->StimulationAreaGetCount());
    std::uint64_t mask = 99;
    EXPECT_EQ(0, m_device->StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, &mask));
    EXPECT_EQ(99u, mask);
    EXPECT_EQ(0, m_device->StimulationAreaAppendAsPattern(regions, {}, nullptr, {}, {}));
    EXPECT_EQ(0, m_device->StimulationAreaUpload());
    EXPECT_TRUE(m_device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0, m_device->StimulationReady(true, true));
    EXPECT_TRUE(m_device->StimulationIsReady(true, nullptr));
    EXPECT_EQ(0, m_device->StimulationROIPrepare(1));
    CQsStringW message;
    EXPECT_EQ(0, m_device->StimulationValidate(nullptr, message));
    EXPECT_EQ(nullptr, m_device->GetLaserPowerControl());
    SQsStimulationDeviceInfo info{{1}, {2}};
    EXPECT_EQ(-2, m_device->GetStimulationDeviceInfo(info));
    EXPECT_EQ(1u, info.vecLogDevIds.size());
    EXPECT_EQ(1u, info.vecPhysDevIds.size());
}

TEST_F(Proxy, FiresNothingAndSaysSo)
{
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(0, m_device->StimulationFire(Request(3), &begin, &end));
    EXPECT_EQ(-1.0, begin);
    EXPECT_EQ(-1.0, end);
    EXPECT_EQ(0, m_device->StimulationFire(Request(3), nullptr, nullptr));
}

TEST_F(Proxy, BeginsNothingWithoutAManager)
{
    for (const unsigned kind : {1u, 2u, 3u})
        EXPECT_EQ(-9, m_device->StimulationBegin(Request(kind, 0.0)));
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST_F(Proxy, WaitsOutATimedPhase)
{
    Manager::GetInstance();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 49.6)));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(Proxy, AcceptsAContinuousStimulationAtOnce)
{
    Manager::GetInstance();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(1, 600000.0)));
    EXPECT_LT(Clock::now() - start, QsTest::s_patience);
}

TEST_F(Proxy, AnAbortEndsThePhaseAndNotTheNextOne)
{
    Manager::GetInstance();
    EXPECT_EQ(0, m_device->StimulationAbort());
    const Clock::time_point start = Clock::now();
    auto begin = std::async(std::launch::async, [&] { return m_device->StimulationBegin(Request(2, 600000.0)); });
    // Repeated, since an abort before the wait is lost.
    while (begin.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready &&
           Clock::now() - start < std::chrono::minutes(2))
        EXPECT_EQ(0, m_device->StimulationAbort());
    EXPECT_EQ(0, begin.get());
    EXPECT_LT(Clock::now() - start, QsTest::s_patience);

    const Clock::time_point next = Clock::now();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 30.0)));
    EXPECT_GE(Clock::now() - next, std::chrono::milliseconds(30));
}

TEST_F(Proxy, RefusesOtherKindsWithALine)
{
    Manager::GetInstance();
    CQsDiagnosticLog::ToMemory(true);
    for (const unsigned kind : {0u, 3u})
        EXPECT_EQ(-9, m_device->StimulationBegin(Request(kind, 10.0)));
    const std::wstring line =
        L"CQsStimulationDeviceProxy::StimulationBegin: Entered default case for Stimulation Begin...";
    EXPECT_THAT(LoggedBy(L"StimulationDeviceProxy"), ElementsAre(line, line));
}

TEST_F(Proxy, AnEndFiresTheEndCommandAndLeavesTheTimesAlone)
{
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 1));
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());

    Manager::GetInstance()->AddCallbackForStimulationOCCommand(&OnCommand);
    std::array<double, 2> times{s_unwritten, s_unwritten};
    EXPECT_EQ(0, m_device->StimulationEnd(&times[0], &times[1], 1));
    EXPECT_THAT(s_commands, ElementsAre(16u));
    EXPECT_THAT(times, ElementsAre(s_unwritten, s_unwritten));
}

TEST_F(Proxy, ItsRegistrationDoesNotEnterTheDeviceMap)
{
    Manager& manager = *Manager::GetInstance();
    ASSERT_EQ(0, Get().SetStimulationSubbeampathId(7));
    EXPECT_EQ(0, Get().RegisterSimpleStimulationDevice());
    manager.Update();
    EXPECT_EQ(nullptr, manager.GetDevice(L"StimulationDeviceProxy_7"));
    EXPECT_EQ(0, Get().UnregisterSimpleStimulationDevice());
}

TEST_F(Proxy, LogsItsMakingAndItsEndAndClosesItsEvent)
{
    CQsDiagnosticLog::ToMemory(true);
    QsTest::DevicePtr device = QsTest::CreateDevice("CQsStimulationDeviceProxy");
    ASSERT_NE(nullptr, device);
    const std::wstring made = L"CQsStimulationDeviceProxy::CQsStimulationDeviceProxy - ";
    EXPECT_THAT(LoggedBy(L"StimulationDeviceProxy"), ElementsAre(made + L"begin", made + L"end"));
    const std::uint64_t closed = QsTest::ClosedHandles();
    device.reset();
    const std::wstring gone = L"CQsStimulationDeviceProxy::~CQsStimulationDeviceProxy - ";
    EXPECT_THAT(LoggedBy(L"StimulationDeviceProxy"),
                ElementsAre(made + L"begin", made + L"end", gone + L"begin", gone + L"end"));
    EXPECT_EQ(closed + 1, QsTest::ClosedHandles());
}
