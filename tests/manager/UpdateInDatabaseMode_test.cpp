// What an update does more when the host runs on a device database: the optical configuration that was last in use
// comes back, and the beampaths find their devices anew.
#include "tests/support/BeampathFixture.h"

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using EStage = SDatabaseFault::EStage;

constexpr wchar_t s_lastConfiguration[] = L"sLastActiveGlobalStimulationConfiguration";

} // namespace

class UpdateInDatabaseMode : public BeampathTest
{
public:
    UpdateInDatabaseMode()
    {
        On(42, "P");
        On(43, "Q");
        Write();
        M();
    }
    static void Store(const wchar_t* text, qs_int32 setup = s_setup, qs_int32 user = s_user)
    {
        ASSERT_EQ(0, DeviceDBAppHelper::SaveParam(s_lastConfiguration, text, setup, user));
    }
};

// ------------------------------------------------------------------------------------------ the optical configuration

TEST_F(UpdateInDatabaseMode, RestoresTheStoredOpticalConfiguration)
{
    Simple(L"A");
    Store(L"P:C");
    LogChangeCodes();
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ("P:C", M().GetStimulationOC().ToUtf8());
    EXPECT_EQ(42, M().GetActiveStimulationBeampathId());
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 32", "code 2", "A: SetActive(true)", "code 2", "code 1"));
    EXPECT_EQ(&BeampathDevice(42), M().GetActive());
}

TEST_F(UpdateInDatabaseMode, RestoresItBeforeThePreviousDeviceIsSwitchedOff)
{
    Simple(L"A");
    M().Update();
    Store(L"P:C");
    LogChangeCodes();
    ClearLogs();
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 32", "code 2", "A: SetActive(false)",
                                             "A: SetActive(true)", "code 2", "code 1"));
    Log().Clear();
    EXPECT_EQ(0, M().Update()); // it is the one already
    EXPECT_THAT(Log().Entries(), ElementsAre("A: SetActive(false)", "A: SetActive(true)", "code 2", "code 1"));
}

TEST_F(UpdateInDatabaseMode, WithoutAStoredOpticalConfigurationClearsTheOneThatTheHostSet)
{
    ASSERT_EQ(0, M().SetStimulationOC(L"P:C"));
    LogChangeCodes();
    EXPECT_EQ(-13, M().Update());
    EXPECT_TRUE(M().GetStimulationOC().IsEmpty());
    EXPECT_TRUE(M().GetActiveStimulationBeampathName().IsEmpty());
    EXPECT_EQ(-1, M().GetActiveStimulationBeampathId());
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 2", "code 1"));
}

TEST_F(UpdateInDatabaseMode, RestoresTheOpticalConfigurationOfTheSetupAndUser)
{
    Store(L"P:C");
    Store(L"Q:D", s_setup, s_otherUser);
    Store(L"P:E", s_otherSetup, s_user);
    M().Update();
    EXPECT_EQ("P:C", M().GetStimulationOC().ToUtf8());
    SelectUser(s_otherUser);
    M().Update();
    EXPECT_EQ("Q:D", M().GetStimulationOC().ToUtf8());
    EXPECT_EQ(43, M().GetActiveStimulationBeampathId());
}

TEST_F(UpdateInDatabaseMode, GoesOnWhenTheStoredOpticalConfigurationIsUnknown)
{
    CQsFakeDevice& device = Simple(L"A");
    ASSERT_EQ(0, M().SetStimulationOC(L"P:C"));
    Store(L"gone:C");
    EXPECT_EQ(0, M().Update());
    EXPECT_TRUE(M().GetStimulationOC().IsEmpty());
    EXPECT_EQ(1u, device.log.Count("SetActive(true)"));
}

TEST_F(UpdateInDatabaseMode, ClearsTheOpticalConfigurationWhenTheStoreFails)
{
    Simple(L"A");
    Store(L"P:C");
    ASSERT_EQ(0, M().SetStimulationOC(L"P:C"));
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        SCOPED_TRACE(static_cast<int>(stage));
        CQsDeviceDatabase::ClearReports();
        Fail(stage, L"DeviceDBAppHelper::LoadParam");
        EXPECT_EQ(0, M().Update());
        EXPECT_TRUE(M().GetStimulationOC().IsEmpty());
        EXPECT_EQ(-1, M().GetActiveStimulationBeampathId());
        const std::vector<SDatabaseReport> reports = CQsDeviceDatabase::Reports();
        if (stage != EStage::Connection)
        {
            ASSERT_EQ(1u, reports.size());
            EXPECT_EQ(L"DeviceDBAppHelper::LoadParam", reports[0].location);
            EXPECT_EQ(stage == EStage::Prepare, reports[0].bStructure);
        }
        FailNothing();
        M().Update();
        EXPECT_EQ("P:C", M().GetStimulationOC().ToUtf8());
    }
}

TEST_F(UpdateInDatabaseMode, KeepsTheActiveBeampathWhenItCannotBeLookedUp)
{
    Store(L"P:C");
    M().Update();
    Store(L"Q:C");
    Fail(EStage::Connection, L"CQsStimulationDeviceManager::SetStimulationOC");
    M().Update();
    EXPECT_EQ("Q:C", M().GetStimulationOC().ToUtf8());
    EXPECT_EQ(42, M().GetActiveStimulationBeampathId());
}

// ------------------------------------------------------------------------------------------------------ the beampaths

TEST_F(UpdateInDatabaseMode, MarksTheBeampathsAndDoesNotBuildThem)
{
    M().GetStimulationBeampathCount();
    ASSERT_FALSE(Access::AreBeampathsDirty(M()));
    Fail(EStage::Exec, L"CQsStimulationDeviceManager::UpdateStimulationBeampaths");
    M().Update();
    EXPECT_TRUE(Access::AreBeampathsDirty(M()));
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(UpdateInDatabaseMode, LetsTheBeampathsFindTheirDevices)
{
    Content().beampaths.clear();
    Off(51, "part");
    On(42, "P", "[51]");
    CScriptedDevice& device = Make<CScriptedDevice>(L"A");
    PutOn(51, device);
    Write();
    Aggregator& beampath = BeampathDevice(42);
    EXPECT_EQ(0, beampath.StimulationROIPrepare(1));
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
    M().Update();
    EXPECT_EQ(&beampath, &BeampathDevice(42));
    EXPECT_EQ(0, beampath.StimulationROIPrepare(2));
    EXPECT_THAT(device.log.Entries(), ElementsAre("SetActive(true)", "StimulationROIPrepare(2)"));
    EXPECT_EQ(4u, QsStandalone::ReferenceCount(&device));
}

// The sub-beampath keeps a device that went, so that nothing is called on an object that is no more.
TEST_F(UpdateInDatabaseMode, LeavesABeampathTheDeviceThatWentUntilThereIsAnother)
{
    Content().beampaths.clear();
    Off(51, "part");
    On(42, "P", "[51]");
    const std::uint32_t logDevId = NewLogicalDevice();
    PutLogicalDeviceOn(51, DatabaseId(logDevId));
    Write();
    auto alive = std::make_shared<std::atomic<int>>(1);
    auto device = Ref<CScriptedDevice>::Make(L"A");
    device->pAlive = alive;
    device->info.vecLogDevIds = {logDevId};
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(device.get()));
    M().Update();
    ASSERT_TRUE(HasBeampathDevice(42));
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(device.get()));
    M().Update();
    device = Ref<CScriptedDevice>();
    EXPECT_EQ(0, BeampathDevice(42).StimulationROIPrepare(1));
    EXPECT_EQ(1, *alive);
    CScriptedDevice& other = Simple<CScriptedDevice>(L"B");
    other.info.vecLogDevIds = {logDevId};
    M().Update();
    EXPECT_EQ(0, BeampathDevice(42).StimulationROIPrepare(2));
    EXPECT_EQ(0, *alive);
    EXPECT_EQ(1u, other.log.Count("StimulationROIPrepare(2)"));
}

TEST_F(UpdateInDatabaseMode, LeavesTheShuttersOfTheListOutAndKeepsThoseThatRegistered)
{
    Shutter(L"shutter");
    Simple(L"attached");
    M().Update();
    EXPECT_THAT(DeviceNames(), ElementsAre("attached"));
}

TEST_F(UpdateInDatabaseMode, AbortsTheStimulationOfTheActiveBeampathAndWaitsForItsEnd)
{
    Content().beampaths.clear();
    const Devices devices = MakeBeampath(2);
    ActivateBeampath();
    CFinish& finish = NewFinish();
    for (CScriptedDevice* const device : devices)
        device->bBeginBlocks = true;
    ASSERT_EQ(0, Start(finish, Phase(600000.0)));
    for (const CScriptedDevice* const device : devices)
        ASSERT_TRUE(device->log.WaitFor("StimulationBegin(2, 600000)"));
    LogChangeCodes();
    ClearLogs();
    // The wait before the abort is the update's, of five seconds.
    CHostCalls::ShortenWaits(5000);
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(1u, finish.Calls().size());
    const std::vector<std::string> entries = Log().Entries();
    const auto position = [&entries](const char* entry)
    { return std::find(entries.begin(), entries.end(), entry) - entries.begin(); };
    EXPECT_LT(position("A: StimulationAbort()"), position("A: StimulationEnd(1)"));
    EXPECT_LT(position("A: StimulationEnd(1)"), position("code 16"));
    EXPECT_LT(position("code 16"), position("code 64")); // nothing is stored, so no beampath is active any more
    EXPECT_LT(position("code 64"), position("A: SetActive(true)"));
    EXPECT_EQ("code 1", entries.back());
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
}

TEST_F(UpdateInDatabaseMode, KeepsTheReferencesOfTheMapAndOfTheBeampathsBalanced)
{
    Content().beampaths.clear();
    const Devices devices = MakeBeampath(2);
    const std::size_t objects = QsStandalone::LiveObjectCount();
    for (int i = 0; i < 3; ++i)
    {
        M().Update();
        BeampathDevice();
    }
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
    for (CScriptedDevice* const device : devices)
        EXPECT_EQ(4u, QsStandalone::ReferenceCount(device)); // test, registration, map, sub-beampath
}
