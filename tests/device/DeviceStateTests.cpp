#include "tests/support/DeviceFixture.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/ManagerTestAccess.h"
#include "tests/support/OwnRegistry.h"

#include <gmock/gmock.h>

using Manager = CQsStimulationDeviceManager;
using testing::ElementsAre;

namespace {

std::vector<std::pair<IQsStimulationDevice*, unsigned>> s_announced;

void OnState(IQsStimulationDevice* device, unsigned state)
{
    s_announced.emplace_back(device, state);
}

} // namespace

TEST(DeviceStateChange, IsIgnoredWithoutAManagerAndMakesNone)
{
    QsTest::CQsUncountedFakeDevice device(L"A");
    device.DeviceStateChangedCallback(3);
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST(DeviceStateChange, OfTheActiveDeviceReachesTheCallbacksAndOfAnotherDoesNot)
{
    const QsTest::COwnRegistry registry;
    const auto active = QsTest::Ref<QsTest::CQsFakeDevice>::Make(L"A");
    const auto other = QsTest::Ref<QsTest::CQsFakeDevice>::Make(L"B");
    Manager& manager = *Manager::GetInstance();
    ASSERT_EQ(0, manager.RegisterSimpleStimulationDevice(active.get()));
    ASSERT_EQ(0, manager.RegisterSimpleStimulationDevice(other.get()));
    manager.AddCallbackForDeviceStateChange(&OnState);
    manager.Update();
    ASSERT_EQ(0, manager.SetActive(L"A", false));

    active->DeviceStateChangedCallback(5);
    other->DeviceStateChangedCallback(6);
    active->DeviceStateChangedCallback(0);
    EXPECT_THAT(s_announced, ElementsAre(std::make_pair(active.get(), 5u), std::make_pair(active.get(), 0u)));
}

TEST(DeviceStateChange, IsIgnoredWhenTheManagerIsGone)
{
    const QsTest::COwnRegistry registry;
    Manager::GetInstance()->AddCallbackForDeviceStateChange(&OnState);
    CQsStimulationDeviceManagerTestAccess::DeleteInstance();
    ASSERT_EQ(nullptr, Manager::InstanceIfExists());
    QsTest::CQsUncountedFakeDevice device(L"A");
    device.DeviceStateChangedCallback(3);
    EXPECT_TRUE(s_announced.empty());
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}
