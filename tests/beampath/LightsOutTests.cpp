// No light stays on, and no thread waits for ever, when operations of one beampath meet.
#include "tests/support/BeampathFixture.h"

#include "tests/support/SystemFaults.h"

#include <future>

using namespace QsTest;

namespace {

// Its upload, and its end, do what the test says first.
class CHookedDevice : public CScriptedDevice
{
public:
    using CScriptedDevice::CScriptedDevice;

    std::function<void()> onUpload;

    int StimulationAreaUpload() override
    {
        if (onUpload)
            onUpload();
        return CScriptedDevice::StimulationAreaUpload();
    }
};

class LightsOut : public BeampathTest
{
protected:
    std::vector<CHookedDevice*> Make(unsigned count)
    {
        constexpr std::array<const wchar_t*, 3> names = {L"A", L"B", L"C"};
        std::vector<CHookedDevice*> devices;
        std::string merged;
        for (unsigned i = 0; i < count; ++i)
        {
            const qs_int32 id = s_firstSubbeampath + static_cast<qs_int32>(i);
            Off(id, "part " + std::to_string(id));
            devices.push_back(&Simple<CHookedDevice>(names[i]));
            PutOn(id, *devices.back());
            merged += (merged.empty() ? "[" : ",") + std::to_string(id);
        }
        On(s_beampath, "P", merged + "]");
        Write();
        M().Update();
        ActivateBeampath();
        BeampathDevice();
        ClearLogs();
        return devices;
    }

    // An upload that is inside the device until the gate is opened.
    std::future<void> Upload(CHookedDevice& device)
    {
        device.onUpload = [this]
        {
            m_inside.Open();
            m_gate.Pass();
        };
        std::future<void> upload = std::async(std::launch::async, [this] { m_beampath->StimulationAreaUpload(); });
        m_inside.Pass();
        return upload;
    }

    static void AbortOnPhase(unsigned command)
    {
        if (command == Manager::eOCCommandStimulationPhase)
            M().StimulationAbort();
    }

    CWatchdog m_watchdog{"operations of one beampath"};
    CGate m_inside;
    CGate m_gate;
    Aggregator* m_beampath = nullptr;
};

} // namespace

TEST_F(LightsOut, WhereTheHostAbortsOutOfTheCommandThatComesBeforeTheLight)
{
    for (const unsigned count : {1u, 2u})
    {
        const auto devices = Make(count);
        M().AddCallbackForStimulationOCCommand(&AbortOnPhase);
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
        M().RemoveCallbackForStimulationOCCommand(&AbortOnPhase);
        for (CHookedDevice* const device : devices)
        {
            EXPECT_EQ(0u, device->log.Count("StimulationBegin(1, 0)")) << count;
            EXPECT_FALSE(device->IsLit()) << count;
            EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
            EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(device));
        }
        Content().beampaths.clear();
        Content().configurations.clear();
    }
}

// The worker comes to its beampath some time after the start has returned.
TEST_F(LightsOut, WhereTheAbortFollowsTheStartAtOnce)
{
    const auto devices = Make(2);
    for (int i = 0; i < 20; ++i)
    {
        CFinish& finish = NewFinish();
        ASSERT_EQ(0, Start(finish, Phase(600000.0)));
        EXPECT_EQ(0, M().StimulationAbort());
        ASSERT_TRUE(finish.WaitFor()); // not after ten minutes
        ASSERT_TRUE(WaitIdle());
        for (CHookedDevice* const device : devices)
            EXPECT_FALSE(device->IsLit());
    }
}

TEST_F(LightsOut, AfterAnEndThatComesBeforeADevicesBegin)
{
    const auto devices = Make(2);
    m_beampath = &BeampathDevice();
    auto upload = Upload(*devices[0]);
    // Its time to begin runs out while the device is busy.
    EXPECT_EQ(0, m_beampath->StimulationBegin(Phase(40.0)));
    std::future<int> end =
        std::async(std::launch::async, [this] { return m_beampath->StimulationEnd(nullptr, nullptr, 0); });
    ASSERT_TRUE(devices[1]->log.WaitFor("StimulationEnd(1)"));
    m_gate.Open();
    upload.get();
    EXPECT_EQ(0, end.get());
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(0u, devices[0]->log.Count("StimulationBegin(2, 40)"));
    EXPECT_EQ(1u, devices[0]->log.Count("StimulationEnd(1)"));
    EXPECT_FALSE(devices[0]->IsLit());
}

TEST_F(LightsOut, OfTheDeviceThatBeganWhereTheEndAdoptsAnother)
{
    const auto devices = Make(2);
    CHookedDevice& other = Simple<CHookedDevice>(L"Other");
    const std::uint32_t id = NewLogicalDevice();
    other.info.vecLogDevIds = {id};
    other.info.vecPhysDevIds = {id + 900};
    M().Update();
    ActivateBeampath();
    m_beampath = &BeampathDevice();
    EXPECT_EQ(0, m_beampath->StimulationBegin(Continuous()));
    ASSERT_TRUE(devices[0]->IsLit());
    auto upload = Upload(*devices[0]);
    Change(
        [&](SDatabaseContent& content)
        {
            for (SDatabaseContent::SConfiguration& row : content.configurations)
                if (row.beampath == s_firstSubbeampath)
                    row.logicalDevice = DatabaseId(id);
        });
    Rebuild();
    m_gate.Open();
    upload.get();
    EXPECT_EQ(0, m_beampath->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_FALSE(devices[0]->IsLit());
    EXPECT_FALSE(other.IsLit());
    EXPECT_EQ(1u, other.log.Count("StimulationEnd(1)")); // the present target has the caller's end
}

TEST_F(LightsOut, OfASubbeampathThatGoesWhileAnOperationStillKnowsIt)
{
    const auto devices = Make(3);
    m_beampath = &BeampathDevice();
    EXPECT_EQ(0, m_beampath->StimulationBegin(Continuous()));
    ASSERT_TRUE(devices[0]->IsLit());
    auto upload = Upload(*devices[2]); // walks the sub-beampaths as they are now
    SetMerged(s_beampath, "[52,53]");
    Rebuild();
    EXPECT_FALSE(devices[0]->IsLit());
    m_gate.Open();
    upload.get();
    EXPECT_EQ(0, m_beampath->StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(LightsOut, OfEveryDeviceWhereOneEndCannotBeQueuedAndItsDeviceHangs)
{
    const auto devices = Make(2);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    devices[0]->onEnd = [&]
    {
        EXPECT_TRUE(devices[1]->log.WaitFor("StimulationEnd(1)")); // not held up by this one
        return 0;
    };
    FailPoolItems(1);
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    FailPoolItems(0);
    for (CHookedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    devices[0]->onEnd = nullptr;
}

// The stimulation waits for the device that the caller is inside of.
TEST_F(LightsOut, WhereABusyDeviceChangesTheManagersListsBesideAStimulation)
{
    const auto devices = Make(2);
    m_beampath = &BeampathDevice();
    CQsFakeDevice& another = ManagerTest::Make<CQsFakeDevice>(L"X");
    int status = 1;
    devices[0]->onUpload = [&]
    {
        m_inside.Open();
        m_gate.Pass();
        status = M().RegisterSimpleStimulationDevice(&another);
    };
    auto upload = std::async(std::launch::async, [this] { m_beampath->StimulationAreaUpload(); });
    m_inside.Pass();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Phase(20.0))); // its worker asks every device, and waits for this one
    m_gate.Open();
    upload.get();
    EXPECT_EQ(-9, status);
    EXPECT_TRUE(finish.WaitFor());
    EXPECT_TRUE(WaitIdle());
}

TEST_F(LightsOut, WhereABusyDeviceAsksTheManagerBesideAnUpdateAndAStimulation)
{
    const auto devices = Make(2);
    m_beampath = &BeampathDevice();
    devices[0]->onUpload = [&]
    {
        m_inside.Open();
        m_gate.Pass();
        EXPECT_EQ(devices[1], M().GetDevice(L"B"));
    };
    auto upload = std::async(std::launch::async, [this] { m_beampath->StimulationAreaUpload(); });
    m_inside.Pass();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Phase(20.0))); // its worker asks every device, and waits for this one
    auto update = std::async(std::launch::async, [] { return M().Update(); });
    // Until the update holds the registry lock, and keeps strangers out while it waits for the stimulation.
    std::vector<std::future<void>> strangers;
    do
        strangers.push_back(std::async(std::launch::async, [] { M().GetDevice(L"B"); }));
    while (strangers.back().wait_for(std::chrono::milliseconds(50)) == std::future_status::ready);
    m_gate.Open();
    upload.get();
    update.get();
    EXPECT_TRUE(finish.WaitFor());
}

// Each would wait for the other's target.
TEST_F(LightsOut, OfDevicesThatAskTheManagerAboutEachOtherOutOfTheirBegins)
{
    const auto devices = Make(2);
    m_beampath = &BeampathDevice();
    std::atomic<unsigned> inside{0};
    for (CHookedDevice* const device : devices)
        device->onBegin = [&inside](const Request&)
        {
            ++inside;
            EXPECT_TRUE(Eventually([&inside] { return inside == 2; }));
            M().QueryFeatureEnabled(1);
            return 0;
        };
    EXPECT_EQ(0, m_beampath->StimulationBegin(Continuous()));
    EXPECT_EQ(0, m_beampath->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (CHookedDevice* const device : devices)
    {
        EXPECT_FALSE(device->IsLit());
        device->onBegin = nullptr;
    }
}

// R is lent while the update waits for the device that another thread is inside of.
TEST_F(LightsOut, AndTheListsStayAsTheyAreWhileAnUpdateWalksThem)
{
    const auto devices = Make(1);
    m_beampath = &BeampathDevice();
    CProbeDevice& listed = Simple<CProbeDevice>(L"X");
    M().Update();
    m_beampath = &BeampathDevice();
    int status = 1;
    devices[0]->onUpload = [&]
    {
        m_inside.Open();
        m_gate.Pass();
        status = M().UnregisterSimpleStimulationDevice(&listed);
    };
    auto upload = std::async(std::launch::async, [this] { m_beampath->StimulationAreaUpload(); });
    m_inside.Pass();
    std::atomic<bool> bFirst{true};
    listed.onVisible = [&]
    {
        if (!bFirst.exchange(false))
            return;
        m_gate.Open();
        M().QueryFeatureSupported(1); // waits for the upload's end
    };
    M().Update();
    upload.get();
    EXPECT_EQ(-9, status);
    listed.onVisible = nullptr;
}
