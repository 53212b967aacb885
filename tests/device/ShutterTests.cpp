#include "device/ShutterStimulationDevice.h"
#include "manager/StimulationManager.h"
#include "standalone/DeviceManager.h"
#include "standalone/HostControl.h"
#include "standalone/Journal.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/OwnRegistry.h"
#include "tests/support/SystemFaults.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using Manager = CQsStimulationDeviceManager;
using QsStandalone::CQsDeviceManager;
using QsStandalone::CQsJournal;
using QsStandalone::EJournalKind;
using QsTest::Request;
using QsTest::s_unwritten;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t s_id = 7;

// Every reading of the clock is later than the one before, so that times tell the order of events.
std::atomic<int> s_readings{0};
double CountReadings()
{
    return ++s_readings;
}

class Shutter : public testing::Test
{
protected:
    Shutter()
    {
        QsStandalone::SShutterSetup setup;
        setup.logDevId = s_id;
        setup.physDevId = 70;
        setup.name = "Lamp";
        std::string error;
        EXPECT_TRUE(CQsDeviceManager::AddShutter(setup, error)) << error;
        m_device = QsTest::CreateDevice("CQsShutterStimulationDevice");
        m_shutter = dynamic_cast<CQsShutterStimulationDevice*>(m_device.get());
    }

    void SetUp() override
    {
        ASSERT_NE(nullptr, m_shutter);
        // Without a manager it is not registered, but keeps its shutter.
        ASSERT_EQ(-9, m_shutter->AttachShutter(s_id));
    }

    ~Shutter() override { QsStandalone::SetTimeCounter(nullptr); }

    static bool IsOpen() { return CQsDeviceManager::IsShutterOpen(s_id); }
    static std::uint32_t Calls() { return CQsDeviceManager::ShutterCalls(s_id); }

    static std::vector<QsStandalone::SJournalEntry> Journal(EJournalKind kind)
    {
        std::vector<QsStandalone::SJournalEntry> found;
        for (const QsStandalone::SJournalEntry& entry : CQsJournal::Entries())
        {
            if (entry.kind == kind)
                found.push_back(entry);
        }
        return found;
    }

    // Begins a timed stimulation that nobody could wait for and ends it by aborts. An abort between the opening and the
    // reset of the event only closes the shutter, therefore it is repeated until the begin returns.
    void BeginAndAbort()
    {
        const Clock::time_point start = Clock::now();
        auto begin = std::async(std::launch::async, [&] { return m_device->StimulationBegin(Request(2, 600000.0)); });
        while (!IsOpen() && Clock::now() - start < QsTest::s_patience)
            std::this_thread::yield();
        do
            EXPECT_EQ(0, m_device->StimulationAbort());
        while (begin.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready &&
               Clock::now() - start < std::chrono::minutes(2));
        EXPECT_EQ(0, begin.get());
        EXPECT_LT(Clock::now() - start, QsTest::s_patience);
    }

    QsTest::DevicePtr m_device;
    CQsShutterStimulationDevice* m_shutter = nullptr;
};

} // namespace

TEST_F(Shutter, AnswersWhatAShutterIs)
{
    EXPECT_TRUE(m_device->GetUniqueName() == L"Shutter_7");
    EXPECT_TRUE(m_device->IsVisible());
    EXPECT_EQ(0, m_device->SetActive(true));
    EXPECT_EQ(0, m_device->SetActive(false));
    for (const unsigned id : {1u, 2u, 3u})
    {
        EXPECT_TRUE(m_device->IsFeatureSupported(id));
        EXPECT_TRUE(m_device->IsFeatureEnabled(id));
    }
    for (const unsigned id : {0u, 4u, 0xFFFFFFFFu})
    {
        EXPECT_FALSE(m_device->IsFeatureSupported(id));
        EXPECT_FALSE(m_device->IsFeatureEnabled(id));
    }
    EXPECT_EQ(IQsStimulationDevice::eStimDevShutter, m_device->GetStimulationDeviceType());
    EXPECT_EQ(0, m_device->HWSequencerEnable(true));
    EXPECT_EQ(0.0, m_device->GetAcquisitionExposureTime());
    double exposure = s_unwritten;
    EXPECT_EQ(0, m_device->GetStimulationExposureTime(&exposure, 0));
    EXPECT_EQ(s_unwritten, exposure);
    EXPECT_EQ(0.0, m_device->GetStimulationExposureTimeCombined(0));
    EXPECT_EQ(3u, m_device->StimulationModeGet());
    EXPECT_EQ(nullptr, m_device->GetLaserPowerControl());
}

TEST_F(Shutter, HasNoAreasAndIsAlwaysReady)
{
    const std::vector<CQsRoiObject> regions(2);
    EXPECT_EQ(0, m_device->StimulationAreaSet(regions, {}, nullptr, {}, {}));
    EXPECT_EQ(0u, m_device->StimulationAreaGetCount());
    std::vector<CQsRoiObject> kept(5);
    std::uint64_t mask = 99;
    EXPECT_EQ(0, m_device->StimulationAreaGet(&kept, nullptr, nullptr, nullptr, nullptr, &mask));
    EXPECT_EQ(5u, kept.size());
    EXPECT_EQ(99u, mask);
    EXPECT_EQ(-2, m_device->StimulationAreaAppendAsPattern(regions, {}, nullptr, {}, {}));
    EXPECT_EQ(0, m_device->StimulationAreaUpload());
    EXPECT_TRUE(m_device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0, m_device->StimulationReady(false, false));
    CQsStringW reason(L"as it was");
    EXPECT_TRUE(m_device->StimulationIsReady(false, &reason));
    EXPECT_TRUE(reason == L"as it was");
    EXPECT_EQ(0, m_device->StimulationROIPrepare(3));
    CQsStringW message(L"as it was");
    EXPECT_EQ(0, m_device->StimulationValidate(nullptr, message));
    EXPECT_TRUE(message == L"as it was");
    EXPECT_EQ(0u, Calls());
}

TEST_F(Shutter, IsConnectedWhileTheHostHasTheShutter)
{
    EXPECT_TRUE(m_device->IsHWConnected());
    m_shutter->AttachShutter(8);
    EXPECT_FALSE(m_device->IsHWConnected());
}

TEST_F(Shutter, IsNamedAfterItsNumberAsASignedDecimal)
{
    m_shutter->AttachShutter(0);
    EXPECT_TRUE(m_device->GetUniqueName() == L"Shutter_0");
    m_shutter->AttachShutter(0xFFFFFFFFu);
    EXPECT_TRUE(m_device->GetUniqueName() == L"Shutter_-1");
}

TEST_F(Shutter, ShowsTheToolbarNameForIdentifierZeroOnly)
{
    EXPECT_TRUE(m_device->GetLocalizedStringForUI(0) == L"Lamp Shutter");
    EXPECT_TRUE(m_device->GetLocalizedStringForUI(1).IsEmpty());
    EXPECT_TRUE(m_device->GetLocalizedStringForUI(0xFFFFFFFFu).IsEmpty());
    m_shutter->AttachShutter(8); // a shutter without a name
    EXPECT_TRUE(m_device->GetLocalizedStringForUI(0) == L" Shutter");
}

TEST_F(Shutter, AppendsItsLogicalAndPhysicalDevice)
{
    SQsStimulationDeviceInfo info{{4}, {5}};
    EXPECT_EQ(0, m_device->GetStimulationDeviceInfo(info));
    EXPECT_EQ(0, m_device->GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(4u, 7u, 7u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(5u, 70u, 70u));
}

TEST_F(Shutter, HasNoIdentityWithoutAShutter)
{
    m_shutter->AttachShutter(0);
    SQsStimulationDeviceInfo info{{4}, {5}};
    EXPECT_EQ(-12, m_device->GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(4u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(5u));
}

TEST_F(Shutter, IsOpenFromTheBeginToTheEndOfAContinuousStimulation)
{
    EXPECT_EQ(0, m_device->StimulationBegin(Request(1)));
    EXPECT_TRUE(IsOpen());
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(2u, Calls());
}

TEST_F(Shutter, IsSwitchedWithoutATriggerAndWaitsForTheBlade)
{
    constexpr std::chrono::milliseconds latency(40);
    QsStandalone::SShutterSetup slow;
    slow.logDevId = 9;
    slow.name = "Slow";
    slow.openLatencyMs = static_cast<double>(latency.count());
    slow.closeLatencyMs = static_cast<double>(latency.count());
    std::string error;
    ASSERT_TRUE(CQsDeviceManager::AddShutter(slow, error)) << error;
    // Nothing opens it on a trigger, so a device that asks for one stays dark.
    DMApi::Shutter_SetState(9, true, true, true);
    ASSERT_FALSE(CQsDeviceManager::IsShutterOpen(9));
    m_shutter->AttachShutter(9);

    const Clock::time_point begun = Clock::now();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(1)));
    EXPECT_GE(Clock::now() - begun, latency);
    EXPECT_EQ(1u, Journal(EJournalKind::LightOn).size());
    const Clock::time_point ended = Clock::now();
    double end = s_unwritten;
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, &end, 1));
    EXPECT_GE(Clock::now() - ended, latency);
    const auto off = Journal(EJournalKind::LightOff);
    ASSERT_EQ(1u, off.size());
    EXPECT_GE(end, off.front().timeMs);
}

TEST_F(Shutter, TakesTheBeginTimeBeforeItOpensAndTheEndTimeAfterItCloses)
{
    QsStandalone::SetTimeCounter(&CountReadings);
    for (const unsigned kind : {1u, 2u})
    {
        CQsJournal::Clear();
        ASSERT_EQ(0, m_device->StimulationBegin(Request(kind, 0.0)));
        double begin = s_unwritten;
        double end = s_unwritten;
        ASSERT_EQ(0, m_device->StimulationEnd(&begin, &end, 1));
        const auto entries = CQsJournal::Entries();
        ASSERT_FALSE(entries.empty());
        ASSERT_EQ(1u, Journal(EJournalKind::LightOn).size());
        ASSERT_EQ(1u, Journal(EJournalKind::LightOff).size());
        EXPECT_LT(begin, entries.front().timeMs) << "kind " << kind;
        EXPECT_GT(end, entries.back().timeMs) << "kind " << kind;
        EXPECT_GT(begin, 0.0);
    }
}

TEST_F(Shutter, WaitsOutATimedStimulationAndIsClosedAfterIt)
{
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 49.6)));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(2u, Calls());
    EXPECT_EQ(1u, Journal(EJournalKind::LightOn).size());
}

TEST_F(Shutter, OpensAndClosesAlsoForNoDuration)
{
    for (const double duration : {0.0, -5.0})
        EXPECT_EQ(0, m_device->StimulationBegin(Request(2, duration)));
    EXPECT_EQ(4u, Calls());
    EXPECT_EQ(2u, Journal(EJournalKind::LightOn).size());
    EXPECT_FALSE(IsOpen());
}

TEST_F(Shutter, RefusesOtherKindsAndChangesNothing)
{
    ASSERT_EQ(0, m_device->StimulationBegin(Request(2, 0.0)));
    const std::uint32_t calls = Calls();
    for (const unsigned kind : {0u, 3u, 4u, 0xFFFFFFFFu})
        EXPECT_EQ(-2, m_device->StimulationBegin(Request(kind, 0.0)));
    EXPECT_EQ(calls, Calls());
    // Still the end of the timed stimulation: nothing left to close.
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(calls, Calls());
}

TEST_F(Shutter, AnEndWithoutABeginClosesAndReportsBeginZero)
{
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(0, m_device->StimulationEnd(&begin, &end, 1));
    EXPECT_EQ(1u, Calls());
    EXPECT_EQ(0.0, begin);
    EXPECT_GT(end, 0.0);
}

TEST_F(Shutter, AnEndAfterATimedStimulationNeitherClosesAgainNorChangesTheTime)
{
    QsStandalone::SetTimeCounter(&CountReadings);
    m_device->StimulationBegin(Request(2, 0.0));
    const int readings = s_readings;
    double end = s_unwritten;
    m_device->StimulationEnd(nullptr, &end, 1);
    EXPECT_EQ(2u, Calls());
    EXPECT_EQ(readings, s_readings);
    EXPECT_EQ(static_cast<double>(readings), end);
    // That end left it idle: the next one closes.
    m_device->StimulationEnd(nullptr, nullptr, 0);
    EXPECT_EQ(3u, Calls());
}

TEST_F(Shutter, AnEndFillsElementZeroAndMarksTheOthersUntimed)
{
    QsStandalone::SetTimeCounter(&CountReadings);
    m_device->StimulationBegin(Request(1));
    std::array<double, 4> begins;
    std::array<double, 4> ends;
    begins.fill(s_unwritten);
    ends.fill(s_unwritten);
    EXPECT_EQ(0, m_device->StimulationEnd(begins.data(), ends.data(), 3));
    EXPECT_GT(begins[0], 0.0);
    EXPECT_GT(ends[0], begins[0]);
    EXPECT_THAT(begins, ElementsAre(begins[0], -1.0, -1.0, s_unwritten));
    EXPECT_THAT(ends, ElementsAre(ends[0], -1.0, -1.0, s_unwritten));
}

TEST_F(Shutter, AnEndFillsElementZeroAlsoForNoElements)
{
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(0, m_device->StimulationEnd(&begin, &end, 0));
    EXPECT_EQ(0.0, begin);
    EXPECT_GT(end, 0.0);
}

TEST_F(Shutter, CannotFireASingleShot)
{
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(-9, m_device->StimulationFire(Request(3), &begin, &end));
    EXPECT_EQ(-1.0, begin);
    EXPECT_EQ(-1.0, end);
    EXPECT_EQ(-9, m_device->StimulationFire(Request(1), nullptr, nullptr));
    EXPECT_EQ(0u, Calls());
}

TEST_F(Shutter, AnAbortEndsATimedStimulationWithTheShutterClosed)
{
    BeginAndAbort();
    EXPECT_FALSE(IsOpen());
    // The state is kept: the end of a timed stimulation, after which nothing is left to close.
    const std::uint32_t calls = Calls();
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(calls, Calls());
}

TEST_F(Shutter, AnAbortOfAContinuousStimulationClosesTheShutter)
{
    m_device->StimulationBegin(Request(1));
    EXPECT_EQ(0, m_device->StimulationAbort());
    EXPECT_FALSE(IsOpen());
}

TEST_F(Shutter, EarlierAbortsDoNotShortenTheNextTimedStimulation)
{
    EXPECT_EQ(0, m_device->StimulationAbort());
    EXPECT_EQ(0, m_device->StimulationAbort());
    EXPECT_EQ(2u, Calls());
    BeginAndAbort();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 50.0)));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(Shutter, ReportsNoHardwareFailure)
{
    QsStandalone::SShutterSetup refusing;
    refusing.logDevId = 9;
    refusing.name = "Refuses";
    refusing.refuseFromCall = 1;
    std::string error;
    ASSERT_TRUE(CQsDeviceManager::AddShutter(refusing, error)) << error;
    m_shutter->AttachShutter(9);
    EXPECT_EQ(0, m_device->StimulationBegin(Request(1)));
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 0.0)));
    EXPECT_EQ(0, m_device->StimulationAbort());
    EXPECT_EQ(5u, CQsDeviceManager::ShutterCalls(9));
}

TEST_F(Shutter, RegistersWithTheManagerWhenItIsAttached)
{
    EXPECT_EQ(-9, m_shutter->RegisterSimpleStimulationDevice());
    EXPECT_EQ(-9, m_shutter->UnregisterSimpleStimulationDevice());
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());

    const QsTest::COwnRegistry registry;
    Manager& manager = *Manager::GetInstance();
    EXPECT_EQ(0, m_shutter->AttachShutter(s_id));
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(m_device.get()));
    EXPECT_EQ(0, m_shutter->AttachShutter(s_id));
    EXPECT_EQ(0, m_shutter->RegisterSimpleStimulationDevice());
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(m_device.get()));
    manager.Update();
    EXPECT_EQ(m_device.get(), manager.GetDevice(L"Shutter_7"));
    EXPECT_EQ(0, m_shutter->UnregisterSimpleStimulationDevice());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(m_device.get()));
    manager.Update();
    EXPECT_EQ(nullptr, manager.GetDevice(L"Shutter_7"));
}

TEST_F(Shutter, LeavesItsEventOpenWhenItGoes)
{
    const std::uint64_t closed = QsTest::ClosedHandles();
    const std::size_t alive = QsStandalone::LiveObjectCount();
    m_device.reset();
    EXPECT_EQ(alive - 1, QsStandalone::LiveObjectCount());
    EXPECT_EQ(closed, QsTest::ClosedHandles());
}

TEST_F(Shutter, WithoutAnEventATimedStimulationIsClosedAtOnce)
{
    QsTest::FailEventCreations(1);
    const QsTest::DevicePtr device = QsTest::CreateDevice("CQsShutterStimulationDevice");
    ASSERT_NE(nullptr, device);
    dynamic_cast<CQsShutterStimulationDevice&>(*device).AttachShutter(s_id);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, device->StimulationBegin(Request(2, 600000.0)));
    EXPECT_LT(Clock::now() - start, QsTest::s_patience);
    EXPECT_FALSE(IsOpen());
    EXPECT_EQ(0, device->StimulationAbort());
}
