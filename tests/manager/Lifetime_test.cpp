// Devices that everybody else lets go of while the manager calls them.
#include "tests/manager/ManagerTest.h"

using namespace QsTest;

class Lifetime : public DatabaseManagerTest
{
public:
    // A beampath's device that only the test refers to.
    Lifetime()
    {
        m_device->pAlive = m_alive;
        Access::SetBeampathDevices(M(), {{4, m_device.get()}});
        Access::SetActiveBeampathId(M(), 4);
    }
    // As a rebuild of the beampaths would do.
    void LetGo()
    {
        Access::SetBeampathDevices(M(), {});
        m_device = Ref<CProbeDevice>();
    }

protected:
    CWatchdog m_watchdog{"a device that goes"};
    std::shared_ptr<std::atomic<int>> m_alive = std::make_shared<std::atomic<int>>(1);
    Ref<CProbeDevice> m_device = Ref<CProbeDevice>::Make(L"beampath");
};

TEST_F(Lifetime, OfADeviceLastsBeyondTheFinishFunction)
{
    CFinish& finish = NewFinish();
    int aliveInFinish = -1;
    m_device->onEnd = [this]
    {
        LetGo();
        return 0;
    };
    finish.onFinish = [&] { aliveInFinish = *m_alive; };
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_EQ(1, aliveInFinish);
    EXPECT_EQ(0, *m_alive);
}

TEST_F(Lifetime, OfADeviceLastsUntilItsAbortReturns)
{
    int aliveInAbort = -1;
    m_device->onAbort = [&]
    {
        LetGo();
        aliveInAbort = *m_alive;
        return -3;
    };
    EXPECT_EQ(-3, M().StimulationAbort());
    EXPECT_EQ(1, aliveInAbort);
    EXPECT_EQ(0, *m_alive);
}

TEST_F(Lifetime, OfADeviceLastsUntilTheAbortOfAWaitReturns)
{
    // Another device stimulates, and holds no reference of this one.
    CProbeDevice& stimulating = Make<CProbeDevice>(L"stimulating");
    stimulating.bBeginBlocks = true;
    Access::SetBeampathDevices(M(), {{4, m_device.get()}, {5, &stimulating}});
    Access::SetActiveBeampathId(M(), 5);
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(stimulating.log.WaitFor("StimulationBegin(2, 1)"));
    Access::SetActiveBeampathId(M(), 4);
    int aliveInAbort = -1;
    m_device->onAbort = [&]
    {
        LetGo();
        aliveInAbort = *m_alive;
        stimulating.ReleaseBegin();
        return 0;
    };
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 0, true));
    EXPECT_EQ(1, aliveInAbort);
    EXPECT_EQ(0, *m_alive);
}

// Once it is idle, an operation that waits returns at once and the owner may destroy a device that does not count.
TEST_F(Lifetime, OfADeviceMayEndAsSoonAsTheManagerIsIdle)
{
    class CReleased : public CProbeDevice
    {
    public:
        using CProbeDevice::CProbeDevice;
        std::atomic<unsigned> releases{0}; // by a worker
        std::atomic<unsigned> releasesWhenIdle{0};
        unsigned Release() override
        {
            if (CQsRegistryLock::WorkerRun() != 0)
            {
                ++releases;
                releasesWhenIdle += Access::IsRequestPending(M()) ? 0 : 1;
            }
            return CProbeDevice::Release();
        }
    };
    auto& device = Make<CReleased>(L"A");
    Access::SetBeampathDevices(M(), {{4, &device}});
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
    EXPECT_EQ(1u, device.releases);
    EXPECT_EQ(0u, device.releasesWhenIdle);
    Access::SetBeampathDevices(M(), {});
}
