#include "device/MultilaserStimulationDevice.h"
#include "manager/StimulationManager.h"
#include "standalone/DeviceManager.h"
#include "standalone/HostControl.h"
#include "tests/support/DeviceFixture.h"
#include "tests/support/OwnRegistry.h"

#include <gmock/gmock.h>

using Manager = CQsStimulationDeviceManager;
using testing::ElementsAre;

namespace {

// Never called; only its address matters.
class CDriver final : public IQsStimulationPhysDev
{
public:
    int PhysDevOperation0() override { return ++calls; }
    int PhysDevOperation1() override { return ++calls; }
    int PhysDevOperation2() override { return ++calls; }
    int PhysDevOperation3() override { return ++calls; }
    int PhysDevOperation4() override { return ++calls; }
    int PhysDevOperation5() override { return ++calls; }
    int PhysDevOperation6() override { return ++calls; }
    int PhysDevOperation7() override { return ++calls; }
    int PhysDevOperation8() override { return ++calls; }
    int PhysDevOperation9() override { return ++calls; }
    int PhysDevOperation10() override { return ++calls; }
    int PhysDevOperation11() override { return ++calls; }

    int calls = 0;
};

} // namespace

TEST(Multilaser, ImplementsNoOperationOfItsOwn)
{
    CQsMultilaserStimulationDevice device;
    EXPECT_TRUE(device.GetUniqueName().IsEmpty());
    EXPECT_FALSE(device.IsHWConnected());
    EXPECT_FALSE(device.IsVisible());
    EXPECT_EQ(-2, device.SetActive(true));
    EXPECT_EQ(-2, device.SetActive(false));
    for (const unsigned id : {0u, 1u, 2u, 3u, 0xFFFFFFFFu})
    {
        EXPECT_FALSE(device.IsFeatureSupported(id));
        EXPECT_FALSE(device.IsFeatureEnabled(id));
        EXPECT_TRUE(device.GetLocalizedStringForUI(id).IsEmpty());
    }
    EXPECT_EQ(IQsStimulationDevice::eStimDevMultilaser, device.GetStimulationDeviceType());
    EXPECT_EQ(-2, device.HWSequencerEnable(true));
    EXPECT_EQ(0.0, device.GetAcquisitionExposureTime());
    double exposure = QsTest::s_unwritten;
    EXPECT_EQ(-2, device.GetStimulationExposureTime(&exposure, 0));
    EXPECT_EQ(QsTest::s_unwritten, exposure);
    EXPECT_EQ(0.0, device.GetStimulationExposureTimeCombined(0));
    EXPECT_EQ(-2, device.StimulationAreaSet({}, {}, nullptr, {}, {}));
    std::uint64_t mask = 77;
    EXPECT_EQ(-2, device.StimulationAreaGet(nullptr, nullptr, nullptr, nullptr, nullptr, &mask));
    EXPECT_EQ(77u, mask);
    EXPECT_EQ(-2, device.StimulationAreaAppendAsPattern({}, {}, nullptr, {}, {}));
    EXPECT_EQ(-2, device.StimulationAreaUpload());
    EXPECT_TRUE(device.StimulationAreaIsUpToDate());
    EXPECT_EQ(-2, device.StimulationReady(true, true));
    CQsStringW reason(L"as it was");
    EXPECT_FALSE(device.StimulationIsReady(true, &reason));
    EXPECT_TRUE(reason == L"as it was");
    for (const unsigned kind : {0u, 1u, 2u, 3u})
        EXPECT_EQ(-2, device.StimulationBegin(QsTest::Request(kind, 1.0)));
    double begin = QsTest::s_unwritten;
    double end = QsTest::s_unwritten;
    EXPECT_EQ(-2, device.StimulationEnd(&begin, &end, 1));
    EXPECT_EQ(-2, device.StimulationFire(QsTest::Request(3), &begin, &end));
    EXPECT_EQ(QsTest::s_unwritten, begin);
    EXPECT_EQ(QsTest::s_unwritten, end);
    EXPECT_EQ(-2, device.StimulationAbort());
    EXPECT_EQ(-2, device.StimulationROIPrepare(0));
    CQsStringW message;
    EXPECT_EQ(-2, device.StimulationValidate(nullptr, message));
    EXPECT_TRUE(message.IsEmpty());
    EXPECT_EQ(nullptr, device.GetLaserPowerControl());
    EXPECT_EQ(nullptr, device.GetClass());
}

TEST(Multilaser, ReportsTheStatusThroughModeAndAreaCount)
{
    CQsMultilaserStimulationDevice device;
    EXPECT_EQ(4294967294u, device.StimulationModeGet());
    EXPECT_EQ(4294967294u, device.StimulationAreaGetCount());
}

TEST(Multilaser, HasNoIdentityUntilItIsGivenOne)
{
    const CQsMultilaserStimulationDevice device;
    SQsStimulationDeviceInfo info{{4}, {5}};
    EXPECT_EQ(-12, device.GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(4u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(5u));
}

TEST(Multilaser, AppendsItsLogicalAndPhysicalDevice)
{
    std::string error;
    ASSERT_TRUE(QsStandalone::CQsDeviceManager::AddLogicalDevice({9, 900, 0}, error)) << error;
    CQsMultilaserStimulationDevice device;
    device.SetLogDevId(9);
    SQsStimulationDeviceInfo info{{4}, {5}};
    EXPECT_EQ(0, device.GetStimulationDeviceInfo(info));
    EXPECT_EQ(0, device.GetStimulationDeviceInfo(info));
    EXPECT_THAT(info.vecLogDevIds, ElementsAre(4u, 9u, 9u));
    EXPECT_THAT(info.vecPhysDevIds, ElementsAre(5u, 900u, 900u));
}

TEST(Multilaser, CopiesCarryIdentityAndDriver)
{
    CDriver driver;
    CQsMultilaserStimulationDevice original;
    EXPECT_EQ(nullptr, original.GetDriver());
    original.SetLogDevId(9);
    original.SetDriver(&driver);
    CQsMultilaserStimulationDevice copy(original);
    CQsMultilaserStimulationDevice assigned;
    assigned = original;
    for (CQsMultilaserStimulationDevice* device : {&copy, &assigned})
    {
        EXPECT_EQ(&driver, device->GetDriver());
        SQsStimulationDeviceInfo info;
        EXPECT_EQ(0, device->GetStimulationDeviceInfo(info));
        EXPECT_THAT(info.vecLogDevIds, ElementsAre(9u));
    }
    copy.SetDriver(nullptr);
    EXPECT_EQ(nullptr, copy.GetDriver());
    EXPECT_EQ(&driver, original.GetDriver());
    EXPECT_EQ(0, driver.calls);
}

TEST(Multilaser, RegistrationNeedsTheDeviceDatabaseEvenWithAManager)
{
    const QsTest::COwnRegistry registry;
    CQsMultilaserStimulationDevice device;
    EXPECT_EQ(-12, device.RegisterSimpleStimulationDevice());
    EXPECT_EQ(-12, device.UnregisterSimpleStimulationDevice());
    Manager::GetInstance();
    EXPECT_EQ(-12, device.RegisterSimpleStimulationDevice());
    EXPECT_EQ(-12, device.UnregisterSimpleStimulationDevice());
}

TEST(Multilaser, RegistrationNeedsAManagerAndMakesNone)
{
    QsStandalone::SetDeviceDatabaseInitialized(true);
    CQsMultilaserStimulationDevice device;
    EXPECT_EQ(-9, device.RegisterSimpleStimulationDevice());
    EXPECT_EQ(-9, device.UnregisterSimpleStimulationDevice());
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

namespace {

class CConnectedUnit : public CQsMultilaserStimulationDevice
{
public:
    bool IsHWConnected() override { return true; }
};

} // namespace

TEST(Multilaser, TwoPlainUnitsShareOneEntryOfTheDeviceMap)
{
    const QsTest::COwnRegistry registry;
    Manager& manager = *Manager::GetInstance();
    QsStandalone::SetDeviceDatabaseInitialized(true); // after the manager, which so stays outside database mode
    CConnectedUnit units[2];
    ASSERT_EQ(0, units[0].RegisterSimpleStimulationDevice());
    ASSERT_EQ(0, units[1].RegisterSimpleStimulationDevice());
    manager.Update();
    EXPECT_EQ(1u, manager.GetDeviceCount());
    EXPECT_EQ(&units[0], manager.GetDevice(L"")); // the lower address

    EXPECT_EQ(0, units[0].UnregisterSimpleStimulationDevice());
    manager.Update();
    EXPECT_EQ(&units[1], manager.GetDevice(L""));
    EXPECT_EQ(0, units[1].UnregisterSimpleStimulationDevice());
    manager.Update();
    EXPECT_EQ(0u, manager.GetDeviceCount());
}
