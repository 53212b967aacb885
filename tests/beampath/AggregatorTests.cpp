#include "beampath/StimulationDeviceAggregator.h"
#include "manager/StimulationManager.h"
#include "standalone/DiagnosticLog.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/OwnRegistry.h"

#include <gmock/gmock.h>

#include <array>

using Manager = CQsStimulationDeviceManager;
using QsTest::Request;
using QsTest::s_unwritten;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Change codes and OC commands in one order.
std::vector<std::string> s_fired;

void OnChange(unsigned code)
{
    s_fired.push_back("change " + std::to_string(code));
}

void OnCommand(unsigned command)
{
    s_fired.push_back("OC " + std::to_string(command));
}

class Aggregator : public testing::Test
{
protected:
    Aggregator() : m_device(QsTest::CreateDevice("CQsStimulationDeviceAggregator")) {}

    void SetUp() override { ASSERT_NE(nullptr, m_device); }

    // Makes the manager and listens to it.
    static void Listen()
    {
        Manager::GetInstance()->AddCallbackForChange(&OnChange);
        Manager::GetInstance()->AddCallbackForStimulationOCCommand(&OnCommand);
        s_fired.clear();
    }

    const QsTest::COwnRegistry m_registry;
    QsTest::DevicePtr m_device;
};

} // namespace

TEST_F(Aggregator, AnswersTheNeutralResultsOfAnEmptyBeampath)
{
    EXPECT_TRUE(m_device->GetUniqueName().IsEmpty());
    EXPECT_FALSE(m_device->IsHWConnected());
    EXPECT_FALSE(m_device->IsVisible());
    EXPECT_EQ(-2, m_device->SetActive(true));
    EXPECT_EQ(-2, m_device->SetActive(false));
    for (const unsigned id : {0u, 1u, 2u, 3u})
    {
        EXPECT_FALSE(m_device->IsFeatureSupported(id));
        EXPECT_FALSE(m_device->IsFeatureEnabled(id));
        EXPECT_TRUE(m_device->GetLocalizedStringForUI(id).IsEmpty());
    }
    EXPECT_EQ(IQsStimulationDevice::eStimDevGeneric, m_device->GetStimulationDeviceType());
    EXPECT_EQ(0, m_device->HWSequencerEnable(true));
    EXPECT_EQ(0.0, m_device->GetAcquisitionExposureTime());
    std::array<double, 9> exposures;
    exposures.fill(s_unwritten);
    EXPECT_EQ(0, m_device->GetStimulationExposureTime(exposures.data(), 2));
    EXPECT_THAT(exposures, testing::Each(s_unwritten));
    EXPECT_EQ(0.0, m_device->GetStimulationExposureTimeCombined(0));
    EXPECT_EQ(3u, m_device->StimulationModeGet());
    EXPECT_EQ(0, m_device->StimulationAreaAppendAsPattern(std::vector<CQsRoiObject>(2), {}, nullptr, {}, {}));
    EXPECT_EQ(0u, m_device->StimulationAreaGetCount());
    EXPECT_EQ(0, m_device->StimulationAreaUpload());
    EXPECT_TRUE(m_device->StimulationAreaIsUpToDate());
    EXPECT_EQ(0, m_device->StimulationReady(true, true));
    EXPECT_TRUE(m_device->StimulationIsReady(true, nullptr));
    EXPECT_EQ(0, m_device->StimulationAbort());
    EXPECT_EQ(0, m_device->StimulationROIPrepare(1));
    CQsStringW message;
    EXPECT_EQ(0, m_device->StimulationValidate(nullptr, message));
    EXPECT_EQ(nullptr, m_device->GetLaserPowerControl());
    SQsStimulationDeviceInfo info{{1}, {2}};
    EXPECT_EQ(0, m_device->GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(1u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(2u));
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST_F(Aggregator, FiresNothingAndSaysSo)
{
    double begin = s_unwritten;
    double end = s_unwritten;
    EXPECT_EQ(0, m_device->StimulationFire(Request(3), &begin, &end));
    EXPECT_EQ(-1.0, begin);
    EXPECT_EQ(-1.0, end);
    EXPECT_EQ(0, m_device->StimulationFire(Request(3), nullptr, nullptr));
}

TEST_F(Aggregator, GivesBackTheAreasThatItWasGiven)
{
    const std::vector<CQsRoiObject> regions = {{4, 0}, {4, 2}, {4, 3}, {4, -1}, {3, 1}};
    SQsRLEPicBuf picture;
    picture.uiWidth = 5;
    picture.uiHeight = 6;
    picture.runs.resize(2);
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    scanArea.dZoom = 2.5;
    SQsGrabberFormatDesc format;
    format.sName = L"binned";
    format.fx = 0.5;
    const CQsRectBase<int> camera{1, 2, 3, 4};
    ASSERT_EQ(0, m_device->StimulationAreaSet(regions, picture, &scanArea, format, camera));
    EXPECT_EQ(5u, m_device->StimulationAreaGetCount());
    // Without a scan area the kept one stays.
    ASSERT_EQ(0, m_device->StimulationAreaSet(regions, picture, nullptr, format, camera));

    std::vector<CQsRoiObject> keptRegions(1);
    SQsRLEPicBuf keptPicture;
    IQsStimulationDevice::SQsScanAreaDesc keptScanArea;
    SQsGrabberFormatDesc keptFormat;
    CQsRectBase<int> keptCamera;
    std::uint64_t mask = ~std::uint64_t{0};
    ASSERT_EQ(0,
              m_device->StimulationAreaGet(&keptRegions, &keptPicture, &keptScanArea, &keptFormat, &keptCamera, &mask));
    ASSERT_EQ(5u, keptRegions.size());
    EXPECT_EQ(2, keptRegions[1].GetPatternIndex());
    EXPECT_EQ(5u, keptPicture.uiWidth);
    EXPECT_EQ(6u, keptPicture.uiHeight);
    EXPECT_EQ(2u, keptPicture.runs.size());
    EXPECT_EQ(2.5, keptScanArea.dZoom);
    EXPECT_TRUE(keptFormat.sName == L"binned");
    EXPECT_EQ(0.5, keptFormat.fx);
    EXPECT_EQ(4, keptCamera.bottom);
    EXPECT_EQ(5u, mask); // bits 0 and 2: kind 4 with an index of 0 to 2
    EXPECT_EQ(0, m_device->StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));

    ASSERT_EQ(0, m_device->StimulationAreaSet({}, picture, nullptr, format, camera));
    ASSERT_EQ(0, m_device->StimulationAreaGet(&keptRegions, nullptr, nullptr, nullptr, nullptr, &mask));
    EXPECT_THAT(keptRegions, IsEmpty());
    EXPECT_EQ(0u, mask);
}

TEST_F(Aggregator, StartsWithoutAreas)
{
    std::vector<CQsRoiObject> regions(1);
    IQsStimulationDevice::SQsScanAreaDesc scanArea;
    scanArea.dZoom = 9.0;
    SQsGrabberFormatDesc format;
    format.fx = 9.0;
    CQsRectBase<int> camera{1, 2, 3, 4};
    std::uint64_t mask = 9;
    ASSERT_EQ(0, m_device->StimulationAreaGet(&regions, nullptr, &scanArea, &format, &camera, &mask));
    EXPECT_THAT(regions, IsEmpty());
    EXPECT_EQ(1.0, scanArea.dZoom);
    EXPECT_EQ(-1.0, format.fx);
    EXPECT_EQ(0, camera.right);
    EXPECT_EQ(0u, mask);
}

TEST_F(Aggregator, AnnouncesATimedStimulation)
{
    Listen();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 600000.0))); // waits for nobody
    EXPECT_THAT(s_fired, ElementsAre("change 8", "OC 1", "OC 2", "OC 1", "OC 16"));
    s_fired.clear();
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(s_fired, ElementsAre("change 16"));
}

TEST_F(Aggregator, AnnouncesAContinuousStimulation)
{
    Listen();
    EXPECT_EQ(0, m_device->StimulationBegin(Request(1)));
    EXPECT_THAT(s_fired, ElementsAre("change 8", "OC 1", "OC 2"));
    s_fired.clear();
    std::array<double, 2> times{s_unwritten, s_unwritten};
    EXPECT_EQ(0, m_device->StimulationEnd(&times[0], &times[1], 1));
    EXPECT_THAT(s_fired, ElementsAre("OC 1", "OC 16", "change 16"));
    EXPECT_THAT(times, ElementsAre(s_unwritten, s_unwritten));
    // The kind is forgotten with the end.
    s_fired.clear();
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(s_fired, ElementsAre("change 16"));
}

TEST_F(Aggregator, AcceptsOtherKinds)
{
    Listen();
    for (const unsigned kind : {0u, 3u, 99u})
    {
        s_fired.clear();
        EXPECT_EQ(0, m_device->StimulationBegin(Request(kind)));
        EXPECT_THAT(s_fired, ElementsAre("change 8", "OC 1", "OC 2"));
    }
}

TEST_F(Aggregator, RefusesAPhaseThatIsTooShortAfterTheChangeCodeAlone)
{
    Listen();
    QsStandalone::CQsDiagnosticLog::ToMemory(true);
    for (const double duration : {0.0005, -0.0005, 0.0, 0.001})
    {
        s_fired.clear();
        EXPECT_EQ(-4, m_device->StimulationBegin(Request(2, duration)));
        EXPECT_THAT(s_fired, ElementsAre("change 8"));
    }
    const auto lines = QsStandalone::CQsDiagnosticLog::MemoryLines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(lines[0].unit == L"StimulationDeviceAggregator");
    EXPECT_TRUE(lines[0].text ==
                L"CQsStimulationDeviceAggregator::StimulationBegin: Invalid stimulation phase duration 0.000500 [ms].");
    EXPECT_EQ(0, m_device->StimulationBegin(Request(2, 0.0011)));
    EXPECT_EQ(0, m_device->StimulationBegin(Request(1, 0.0)));
}

TEST_F(Aggregator, BeginsNothingAndEndsQuietlyWithoutAManager)
{
    EXPECT_EQ(-9, m_device->StimulationBegin(Request(1)));
    EXPECT_EQ(-9, m_device->StimulationBegin(Request(2, 0.0)));
    EXPECT_EQ(0, m_device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST_F(Aggregator, ItsRegistrationDoesNotEnterTheDeviceMap)
{
    auto& aggregator = dynamic_cast<CQsStimulationDeviceAggregator&>(*m_device);
    Manager& manager = *Manager::GetInstance();
    EXPECT_EQ(0, aggregator.RegisterSimpleStimulationDevice());
    manager.Update();
    EXPECT_EQ(nullptr, manager.GetDevice(L""));
    EXPECT_EQ(0, aggregator.UnregisterSimpleStimulationDevice());
}
