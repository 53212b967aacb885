// The optical configurations that the host chooses, and the stimulation beampath that follows from the one for
// stimulation.
#include "tests/support/BeampathFixture.h"

#include <future>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using EStage = SDatabaseFault::EStage;

constexpr wchar_t s_location[] = L"CQsStimulationDeviceManager::SetStimulationOC";
constexpr char s_invalid[] =
    "CQsStimulationDeviceManager::SetStimulationOC: Invalid stimulation OC Name, aborting stimulation...";
constexpr char s_databaseError[] =
    "CQsStimulationDeviceManager::SetStimulationOC: Unable to obtain active stimulation beampath ID from device database due to database error, aborting stimulation...";

std::string Unknown(const std::string& name, const std::string& beampath)
{
    return "CQsStimulationDeviceManager::SetStimulationOC: Unable to obtain active stimulation beampath ID from device database, invalid OC Name (" +
           name + ") or beampath name (" + beampath + "), aborting stimulation...";
}

} // namespace

class OpticalConfiguration : public BeampathTest
{
public:
    // P is beampath 42, Q is 43. The codes are logged and the log is empty.
    OpticalConfiguration()
    {
        On(42, "P");
        On(43, "Q");
        Write();
        M();
        LogChangeCodes();
    }

    // What the manager says of the stimulation's optical configuration.
    static void Expect(const char* name, const char* beampath, int id)
    {
        EXPECT_EQ(name, M().GetStimulationOC().ToUtf8());
        EXPECT_EQ(name, M().GetActiveStimulationOC().ToUtf8());
        EXPECT_EQ(beampath, M().GetActiveStimulationBeampathName().ToUtf8());
        EXPECT_EQ(id, M().GetActiveStimulationBeampathId());
    }
    // P:C is set and the log is empty.
    void SetP()
    {
        ASSERT_EQ(0, M().SetStimulationOC(L"P:C"));
        Log().Clear();
        ForgetLines();
    }
};

class OpticalConfigurationWithoutDatabase : public ManagerTest
{};

// ------------------------------------------------------------------------------------------------------- stimulation

TEST_F(OpticalConfigurationWithoutDatabase, CannotBeSet)
{
    LogChangeCodes();
    for (const wchar_t* const name : {L"P:C", L"X", L""})
    {
        EXPECT_EQ(-12, M().SetStimulationOC(name));
        EXPECT_TRUE(M().GetStimulationOC().IsEmpty());
        EXPECT_TRUE(M().GetActiveStimulationBeampathName().IsEmpty());
        EXPECT_EQ(-1, M().GetActiveStimulationBeampathId());
    }
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_THAT(DiagnosticTexts(), IsEmpty());
}

TEST_F(OpticalConfiguration, IsNoneAtFirst)
{
    Expect("", "", -1);
}

TEST_F(OpticalConfiguration, ActivatesTheBeampathThatItsNameBeginsWith)
{
    EXPECT_EQ(0, M().SetStimulationOC(L"P:C"));
    Expect("P:C", "P", 42);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 32", "code 2"));
    EXPECT_THAT(DiagnosticTexts(), IsEmpty());
    EXPECT_EQ(&BeampathDevice(42), M().GetActive());
}

TEST_F(OpticalConfiguration, FiresNothingWhenItIsSetAgain)
{
    SetP();
    EXPECT_EQ(0, M().SetStimulationOC(L"P:C"));
    EXPECT_THAT(Log().Entries(), IsEmpty());
    Expect("P:C", "P", 42);
}

TEST_F(OpticalConfiguration, FiresNoChangeOfTheBeampathForAnotherOnTheSame)
{
    SetP();
    EXPECT_EQ(0, M().SetStimulationOC(L"P:D"));
    Expect("P:D", "P", 42);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 32", "code 2"));
}

TEST_F(OpticalConfiguration, FiresTheChangeOfTheBeampathFirstForAnotherOnAnother)
{
    SetP();
    EXPECT_EQ(0, M().SetStimulationOC(L"Q:C"));
    Expect("Q:C", "Q", 43);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64", "code 32", "code 2"));
}

TEST_F(OpticalConfiguration, NamesItsBeampathUpToTheFirstColon)
{
    EXPECT_EQ(0, M().SetStimulationOC(L"P:C:D"));
    Expect("P:C:D", "P", 42);
    EXPECT_EQ(0, M().SetStimulationOC(L"P:"));
    Expect("P:", "P", 42);
}

TEST_F(OpticalConfiguration, WithoutAColonIsRefusedAndLeavesNone)
{
    SetP();
    EXPECT_EQ(-9, M().SetStimulationOC(L"X"));
    Expect("", "", -1);
    EXPECT_THAT(DiagnosticTexts(), ElementsAre(s_invalid));
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64")); // and neither 32 nor 2, although the text changed
    Log().Clear();
    EXPECT_EQ(-9, M().SetStimulationOC(L"X"));
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(OpticalConfiguration, ThatIsEmptyLeavesNoneAndSaysSoWithItsStatusAlone)
{
    SetP();
    EXPECT_EQ(-9, M().SetStimulationOC(L""));
    Expect("", "", -1);
    EXPECT_THAT(DiagnosticTexts(), IsEmpty());
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    Log().Clear();
    EXPECT_EQ(-9, M().SetStimulationOC(L""));
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(OpticalConfiguration, OfAnUnknownBeampathLeavesNoneAndNamesBoth)
{
    SetP();
    EXPECT_EQ(-9, M().SetStimulationOC(L"R:C"));
    Expect("", "", -1);
    EXPECT_THAT(DiagnosticTexts(), ElementsAre(Unknown("R:C", "R")));
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    ForgetLines();
    EXPECT_EQ(-9, M().SetStimulationOC(L":C"));
    Expect("", "", -1);
    EXPECT_THAT(DiagnosticTexts(), ElementsAre(Unknown(":C", "")));
}

TEST_F(OpticalConfiguration, OfABeampathOfAnotherKindOrSetupIsUnknown)
{
    Change(
        [](SDatabaseContent& content)
        {
            Row(content, 42).type = 1;
            Row(content, 43).setup = s_otherSetup;
        });
    EXPECT_EQ(-9, M().SetStimulationOC(L"P:C"));
    EXPECT_EQ(-9, M().SetStimulationOC(L"Q:C"));
    Expect("", "", -1);
    SelectSetup(s_otherSetup);
    EXPECT_EQ(0, M().SetStimulationOC(L"Q:C"));
    Expect("Q:C", "Q", 43);
}

TEST_F(OpticalConfiguration, OfANameThatRepeatsIsTheBeampathThatIsShownFirst)
{
    Change(
        [](SDatabaseContent& content)
        {
            Row(content, 42).order = 8;
            Row(content, 43).name = "P";
            Row(content, 43).order = 5;
        });
    EXPECT_EQ(0, M().SetStimulationOC(L"P:C"));
    Expect("P:C", "P", 43);
}

// It names a beampath of the setup, also one that is switched off in the present hardware configuration.
TEST_F(OpticalConfiguration, OfABeampathThatIsSwitchedOffActivatesNoDevice)
{
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_hwConfig, 42, 0}); });
    EXPECT_EQ(0, M().SetStimulationOC(L"P:C"));
    Expect("P:C", "P", 42);
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(-13, M().StimulationAbort());
}

TEST_F(OpticalConfiguration, ThatTheDatabaseCannotFindLeavesNone)
{
    for (const EStage stage : {EStage::Prepare, EStage::Exec})
    {
        SCOPED_TRACE(static_cast<int>(stage));
        FailNothing();
        SetP();
        Fail(stage, s_location);
        EXPECT_EQ(-9, M().SetStimulationOC(L"Q:C"));
        Expect("", "", -1);
        EXPECT_THAT(DiagnosticTexts(), ElementsAre(s_databaseError));
        EXPECT_THAT(Log().Entries(), ElementsAre("code 64"));
    }
}

// The new name and the old beampath stand beside each other until the database is back.
TEST_F(OpticalConfiguration, WithoutAConnectionKeepsTheBeampathThatWasActive)
{
    SetP();
    Fail(EStage::Connection, s_location);
    EXPECT_EQ(0, M().SetStimulationOC(L"Q:C"));
    Expect("Q:C", "Q", 42);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 32", "code 2"));
    EXPECT_THAT(DiagnosticTexts(), IsEmpty());
    FailNothing();
    Log().Clear();
    EXPECT_EQ(0, M().SetStimulationOC(L"Q:C"));
    Expect("Q:C", "Q", 43);
    EXPECT_THAT(Log().Entries(), ElementsAre("code 64")); // the name is the one that it was
}

TEST_F(OpticalConfiguration, TakesTextOutsideTheBasicPlane)
{
    Change([](SDatabaseContent& content) { Row(content, 42).name = "\xF0\x9F\x94\xAC\xC3\xA4"; });
    EXPECT_EQ(0, M().SetStimulationOC(CQsStringW::FromUtf8("\xF0\x9F\x94\xAC\xC3\xA4:C")));
    Expect("\xF0\x9F\x94\xAC\xC3\xA4:C", "\xF0\x9F\x94\xAC\xC3\xA4", 42);
}

TEST_F(OpticalConfiguration, IsNotReadAsAStatement)
{
    EXPECT_EQ(-9, M().SetStimulationOC(L"P' OR '1'='1:C"));
    EXPECT_EQ(-9, M().SetStimulationOC(L"%s%n:C"));
    Expect("", "", -1);
    EXPECT_EQ(1u, LineCount(L"StimulationManager", Unknown("%s%n:C", "%s%n")));
}

// A function that is told of the change asks the manager on another thread, as a user interface does.
TEST_F(OpticalConfiguration, IsToldToFunctionsThatWaitForOtherThreads)
{
    CWatchdog watchdog("a function that is told of an optical configuration");
    static std::vector<std::string> s_seen;
    s_seen.clear();
    const Manager::ChangeCallback asking = [](unsigned code)
    {
        if (code == 4)
            return;
        s_seen.push_back(std::async(std::launch::async,
                                    []
                                    {
                                        const bool bDevice = M().GetActive() != nullptr;
                                        return M().GetStimulationOC().ToUtf8() + (bDevice ? "+" : "-");
                                    })
                             .get());
    };
    M().AddCallbackForChange(asking);
    EXPECT_EQ(0, M().SetStimulationOC(L"P:C"));
    EXPECT_THAT(s_seen, ElementsAre("P:C+", "P:C+", "P:C+"));
    M().RemoveCallbackForChange(asking);
}

TEST_F(OpticalConfiguration, MayBeSetBesideAnUpdateAndFunctionsThatAskBack)
{
    CWatchdog watchdog("an optical configuration beside an update");
    Simple(L"A");
    const Manager::ChangeCallback asking = [](unsigned)
    {
        M().GetActive();
        M().GetActiveStimulationBeampathId();
    };
    M().AddCallbackForChange(asking);
    std::atomic<bool> bDone{false};
    std::thread setting(
        [&bDone]
        {
            for (unsigned i = 0; !bDone; ++i)
                EXPECT_EQ(0, M().SetStimulationOC(i % 2 == 0 ? L"P:C" : L"Q:C"));
        });
    for (int i = 0; i < 100; ++i)
    {
        M().Update();
        watchdog.Step();
    }
    bDone = true;
    setting.join();
    M().RemoveCallbackForChange(asking);
}

// ---------------------------------------------------------------------------------------------------- system, backup

TEST_F(OpticalConfiguration, OfTheSystemIsKeptAndNotLookedUp)
{
    EXPECT_TRUE(M().GetSystemActiveStimulationOC().IsEmpty());
    EXPECT_EQ(-1, M().GetSystemActiveStimulationBPId());
    Fail(EStage::Exec, L"");
    EXPECT_EQ(0, M().SetSystemActiveStimulationOC(L"P:C"));
    EXPECT_EQ("P:C", M().GetSystemActiveStimulationOC().ToUtf8());
    EXPECT_EQ(-1, M().GetSystemActiveStimulationBPId());
    EXPECT_EQ(0, M().SetSystemActiveStimulationOC(L"no colon"));
    EXPECT_EQ("no colon", M().GetSystemActiveStimulationOC().ToUtf8());
    EXPECT_EQ(-9, M().SetSystemActiveStimulationOC(L""));
    EXPECT_TRUE(M().GetSystemActiveStimulationOC().IsEmpty());
    EXPECT_EQ(-1, M().GetSystemActiveStimulationBPId());
    EXPECT_THAT(Reports(), IsEmpty());
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_THAT(DiagnosticTexts(), IsEmpty());
    Expect("", "", -1);
}

TEST_F(OpticalConfigurationWithoutDatabase, OfTheSystemIsKept)
{
    EXPECT_EQ(0, M().SetSystemActiveStimulationOC(L"P:C"));
    EXPECT_EQ("P:C", M().GetSystemActiveStimulationOC().ToUtf8());
    EXPECT_EQ(-9, M().SetSystemActiveStimulationOC(L""));
}

TEST_F(OpticalConfiguration, ForABackupIsKeptAndDoesNothing)
{
    EXPECT_TRUE(M().GetBackupSystemOC().IsEmpty());
    M().SetBackupSystemOC(L"any text");
    EXPECT_EQ("any text", M().GetBackupSystemOC().ToUtf8());
    EXPECT_THAT(Log().Entries(), IsEmpty());
    Expect("", "", -1);
    M().SetBackupSystemOC(L"");
    EXPECT_TRUE(M().GetBackupSystemOC().IsEmpty());
}
