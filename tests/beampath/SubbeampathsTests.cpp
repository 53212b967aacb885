// Which sub-beampaths a beampath is made of, how a rebuild changes them, and the life of the objects that stand for
// them.
#include "tests/support/BeampathFixture.h"

#include <new>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

constexpr char s_proxyMade[] = "CQsStimulationDeviceProxy::CQsStimulationDeviceProxy - begin";
constexpr char s_proxyGone[] = "CQsStimulationDeviceProxy::~CQsStimulationDeviceProxy - end";
constexpr char s_setId[] = "CQsStimulationDeviceAggregator::SetStimulationBPId";
constexpr char s_update[] = "CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId";

const std::vector<std::string> s_registrations = {"RegisterConsumer", "RegisterEvent QS_MODULEEVENT_APP_BEFORESHUTDOWN",
                                                  "RegisterEvent QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE",
                                                  "RegisterEvent QS_MODULEEVENT_SAVE_SETTINGS"};
// The last event is registered for once more; the end of the consumer is what ends it.
const std::vector<std::string> s_unregistrations = {"UnregisterEvent QS_MODULEEVENT_APP_BEFORESHUTDOWN",
                                                    "UnregisterEvent QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE",
                                                    "RegisterEvent QS_MODULEEVENT_SAVE_SETTINGS", "UnregisterConsumer"};

std::size_t ProxiesMade()
{
    return BeampathTest::LineCount(s_proxyUnit, s_proxyMade);
}

std::size_t ProxiesGone()
{
    return BeampathTest::LineCount(s_proxyUnit, s_proxyGone);
}

} // namespace

class Subbeampaths : public BeampathTest
{
public:
    Subbeampaths() { M(); }

    // The sub-beampaths of a beampath 42 whose list in the database is `merged`.
    std::vector<qs_int32> IdsOf(std::optional<std::string> merged)
    {
        Content().beampaths.clear();
        On(s_beampath, "P", std::move(merged));
        Write();
        const auto beampath = MakeAggregator();
        EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
        return beampath->GetStimulationSubbeampathIds();
    }
};

// ------------------------------------------------------------------------------------------------------- the beampath

TEST_F(Subbeampaths, BelongToTheBeampathWhoseIdWasSet)
{
    On(s_beampath, "Pfad \xC3\xA4", "[51,52]");
    Write();
    const auto beampath = MakeAggregator();
    EXPECT_TRUE(beampath->GetUniqueName().IsEmpty());
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());
    EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_EQ(s_beampath, beampath->GetStimulationBPId());
    EXPECT_EQ(L"Pfad \u00E4", beampath->GetUniqueName());
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), ElementsAre(51, 52));
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(Subbeampaths, AreRefusedForAnIdThatTheDatabaseDoesNotHave)
{
    const auto beampath = MakeAggregator();
    ForgetLines();
    EXPECT_EQ(-9, beampath->SetStimulationBPId(77));
    EXPECT_EQ(77, beampath->GetStimulationBPId());
    EXPECT_THAT(
        Lines(s_aggregatorUnit),
        ElementsAre("CQsStimulationDeviceAggregator::SetStimulationBPId(77): Invalid Stimulation BP Id, aborting..."));
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(Subbeampaths, AreThoseOfTheReferenceValues)
{
    for (const Json* const vector : VectorsOf("merged ids"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const Json& input = Member(*vector, "input");
        ASSERT_EQ(s_beampath, Member(input, "own").GetInt());
        std::vector<qs_int32> expected;
        for (const Json& id : Member(*vector, "output").GetArray())
            expected.push_back(id.GetInt());
        const Json& text = Member(input, "text");
        EXPECT_THAT(IdsOf(text.IsNull() ? std::nullopt : std::optional<std::string>(text.GetString())),
                    ElementsAreArray(expected));
    }
}

TEST_F(Subbeampaths, AreTheBeampathItselfWithoutAList)
{
    for (const std::optional<std::string>& merged :
         {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("{}"),
          std::optional<std::string>("{\"a\":51}"), std::optional<std::string>("[51,"),
          std::optional<std::string>("51"), std::optional<std::string>("\"51\""), std::optional<std::string>("true")})
    {
        SCOPED_TRACE(merged.value_or("none"));
        EXPECT_THAT(IdsOf(merged), ElementsAre(s_beampath));
    }
}

// What is no whole number that fits counts as 0, which stands for no sub-beampath.
TEST_F(Subbeampaths, AreTheWholeNumbersOfTheList)
{
    EXPECT_THAT(IdsOf("[3,1,2]"), ElementsAre(1, 2, 3));
    EXPECT_THAT(IdsOf("[4.5]"), ElementsAre(0));
    EXPECT_THAT(IdsOf("[\"4\",51]"), ElementsAre(0, 51));
    EXPECT_THAT(IdsOf("[null,true,[],{}]"), ElementsAre(0));
    EXPECT_THAT(IdsOf("[2147483648]"), ElementsAre(0));
    EXPECT_THAT(IdsOf("[-3,2147483647]"), ElementsAre(-3, 2147483647));
    EXPECT_THAT(IdsOf(" [ 51 , 52 ] "), ElementsAre(51, 52));
}

TEST_F(Subbeampaths, AreReferredToOnceEachByTheirBeampath)
{
    CScriptedDevice& device = DeviceOn(51, L"A");
    Off(51, "part");
    On(s_beampath, "P", "[51]");
    Write();
    M().Update();
    const std::size_t objects = QsStandalone::LiveObjectCount();
    const unsigned references = QsStandalone::ReferenceCount(&device);
    {
        const auto beampath = MakeAggregator();
        ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
        EXPECT_EQ(objects + 2, QsStandalone::LiveObjectCount());
        EXPECT_EQ(references + 1, QsStandalone::ReferenceCount(&device));
        EXPECT_EQ(1u, QsStandalone::ReferenceCount(beampath.reference.get()));
    }
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
    EXPECT_EQ(references, QsStandalone::ReferenceCount(&device));
}

// ------------------------------------------------------------------------------------------------------- the rebuild

TEST_F(Subbeampaths, StayTheSameObjectsInARebuildThatChangesNothing)
{
    MakeBeampath(2);
    const std::size_t objects = QsStandalone::LiveObjectCount();
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(0u, ProxiesMade());
    EXPECT_EQ(0u, ProxiesGone());
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
}

TEST_F(Subbeampaths, ThatAreGoneAreReleasedAndKeepTheirPlace)
{
    const Devices devices = MakeBeampath(3);
    const std::size_t objects = QsStandalone::LiveObjectCount();
    SetMerged(s_beampath, "[51,53]");
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(objects - 1, QsStandalone::LiveObjectCount());
    EXPECT_EQ(1u, ProxiesGone());
    EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(51, 52, 53));
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(devices[1])); // the test's, the registration's and the device list's
    EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(1));
    EXPECT_EQ(1u, devices[0]->log.Count("StimulationROIPrepare(1)"));
    EXPECT_EQ(0u, devices[1]->log.Count("StimulationROIPrepare(1)"));
    EXPECT_EQ(1u, devices[2]->log.Count("StimulationROIPrepare(1)"));
}

TEST_F(Subbeampaths, ThatComeBackStayWithoutADevice)
{
    const Devices devices = MakeBeampath(2);
    SetMerged(s_beampath, "[51]");
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    SetMerged(s_beampath, "[51,52]");
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(0u, ProxiesMade());
    EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(51, 52));
    EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(1));
    EXPECT_EQ(0u, devices[1]->log.Count("StimulationROIPrepare(1)"));
}

TEST_F(Subbeampaths, ThatAreNewAreMadeAndTheOthersKept)
{
    const Devices devices = MakeBeampath(1);
    Change([](SDatabaseContent& content) { Row(content, s_beampath).merged = "[50,51]"; });
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(1u, ProxiesMade());
    EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(50, 51));
    EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(1));
    EXPECT_EQ(1u, devices[0]->log.Count("StimulationROIPrepare(1)"));
}

// Without its row a beampath has no sub-beampaths: not even itself.
TEST_F(Subbeampaths, AreNoneWithoutTheBeampathsRow)
{
    MakeBeampath(1);
    Aggregator& beampath = BeampathDevice();
    Change(
        [](SDatabaseContent& content)
        {
            SDatabaseContent::SBeampath& row = Row(content, s_beampath);
            content.beampaths.erase(content.beampaths.begin() + (&row - content.beampaths.data()));
        });
    EXPECT_EQ(0, beampath.UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_THAT(beampath.GetStimulationSubbeampathIds(), ElementsAre(51));
    EXPECT_EQ(1u, ProxiesGone());
}

TEST_F(Subbeampaths, AreLookedUpAnewWhenTheManagerTellsThatItsDevicesChanged)
{
    MakeBeampath(1);
    SetMerged(s_beampath, "[51,52]");
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
    EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(51, 52));
}

TEST_F(Subbeampaths, OfADeviceThatTheHostKnowsOnlyLaterAreForwardedFromThenOn)
{
    const Devices none = MakeBeampathOf({L""});
    ASSERT_EQ(nullptr, none[0]);
    CScriptedDevice& device = Make<CScriptedDevice>(L"A");
    PutOn(51, device);
    Write();
    EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(1));
    ASSERT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
    ASSERT_EQ(0, M().Update());
    EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(2)); // the lookup of the beampath rebuilds it
    EXPECT_EQ(1u, device.log.Count("StimulationROIPrepare(2)"));
    EXPECT_EQ(0u, device.log.Count("StimulationROIPrepare(1)"));
}

// ------------------------------------------------------------------------------------------------------- what fails

TEST_F(Subbeampaths, CannotBeReadWithoutADeviceDatabase)
{
    MakeBeampath(2);
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    CQsDeviceDatabase::Close();
    ASSERT_FALSE(DeviceDBApi::IsInitialized());
    EXPECT_EQ(-12, beampath->UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(-12, beampath->AvailableStimulationDevicesChanged());
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), ElementsAre(51, 52));
    std::string error;
    ASSERT_TRUE(CQsDeviceDatabase::Open(Database(), error)) << error;
}

TEST_F(Subbeampaths, CannotBeReadWithoutAManager)
{
    On(s_beampath, "P", "[51,52]");
    Write();
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    SetMerged(s_beampath, "[53]");
    Access::DeleteInstance();
    EXPECT_EQ(-9, beampath->UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), ElementsAre(51, 52));
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}

TEST_F(Subbeampaths, StayAsTheyAreWhileTheyCannotBeRead)
{
    using EStage = SDatabaseFault::EStage;
    const Devices devices = MakeBeampath(2);
    SetMerged(s_beampath, "[53]");
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        SCOPED_TRACE(static_cast<int>(stage));
        ForgetLines();
        Fail(stage, L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId");
        EXPECT_EQ(-9, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
        EXPECT_EQ(-9, BeampathDevice().AvailableStimulationDevicesChanged());
        EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(51, 52));
        EXPECT_EQ(0u, ProxiesMade());
        EXPECT_EQ(0u, ProxiesGone());
        EXPECT_EQ(0, BeampathDevice().StimulationROIPrepare(1));
        EXPECT_EQ(1u, devices[1]->log.Count("StimulationROIPrepare(1)"));
        devices[1]->log.Clear();
    }
    FailNothing();
    EXPECT_EQ(0, BeampathDevice().UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(51, 52, 53));
}

TEST_F(Subbeampaths, OfANewBeampathFailItWhenTheyCannotBeRead)
{
    using EStage = SDatabaseFault::EStage;
    On(s_beampath, "P", "[51]");
    Write();
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        const auto beampath = MakeAggregator();
        Fail(stage, L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId");
        EXPECT_EQ(-9, beampath->SetStimulationBPId(s_beampath));
        EXPECT_EQ(L"P", beampath->GetUniqueName());
        EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());
    }
}

TEST_F(Subbeampaths, OfANewBeampathAreNotReadWhenItsNameCannotBe)
{
    using EStage = SDatabaseFault::EStage;
    On(s_beampath, "P", "[51]");
    Write();
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        const auto beampath = MakeAggregator();
        ForgetLines();
        CQsDeviceDatabase::ClearReports();
        Fail(stage, L"CQsStimulationDeviceAggregator::SetStimulationBPId");
        EXPECT_EQ(-9, beampath->SetStimulationBPId(s_beampath));
        EXPECT_TRUE(beampath->GetUniqueName().IsEmpty());
        EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());
        // "Invalid ... Id" would blame the id for a database that does not answer.
        EXPECT_THAT(Lines(s_aggregatorUnit), IsEmpty());
        EXPECT_EQ(stage == EStage::Connection ? 0u : 1u, CQsDeviceDatabase::Reports().size());
    }
}

TEST_F(Subbeampaths, ThatCannotBeMadeHaveNoPlaceAndAreMadeWhenTheyCanBe)
{
    On(s_beampath, "P", "[51,52]");
    Write();
    const auto beampath = MakeAggregator();
    QsStandalone::RefuseClass("CQsStimulationDeviceProxy", true);
    ForgetLines();
    EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());
    EXPECT_THAT(Lines(s_aggregatorUnit), IsEmpty());
    EXPECT_THAT(beampath->GetStimulationGroupAssignments(), ElementsAre(-1, -1, -1));
    QsStandalone::RefuseClass("CQsStimulationDeviceProxy", false);

    QsStandalone::RefuseAllocation(true);
    EXPECT_EQ(0, beampath->UpdateAggregatedDevicesAccordingToBPId());
    QsStandalone::RefuseAllocation(false);
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());

    EXPECT_EQ(0, beampath->UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), ElementsAre(51, 52));
}

namespace {

IQsInterface* MakeForeign(const char* file, unsigned int line)
{
    return new (file, line) CQsFakeDevice(L"foreign");
}

// Another module's class of the same name, which no beampath can use, in the place of the module's own.
class CForeignClass
{
public:
    CForeignClass(CQsClassInfo& own, const char* name)
        : m_own(own), m_size(own.GetSize()), m_constructor(own.GetConstructor()), m_name(name)
    {
        m_own.~CQsClassInfo();
        Make(&m_own, &MakeForeign);
    }
    ~CForeignClass()
    {
        m_own.~CQsClassInfo();
        Make(&m_own, m_constructor);
    }

private:
    void Make(CQsClassInfo* place, QsClassConstructor constructor)
    {
        new (place) CQsClassInfo(m_name, "IQsStimulationDevice", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, nullptr, m_size, constructor);
    }

    CQsClassInfo& m_own;
    std::size_t m_size;
    QsClassConstructor m_constructor;
    const char* m_name;
};

} // namespace

TEST_F(Subbeampaths, ThatAreMadeOfAForeignClassAreGivenBack)
{
    On(s_beampath, "P", "[51]");
    Write();
    const auto beampath = MakeAggregator();
    const std::size_t objects = QsStandalone::LiveObjectCount();
    {
        const CForeignClass foreign(sm_classCQsStimulationDeviceProxy, "CQsStimulationDeviceProxy");
        EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    }
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), IsEmpty());
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
}

TEST_F(Subbeampaths, OfABeampathThatIsMadeOfAForeignClassAreNone)
{
    On(s_beampath, "P");
    Write();
    const std::size_t objects = QsStandalone::LiveObjectCount();
    {
        const CForeignClass foreign(sm_classCQsStimulationDeviceAggregator, "CQsStimulationDeviceAggregator");
        EXPECT_EQ(1u, M().GetStimulationBeampathCount());
    }
    EXPECT_FALSE(HasBeampathDevice(s_beampath));
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
}

// ------------------------------------------------------------------------------------------- the first rebuild of all

// A new beampath reads its sub-beampaths when it gets its id, and once more when the same rebuild tells everybody.
TEST_F(Subbeampaths, AreReadTwiceInTheRebuildThatMakesTheirBeampath)
{
    const std::string name = "Obtaining stimulation beampath name for proxy - exec";
    Off(51, "part");
    On(s_beampath, "P", "[51]");
    Write();
    Fail(SDatabaseFault::EStage::Exec, L"CQsStimulationDeviceProxy::SetStimulationSubbeampathId", "COALESCE");
    ASSERT_TRUE(HasBeampathDevice(s_beampath));
    const std::string report = Report("CQsStimulationDeviceProxy::SetStimulationSubbeampathId", name.c_str(), false);
    EXPECT_THAT(Reports(), ElementsAre(report, report));
}

TEST_F(Subbeampaths, AreReadOnceMoreWhenReadingThemFailedWhileEverybodyIsTold)
{
    const std::string report =
        Report(s_update, "Obtaining stimulation subbeampaths for beampath aggregator - exec", false);
    Off(51, "part");
    On(s_beampath, "P", "[51]");
    Write();
    // The first reading succeeds, the second and third fail.
    Fail(SDatabaseFault::EStage::Exec, L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId", {}, 1,
         2);
    ASSERT_TRUE(HasBeampathDevice(s_beampath));
    EXPECT_THAT(Reports(), ElementsAre(report, report));
    EXPECT_THAT(BeampathDevice().GetStimulationSubbeampathIds(), ElementsAre(51));
}

// --------------------------------------------------------------------------------------------------- registrations

TEST_F(Subbeampaths, AreSavedAtThreeEventsForWhichTheirBeampathRegisters)
{
    auto beampath = MakeAggregator();
    EXPECT_THAT(CHostCalls::Log().Entries(), ElementsAreArray(s_registrations));
    CHostCalls::Log().Clear();
    EXPECT_EQ(1u, CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS", 0, 0, nullptr));
    EXPECT_EQ(0u, CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS2", 0, 0, nullptr));
    beampath.reference.reset();
    EXPECT_THAT(CHostCalls::Log().Entries(), ElementsAreArray(s_unregistrations));
    for (const wchar_t* const event : {L"QS_MODULEEVENT_APP_BEFORESHUTDOWN", L"QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE",
                                       L"QS_MODULEEVENT_SAVE_SETTINGS"})
        EXPECT_EQ(0u, CQsPluginManager::AppRntm_HandleEvent(event, 0, 0, nullptr));
}

TEST_F(Subbeampaths, OfABeampathThatIsGoneAreNotReadAnyMore)
{
    On(s_beampath, "P", "[51]");
    Write();
    auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    beampath.reference.reset();
    Fail(SDatabaseFault::EStage::Exec, L"CQsStimulationDeviceAggregator::UpdateAggregatedDevicesAccordingToBPId");
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(Subbeampaths, OfABeampathThatFailedLeaveNoRegistrationBehind)
{
    On(s_beampath, "P", "[51]");
    Write();
    const std::size_t objects = QsStandalone::LiveObjectCount();
    Fail(SDatabaseFault::EStage::Exec, L"CQsStimulationDeviceAggregator::SetStimulationBPId");
    EXPECT_FALSE(HasBeampathDevice(s_beampath));
    EXPECT_THAT(Reports(), ElementsAre(Report(s_setId, "Obtaining stimulation BP name for id - exec", false)));
    EXPECT_EQ(objects, QsStandalone::LiveObjectCount());
    std::vector<std::string> expected = s_registrations;
    expected.insert(expected.end(), s_unregistrations.begin(), s_unregistrations.end());
    EXPECT_THAT(CHostCalls::Log().Entries(), ElementsAreArray(expected));
    EXPECT_EQ(0u, CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS", 0, 0, nullptr));
    EXPECT_EQ(0, M().NotifyStimulationDeviceManagerEventListeners());
}

TEST_F(Subbeampaths, OfABeampathMadeBeforeTheManagerAreReadWhenItHasOne)
{
    On(s_beampath, "P", "[51]");
    Write();
    Access::DeleteInstance();
    auto beampath = MakeAggregator();
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
    EXPECT_EQ(-9, beampath->SetStimulationBPId(s_beampath));
    M();
    EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), ElementsAre(51));
    Access::DeleteInstance();
    beampath.reference.reset(); // ends its registrations without a manager
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
}
