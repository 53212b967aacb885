// The instance, simple devices, and the lists that the host fills.
#include "tests/manager/ManagerTest.h"

#include "device/MultilaserStimulationDevice.h"

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Registry : public ManagerTest
{};
class RegistryOnDatabase : public DatabaseManagerTest
{};

TEST_F(Registry, StartsEmptyWithoutAnActiveDevice)
{
    EXPECT_EQ(0u, M().GetDeviceCount());
    Manager::SQsInfo info;
    info.sName = L"untouched";
    EXPECT_EQ(-9, M().GetDeviceInfo(0, info));
    EXPECT_EQ(L"untouched", info.sName);
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(-1, M().GetActiveStimulationBeampathId());
    EXPECT_EQ(0, Access::WaitForStimulationEnd(M(), 0, false));
}

TEST_F(Registry, HasNoInstanceBeforeTheFirstGetInstanceAndOneEverAfter)
{
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
    Manager* const manager = Manager::GetInstance();
    ASSERT_NE(nullptr, manager);
    EXPECT_EQ(manager, Manager::GetInstance());
    EXPECT_EQ(manager, Manager::InstanceIfExists());
}

TEST_F(Registry, GivesAllThreadsTheSameFirstInstance)
{
    constexpr std::size_t threads = 8;
    std::vector<Manager*> seen(threads, nullptr);
    std::atomic<unsigned> waiting{0};
    std::vector<std::thread> callers;
    for (std::size_t i = 0; i < threads; ++i)
    {
        callers.emplace_back(
            [&seen, &waiting, i]
            {
                ++waiting;
                while (waiting < threads)
                    std::this_thread::yield();
                seen[i] = Manager::GetInstance();
            });
    }
    for (std::thread& caller : callers)
        caller.join();
    ASSERT_NE(nullptr, seen[0]);
    EXPECT_THAT(seen, ::testing::Each(seen[0]));
}

TEST_F(Registry, SwitchesTheActiveDeviceOffWhenTheManagerEnds)
{
    CQsFakeDevice& device = Active(L"A");
    CQsFakeDevice& other = Simple(L"B");
    bool bAsked = false;
    bool bHadInstance = true;
    device.onSetActive = [&](bool)
    {
        bAsked = true;
        // A device may ask for the manager here; it must get one that still answers, or none.
        Manager* const manager = Manager::InstanceIfExists();
        bHadInstance = manager != nullptr;
        EXPECT_EQ(1u, manager != nullptr ? manager->GetDeviceCount() : 0u);
        return 0;
    };
    Access::DeleteInstance();
    EXPECT_TRUE(bAsked);
    EXPECT_TRUE(bHadInstance);
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
    EXPECT_THAT(Log().Entries(), ElementsAre("A: SetActive(false)"));
    // The lists' references stay with the devices.
    device.onSetActive = nullptr;
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(&device));
    device.Release();
    other.Release();
}

TEST_F(Registry, RefusesToRegisterAndToUnregisterNoDevice)
{
    EXPECT_EQ(-4, M().RegisterSimpleStimulationDevice(nullptr));
    EXPECT_EQ(-4, M().UnregisterSimpleStimulationDevice(nullptr));
}

TEST_F(Registry, KeepsOneReferenceOfASimpleDeviceHoweverOftenItIsRegistered)
{
    CQsFakeDevice& device = Make(L"A");
    const unsigned before = QsStandalone::ReferenceCount(&device);
    EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
    EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
    EXPECT_EQ(before + 1, QsStandalone::ReferenceCount(&device));
    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(&device));
    EXPECT_EQ(before, QsStandalone::ReferenceCount(&device));
}

TEST_F(Registry, UnregisteringAnUnknownDeviceReleasesNothing)
{
    CQsFakeDevice& device = Make(L"A");
    const unsigned before = QsStandalone::ReferenceCount(&device);
    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(&device));
    EXPECT_EQ(before, QsStandalone::ReferenceCount(&device));
}

TEST_F(Registry, ShowsARegisteredDeviceAtTheNextUpdateOnly)
{
    CQsFakeDevice& device = Simple(L"A");
    EXPECT_EQ(0u, M().GetDeviceCount());
    EXPECT_EQ(nullptr, M().GetDevice(L"A"));
    EXPECT_EQ(-9, M().SetActive(L"A", false));
    M().Update();
    EXPECT_EQ(1u, M().GetDeviceCount());
    EXPECT_EQ(&device, M().GetDevice(L"A"));

    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(&device));
    EXPECT_EQ(1u, M().GetDeviceCount());
    M().Update();
    EXPECT_EQ(0u, M().GetDeviceCount());
}

TEST_F(Registry, UnregisteringTheActiveDeviceLeavesNoneActiveAndDoesNotTellIt)
{
    CQsFakeDevice& device = Active(L"A");
    LogChangeCodes();
    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(&device));
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(1u, M().GetDeviceCount());
}

TEST_F(Registry, HandsOutNoLookupOfADeviceThatItNoLongerKeeps)
{
    auto alive = std::make_shared<std::atomic<int>>(1);
    auto device = Ref<CQsFakeDevice>::Make(L"A");
    device->pAlive = alive;
    device->info.vecLogDevIds = {5};
    device->info.vecPhysDevIds = {6};
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(device.get()));
    M().Update();
    std::set<IQsStimulationDevice*> found;
    ASSERT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));

    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(device.get()));
    device = Ref<CQsFakeDevice>();
    ASSERT_EQ(0, *alive);
    EXPECT_EQ(-9, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_THAT(found, IsEmpty());
    EXPECT_EQ(-9, M().GetStimulationDevicesForPhysDevId(6, found));
    // Its entry is still there; what the manager does with it must not touch the device that is gone.
    EXPECT_EQ(1u, M().GetDeviceCount());
    Simple(L"B");
    M().Update();
    EXPECT_THAT(DeviceNames(), ElementsAre("B"));
}

TEST_F(Registry, AbortsARunningStimulationBeforeItRegistersAndWaitsForItsEnd)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    CQsFakeDevice& other = Make(L"B");

    // A device that is registered already changes nothing, so nothing is waited for.
    EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
    EXPECT_EQ(0u, device.log.Count("StimulationAbort()"));
    EXPECT_THAT(finish.Calls(), IsEmpty());

    EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&other));
    EXPECT_GE(device.log.Count("StimulationAbort()"), 1u);
    EXPECT_EQ(1u, finish.Calls().size());
}

TEST_F(Registry, StopsARunningStimulationAlsoWhenNoDeviceIsAddedToAList)
{
    CProbeDevice& device = Active<CProbeDevice>(L"A");
    device.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(device.log.WaitFor("StimulationBegin(2, 1)"));
    M().SpecialDevicesAdd(nullptr);
    EXPECT_GE(device.log.Count("StimulationAbort()"), 1u);
    EXPECT_EQ(1u, finish.Calls().size());
    EXPECT_THAT(Access::SpecialDevices(M()), IsEmpty());
}

TEST_F(Registry, ListsTakeOverTheCallersReferenceAndKeepDuplicates)
{
    using GetList = const std::vector<IQsStimulationDevice*>& (*)(const Manager&);
    struct SSource
    {
        void (Manager::*add)(IQsStimulationDevice*);
        void (Manager::*removeAll)();
        GetList list;
    };
    const SSource sources[] = {
        {&Manager::SpecialDevicesAdd, &Manager::SpecialDevicesRemoveAll, &Access::SpecialDevices},
        {&Manager::OptConfDevicesAdd, &Manager::OptConfDevicesRemoveAll, &Access::OptConfDevices},
        {&Manager::ShuttersAdd, &Manager::ShuttersRemoveAll, &Access::Shutters}};
    for (const SSource& source : sources)
    {
        CQsFakeDevice& device = Make(L"A");
        const unsigned own = QsStandalone::ReferenceCount(&device);
        device.AddRef();
        device.AddRef();
        (M().*source.add)(&device);
        (M().*source.add)(&device);
        (M().*source.add)(nullptr);
        EXPECT_THAT(source.list(M()), ElementsAre(&device, &device));
        EXPECT_EQ(own + 2, QsStandalone::ReferenceCount(&device));
        (M().*source.removeAll)();
        EXPECT_THAT(source.list(M()), IsEmpty());
        EXPECT_EQ(own, QsStandalone::ReferenceCount(&device));
    }
}

TEST_F(Registry, RemovingAListTakesItsDevicesOutOfTheMapAndDoesNotTellTheActiveOne)
{
    CQsFakeDevice& special = Special(L"S");
    Simple(L"A");
    M().Update();
    ASSERT_EQ(0, M().SetActive(L"S", false));
    ASSERT_THAT(DeviceNames(), ElementsAre("A", "S"));
    ClearLogs();
    LogChangeCodes();
    M().SpecialDevicesRemoveAll();
    EXPECT_THAT(DeviceNames(), ElementsAre("A"));
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&special));
}

TEST_F(Registry, RemovingAListLeavesAnotherActiveDeviceActive)
{
    CQsFakeDevice& active = Active(L"A");
    Special(L"S");
    M().Update();
    ASSERT_EQ(&active, M().GetActive());
    M().SpecialDevicesRemoveAll();
    EXPECT_EQ(&active, M().GetActive());
}

TEST_F(Registry, RemovingAListErasesTheEntryOfThatNameAlsoWhenItIsAnotherDevices)
{
    CQsFakeDevice& kept = OptConf(L"Same");
    CQsFakeDevice& shadowed = Shutter(L"Same");
    M().Update();
    ASSERT_EQ(&kept, M().GetDevice(L"Same"));
    const unsigned keptReferences = QsStandalone::ReferenceCount(&kept);
    M().ShuttersRemoveAll();
    EXPECT_EQ(0u, M().GetDeviceCount());
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(keptReferences, QsStandalone::ReferenceCount(&kept));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&shadowed));
    M().Update();
    EXPECT_EQ(&kept, M().GetDevice(L"Same"));
}

TEST_F(RegistryOnDatabase, HoldsAReferenceForEachEntryOfTheMapAndGivesItBackWithTheList)
{
    CQsFakeDevice& device = Special(L"S"); // one of the test, one of the list
    ASSERT_EQ(2u, QsStandalone::ReferenceCount(&device));
    M().Update();
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&device));
    M().Update();
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(&device));
    M().SpecialDevicesRemoveAll();
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&device));
}

TEST_F(RegistryOnDatabase, ReleasesTheDeviceOfTheEntryWhereTwoDevicesShareAName)
{
    CQsFakeDevice& first = Special(L"Same");
    CQsFakeDevice& second = OptConf(L"Same");
    M().Update();
    ASSERT_EQ(&first, M().GetDevice(L"Same"));
    ASSERT_EQ(3u, QsStandalone::ReferenceCount(&first));
    ASSERT_EQ(2u, QsStandalone::ReferenceCount(&second));
    M().OptConfDevicesRemoveAll(); // takes the entry of that name with it, which is the first's
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(&first));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&second));
    EXPECT_EQ(0u, M().GetDeviceCount());
}

TEST_F(RegistryOnDatabase, UnregisteringASimpleDeviceGivesBackEveryReferenceAtTheLatestWithTheNextUpdate)
{
    CQsFakeDevice& device = Simple(L"A");
    M().Update();
    ASSERT_EQ(3u, QsStandalone::ReferenceCount(&device));
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(&device));
    M().Update();
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&device));
}

TEST_F(Registry, TakesDevicesThatAreNotReferenceCounted)
{
    CQsMultilaserStimulationDevice first;
    CQsMultilaserStimulationDevice second;
    EXPECT_EQ(nullptr, first.GetClass());
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(&first));
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(&second));
    M().Update();
    // Both have the empty name, so the lower address has the one entry.
    EXPECT_THAT(DeviceNames(), ElementsAre(""));
    EXPECT_EQ(std::min<IQsStimulationDevice*>(&first, &second, std::less<IQsStimulationDevice*>()), M().GetDevice(L""));
    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(&first));
    EXPECT_EQ(0, M().UnregisterSimpleStimulationDevice(&second));
    M().Update();
    EXPECT_EQ(0u, M().GetDeviceCount());
}

TEST_F(Registry, FindsADeviceByItsExactName)
{
    CQsFakeDevice& lower = Simple(L"abc");
    CQsFakeDevice& upper = Simple(L"ABC");
    M().Update();
    EXPECT_THAT(DeviceNames(), ElementsAre("ABC", "abc"));
    EXPECT_EQ(&lower, M().GetDevice(L"abc"));
    EXPECT_EQ(&upper, M().GetDevice(L"ABC"));
    EXPECT_EQ(nullptr, M().GetDevice(L"Abc"));
    EXPECT_EQ(nullptr, M().GetDevice(L""));
}

TEST_F(Registry, DescribesDevicesInTheOrderOfTheirNames)
{
    CQsFakeDevice& b = Simple(L"B");
    CQsFakeDevice& a = Simple(L"A");
    a.sDisplayName = L"First laser";
    a.bVisible = false;
    b.sDisplayName = L"";
    M().Update();
    ASSERT_EQ(0, M().SetActive(L"B", false));
    ASSERT_EQ(2u, M().GetDeviceCount());

    Manager::SQsInfo info;
    info.bActive = true;
    ASSERT_EQ(0, M().GetDeviceInfo(0, info));
    EXPECT_EQ(L"A", info.sName);
    EXPECT_EQ(L"First laser", info.sDisplayName);
    EXPECT_FALSE(info.bActive);
    EXPECT_FALSE(info.bVisible);

    ASSERT_EQ(0, M().GetDeviceInfo(1, info));
    EXPECT_EQ(L"B", info.sName);
    EXPECT_EQ(L"B", info.sDisplayName); // a device without a display name shows its unique name
    EXPECT_TRUE(info.bActive);
    EXPECT_TRUE(info.bVisible);

    EXPECT_EQ(-9, M().GetDeviceInfo(2, info));
    EXPECT_EQ(-9, M().GetDeviceInfo(0xFFFFFFFFu, info));
    EXPECT_EQ(L"B", info.sName);
}

TEST_F(Registry, SetsTheVisibleFlagOfAKnownDeviceAndFiresNothing)
{
    Active(L"A");
    LogChangeCodes();
    EXPECT_EQ(0, M().SetVisible(L"A", false));
    EXPECT_FALSE(Info(L"A").bVisible);
    EXPECT_EQ(0, M().SetVisible(L"A", true));
    EXPECT_TRUE(Info(L"A").bVisible);
    EXPECT_EQ(-9, M().SetVisible(L"a", false));
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(Registry, FindsASpecialDeviceByItsUniqueName)
{
    CQsFakeDevice& first = Special(L"S");
    Special(L"T");
    Special(L"S");
    Simple(L"A");
    EXPECT_EQ(&first, M().GetSpecialDevice(L"S"));
    EXPECT_EQ(nullptr, M().GetSpecialDevice(L"A"));
    EXPECT_EQ(nullptr, M().GetSpecialDevice(L"s"));
}

TEST_F(Registry, DescribesADeviceByItsNameUntilItIsTold)
{
    CQsFakeDevice& device = Make(L"A");
    device.sDisplayName = L"";
    const Manager::SQsInfoEx plain(L"key", &device);
    EXPECT_FALSE(plain.bActive);
    EXPECT_TRUE(plain.bVisible);
    EXPECT_EQ(L"key", plain.sName);
    EXPECT_EQ(L"key", plain.sDisplayName);
    EXPECT_EQ(&device, plain.pDevice);
    device.sDisplayName = L"Shown";
    const Manager::SQsInfoEx named(L"key", &device);
    EXPECT_EQ(L"Shown", named.sDisplayName);
    // Copies copy the pointer and take no reference.
    const unsigned before = QsStandalone::ReferenceCount(&device);
    const Manager::SQsInfoEx copy = named;
    EXPECT_EQ(&device, copy.pDevice);
    EXPECT_EQ(before, QsStandalone::ReferenceCount(&device));
}

TEST_F(Registry, RemovingAListTakesItsDevicesOutOfBothLookupsById)
{
    struct SList
    {
        CQsFakeDevice& device;
        void (Manager::*removeAll)();
    };
    const SList lists[] = {{Special(L"S"), &Manager::SpecialDevicesRemoveAll},
                           {OptConf(L"O"), &Manager::OptConfDevicesRemoveAll},
                           {Shutter(L"T"), &Manager::ShuttersRemoveAll}};
    CQsFakeDevice& other = Simple(L"A");
    for (CQsFakeDevice* const device : {&lists[0].device, &lists[1].device, &lists[2].device, &other})
    {
        device->info.vecLogDevIds = {5};
        device->info.vecPhysDevIds = {6};
    }
    M().Update();
    std::set<IQsStimulationDevice*> expected = {&lists[0].device, &lists[1].device, &lists[2].device, &other};
    std::set<IQsStimulationDevice*> found;
    for (const SList& list : lists)
    {
        ASSERT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
        EXPECT_EQ(expected, found);
        (M().*list.removeAll)();
        expected.erase(&list.device);
        ASSERT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
        EXPECT_EQ(expected, found);
        ASSERT_EQ(0, M().GetStimulationDevicesForPhysDevId(6, found));
        EXPECT_EQ(expected, found);
    }
}

TEST_F(Registry, KeepsTheEntryAndTheIdsOfAnUnregisteredDeviceThatAnotherListHas)
{
    CQsFakeDevice& special = Special(L"S");
    CQsFakeDevice& fixed = Static(L"T");
    for (CQsFakeDevice* const device : {&special, &fixed})
    {
        device->info.vecLogDevIds = {5};
        device->info.vecPhysDevIds = {6};
        ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(device));
    }
    M().Update();
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(&special));
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(&fixed));
    EXPECT_EQ(&special, M().GetDevice(L"S"));
    EXPECT_EQ(&fixed, M().GetDevice(L"T"));
    const std::set<IQsStimulationDevice*> expected = {&special, &fixed};
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_EQ(expected, found);
    EXPECT_EQ(0, M().GetStimulationDevicesForPhysDevId(6, found));
    EXPECT_EQ(expected, found);
}

TEST_F(Registry, KeepsTheIdsOfADeviceOfAnEmptiedListThatIsASimpleDeviceToo)
{
    CQsFakeDevice& device = Special(L"S");
    device.info.vecLogDevIds = {5};
    device.info.vecPhysDevIds = {6};
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
    M().Update();
    M().SpecialDevicesRemoveAll();
    std::set<IQsStimulationDevice*> found;
    EXPECT_EQ(0, M().GetStimulationDevicesForLogDevId(5, found));
    EXPECT_THAT(found, ElementsAre(&device));
    EXPECT_EQ(0, M().GetStimulationDevicesForPhysDevId(6, found));
    EXPECT_THAT(found, ElementsAre(&device));
    M().Update();
    EXPECT_EQ(&device, M().GetDevice(L"S"));
}

TEST_F(Registry, RemovingAListForgetsADeviceAlsoWhenItHasChangedItsName)
{
    auto alive = std::make_shared<std::atomic<int>>(1);
    auto renamed = Ref<CQsFakeDevice>::Make(L"S");
    renamed->pAlive = alive;
    renamed->AddRef(); // handed over
    M().SpecialDevicesAdd(renamed.get());
    CQsFakeDevice& other = Simple(L"B");
    M().Update();
    ASSERT_EQ(0, M().SetActive(L"S", false));
    renamed->sName = L"S2";
    renamed = Ref<CQsFakeDevice>();
    M().SpecialDevicesRemoveAll();
    ASSERT_EQ(0, *alive);
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(nullptr, M().GetDevice(L"S"));
    Manager::SQsInfo info;
    info.sName = L"unwritten";
    EXPECT_EQ(nullptr, M().GetActive(info));
    EXPECT_EQ(L"unwritten", info.sName);
    EXPECT_EQ(0, M().SetActive(L"B", false));
    EXPECT_EQ(&other, M().GetActive());
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(DeviceNames(), ElementsAre("B"));
}
