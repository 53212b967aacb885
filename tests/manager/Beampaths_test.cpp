// The beampaths that the manager makes of the device database: which there are, when they are built anew, and what the
// lookups hand out.
#include "tests/support/BeampathFixture.h"

#include <future>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

namespace {

using EStage = SDatabaseFault::EStage;

constexpr wchar_t s_updateLocation[] = L"CQsStimulationDeviceManager::UpdateStimulationBeampaths";

// Told like every beampath.
class CListener final : public IQsStimulationDeviceManagerEventListener
{
public:
    explicit CListener(CCallLog& log) : m_log(log)
    {
        BeampathTest::M().RegisterStimulationDeviceManagerEventListener(this);
    }
    ~CListener() { BeampathTest::M().UnregisterStimulationDeviceManagerEventListener(this); }
    int AvailableStimulationDevicesChanged() override
    {
        m_log.Add("told");
        return onTold ? onTold() : 0;
    }
    std::function<int()> onTold;

private:
    CCallLog& m_log;
};

std::string CouldNot(int id)
{
    return "CQsStimulationDeviceManager::UpdateStimulationBeampaths: Unable to create stimulation device aggregator for beampath id " +
           std::to_string(id);
}

} // namespace

class BeampathsWithoutDatabase : public ManagerTest
{};

class Beampaths : public BeampathTest
{
public:
    static std::vector<int> Ids()
    {
        std::vector<int> ids;
        for (const auto& entry : Access::BeampathDevices(M()))
            ids.push_back(entry.first);
        return ids;
    }
    static std::map<std::string, int> Names()
    {
        std::map<std::string, int> names;
        for (const auto& [name, id] : Access::BeampathIdsByName(M()))
            names[name.ToUtf8()] = id;
        return names;
    }
    static std::size_t LinesWith(const std::string& text)
    {
        std::size_t count = 0;
        for (const std::string& line : DiagnosticTexts())
            count += line == text ? 1u : 0u;
        return count;
    }
};

// ---------------------------------------------------------------------------------------------- without a database

TEST_F(BeampathsWithoutDatabase, AreToBeBuiltAfterTheFirstGetInstance)
{
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
}

TEST_F(BeampathsWithoutDatabase, AreToBeBuiltAnewAfterAnUpdateAndOnRequest)
{
    Simple(L"A");
    Access::CleanBeampaths(M());
    ASSERT_FALSE(Access::AreBeampathsDirty(M()));
    M().Update();
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
    Access::CleanBeampaths(M());
    M().SetStimulationBeampathsDirty();
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
}

TEST_F(BeampathsWithoutDatabase, CannotBeBuiltAndAreNone)
{
    LogChangeCodes();
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(-8, M().UpdateStimulationBeampaths());
        EXPECT_EQ(-8, M().UpdateStimulationBeampathsIfNecessary());
        EXPECT_EQ(0u, M().GetStimulationBeampathCount());
        EXPECT_EQ(0u, M().GetStimulationBPCount());
        EXPECT_EQ(0, M().GetStimulationBeampathIdByName(L""));
        EXPECT_EQ(-1, M().GetStimulationBeampathIdByName(L"P"));
        EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(1));
        EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(CQsStringW(L"P")));
        EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(CQsStringW(L"")));
        EXPECT_FALSE(M().QueryFeatureSupported(1));
    }
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
}

TEST_F(BeampathsWithoutDatabase, FireTheirCodeOnceForAnotherActiveOneAndNotForTheSame)
{
    ASSERT_EQ(-1, M().GetActiveStimulationBeampathId());
    LogChangeCodes();
    Access::SetActiveStimulationBPId(M(), -1);
    EXPECT_THAT(Log().Entries(), IsEmpty());
    Access::SetActiveStimulationBPId(M(), 4);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    EXPECT_EQ(4, M().GetActiveStimulationBeampathId());
    Access::SetActiveStimulationBPId(M(), 4);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    Access::SetActiveStimulationBPId(M(), -1);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 64"));
}

TEST_F(BeampathsWithoutDatabase, LetTheFunctionThatIsToldOfAnotherActiveOneWaitForAThreadThatAsksWhich)
{
    CWatchdog watchdog("a change function that waits for a question");
    static std::atomic<int> s_answer;
    s_answer = -1;
    M().AddCallbackForChange(
        [](unsigned)
        { s_answer = std::async(std::launch::async, [] { return M().GetActiveStimulationBeampathId(); }).get(); });
    Access::SetActiveStimulationBPId(M(), 4);
    EXPECT_EQ(4, s_answer);
}

// ---------------------------------------------------------------------------------------------------- which there are

TEST_F(Beampaths, AreTheOnesForStimulationThatAreSwitchedOnHere)
{
    On(1, "P");
    On(2, "of another kind");
    Content().beampaths.back().type = 0;
    On(3, "P"); // the name of 1 again
    On(4, "R");
    Behaviour(s_hwConfig, 4, 0); // off here, on by default
    Off(5, "S");
    Behaviour(s_hwConfig, 5, 1); // on here, off by default
    Off(6, "T");                 // as it is by default
    On(7, "U");
    Behaviour(s_otherHWConfig, 7, 0); // of another hardware configuration
    On(8, "V");
    Behaviour(s_hwConfig, 8, std::nullopt); // by default
    On(9, "W");
    Content().beampaths.back().setup = s_otherSetup;
    Write();
    EXPECT_EQ(5u, M().GetStimulationBeampathCount());
    EXPECT_THAT(Ids(), ElementsAre(1, 3, 5, 7, 8));
    EXPECT_THAT(Names(), ElementsAre(Pair("P", 1), Pair("S", 5), Pair("U", 7), Pair("V", 8)));
    for (const int id : {1, 3, 5, 7, 8})
        EXPECT_TRUE(HasBeampathDevice(id)) << id;
    for (const int id : {2, 4, 6, 9, 0, -1})
        EXPECT_FALSE(HasBeampathDevice(id)) << id;
}

TEST_F(Beampaths, HaveTheIdOfTheirNameWhereThereIsOne)
{
    On(42, "P");
    Write();
    EXPECT_EQ(42, M().GetStimulationBeampathIdByName(L"P")); // builds them
    EXPECT_EQ(0, M().GetStimulationBeampathIdByName(L""));
    EXPECT_EQ(-1, M().GetStimulationBeampathIdByName(L"p"));
    EXPECT_EQ(-1, M().GetStimulationBeampathIdByName(L"Q"));
}

TEST_F(Beampaths, AreCountedAsTheyStandOrAsTheyAreNow)
{
    On(1, "P");
    On(2, "Q");
    Behaviour(s_otherHWConfig, 2, 0);
    Write();
    EXPECT_EQ(0u, M().GetStimulationBPCount());
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
    EXPECT_EQ(2u, M().GetStimulationBeampathCount());
    SelectHWConfig(s_otherHWConfig);
    EXPECT_EQ(2u, M().GetStimulationBeampathCount()); // nobody said that something changed
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(2u, M().GetStimulationBPCount());
    EXPECT_EQ(1u, M().GetStimulationBeampathCount());
    EXPECT_EQ(1u, M().GetStimulationBPCount());
}

// ---------------------------------------------------------------------------------------------------- when they are
// built

TEST_F(Beampaths, SayThatTheyWereBuiltOnceForEachMark)
{
    On(42, "P");
    Write();
    EXPECT_EQ(-9, M().UpdateStimulationBeampathsIfNecessary());
    EXPECT_EQ(0, M().UpdateStimulationBeampathsIfNecessary());
    EXPECT_EQ(0, M().UpdateStimulationBeampaths());
    M().SetStimulationBeampathsDirty();
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
    EXPECT_EQ(0, M().UpdateStimulationBeampaths());
}

TEST_F(Beampaths, AreNotReadWhenNothingChanged)
{
    On(42, "P");
    Write();
    M().GetStimulationBeampathCount();
    Fail(EStage::Exec, L"");
    M().GetStimulationBeampathCount();
    M().GetStimulationBeampathIdByName(L"P");
    HasBeampathDevice(42);
    M().GetActive();
    EXPECT_THAT(Reports(), IsEmpty());
}

// The lookup by name tells its caller that way that what it knew is out of date.
TEST_F(Beampaths, AreNotFoundByNameByTheLookupThatBuildsThem)
{
    On(42, "P");
    Write();
    const CQsStringW name = L"P";
    EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(name));
    IQsStimulationDevice* const device = M().GetStimulationDeviceInterfaceForBeampath(name);
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(42, dynamic_cast<Aggregator&>(*device).GetStimulationBPId());
    EXPECT_EQ(device, M().GetStimulationDeviceInterfaceForBeampath(42));
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(name));
    EXPECT_EQ(device, M().GetStimulationDeviceInterfaceForBeampath(name));
    EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(CQsStringW(L"")));
    EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(CQsStringW(L"Q")));
}

TEST_F(Beampaths, AreFoundByTheirIdByTheLookupThatBuildsThem)
{
    On(42, "P");
    Write();
    EXPECT_TRUE(HasBeampathDevice(42));
    M().SetStimulationBeampathsDirty();
    EXPECT_TRUE(HasBeampathDevice(42));
    EXPECT_FALSE(Access::AreBeampathsDirty(M()));
}

TEST_F(Beampaths, AreBuiltByAskingForTheActiveDevice)
{
    MakeBeampath(1);
    ActivateBeampath();
    EXPECT_EQ(&BeampathDevice(), M().GetActive());
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(&BeampathDevice(), M().GetActive());
    EXPECT_FALSE(Access::AreBeampathsDirty(M()));
    Manager::SQsInfo info;
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(&BeampathDevice(), M().GetActive(info));
    EXPECT_EQ(L"A", info.sName); // the entry's, not the beampath's
}

TEST_F(Beampaths, AreToldToTheListenersAndThenToTheHost)
{
    On(42, "P");
    Write();
    LogChangeCodes();
    CListener listener(Log());
    std::vector<int> idsWhenTold;
    listener.onTold = [&idsWhenTold]
    {
        idsWhenTold = Ids();
        return 0;
    };
    EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
    EXPECT_THAT(Log().Entries(), ElementsAre("told", "code 4"));
    EXPECT_THAT(idsWhenTold, ElementsAre(42));
    Log().Clear();
    EXPECT_EQ(0, M().UpdateStimulationBeampaths());
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(Beampaths, GiveTheSameAnswerWhateverTheListenersSay)
{
    On(42, "P");
    Write();
    LogChangeCodes();
    CListener listener(Log());
    listener.onTold = [] { return -5; };
    EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
    EXPECT_THAT(Log().Entries(), ElementsAre("told", "told", "code 4")); // a bad answer is asked for twice
    EXPECT_EQ(0, M().UpdateStimulationBeampaths());
}

TEST_F(Beampaths, MayBeLookedUpByAListenerAndByAChangeFunction)
{
    CWatchdog watchdog("a lookup out of a rebuild");
    On(42, "P");
    Write();
    CListener listener(Log());
    static std::vector<unsigned> s_counts;
    s_counts.clear();
    listener.onTold = []
    {
        s_counts.push_back(M().GetStimulationBeampathCount());
        EXPECT_TRUE(HasBeampathDevice(42));
        EXPECT_EQ(0, M().UpdateStimulationBeampaths());
        return 0;
    };
    const Manager::ChangeCallback asking = [](unsigned)
    {
        s_counts.push_back(M().GetStimulationBeampathCount());
        EXPECT_NE(nullptr, M().GetStimulationDeviceInterfaceForBeampath(CQsStringW(L"P")));
    };
    M().AddCallbackForChange(asking);
    EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
    EXPECT_THAT(s_counts, ElementsAre(1u, 1u));
    M().RemoveCallbackForChange(asking);
}

TEST_F(Beampaths, ThatAreMarkedWhileTheyAreBuiltAreBuiltOnceMore)
{
    CWatchdog watchdog("a mark out of a rebuild");
    On(42, "P");
    Write();
    CListener listener(Log());
    unsigned marks = 0;
    listener.onTold = [&marks]
    {
        if (marks++ == 0)
        {
            M().SetStimulationBeampathsDirty();
            M().GetStimulationBeampathCount(); // not inside itself without end
        }
        return 0;
    };
    EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
    const std::size_t told = Log().Entries().size();
    listener.onTold = nullptr;
    EXPECT_TRUE(Access::AreBeampathsDirty(M()) || told >= 2) << "the mark is lost";
    M().GetStimulationBeampathCount();
    EXPECT_GE(Log().Entries().size(), 2u);
    EXPECT_EQ(0, M().UpdateStimulationBeampaths());
}

// ---------------------------------------------------------------------------------------------- what a rebuild changes

TEST_F(Beampaths, ThatStayKeepTheirDeviceAndThoseThatGoGiveTheirsBack)
{
    On(1, "P");
    On(2, "Q");
    Off(3, "R");
    Behaviour(s_otherHWConfig, 2, 0);
    Behaviour(s_otherHWConfig, 3, 1);
    Write();
    const std::size_t objects = QsStandalone::LiveObjectCount();
    IQsStimulationDevice* const stays = &BeampathDevice(1);
    IQsStimulationDevice* const goes = &BeampathDevice(2);
    EXPECT_EQ(objects + 4, QsStandalone::LiveObjectCount()); // each with itself as its sub-beampath
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(stays));
    CQsRTTI::AddRef(goes);

    SelectHWConfig(s_otherHWConfig);
    Rebuild();
    EXPECT_THAT(Ids(), ElementsAre(1, 3));
    EXPECT_THAT(Names(), ElementsAre(Pair("P", 1), Pair("R", 3)));
    EXPECT_EQ(stays, &BeampathDevice(1));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(stays));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(goes)); // the test's
    CQsRTTI::Release(goes);
    EXPECT_EQ(objects + 4, QsStandalone::LiveObjectCount());

    SelectHWConfig(s_hwConfig);
    Rebuild();
    EXPECT_THAT(Ids(), ElementsAre(1, 2));
    EXPECT_EQ(stays, &BeampathDevice(1));
    EXPECT_EQ(objects + 4, QsStandalone::LiveObjectCount());
}

TEST_F(Beampaths, OfAnotherSetupReplaceThoseOfTheOld)
{
    On(1, "P");
    On(2, "Q");
    Content().beampaths.back().setup = s_otherSetup;
    Write();
    EXPECT_TRUE(HasBeampathDevice(1));
    SelectSetup(s_otherSetup);
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(1u, M().GetStimulationBeampathCount());
    EXPECT_THAT(Ids(), ElementsAre(2));
}

TEST_F(Beampaths, FollowANewName)
{
    On(42, "P");
    Write();
    M().GetStimulationBeampathCount();
    Change([](SDatabaseContent& content) { Row(content, 42).name = "Q"; });
    Rebuild();
    EXPECT_EQ(-1, M().GetStimulationBeampathIdByName(L"P"));
    EXPECT_EQ(42, M().GetStimulationBeampathIdByName(L"Q"));
}

TEST_F(Beampaths, AreNotReleasedWithTheManager)
{
    MakeBeampathOf({L"", L""});
    IQsStimulationDevice* const device = &BeampathDevice();
    const std::size_t objects = QsStandalone::LiveObjectCount();
    Access::DeleteInstance();
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(device));
    CQsRTTI::Release(device); // the manager's, which nobody gives back
    EXPECT_EQ(objects - 3, QsStandalone::LiveObjectCount());
}

// ------------------------------------------------------------------------------------------------------ what fails

TEST_F(Beampaths, KeepTheirDevicesAndLoseTheirNamesWhenTheyCannotBeRead)
{
    On(1, "P");
    On(2, "Q");
    Behaviour(s_otherHWConfig, 2, 0);
    Write();
    IQsStimulationDevice* const first = &BeampathDevice(1);
    LogChangeCodes();
    CListener listener(Log());
    SelectHWConfig(s_otherHWConfig);
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        SCOPED_TRACE(static_cast<int>(stage));
        FailNothing();
        Log().Clear();
        CQsDeviceDatabase::ClearReports();
        Fail(stage, s_updateLocation);
        M().SetStimulationBeampathsDirty();
        EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
        EXPECT_THAT(Names(), IsEmpty());
        EXPECT_THAT(Ids(), ElementsAre(1, 2));
        EXPECT_TRUE(Access::AreBeampathsDirty(M()));
        EXPECT_THAT(Log().Entries(), IsEmpty());
        EXPECT_EQ(stage == EStage::Connection ? 0u : 1u, CQsDeviceDatabase::Reports().size());

        EXPECT_EQ(-1, M().GetStimulationBeampathIdByName(L"P"));
        EXPECT_EQ(0, M().GetStimulationBeampathIdByName(L""));
        EXPECT_EQ(nullptr, M().GetStimulationDeviceInterfaceForBeampath(CQsStringW(L"P")));
        EXPECT_EQ(first, M().GetStimulationDeviceInterfaceForBeampath(1));
        EXPECT_EQ(2u, M().GetStimulationBeampathCount());
        EXPECT_EQ(-9, M().UpdateStimulationBeampathsIfNecessary()); // tries each time
    }
    FailNothing();
    EXPECT_EQ(1u, M().GetStimulationBeampathCount());
    EXPECT_EQ(first, M().GetStimulationDeviceInterfaceForBeampath(1));
    EXPECT_EQ(1, M().GetStimulationBeampathIdByName(L"P"));
    EXPECT_FALSE(HasBeampathDevice(2));
}

TEST_F(Beampaths, OfAClassThatCannotBeMadeCountAndHaveNoDeviceForGood)
{
    On(1, "P");
    Write();
    QsStandalone::RefuseClass("CQsStimulationDeviceAggregator", true);
    EXPECT_EQ(1u, M().GetStimulationBeampathCount());
    EXPECT_THAT(Access::BeampathDevices(M()), ElementsAre(Pair(1, nullptr)));
    EXPECT_EQ(1, M().GetStimulationBeampathIdByName(L"P"));
    EXPECT_FALSE(HasBeampathDevice(1));
    EXPECT_EQ(0u, LinesWith(CouldNot(1))); // the class registry said nothing, so nothing is said
    EXPECT_FALSE(M().QueryFeatureSupported(1));

    // Not tried again while it stays.
    QsStandalone::RefuseClass("CQsStimulationDeviceAggregator", false);
    const std::size_t objects = QsStandalone::LiveObjectCount();
    Rebuild();
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
    EXPECT_FALSE(HasBeampathDevice(1));
    EXPECT_THAT(CHostCalls::Log().Entries(), IsEmpty()); // no beampath was made that registers
    // Gone for a rebuild and back, it is.
    SelectHWConfig(s_otherHWConfig);
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_otherHWConfig, 1, 0}); });
    Rebuild();
    EXPECT_EQ(0u, M().GetStimulationBPCount());
    SelectHWConfig(s_hwConfig);
    Rebuild();
    EXPECT_TRUE(HasBeampathDevice(1));
}

TEST_F(Beampaths, WithoutMemoryForTheirDeviceHaveNone)
{
    On(1, "P");
    Write();
    M();
    QsStandalone::RefuseAllocation(true);
    EXPECT_EQ(1u, M().GetStimulationBeampathCount());
    QsStandalone::RefuseAllocation(false);
    EXPECT_FALSE(HasBeampathDevice(1));
    EXPECT_EQ(0u, LinesWith(CouldNot(1)));
}

TEST_F(Beampaths, WhoseDeviceCannotBeSetUpCountAndAreLogged)
{
    const auto locations = {L"CQsStimulationDeviceAggregator::SetStimulationBPId",
                            L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId"};
    int id = 0;
    for (const wchar_t* const location : locations)
    {
        for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
        {
            ++id;
            SCOPED_TRACE(id);
            On(id, "P" + std::to_string(id));
            Write();
            const std::size_t objects = QsStandalone::LiveObjectCount();
            Fail(stage, location);
            M().SetStimulationBeampathsDirty();
            EXPECT_EQ(static_cast<unsigned>(id), M().GetStimulationBeampathCount());
            FailNothing();
            EXPECT_EQ(1u, LinesWith(CouldNot(id)));
            EXPECT_FALSE(HasBeampathDevice(id));
            EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
            // Not tried again, and not complained about again.
            Rebuild();
            EXPECT_FALSE(HasBeampathDevice(id));
            EXPECT_EQ(1u, LinesWith(CouldNot(id)));
        }
    }
}

TEST_F(Beampaths, ThatFailAreLoggedInTheOrderOfTheirIdsAndDoNotKeepTheOthersFromBeingMade)
{
    On(9, "nine");
    On(5, "five");
    On(7, "seven");
    Write();
    // The first and the second device that is set up fail; ids ascend whatever order the rows have.
    Fail(EStage::Exec, L"CQsStimulationDeviceAggregator::SetStimulationBPId", {}, 0, 2);
    EXPECT_EQ(3u, M().GetStimulationBeampathCount());
    EXPECT_THAT(DiagnosticTexts(), ElementsAre(CouldNot(5), CouldNot(7)));
    EXPECT_FALSE(HasBeampathDevice(5));
    EXPECT_FALSE(HasBeampathDevice(7));
    EXPECT_TRUE(HasBeampathDevice(9));
}

// --------------------------------------------------------------------------------------------- what devices look up

TEST_F(Beampaths, GetTheirDevicesWithAReferenceOfTheirOwn)
{
    CScriptedDevice& a = Simple<CScriptedDevice>(L"A");
    CScriptedDevice& b = Simple<CScriptedDevice>(L"B");
    a.info.vecLogDevIds = {5};
    b.info.vecLogDevIds = {5, 6};
    M().Update();
    std::set<IQsStimulationDevice*> found = {&a};
    EXPECT_EQ(-9, M().GetReferencedDevicesForLogDevId(7, found));
    EXPECT_THAT(found, IsEmpty());
    const unsigned before = QsStandalone::ReferenceCount(&a);
    EXPECT_EQ(0, M().GetReferencedDevicesForLogDevId(5, found));
    EXPECT_THAT(found, UnorderedElementsAre(&a, &b));
    EXPECT_EQ(before + 1, QsStandalone::ReferenceCount(&a));
    EXPECT_EQ(before + 1, QsStandalone::ReferenceCount(&b));
    for (IQsStimulationDevice* const device : found)
        CQsRTTI::Release(device);
}

TEST_F(Beampaths, AnswerForTheirDevicesFeaturesInOrderOfTheirIds)
{
    Off(51, "part");
    Off(52, "part");
    On(42, "P", "[51]");
    On(43, "Q", "[52]");
    CScriptedDevice& a = DeviceOn(51, L"A");
    CScriptedDevice& b = DeviceOn(52, L"B");
    Write();
    M().Update();
    M().GetStimulationBeampathCount();
    a.supportedFeatures = {5};
    b.supportedFeatures = {5, 6};
    a.queries.Clear();
    b.queries.Clear();
    EXPECT_TRUE(M().QueryFeatureSupported(5));
    EXPECT_EQ(0u, b.queries.Count("IsFeatureSupported()"));
    EXPECT_TRUE(M().QueryFeatureSupported(6));
    EXPECT_EQ(1u, b.queries.Count("IsFeatureSupported()"));
    b.enabledFeatures = {7};
    EXPECT_TRUE(M().QueryFeatureEnabled(7));
    EXPECT_FALSE(M().QueryFeatureEnabled(8));
}

// --------------------------------------------------------------------------------------------- stimulating with one

TEST_F(Beampaths, StimulateWithTheActiveOne)
{
    const Devices devices = MakeBeampath(2);
    ActivateBeampath();
    LogEverything();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Phase(30000.0)));
    ASSERT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    EXPECT_EQ(0, finish.Calls()[0].result);
    EXPECT_EQ(1u, finish.Calls()[0].count);
    // The devices of a merged beampath keep their times to themselves.
    EXPECT_THAT(finish.Calls()[0].begin, ElementsAre(-1.0));
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), ElementsAre("StimulationBegin(2, 30000)", "StimulationEnd(1)"));
}

// A sub-beampath refuses repeated patterns, which a beampath in mode 7 begins with: with one of them the stimulation
// fails before its first shot; with more, which are not waited for, the shots follow all the same.
TEST_F(Beampaths, OfOneDeviceInModeSevenFailBeforeTheFirstShot)
{
    const Devices devices = MakeBeampath(1);
    devices[0]->uiMode = 7;
    devices[0]->dCombinedExposure = 100000.0;
    ActivateBeampath();
    ASSERT_EQ(0, BeampathDevice().StimulationAreaSet(std::vector<CQsRoiObject>(1), {}, nullptr, {}, {}));
    ClearLogs();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Phase(300000.0)));
    ASSERT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    EXPECT_EQ(-9, finish.Calls()[0].result);
    EXPECT_EQ(3u, finish.Calls()[0].count);
    EXPECT_THAT(devices[0]->log.Entries(), ElementsAre("StimulationEnd(3)"));
}

TEST_F(Beampaths, OfTwoDevicesInModeSevenFireAlthoughNoneHasBegun)
{
    const Devices devices = MakeBeampath(2);
    for (CScriptedDevice* const device : devices)
    {
        device->uiMode = 7;
        device->dCombinedExposure = 50000.0; // 100000 together
    }
    ActivateBeampath();
    ASSERT_EQ(0, BeampathDevice().StimulationAreaSet(std::vector<CQsRoiObject>(1), {}, nullptr, {}, {}));
    ClearLogs();
    ForgetLines();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Phase(300000.0)));
    ASSERT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(0, finish.Calls()[0].result);
    EXPECT_EQ(3u, finish.Calls()[0].count);
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(),
                    ElementsAre("StimulationFire(3)", "StimulationFire(3)", "StimulationFire(3)", "StimulationEnd(1)"));
    std::size_t failed = 0;
    for (const std::string& line : Lines(s_aggregatorUnit))
        failed += line.find("Failed to call StimulationROIPrepare on device") != std::string::npos ? 1u : 0u;
    EXPECT_EQ(2u, failed);
}

// The mode that a multilaser unit has without a driver is the highest there is, and is not mode 7.
TEST_F(Beampaths, InAModeAboveSevenStimulateInOneShot)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->uiMode = 7;
    devices[1]->uiMode = 0xFFFFFFFEu;
    ActivateBeampath();
    ASSERT_EQ(0, BeampathDevice().StimulationAreaSet(std::vector<CQsRoiObject>(1), {}, nullptr, {}, {}));
    ClearLogs();
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Phase(30000.0)));
    ASSERT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    EXPECT_EQ(1u, finish.Calls()[0].count);
    for (const CScriptedDevice* const device : devices)
        EXPECT_THAT(device->log.Entries(), ElementsAre("StimulationBegin(2, 30000)", "StimulationEnd(1)"));
}

TEST_F(Beampaths, ReportADeviceThatThrowsAsFailed)
{
    const Devices devices = MakeBeampath(1);
    ActivateBeampath();
    devices[0]->onBegin = [](const Request&) -> int { throw 5; };
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish, Continuous()));
    ASSERT_TRUE(finish.WaitFor());
    WaitUntilIdle();
    EXPECT_EQ(1u, devices[0]->log.Count("StimulationEnd(1)")); // whatever happened, it is ended
    EXPECT_FALSE(devices[0]->IsLit());
    EXPECT_EQ(0, Start(finish, Continuous())); // and the manager goes on
    ASSERT_TRUE(finish.WaitFor(2));
}

TEST_F(Beampaths, ThatAreGoneStimulateNoMore)
{
    MakeBeampath(1);
    ActivateBeampath();
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_otherHWConfig, s_beampath, 0}); });
    SelectHWConfig(s_otherHWConfig);
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(-13, M().StimulationAbort());
    EXPECT_EQ(s_beampath, M().GetActiveStimulationBeampathId());
}
