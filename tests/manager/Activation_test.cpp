// The active device, and the point scanner's device.
#include "tests/manager/ManagerTest.h"

#include <fstream>
#include <iterator>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr const char* s_textBegin = "CQsStimulationDeviceManager::SetActive(%s, %s) - begin";
constexpr const char* s_textTimeout = "CQsStimulationDeviceManager::SetActive(%s, %s) - premature end, timeout when "
                                      "waiting for stimulation end, QS_ERR_FAIL";
constexpr const char* s_textAlreadyActive = "CQsStimulationDeviceManager::SetActive(%s, %s) - premature end, "
                                            "stimulation device already active, QS_OK";
constexpr const char* s_textUnknown = "CQsStimulationDeviceManager::SetActive(%s, %s) - premature end, could not find "
                                      "stimulation device in map, QS_ERR_FAIL";
constexpr const char* s_textEnd = "CQsStimulationDeviceManager::SetActive(%s, %s) - end, QS_OK";

// The text with its two places filled in.
std::string Text(std::string text, const std::string& name, const std::string& fromMru)
{
    text.replace(text.find("%s"), 2, name);
    text.replace(text.find("%s"), 2, fromMru);
    return text;
}

} // namespace

class Activation : public ManagerTest
{
public:
    std::vector<std::string> TextsOf(const std::function<void()>& call)
    {
        const std::size_t before = DiagnosticTexts().size();
        call();
        std::vector<std::string> texts = DiagnosticTexts();
        texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(before));
        return texts;
    }
};
class ActivationOnDatabase : public DatabaseManagerTest
{
public:
    // An active entry, without a beampath.
    CQsFakeDevice& Entry(const wchar_t* name)
    {
        CQsFakeDevice& device = Simple(name);
        M().Update();
        EXPECT_EQ(0, M().SetActive(name, false));
        return device;
    }
    CQsFakeDevice& Beampath(int id)
    {
        CQsFakeDevice& device = Make(L"beampath");
        Access::SetBeampathDevices(M(), {{id, &device}});
        Access::SetActiveBeampathId(M(), id);
        return device;
    }
};

TEST_F(Activation, SwitchesTheOldDeviceOffBeforeItSwitchesTheNewOneOn)
{
    Simple(L"B");
    CQsFakeDevice& a = Active(L"A");
    LogChangeCodes();
    EXPECT_EQ(0, M().SetActive(L"B", false));
    EXPECT_THAT(Log().Entries(), ElementsAre("A: SetActive(false)", "B: SetActive(true)", "code 2"));
    EXPECT_FALSE(Info(L"A").bActive);
    EXPECT_TRUE(Info(L"B").bActive);
    EXPECT_NE(&a, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"B", L"A", s_v4Name, s_hx4Name));
}

TEST_F(Activation, IgnoresWhatTheDevicesAnswer)
{
    Simple(L"B").iSetActiveResult = -7;
    Active(L"A").iSetActiveResult = -7;
    EXPECT_EQ(0, M().SetActive(L"B", false));
    EXPECT_TRUE(Info(L"B").bActive);
}

TEST_F(Activation, OfAnUnknownNameLeavesTheOldDeviceActiveAndFiresNothing)
{
    CQsFakeDevice& a = Active(L"A");
    LogChangeCodes();
    const auto before = Mru();
    EXPECT_EQ(-9, M().SetActive(L"nobody", false));
    EXPECT_EQ(-9, M().SetActive(L"a", false));
    EXPECT_EQ(&a, M().GetActive());
    EXPECT_TRUE(Info(L"A").bActive);
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_EQ(before, Mru());
}

TEST_F(Activation, OfTheActiveDeviceDoesNothing)
{
    Simple(L"B");
    Active(L"A");
    Access::SetMru(M(), {L"B", L"A"});
    LogChangeCodes();
    EXPECT_EQ(0, M().SetActive(L"A", false));
    EXPECT_THAT(Log().Entries(), IsEmpty());
    EXPECT_THAT(Mru(), ElementsAre(L"B", L"A"));
}

TEST_F(Activation, FromTheRecentlyUsedListLeavesTheListAsItIs)
{
    Simple(L"B");
    Active(L"A");
    Access::SetMru(M(), {L"A", L"B"});
    EXPECT_EQ(0, M().SetActive(L"B", true));
    EXPECT_THAT(Mru(), ElementsAre(L"A", L"B"));
}

TEST_F(Activation, LogsTheReferenceTexts)
{
    std::ifstream stream(QS_VECTORS, std::ios::binary);
    const std::string reference{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    for (const char* const text : {s_textBegin, s_textTimeout, s_textAlreadyActive, s_textUnknown, s_textEnd})
        EXPECT_THAT(reference, ::testing::HasSubstr('"' + std::string(text) + '"'));
}

TEST_F(Activation, LogsItsBeginAndOneEnd)
{
    Active(L"A");
    Simple(L"B");
    M().Update();
    EXPECT_THAT(TextsOf([] { M().SetActive(L"B", false); }),
                ElementsAre(Text(s_textBegin, "B", "false"), Text(s_textEnd, "B", "false")));
    EXPECT_THAT(TextsOf([] { M().SetActive(L"B", true); }),
                ElementsAre(Text(s_textBegin, "B", "true"), Text(s_textAlreadyActive, "B", "true")));
    EXPECT_THAT(TextsOf([] { M().SetActive(L"nobody", true); }),
                ElementsAre(Text(s_textBegin, "nobody", "true"), Text(s_textUnknown, "nobody", "true")));
    EXPECT_THAT(TextsOf([] { M().SetActive(L"A", true); }),
                ElementsAre(Text(s_textBegin, "A", "true"), Text(s_textEnd, "A", "true")));
}

TEST_F(Activation, WaitsForARunningStimulationBeforeItLooksAtAnythingAndDoesNotAbortIt)
{
    CProbeDevice& a = Active<CProbeDevice>(L"A");
    Simple(L"B");
    M().Update();
    a.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(a.log.WaitFor("StimulationBegin(2, 1)"));

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(TextsOf([] { EXPECT_EQ(-9, M().SetActive(L"B", false)); }),
                ElementsAre(Text(s_textBegin, "B", "false"), Text(s_textTimeout, "B", "false")));
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(1990));
    EXPECT_LT(took, s_patience);
    // Also for the device that is active already.
    EXPECT_THAT(TextsOf([] { EXPECT_EQ(-9, M().SetActive(L"A", true)); }),
                ElementsAre(Text(s_textBegin, "A", "true"), Text(s_textTimeout, "A", "true")));

    EXPECT_EQ(&a, M().GetActive());
    EXPECT_EQ(0u, a.log.Count("StimulationAbort()"));
    EXPECT_THAT(finish.Calls(), IsEmpty());
}

TEST_F(Activation, GoesOnWhenTheStimulationEndsInTime)
{
    CProbeDevice& a = Active<CProbeDevice>(L"A");
    Simple(L"B");
    M().Update();
    a.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(a.log.WaitFor("StimulationBegin(2, 1)"));
    std::thread release([&a] { a.ReleaseBegin(); });
    EXPECT_EQ(0, M().SetActive(L"B", false));
    EXPECT_EQ(1u, finish.Calls().size());
    EXPECT_EQ(0u, a.log.Count("StimulationAbort()"));
    release.join();
}

TEST_F(Activation, TakesANameThatItThrowsAwayItself)
{
    Simple(L"B");
    Simple(L"C");
    Active(L"A");
    Access::SetMru(M(), {L"C", L"B"});
    // A caller's text may be the very text that moves to the front of the list, or the name in the map.
    const CQsStringW name = Info(L"B").sName;
    EXPECT_EQ(0, M().SetActive(name.c_str(), false));
    EXPECT_THAT(Mru(), ElementsAre(L"B", L"C"));
}

TEST_F(Activation, LetsACallbackActivateAnotherDevice)
{
    CQsFakeDevice& b = Simple(L"B");
    CQsFakeDevice& c = Simple(L"C");
    Active(L"A");
    CWatchdog watchdog("an activation from a callback");
    M().AddCallbackForChange([](unsigned) { M().SetActive(L"C", false); });
    EXPECT_EQ(0, M().SetActive(L"B", false));
    EXPECT_EQ(&c, M().GetActive());
    EXPECT_THAT(b.log.Entries(), ElementsAre("SetActive(true)", "SetActive(false)"));
    EXPECT_EQ(L"C", Access::MruGet(M(), 0));
}

TEST_F(Activation, DescribesTheActiveDevice)
{
    Manager::SQsInfo info;
    info.sName = L"untouched";
    info.bActive = true;
    EXPECT_EQ(nullptr, M().GetActive(info));
    EXPECT_EQ(L"untouched", info.sName);
    EXPECT_TRUE(info.bActive);

    CQsFakeDevice& a = Simple(L"A");
    a.sDisplayName = L"Laser";
    a.bVisible = false;
    M().Update();
    EXPECT_EQ(&a, M().GetActive(info));
    EXPECT_EQ(L"A", info.sName);
    EXPECT_EQ(L"Laser", info.sDisplayName);
    EXPECT_TRUE(info.bActive);
    EXPECT_FALSE(info.bVisible);
}

// ------------------------------------------------------------------------------------ entry and device of the beampath

TEST_F(ActivationOnDatabase, GivesNoDeviceWithoutEntryAndBeampath)
{
    Manager::SQsInfo info;
    info.sName = L"untouched";
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(nullptr, M().GetActive(info));
    EXPECT_EQ(L"untouched", info.sName);
}

TEST_F(ActivationOnDatabase, GivesTheEntrysDeviceWithItsDescriptionOnlyWithoutABeampath)
{
    CQsFakeDevice& entry = Entry(L"A");
    Manager::SQsInfo info;
    EXPECT_EQ(nullptr, M().GetActive());
    EXPECT_EQ(&entry, M().GetActive(info));
    EXPECT_EQ(L"A", info.sName);
}

TEST_F(ActivationOnDatabase, GivesTheBeampathsDeviceWithoutADescriptionWhenThereIsNoEntry)
{
    CQsFakeDevice& beampath = Beampath(4);
    Manager::SQsInfo info;
    info.sName = L"untouched";
    EXPECT_EQ(&beampath, M().GetActive());
    EXPECT_EQ(nullptr, M().GetActive(info));
    EXPECT_EQ(L"untouched", info.sName);
}

TEST_F(ActivationOnDatabase, GivesTheBeampathsDeviceWithTheDescriptionOfTheEntry)
{
    Entry(L"A");
    CQsFakeDevice& beampath = Beampath(4);
    Manager::SQsInfo info;
    EXPECT_EQ(&beampath, M().GetActive());
    EXPECT_EQ(&beampath, M().GetActive(info));
    EXPECT_EQ(L"A", info.sName);
    Access::SetActiveBeampathId(M(), 5); // a beampath without a device
    EXPECT_EQ(nullptr, M().GetActive());
}

TEST_F(Activation, KnowsNoBeampathsOutsideTheDeviceDatabase)
{
    CQsFakeDevice& a = Active(L"A");
    CQsFakeDevice& beampath = Make(L"beampath");
    Access::SetBeampathDevices(M(), {{4, &beampath}});
    Access::SetActiveBeampathId(M(), 4);
    EXPECT_EQ(&a, M().GetActive());
    Manager::SQsInfo info;
    EXPECT_EQ(&a, M().GetActive(info));
    Access::SetBeampathDevices(M(), {});
}

// ----------------------------------------------------------------------------------------- the point scanner's device

TEST_F(Activation, OfThePointScannerNeedsItsDevice)
{
    Active(L"A");
    EXPECT_EQ(nullptr, M().GetV4Device());
    EXPECT_FALSE(M().IsV4Active());
    EXPECT_EQ(-9, M().SetActiveV4(true));
    EXPECT_FALSE(M().IsV4Active());
}

TEST_F(Activation, OfThePointScannerSwitchesToItAndEntersItInTheList)
{
    CQsFakeDevice& v4 = Simple(s_v4Name);
    Active(L"A");
    Access::SetMru(M(), {L"A"});
    EXPECT_EQ(&v4, M().GetV4Device());
    EXPECT_FALSE(M().IsV4Active());
    EXPECT_EQ(0, M().SetActiveV4(true));
    EXPECT_TRUE(M().IsV4Active());
    EXPECT_EQ(&v4, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(s_v4Name, L"A"));
    ClearLogs();
    EXPECT_EQ(0, M().SetActiveV4(true));
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(Activation, AwayFromThePointScannerHasNothingToDoWhenAnotherDeviceIsActive)
{
    Simple(s_v4Name);
    Active(L"A");
    EXPECT_EQ(0, M().SetActiveV4(false));
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(Activation, AwayFromThePointScannerTakesTheSecondRecentlyUsedDevice)
{
    Simple(L"A");
    CQsFakeDevice& b = Simple(L"B");
    Active(s_v4Name);
    Access::SetMru(M(), {s_v4Name, L"B", L"A"});
    EXPECT_EQ(0, M().SetActiveV4(false));
    EXPECT_EQ(&b, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(s_v4Name, L"B", L"A"));
}

TEST_F(Activation, AwayFromThePointScannerSucceedsAlsoWhereTheListLeadsBackToIt)
{
    Simple(L"A");
    CQsFakeDevice& v4 = Active(s_v4Name);
    Access::SetMru(M(), {L"gone", s_v4Name, L"A"});
    EXPECT_EQ(0, M().SetActiveV4(false));
    EXPECT_EQ(&v4, M().GetActive());
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(Activation, AwayFromThePointScannerTakesTheFirstDeviceByNameWhenTheListGivesNone)
{
    CQsFakeDevice& a = Simple(L"A");
    Simple(L"B");
    Active(s_v4Name);
    Access::SetMru(M(), {s_v4Name, L"gone"});
    EXPECT_EQ(0, M().SetActiveV4(false));
    EXPECT_EQ(&a, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"A", s_v4Name, L"gone"));
}

TEST_F(Activation, AwayFromThePointScannerFailsWhenItIsTheFirstByNameAndTheListGivesNone)
{
    Simple(L"Z"); // behind the point scanner's name
    CQsFakeDevice& v4 = Active(s_v4Name);
    Access::SetMru(M(), {s_v4Name});
    EXPECT_EQ(-13, M().SetActiveV4(false));
    EXPECT_EQ(&v4, M().GetActive());
    EXPECT_THAT(Log().Entries(), IsEmpty());
}

TEST_F(Activation, AwayFromThePointScannerSucceedsWithoutAnyDevice)
{
    EXPECT_EQ(0, M().SetActiveV4(false));
    EXPECT_EQ(nullptr, M().GetActive());
}

TEST_F(Activation, ToAndFromThePointScannerWaitsForARunningStimulationAndDoesNotAbortIt)
{
    Simple(L"A");
    CProbeDevice& v4 = Active<CProbeDevice>(s_v4Name);
    v4.bBeginBlocks = true;
    CFinish& finish = NewFinish();
    ASSERT_EQ(0, Start(finish));
    ASSERT_TRUE(v4.log.WaitFor("StimulationBegin(2, 1)"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(-9, M().SetActiveV4(true)); // although it is active already
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1990));
    EXPECT_EQ(-9, M().SetActiveV4(false));
    EXPECT_EQ(0u, v4.log.Count("StimulationAbort()"));
    EXPECT_TRUE(M().IsV4Active());
}

TEST_F(Activation, AwayFromThePointScannerTakesTheSecondRecentlyUsedDeviceAlsoWhenNoneIsActive)
{
    CQsFakeDevice& gone = Active(L"A");
    Simple(L"B");
    CQsFakeDevice& c = Simple(L"C");
    M().Update();
    ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(&gone));
    ASSERT_EQ(nullptr, M().GetActive());
    ASSERT_EQ(3u, M().GetDeviceCount());
    Access::SetMru(M(), {L"B", L"C"});
    EXPECT_EQ(0, M().SetActiveV4(false));
    EXPECT_EQ(&c, M().GetActive());
    EXPECT_THAT(Mru(), ElementsAre(L"B", L"C"));
}

TEST_F(Activation, FailsWithNoneActiveWhenTheOldDeviceTakesTheNewOneAwayAsItIsSwitchedOff)
{
    CWatchdog watchdog("an old device that unregisters the new one");
    CQsFakeDevice& old = Active(L"A");
    CQsFakeDevice& target = Simple(L"B");
    M().Update();
    ClearLogs();
    LogChangeCodes();
    int unregistered = 1;
    old.onSetActive = [&](bool bActive)
    {
        if (!bActive)
            unregistered = M().UnregisterSimpleStimulationDevice(&target);
        return 0;
    };
    EXPECT_EQ(-9, M().SetActive(L"B", false));
    EXPECT_EQ(0, unregistered);
    EXPECT_EQ(nullptr, M().GetActive());
    Manager::SQsInfo info;
    EXPECT_EQ(nullptr, M().GetActive(info));
    EXPECT_FALSE(Info(L"A").bActive);
    EXPECT_THAT(Log().Entries(), ElementsAre("A: SetActive(false)"));
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&target));
}
