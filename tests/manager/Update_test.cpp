// The rebuilding of the device map.
#include "tests/manager/ManagerTest.h"

#include <algorithm>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class Update : public ManagerTest
{};
class UpdateOnDatabase : public DatabaseManagerTest
{};

TEST_F(Update, WithoutDevicesFiresThatNoneIsActiveAndThenThatTheListIsNew)
{
    LogChangeCodes();
    EXPECT_EQ(-13, M().Update());
    EXPECT_THAT(Log().Entries(), ElementsAre("code 2", "code 1"));
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(0u, M().GetDeviceCount());
}

TEST_F(Update, ActivatesTheOnlyDevice)
{
    CQsFakeDevice& device = Simple(L"A");
    LogChangeCodes();
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(Log().Entries(), ElementsAre("A: SetActive(true)", "code 2", "code 1"));
    EXPECT_EQ(&device, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"A", s_v4Name, s_hx4Name));
}

TEST_F(Update, PrefersTheEarlierSourceWhereTwoOfferTheSameName)
{
    // From the last source to the first, so that each new one takes the name over.
    CQsFakeDevice& simple = Simple(L"Same");
    M().Update();
    EXPECT_EQ(&simple, M().GetDevice(L"Same"));
    CQsFakeDevice& shutter = Shutter(L"Same");
    M().Update();
    EXPECT_EQ(&shutter, M().GetDevice(L"Same"));
    CQsFakeDevice& optConf = OptConf(L"Same");
    M().Update();
    EXPECT_EQ(&optConf, M().GetDevice(L"Same"));
    CQsFakeDevice& special = Special(L"Same");
    M().Update();
    EXPECT_EQ(&special, M().GetDevice(L"Same"));
    CQsFakeDevice& isStatic = Static(L"Same");
    M().Update();
    EXPECT_EQ(&isStatic, M().GetDevice(L"Same"));
    EXPECT_EQ(1u, M().GetDeviceCount());
}

TEST_F(Update, PrefersTheEarlierDeviceWithinASource)
{
    CQsFakeDevice& firstStatic = Static(L"static");
    Static(L"static");
    CQsFakeDevice& firstSpecial = Special(L"special");
    Special(L"special");
    CQsFakeDevice& firstOptConf = OptConf(L"option");
    OptConf(L"option");
    CQsFakeDevice& firstShutter = Shutter(L"shutter");
    Shutter(L"shutter");
    IQsStimulationDevice* const simple[] = {&Simple(L"simple"), &Simple(L"simple"), &Simple(L"simple")};
    M().Update();
    EXPECT_THAT(DeviceNames(), ElementsAre("option", "shutter", "simple", "special", "static"));
    EXPECT_EQ(&firstStatic, M().GetDevice(L"static"));
    EXPECT_EQ(&firstSpecial, M().GetDevice(L"special"));
    EXPECT_EQ(&firstOptConf, M().GetDevice(L"option"));
    EXPECT_EQ(&firstShutter, M().GetDevice(L"shutter"));
    // Simple devices have no order but that of their addresses.
    EXPECT_EQ(*std::min_element(std::begin(simple), std::end(simple), std::less<IQsStimulationDevice*>()),
              M().GetDevice(L"simple"));
}

TEST_F(Update, LeavesOutDevicesWithoutHardwareWhereTheSourceAsksForIt)
{
    Static(L"static").bConnected = false;
    Special(L"special").bConnected = false;
    OptConf(L"option").bConnected = false;
    Shutter(L"shutter").bConnected = false;
    Simple(L"simple").bConnected = false;
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(DeviceNames(), ElementsAre("option", "simple"));
}

TEST_F(Update, LetsALaterSourceHaveTheNameOfADeviceWithoutHardware)
{
    Special(L"Same").bConnected = false;
    CQsFakeDevice& simple = Simple(L"Same");
    M().Update();
    EXPECT_EQ(&simple, M().GetDevice(L"Same"));
}

TEST_F(Update, TakesTheVisibleFlagsFromTheDevices)
{
    CQsFakeDevice* const devices[] = {&Static(L"static"), &Special(L"special"), &OptConf(L"option"),
                                      &Shutter(L"shutter"), &Simple(L"simple")};
    for (CQsFakeDevice* const device : devices)
        device->bVisible = false;
    M().Update();
    for (CQsFakeDevice* const device : devices)
        EXPECT_FALSE(Info(device->sName.c_str()).bVisible);
    for (CQsFakeDevice* const device : devices)
        device->bVisible = true;
    M().Update();
    for (CQsFakeDevice* const device : devices)
        EXPECT_TRUE(Info(device->sName.c_str()).bVisible);
}

TEST_F(Update, ForgetsAVisibleFlagThatWasSetFromOutside)
{
    Simple(L"A");
    M().Update();
    ASSERT_EQ(0, M().SetVisible(L"A", false));
    M().Update();
    EXPECT_TRUE(Info(L"A").bVisible);
}

TEST_F(Update, ListsADeviceWithoutIdsInNoLookup)
{
    CQsFakeDevice& failing = Simple(L"A");
    failing.info.vecLogDevIds = {5};
    failing.info.vecPhysDevIds = {6};
    failing.iInfoResult = -12;
    CQsFakeDevice& other = Simple(L"B");
    other.info.vecLogDevIds = {5, 0, 5};
    M().Update();
    EXPECT_THAT(DeviceNames(), ElementsAre("A", "B"));
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_THAT(found, UnorderedElementsAre(&other));
    EXPECT_EQ(-9, M().GetStimulationDevicesForPhysDevId(6, found));
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(0, found));
}

TEST_F(Update, AsksOnlyTheDeviceOfTheEntryForItsIds)
{
    CQsFakeDevice& shadowed = Shutter(L"Same");
    shadowed.info.vecLogDevIds = {5};
    OptConf(L"Same");
    M().Update();
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(5, found));
}

TEST_F(Update, SwitchesThePreviousDeviceOffAlsoWhenItIsChosenAgain)
{
    Simple(L"B");
    CQsFakeDevice& device = Active(L"A");
    LogChangeCodes();
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(Log().Entries(), ElementsAre("A: SetActive(false)", "A: SetActive(true)", "code 2", "code 1"));
    EXPECT_EQ(&device, M().GetActive());
}

TEST_F(Update, TakesTheNextRecentlyUsedDeviceWhenTheFirstIsGone)
{
    CQsFakeDevice& b = Simple(L"B");
    Simple(L"A");
    CQsFakeDevice& c = Active(L"C");
    Access::SetMru(M(), {L"C", L"x", L"B"});
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(&c));
    LogChangeCodes();
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(&b, M().GetActive());
    EXPECT_THAT(Log().Entries(), ElementsAre("B: SetActive(true)", "code 2", "code 1"));
    EXPECT_THAT(Mru(), ElementsAre(L"C", L"x", L"B"));
}

TEST_F(Update, TakesTheFirstDeviceByNameWhenNoRecentlyUsedOneIsThereAndRemembersIt)
{
    Simple(L"B");
    CQsFakeDevice& a = Simple(L"A");
    Access::SetMru(M(), {L"x"});
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(&a, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"A", L"x"));
}

TEST_F(Update, AbortsARunningStimulationAndWaitsForItsEnd)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    ClearLogs();
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(1u, finish.Calls().size());
    const auto commands = device.log.Entries();
    ASSERT_GE(commands.size(), 4u);
    EXPECT_EQ("StimulationAbort()", commands.front());
    // The stimulation was over before anything else happened to the device.
    EXPECT_THAT(std::vector<std::string>(commands.end() - 3, commands.end()),
                ElementsAre("StimulationEnd(1)", "SetActive(false)", "SetActive(true)"));
}

TEST_F(Update, MayBeCalledByAChangeFunctionAfterTheLastChange)
{
    CWatchdog watchdog("an update from a callback");
    Simple(L"A");
    static unsigned s_updates;
    s_updates = 0;
    M().AddCallbackForChange(
        [](unsigned code)
        {
            if (code == 1 && s_updates++ == 0)
                M().Update();
        });
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(2u, s_updates);
    EXPECT_THAT(DeviceNames(), ElementsAre("A"));
    EXPECT_TRUE(Info(L"A").bActive);
}

TEST_F(Update, FiresItsCodesUnderTheRegistryLock)
{
    static std::atomic<bool> s_bOtherGotIt;
    static std::atomic<bool> s_bOtherHadToWait;
    static std::thread s_other;
    s_bOtherGotIt = false;
    s_bOtherHadToWait = false;
    Simple(L"A");
    const Manager::ChangeCallback callback = [](unsigned code)
    {
        if (code != 1)
            return;
        std::atomic<bool> bRuns{false};
        s_other = std::thread(
            [&bRuns]
            {
                bRuns = true;
                M().GetDevice(L"A");
                s_bOtherGotIt = true;
            });
        while (!bRuns)
            std::this_thread::yield();
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        s_bOtherHadToWait = !s_bOtherGotIt;
    };
    M().AddCallbackForChange(callback);
    EXPECT_EQ(0, M().Update());
    M().RemoveCallbackForChange(callback);
    s_other.join();
    EXPECT_TRUE(s_bOtherHadToWait);
    EXPECT_TRUE(s_bOtherGotIt);
}

TEST_F(Update, SwitchesAPreviousStaticDeviceOffWhoseModuleIsGone)
{
    auto alive = std::make_shared<std::atomic<int>>(1);
    auto calls = std::make_shared<CCallLog>();
    auto device = Ref<CQsFakeDevice>::Make(L"static");
    device->pAlive = alive;
    device->pSharedLog = calls;
    device->AddRef(); // the reference that the manager keeps
    Manager::SQsDeviceInfo info("CQsGone", ThisProgram().c_str());
    info.pDevice = device.get();
    ASSERT_EQ(0, M().StaticDeviceAdd(info));
    device = Ref<CQsFakeDevice>();
    ASSERT_EQ(0, M().Update());
    ASSERT_TRUE(Info(L"static").bActive);

    calls->Clear();
    Access::StaticDevices(M())[0].sModuleFile = CQsStringW::FromUtf8(Folder() + "/no-such-module.so");
    EXPECT_EQ(-13, M().Update());
    EXPECT_THAT(calls->Entries(), ElementsAre("static: SetActive(false)"));
    EXPECT_EQ(0, *alive);
    EXPECT_EQ(nullptr, Access::StaticDevices(M())[0].pDevice);
    EXPECT_EQ(0u, M().GetDeviceCount());
}

TEST_F(Update, ListsTheOthersWhenADeviceThrows)
{
    // Only its description throws; a device that is not listed is not asked for more.
    class CThrowing : public CQsFakeDevice
    {
    public:
        CThrowing() : CQsFakeDevice(L"throws") {}
        bool IsVisible() override { throw 5; }
    };
    auto throwing = Ref<CThrowing>::Make();
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(throwing.get()));
    Simple(L"A");
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(DeviceNames(), ElementsAre("A"));
    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(throwing.get()));
}

TEST_F(UpdateOnDatabase, LeavesTheShuttersOfTheListOut)
{
    Shutter(L"shutter");
    Special(L"special");
    Simple(L"attached shutter"); // handed in as a simple device it is listed
    M().Update();
    EXPECT_THAT(DeviceNames(), ElementsAre("attached shutter", "special"));
}

TEST_F(UpdateOnDatabase, ActivatesAnEntryAlthoughStimulationsGoToBeampaths)
{
    CQsFakeDevice& device = Simple(L"A");
    LogChangeCodes();
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(1u, device.log.Count("SetActive(true)"));
    EXPECT_TRUE(Info(L"A").bActive);
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ("code 1", Log().Entries().back());
}
