// Rebuilds beside everything else: no deadlock, no object used after its end, no light left on.
#include "tests/support/BeampathFixture.h"

#include <future>
#include <random>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Rebuilds : public BeampathTest
{
public:
    // Beampath 43, "Q", of 54 and 55 with the devices Y and Z. Both beampaths share no device.
    Devices MakeTwoBeampaths()
    {
        Off(54, "part 54");
        Off(55, "part 55");
        On(43, "Q", "[54,55]");
        m_others = {&DeviceOn(54, L"Y"), &DeviceOn(55, L"Z")};
        Behaviour(s_otherHWConfig, s_beampath, 0);
        Devices all = MakeBeampath(2);
        all.insert(all.end(), m_others.begin(), m_others.end());
        return all;
    }

    // Runs `step` until it is over.
    class CRepeating
    {
    public:
        explicit CRepeating(std::function<void()> step)
            : m_thread(
                  [this, step = std::move(step)]
                  {
                      while (!m_bDone)
                      {
                          step();
                          ++m_steps;
                      }
                  })
        {}
        ~CRepeating()
        {
            m_bDone = true;
            m_thread.join();
        }
        unsigned Steps() const { return m_steps; }

    private:
        std::atomic<bool> m_bDone{false};
        std::atomic<unsigned> m_steps{0};
        std::thread m_thread;
    };

protected:
    Devices m_others;
    CWatchdog m_watchdog{"rebuilds beside other work"};
};

// -------------------------------------------------------------------------------------- a device that is lit and goes

// Light goes on until the end that the host asks for; what a rebuild takes away is still ended, or aborted, by it.
TEST_F(Rebuilds, LeaveADeviceToTheEndOrAbortWhoseSubbeampathGoesWhileItIsLit)
{
    for (const bool bAborted : {false, true})
    {
        SCOPED_TRACE(bAborted);
        Content().beampaths.clear();
        Content().configurations.clear();
        const Devices devices = MakeBeampath(2);
        const std::size_t objects = QsStandalone::LiveObjectCount();
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
        ASSERT_TRUE(devices[1]->IsLit());
        SetMerged(s_beampath, "[51]");
        Rebuild();
        if (bAborted)
        {
            EXPECT_EQ(0, BeampathDevice().StimulationAbort());
            EXPECT_FALSE(devices[0]->IsLit());
            EXPECT_FALSE(devices[1]->IsLit());
        }
        EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
        EXPECT_FALSE(devices[0]->IsLit());
        EXPECT_FALSE(devices[1]->IsLit());
        EXPECT_TRUE(CHostCalls::WaitForPool());
        EXPECT_EQ(objects - 1, QsStandalone::LiveObjectCount());
        for (CScriptedDevice* const device : devices)
            EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(device));
        // The beampath goes, so that the next round makes another.
        Change([](SDatabaseContent& content) { Row(content, s_beampath).onByDefault = false; });
        Rebuild();
        ASSERT_FALSE(HasBeampathDevice(s_beampath));
    }
}

TEST_F(Rebuilds, PutTheDevicesOutWhoseBeampathGoesWhileTheyAreLit)
{
    for (const unsigned count : {1u, 2u})
    {
        Content() = SDatabaseContent();
        Content().setups = {{s_setup, "Scope"}};
        Content().hwConfigs = {{s_hwConfig, s_setup, "All"}, {s_otherHWConfig, s_setup, "Other"}};
        SelectHWConfig(s_hwConfig);
        const Devices devices = MakeBeampath(count);
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
        for (const CScriptedDevice* const device : devices)
            ASSERT_TRUE(device->IsLit());
        Change(
            [](SDatabaseContent& content) {
                content.hwConfigBeampaths.push_back({s_otherHWConfig, s_beampath, 0});
            });
        SelectHWConfig(s_otherHWConfig);
        Rebuild();
        ASSERT_FALSE(HasBeampathDevice(s_beampath));
        for (CScriptedDevice* const device : devices)
        {
            EXPECT_FALSE(device->IsLit());
            EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(device));
        }
    }
}

TEST_F(Rebuilds, EndADeviceThatTheRebuildExchangedWhileItWasLit)
{
    const Devices devices = MakeBeampath(2);
    CScriptedDevice& other = Simple<CScriptedDevice>(L"X");
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    ASSERT_TRUE(devices[1]->IsLit());
    const std::uint32_t logDevId = NewLogicalDevice();
    other.info.vecLogDevIds = {logDevId};
    Change(
        [logDevId](SDatabaseContent& content)
        {
            content.logicalIds.push_back({DatabaseId(logDevId), logDevId});
            for (auto& row : content.configurations)
                if (row.beampath == 52)
                    row.logicalDevice = DatabaseId(logDevId);
        });
    M().Update();
    Rebuild();
    EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(1));
    EXPECT_EQ(1u, other.log.Count("StimulationROIPrepare(1)"));
    EXPECT_EQ(0u, devices[1]->log.Count("StimulationROIPrepare(1)"));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(devices[1]));
}

// ------------------------------------------------------------------------------------------------------------ mixtures

TEST_F(Rebuilds, RunBesideStimulationsAbortsAndLookups)
{
    constexpr unsigned rounds = 150;
    const Devices devices = MakeTwoBeampaths();
    for (CScriptedDevice* const device : devices)
        device->onBegin = [](const Request&)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // the work of a driver
            return 0;
        };
    M().SetStimulationOC(L"Q:C");
    CFinish& finish = NewFinish();
    unsigned accepted = 0;
    {
        const CRepeating rebuilding(
            []
            {
                M().SetStimulationBeampathsDirty();
                M().UpdateStimulationBeampaths();
            });
        const CRepeating switching(
            []
            {
                std::string error;
                CQsDeviceDatabase::SetCurrentHWConfig(s_otherHWConfig, error);
                M().SetStimulationBeampathsDirty();
                M().GetStimulationBeampathCount();
                CQsDeviceDatabase::SetCurrentHWConfig(s_hwConfig, error);
                M().SetStimulationBeampathsDirty();
                M().GetStimulationBeampathIdByName(L"Q");
            });
        const CRepeating aborting(
            []
            {
                M().StimulationAbort();
                M().GetActive();
                M().QueryFeatureEnabled(1);
                std::this_thread::yield();
            });
        for (unsigned round = 0; round < rounds; ++round)
        {
            const Request request = round % 3 == 0 ? Continuous() : Phase(1.0);
            if (Start(finish, request) == 0)
                ++accepted;
            EXPECT_TRUE(finish.WaitFor(accepted));
            EXPECT_TRUE(WaitIdle());
            m_watchdog.Step();
        }
        EXPECT_TRUE(
            Eventually([&] { return rebuilding.Steps() > 2 && switching.Steps() > 2 && aborting.Steps() > 2; }));
    }
    EXPECT_EQ(rounds, accepted);
    EXPECT_EQ(rounds, finish.Calls().size());
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (CScriptedDevice* const device : devices)
    {
        EXPECT_FALSE(device->IsLit());
        device->onBegin = nullptr;
    }
}

TEST_F(Rebuilds, RunBesideUpdatesAndChangesOfTheOpticalConfiguration)
{
    constexpr unsigned rounds = 60;
    const Devices devices = MakeTwoBeampaths();
    // Asks back, as a host's user interface does.
    const Manager::ChangeCallback asking = [](unsigned)
    {
        M().GetActive();
        M().GetStimulationBPCount();
        M().GetActiveStimulationBeampathName();
    };
    M().AddCallbackForChange(asking);
    {
        const CRepeating updating([] { M().Update(); });
        const CRepeating choosing(
            []
            {
                M().SetStimulationOC(L"P:C");
                M().SetStimulationOC(L"Q:C");
                M().SetStimulationOC(L"");
            });
        const CRepeating registering(
            [&devices]
            {
                EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(devices[0]));
                EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(devices[0]));
            });
        for (unsigned round = 0; round < rounds; ++round)
        {
            if (Aggregator* const beampath =
                    dynamic_cast<Aggregator*>(M().GetStimulationDeviceInterfaceForBeampath(43)))
            {
                beampath->StimulationBegin(Continuous());
                beampath->HWSequencerEnable(true);
                beampath->StimulationEnd(nullptr, nullptr, 0);
            }
            m_watchdog.Step();
        }
        EXPECT_TRUE(
            Eventually([&] { return updating.Steps() > 2 && choosing.Steps() > 2 && registering.Steps() > 2; }));
    }
    M().RemoveCallbackForChange(asking);
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    M().Update();
    EXPECT_TRUE(HasBeampathDevice(s_beampath));
}

TEST_F(Rebuilds, RunBesideARebuildOfEachBeampathAndEventsThatSave)
{
    const Devices devices = MakeTwoBeampaths();
    {
        const CRepeating rebuilding(
            []
            {
                M().SetStimulationBeampathsDirty();
                M().UpdateStimulationBeampaths();
            });
        const CRepeating notifying([] { M().NotifyStimulationDeviceManagerEventListeners(); });
        const CRepeating saving(
            [] { CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS", 0, 0, nullptr); });
        const CRepeating switching(
            []
            {
                std::string error;
                CQsDeviceDatabase::SetCurrentHWConfig(s_otherHWConfig, error);
                M().SetStimulationBeampathsDirty();
                CQsDeviceDatabase::SetCurrentHWConfig(s_hwConfig, error);
                M().SetStimulationBeampathsDirty();
            });
        for (unsigned i = 0; i < 40; ++i)
        {
            M().GetStimulationBeampathCount();
            M().QueryFeatureSupported(1);
            m_watchdog.Step();
        }
        EXPECT_TRUE(Eventually([&] { return rebuilding.Steps() > 2 && notifying.Steps() > 2 && saving.Steps() > 2; }));
    }
    EXPECT_TRUE(HasBeampathDevice(s_beampath));
    EXPECT_TRUE(HasBeampathDevice(43));
}

TEST_F(Rebuilds, DoNotHoldACallOnOneBeampathUpWhileTheOthersDeviceIsBusy)
{
    const Devices devices = MakeTwoBeampaths();
    Aggregator& busy = BeampathDevice(s_beampath);
    Aggregator& free = BeampathDevice(43);
    for (CScriptedDevice* const device : {devices[0], devices[1]})
        device->bBeginBlocks = true;
    auto begin = std::async(std::launch::async, [&busy] { return busy.StimulationBegin(Phase(600000.0)); });
    ASSERT_TRUE(devices[0]->log.WaitFor("StimulationBegin(2, 600000)"));
    EXPECT_EQ(0, free.StimulationBegin(Continuous()));
    EXPECT_EQ(0, free.HWSequencerEnable(true));
    EXPECT_EQ(0, free.StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(1u, devices[2]->log.Count("StimulationEnd(1)"));
    ASSERT_TRUE(devices[1]->log.WaitFor("StimulationBegin(2, 600000)"));
    EXPECT_EQ(0, busy.StimulationAbort());
    EXPECT_EQ(0, begin.get());
}
