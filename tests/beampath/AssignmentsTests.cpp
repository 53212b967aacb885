// Which sub-beampath serves which stimulation group: what is restored, what is saved, and when.
#include "tests/support/BeampathFixture.h"

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

constexpr wchar_t s_key[] = L"CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_42";
constexpr qs_int32 s_notStored = -13;

} // namespace

class Assignments : public BeampathTest
{
public:
    // Beampath 42 of the sub-beampaths 5 and 9.
    Assignments()
    {
        On(s_beampath, "P", "[5,9]");
        Write();
        M();
    }

    static int Store(const std::string& text, qs_int32 setup = s_setup, qs_int32 user = s_user)
    {
        return DeviceDBAppHelper::SaveParam(s_key, CQsStringW::FromUtf8(text), setup, user);
    }
    // What is stored; "none" where nothing is.
    static std::string Stored(qs_int32 setup = s_setup, qs_int32 user = s_user)
    {
        CQsStringW text;
        const int status = DeviceDBAppHelper::LoadParam(s_key, text, nullptr, setup, user);
        return status == s_notStored ? "none" : text.ToUtf8();
    }
    static std::vector<qs_int32> Restored()
    {
        const auto beampath = MakeAggregator();
        EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
        return Of(*beampath);
    }
    static std::vector<qs_int32> Of(Aggregator& beampath)
    {
        const auto groups = beampath.GetStimulationGroupAssignments();
        return {groups.begin(), groups.end()};
    }
};

// -------------------------------------------------------------------------------------------------------- restoring

TEST_F(Assignments, AreUnsetBeforeTheBeampathIsKnown)
{
    EXPECT_THAT(Of(*MakeAggregator()), ElementsAre(-1, -1, -1));
}

TEST_F(Assignments, AreTheLowestSubbeampathWhereNothingIsStored)
{
    EXPECT_THAT(Restored(), ElementsAre(5, 5, 5));
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(Assignments, AreRestoredAsTheReferenceValuesSay)
{
    for (const Json* const vector : VectorsOf("group assignments"))
    {
        SCOPED_TRACE(Member(*vector, "id").GetString());
        const Json& input = Member(*vector, "input");
        std::vector<qs_int32> keys;
        for (const Json& key : Member(input, "keys").GetArray())
            keys.push_back(key.GetInt());
        ASSERT_THAT(keys, ElementsAre(5, 9));
        std::vector<qs_int32> expected;
        for (const Json& id : Member(*vector, "output").GetArray())
            expected.push_back(id.GetInt());
        ASSERT_EQ(0, Store(Member(input, "text").GetString()));
        EXPECT_THAT(Restored(), ElementsAreArray(expected));
    }
}

TEST_F(Assignments, KeepTheLowestSubbeampathWhereTheStoredTextNamesNone)
{
    const std::vector<std::pair<std::string, std::vector<qs_int32>>> cases = {
        {"[]", {5, 5, 5}},          {"[9]", {9, 5, 5}},        {"[null,9]", {5, 9, 5}}, {"[\"9\",9,9]", {5, 9, 9}},
        {"[7,7,9,7,9]", {5, 5, 9}}, {"{\"0\":9}", {5, 5, 5}},  {"[9,", {5, 5, 5}},      {"9", {5, 5, 5}},
        {"[[9],9,9]", {5, 9, 9}},   {"[-9,9.0,90]", {5, 9, 5}}};
    for (const auto& [text, expected] : cases)
    {
        SCOPED_TRACE(text);
        ASSERT_EQ(0, Store(text));
        EXPECT_THAT(Restored(), ElementsAreArray(expected));
    }
}

TEST_F(Assignments, BelongToASetupAndAUser)
{
    ASSERT_EQ(0, Store("[9,9,9]", s_setup, s_otherUser));
    ASSERT_EQ(0, Store("[5,9,9]", s_otherSetup, s_user));
    EXPECT_THAT(Restored(), ElementsAre(5, 5, 5));
    SelectUser(s_otherUser);
    EXPECT_THAT(Restored(), ElementsAre(9, 9, 9));
}

TEST_F(Assignments, FollowTheUserWithTheNextRebuild)
{
    ASSERT_EQ(0, Store("[9,9,9]", s_setup, s_otherUser));
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    SelectUser(s_otherUser);
    EXPECT_THAT(Of(*beampath), ElementsAre(5, 5, 5));
    EXPECT_EQ(0, beampath->UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_THAT(Of(*beampath), ElementsAre(9, 9, 9));
}

TEST_F(Assignments, ThatWereNotSavedAreLostWithARebuild)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    ASSERT_EQ(0, beampath->SetStimulationGroupAssignment(1, 9));
    EXPECT_EQ(0, beampath->UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_THAT(Of(*beampath), ElementsAre(5, 5, 5));
}

TEST_F(Assignments, AreTheLowestSubbeampathWhereTheStoreFails)
{
    ASSERT_EQ(0, Store("[9,9,9]"));
    const auto beampath = MakeAggregator();
    Fail(SDatabaseFault::EStage::Exec, L"DeviceDBAppHelper::LoadParam");
    EXPECT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    FailNothing();
    EXPECT_EQ(1u, CQsDeviceDatabase::Reports().size());
    EXPECT_THAT(beampath->GetStimulationSubbeampathIds(), ElementsAre(5, 9));
    EXPECT_THAT(Of(*beampath), ElementsAre(5, 5, 5));
}

// ---------------------------------------------------------------------------------------------------------- changing

TEST_F(Assignments, AreChangedGroupByGroup)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_EQ(0, beampath->SetStimulationGroupAssignment(0, 9));
    EXPECT_EQ(0, beampath->SetStimulationGroupAssignment(2, 9));
    EXPECT_THAT(Of(*beampath), ElementsAre(9, 5, 9));
    EXPECT_EQ(0, beampath->SetStimulationGroupAssignment(0, 5));
    EXPECT_THAT(Of(*beampath), ElementsAre(5, 5, 9));
}

TEST_F(Assignments, OfAnotherGroupOrToAStrangersSubbeampathAreRefused)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_EQ(-9, beampath->SetStimulationGroupAssignment(3, 9));
    EXPECT_EQ(-9, beampath->SetStimulationGroupAssignment(0xFFFFFFFFu, 9));
    EXPECT_EQ(-9, beampath->SetStimulationGroupAssignment(0, 7));
    EXPECT_EQ(-9, beampath->SetStimulationGroupAssignment(0, s_beampath));
    EXPECT_THAT(Of(*beampath), ElementsAre(5, 5, 5));
}

// ------------------------------------------------------------------------------------------------------------ saving

TEST_F(Assignments, AreSavedAsACompactList)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_EQ(0, beampath->SaveStimulationGroupDeviceAssignments());
    EXPECT_EQ("[5,5,5]", Stored());
    ASSERT_EQ(0, beampath->SetStimulationGroupAssignment(1, 9));
    EXPECT_EQ(0, beampath->SaveStimulationGroupDeviceAssignments());
    EXPECT_EQ("[5,9,5]", Stored());
    EXPECT_THAT(Restored(), ElementsAre(5, 9, 5));
}

TEST_F(Assignments, AreSavedForTheCurrentSetupAndUserAlone)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    SelectUser(s_otherUser);
    EXPECT_EQ(0, beampath->SaveStimulationGroupDeviceAssignments());
    EXPECT_EQ("[5,5,5]", Stored(s_setup, s_otherUser));
    EXPECT_EQ("none", Stored(s_setup, s_user));
    EXPECT_EQ("none", Stored(s_otherSetup, s_otherUser));
}

TEST_F(Assignments, AreNotSavedWhereThereIsNothingToChoose)
{
    SetMerged(s_beampath, "[5]");
    const auto beampath = MakeAggregator();
    EXPECT_EQ(0, beampath->SaveStimulationGroupDeviceAssignments()); // without sub-beampaths
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    EXPECT_EQ(0, beampath->SaveStimulationGroupDeviceAssignments());
    EXPECT_EQ("none", Stored());
}

TEST_F(Assignments, AreSavedWhereAPlaceIsWithoutADevice)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    SetMerged(s_beampath, "[5]");
    ASSERT_EQ(0, beampath->UpdateAggregatedDevicesAccordingToBPId());
    EXPECT_EQ(0, beampath->SaveStimulationGroupDeviceAssignments());
    EXPECT_EQ("[5,5,5]", Stored());
}

TEST_F(Assignments, GiveTheStoresStatusWhenTheyCannotBeSaved)
{
    using EStage = SDatabaseFault::EStage;
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    ASSERT_EQ(0, Store("[9,9,9]"));
    for (const EStage stage : {EStage::Connection, EStage::Prepare, EStage::Exec})
    {
        SCOPED_TRACE(static_cast<int>(stage));
        CQsDeviceDatabase::ClearReports();
        Fail(stage, L"");
        EXPECT_EQ(-9, beampath->SaveStimulationGroupDeviceAssignments());
        FailNothing();
        EXPECT_EQ("[9,9,9]", Stored()); // what was stored is still there
        const std::vector<SDatabaseReport> reports = CQsDeviceDatabase::Reports();
        if (stage == EStage::Connection)
            continue;
        ASSERT_EQ(1u, reports.size());
        EXPECT_EQ(L"DeviceDBAppHelper::SaveParam", reports[0].location);
        EXPECT_FALSE(reports[0].text.IsEmpty());
        EXPECT_EQ(stage == EStage::Prepare, reports[0].bStructure);
    }
}

TEST_F(Assignments, AreSavedAtTheThreeEventsAndAtNoOther)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    unsigned group = 0;
    for (const wchar_t* const event : {L"QS_MODULEEVENT_APP_BEFORESHUTDOWN", L"QS_MODULEEVENT_DMV2_BEFORE_SETUP_CHANGE",
                                       L"QS_MODULEEVENT_SAVE_SETTINGS"})
    {
        ASSERT_EQ(0, beampath->SetStimulationGroupAssignment(group++, 9));
        EXPECT_EQ(1u, CQsPluginManager::AppRntm_HandleEvent(event, 1, 2, nullptr));
        EXPECT_EQ(group == 1 ? "[9,5,5]" : group == 2 ? "[9,9,5]" : "[9,9,9]", Stored());
    }

    ASSERT_EQ(0, Store("[5,5,5]"));
    int context = 0;
    for (const wchar_t* const event :
         {L"", L"QS_MODULEEVENT_APP_BEFORESHUTDOWN2", L"qs_moduleevent_save_settings", L"QS_MODULEEVENT_SAVE"})
        EXPECT_EQ(0u, beampath->AppRntm_HandleEvent(event, &context));
    EXPECT_EQ("[5,5,5]", Stored());
    EXPECT_EQ(0u, beampath->AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS", nullptr));
    EXPECT_EQ("[9,9,9]", Stored());
}

TEST_F(Assignments, AnswerAnEventTheSameWhenTheyCannotBeSaved)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    Fail(SDatabaseFault::EStage::Exec, L"");
    EXPECT_EQ(0u, beampath->AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS", nullptr));
    FailNothing();
    EXPECT_EQ("none", Stored());
}

TEST_F(Assignments, OfTheOldSetupAreSavedWhenTheSetupChanges)
{
    const auto beampath = MakeAggregator();
    ASSERT_EQ(0, beampath->SetStimulationBPId(s_beampath));
    ASSERT_EQ(0, beampath->SetStimulationGroupAssignment(2, 9));
    SelectSetup(s_otherSetup);
    EXPECT_EQ("[5,5,9]", Stored(s_setup));
    EXPECT_EQ("none", Stored(s_otherSetup));
}

TEST_F(Assignments, ComeBackWithTheNextManager)
{
    M().SetStimulationBeampathsDirty();
    ASSERT_EQ(0, BeampathDevice().SetStimulationGroupAssignment(1, 9));
    CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_APP_BEFORESHUTDOWN", 0, 0, nullptr);
    SelectHWConfig(s_otherHWConfig);
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_otherHWConfig, s_beampath, 0}); });
    M().SetStimulationBeampathsDirty();
    ASSERT_FALSE(HasBeampathDevice(s_beampath)); // switched off, and the beampath's device gone
    Access::DeleteInstance();
    SelectHWConfig(s_hwConfig);
    EXPECT_THAT(Of(BeampathDevice()), ElementsAre(5, 9, 5));
}

// ------------------------------------------------------------------------------------------------- what they do not do

TEST_F(Assignments, DoNotChooseWhichDevicesStimulate)
{
    Content().beampaths.clear();
    const Devices devices = MakeBeampath(2);
    Aggregator& beampath = BeampathDevice();
    for (const unsigned group : {0u, 1u, 2u})
        ASSERT_EQ(0, beampath.SetStimulationGroupAssignment(group, 51));
    for (const unsigned groups : {1u, 2u, 4u, 5u, 7u})
    {
        EXPECT_EQ(0, beampath.StimulationBegin(OfKind(1, 0.0, groups)));
        for (const CScriptedDevice* const device : devices)
            EXPECT_EQ(groups, device->LastRequest().uiGroupMask);
        EXPECT_EQ(0, beampath.StimulationEnd(nullptr, nullptr, 0));
    }
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(5u, device->log.Count("StimulationBegin(1, 0)"));
}
