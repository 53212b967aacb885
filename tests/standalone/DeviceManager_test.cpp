#include "standalone/DeviceManager.h"

#include "host/QsDMApi.h"
#include "host/QsSystem.h"
#include "standalone/Journal.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <thread>

using namespace QsStandalone;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr double longMs = 60000.0;     // of a movement or hang that the test must cut short
constexpr double generousMs = 20000.0; // for anything that should be done at once

SShutterSetup Shutter(std::uint32_t id, const std::string& name)
{
    SShutterSetup setup;
    setup.logDevId = id;
    setup.name = name;
    return setup;
}

void Add(const SShutterSetup& setup)
{
    std::string error;
    ASSERT_TRUE(CQsDeviceManager::AddShutter(setup, error)) << error;
}

bool Open(std::uint32_t id)
{
    return DMApi::Shutter_SetState(id, true, false, true).value;
}

bool Close(std::uint32_t id)
{
    return DMApi::Shutter_SetState(id, false, false, true).value;
}

double Since(double start)
{
    return QS_GetTimeCounter() - start;
}

template <class Condition>
bool Eventually(Condition condition)
{
    const double start = QS_GetTimeCounter();
    while (!condition())
    {
        if (Since(start) > generousMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool HasFault(const std::string& text)
{
    const std::vector<SJournalEntry> entries = CQsJournal::Entries();
    return std::any_of(entries.begin(), entries.end(),
                       [&](const SJournalEntry& entry)
                       { return entry.kind == EJournalKind::Fault && entry.text.find(text) != std::string::npos; });
}

std::vector<SJournalEntry> Lights()
{
    std::vector<SJournalEntry> lights;
    for (const SJournalEntry& entry : CQsJournal::Entries())
        if (entry.kind == EJournalKind::LightOn || entry.kind == EJournalKind::LightOff)
            lights.push_back(entry);
    return lights;
}

// A command on a thread of its own.
std::future<bool> Send(std::uint32_t id, bool open)
{
    return std::async(std::launch::async, [id, open] { return DMApi::Shutter_SetState(id, open, false, true).value; });
}

} // namespace

TEST(DeviceManager, AnswersForTheDevicesThatItHas)
{
    SShutterSetup lamp = Shutter(7, "L\xC3\xA4mpchen");
    lamp.physDevId = 70;
    lamp.databaseId = 700;
    Add(lamp);
    Add(Shutter(9, "Laser"));
    std::string error;
    ASSERT_TRUE(CQsDeviceManager::AddLogicalDevice({20, 120, 30}, error)) << error;

    EXPECT_EQ(0u, DMApi::Shutter_GetIndex(7).value);
    EXPECT_EQ(1u, DMApi::Shutter_GetIndex(9).value);
    EXPECT_EQ(0xFFFFFFFFu, DMApi::Shutter_GetIndex(20).value);
    EXPECT_STREQ(L"L\u00E4mpchen", DMApi::Shutter_GetToolbarName(7));
    EXPECT_EQ(DMApi::Shutter_GetToolbarName(7), DMApi::Shutter_GetToolbarName(7));
    EXPECT_EQ(nullptr, DMApi::Shutter_GetToolbarName(20));
    EXPECT_EQ(70u, DMApi::LogDev_GetPhysDevId(7));
    EXPECT_EQ(0u, DMApi::LogDev_GetPhysDevId(9));
    EXPECT_EQ(120u, DMApi::LogDev_GetPhysDevId(20));
    EXPECT_EQ(0u, DMApi::LogDev_GetPhysDevId(21));
    EXPECT_EQ(7u, DMApi::LogDev_GetIdByDBId(700).value);
    EXPECT_EQ(20u, DMApi::LogDev_GetIdByDBId(30).value);
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(0).value);
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(31).value);
}

TEST(DeviceManager, HasNothingAtFirstAndRefusesCommandsToNoShutter)
{
    EXPECT_EQ(0xFFFFFFFFu, DMApi::Shutter_GetIndex(1).value);
    EXPECT_EQ(nullptr, DMApi::Shutter_GetToolbarName(0));
    EXPECT_FALSE(Open(1));
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_EQ(0u, CQsDeviceManager::ShutterCalls(1));
    EXPECT_THAT(CQsDeviceManager::Shutters(), IsEmpty());
    EXPECT_EQ(0u, CQsJournal::Count());
}

TEST(DeviceManager, RefusesIdsThatAreZeroOrTakenAndChangesNothing)
{
    SShutterSetup first = Shutter(1, "First");
    first.databaseId = 5;
    Add(first);
    std::string error;
    EXPECT_FALSE(CQsDeviceManager::AddShutter(Shutter(0, "Zero"), error));
    EXPECT_EQ("expected a logical device id of 1 or more, found 0", error);
    EXPECT_FALSE(CQsDeviceManager::AddShutter(Shutter(1, "Again"), error));
    EXPECT_EQ("expected a logical device id of its own, found 1, which is taken", error);
    EXPECT_FALSE(CQsDeviceManager::AddLogicalDevice({1, 0, 0}, error));
    EXPECT_FALSE(CQsDeviceManager::AddLogicalDevice({2, 0, 5}, error));
    EXPECT_EQ("expected a database id of its own, found 5, which is taken", error);
    EXPECT_EQ(0u, DMApi::LogDev_GetPhysDevId(2));
    EXPECT_TRUE(CQsDeviceManager::AddLogicalDevice({2, 3, 0}, error));
    ASSERT_EQ(1u, CQsDeviceManager::Shutters().size());
    EXPECT_STREQ(L"First", DMApi::Shutter_GetToolbarName(1));
}

TEST(DeviceManager, RefusesTimesThatNoBladeCanHave)
{
    for (const double time : {-1.0, std::nan(""), std::numeric_limits<double>::infinity()})
    {
        std::string error;
        SShutterSetup setup = Shutter(1, "Odd");
        setup.closeLatencyMs = time;
        EXPECT_FALSE(CQsDeviceManager::AddShutter(setup, error)) << time;
        EXPECT_THAT(error, HasSubstr("expected times of 0 ms or more of shutter 1"));
    }
    EXPECT_THAT(CQsDeviceManager::Shutters(), IsEmpty());
}

TEST(Shutter, IsLitFromTheEndOfItsOpeningToTheEndOfItsClosing)
{
    SShutterSetup setup = Shutter(1, "Lamp");
    setup.openLatencyMs = 20.0;
    setup.closeLatencyMs = 10.0;
    Add(setup);

    const double opening = QS_GetTimeCounter();
    EXPECT_TRUE(Open(1));
    EXPECT_TRUE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Lamp"));
    const double closing = QS_GetTimeCounter();
    EXPECT_TRUE(Close(1));
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());

    const std::vector<SJournalEntry> lights = Lights();
    ASSERT_EQ(2u, lights.size());
    EXPECT_GE(lights[0].timeMs - opening, 20.0);
    EXPECT_LE(lights[0].timeMs, closing);
    EXPECT_GE(lights[1].timeMs - closing, 10.0);
    EXPECT_LE(lights[1].timeMs - closing, generousMs);
    EXPECT_EQ(2u, CQsDeviceManager::ShutterCalls(1));
}

TEST(Shutter, IsAlreadyThereWhenItIsAskedTwice)
{
    SShutterSetup setup = Shutter(1, "Lamp");
    setup.closeLatencyMs = longMs;
    Add(setup);
    const double start = QS_GetTimeCounter();
    EXPECT_TRUE(Close(1));
    EXPECT_TRUE(Open(1));
    EXPECT_TRUE(Open(1));
    EXPECT_LT(Since(start), generousMs);
    EXPECT_EQ(1u, Lights().size());
    EXPECT_EQ(3u, CQsDeviceManager::ShutterCalls(1));
}

TEST(Shutter, WritesCallLightAndReturnInThisOrder)
{
    Add(Shutter(1, "Lamp"));
    EXPECT_TRUE(Open(1));
    EXPECT_TRUE(Close(1));
    std::vector<std::string> lines;
    for (const SJournalEntry& entry : CQsJournal::Entries())
    {
        EXPECT_EQ("Lamp", entry.device);
        const char* kinds[] = {"call ", "return ", "on", "off", "fault "};
        lines.push_back(kinds[static_cast<int>(entry.kind)] + entry.text);
    }
    EXPECT_THAT(lines,
                ElementsAre("call Shutter_SetState(open, false, true)", "on",
                            "return Shutter_SetState(open, false, true)", "call Shutter_SetState(close, false, true)",
                            "off", "return Shutter_SetState(close, false, true)"));
}

TEST(Shutter, OfNoLightMovesInTheDark)
{
    SShutterSetup setup = Shutter(1, "Dichroic");
    setup.lightOnWhenOpen = false;
    Add(setup);
    EXPECT_TRUE(Open(1));
    EXPECT_TRUE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_THAT(Lights(), IsEmpty());
}

TEST(Shutter, JitterMovesTheLatencyWithinItsBounds)
{
    SShutterSetup setup = Shutter(1, "Lamp");
    setup.openLatencyMs = 4.0;
    setup.jitterMs = 3.0;
    Add(setup);
    for (int i = 0; i < 10; ++i)
    {
        const double opening = QS_GetTimeCounter();
        EXPECT_TRUE(Open(1));
        EXPECT_GE(Since(opening), 1.0);
        EXPECT_TRUE(Close(1));
    }
    EXPECT_EQ(20u, Lights().size());
}

TEST(Shutter, LightsWithoutAnEntryWhenNothingIsRecorded)
{
    Add(Shutter(1, "Lamp"));
    CQsJournal::SetRecording(false);
    EXPECT_TRUE(Open(1));
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Lamp"));
    EXPECT_TRUE(Close(1));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(0u, CQsJournal::Count());
}

TEST(Shutter, ThatIsNotConnectedHasANameAndRefuses)
{
    SShutterSetup setup = Shutter(1, "Unplugged");
    setup.connected = false;
    Add(setup);
    EXPECT_FALSE(Open(1));
    EXPECT_EQ(0xFFFFFFFFu, DMApi::Shutter_GetIndex(1).value);
    EXPECT_STREQ(L"Unplugged", DMApi::Shutter_GetToolbarName(1));
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(Lights(), IsEmpty());
    EXPECT_EQ(1u, CQsDeviceManager::ShutterCalls(1));
}

TEST(Shutter, HasNoTriggerToWaitFor)
{
    Add(Shutter(1, "Lamp"));
    EXPECT_FALSE(DMApi::Shutter_SetState(1, true, true, true).value);
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
}

TEST(Shutter, ComesToRestByItselfWhenNobodyWaits)
{
    SShutterSetup setup = Shutter(1, "Lamp");
    setup.openLatencyMs = 15.0;
    Add(setup);
    const double opening = QS_GetTimeCounter();
    EXPECT_TRUE(DMApi::Shutter_SetState(1, true, false, false).value);
    ASSERT_TRUE(Eventually([] { return CQsDeviceManager::IsShutterOpen(1); }));
    ASSERT_EQ(1u, Lights().size());
    EXPECT_GE(Lights()[0].timeMs - opening, 15.0);
}

TEST(Shutter, RefusesTheCallsOfItsFaultAndChangesNothing)
{
    SShutterSetup setup = Shutter(1, "Sticking");
    setup.refuseFromCall = 2;
    setup.refuseToCall = 3;
    Add(setup);
    EXPECT_TRUE(Open(1));
    EXPECT_FALSE(Close(1));
    EXPECT_FALSE(Close(1));
    EXPECT_TRUE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Sticking"));
    EXPECT_TRUE(HasFault("call 2 is refused"));
    EXPECT_TRUE(HasFault("call 3 is refused"));
    EXPECT_TRUE(Close(1));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(0u, DMApi::Shutter_GetIndex(1).value);
}

TEST(Shutter, DropsOutSpringsShutAndStaysAway)
{
    SShutterSetup setup = Shutter(1, "Loose");
    setup.dropOutAtCall = 2;
    Add(setup);
    EXPECT_TRUE(Open(1));
    EXPECT_FALSE(Open(1));
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    const std::vector<SJournalEntry> lights = Lights();
    ASSERT_EQ(2u, lights.size());
    EXPECT_EQ(EJournalKind::LightOff, lights[1].kind);
    EXPECT_TRUE(HasFault("drops out"));
    EXPECT_EQ(0xFFFFFFFFu, DMApi::Shutter_GetIndex(1).value);
    EXPECT_FALSE(CQsDeviceManager::Shutters()[0].connected);
    EXPECT_FALSE(Open(1));
    EXPECT_EQ(3u, CQsDeviceManager::ShutterCalls(1));
    EXPECT_EQ(2u, Lights().size());
}

TEST(Shutter, HangsForItsTimeAndThenDoesItsWork)
{
    SShutterSetup setup = Shutter(1, "Hanging");
    setup.hangAtCall = 1;
    setup.hangMs = 30.0;
    Add(setup);
    const double start = QS_GetTimeCounter();
    EXPECT_TRUE(Open(1));
    EXPECT_GE(Since(start), 30.0);
    EXPECT_TRUE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_TRUE(HasFault("call 1 hangs"));
}

TEST(Shutter, WorksOnWhenItsHangIsReleased)
{
    SShutterSetup setup = Shutter(1, "Hanging");
    setup.hangAtCall = 1;
    setup.hangMs = longMs;
    Add(setup);
    SShutterSetup later = Shutter(2, "Hanging later");
    later.hangAtCall = 1;
    later.hangMs = longMs;
    Add(later);

    const double start = QS_GetTimeCounter();
    std::future<bool> opened = Send(1, true);
    ASSERT_TRUE(Eventually([] { return HasFault("call 1 hangs"); }));
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    CQsDeviceManager::ReleaseHangs();
    EXPECT_TRUE(opened.get());
    EXPECT_TRUE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_TRUE(Open(2)); // and no later hang holds
    EXPECT_LT(Since(start), generousMs);
}

TEST(Shutter, AnswersQuestionsAndLeavesOthersFreeWhileItHangs)
{
    SShutterSetup setup = Shutter(1, "Hanging");
    setup.hangAtCall = 1;
    setup.hangMs = longMs;
    Add(setup);
    Add(Shutter(2, "Lamp"));
    const double start = QS_GetTimeCounter();
    std::future<bool> opened = Send(1, true);
    ASSERT_TRUE(Eventually([] { return HasFault("call 1 hangs"); }));

    EXPECT_EQ(0u, DMApi::Shutter_GetIndex(1).value);
    EXPECT_STREQ(L"Hanging", DMApi::Shutter_GetToolbarName(1));
    EXPECT_EQ(1u, CQsDeviceManager::ShutterCalls(1));
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_EQ(2u, CQsDeviceManager::Shutters().size());
    EXPECT_TRUE(Open(2));
    EXPECT_TRUE(Close(2));
    EXPECT_LT(Since(start), generousMs);

    CQsDeviceManager::ReleaseHangs();
    EXPECT_TRUE(opened.get());
}

TEST(Shutter, IsShutByACloseThatOvertakesAHangingOpening)
{
    SShutterSetup setup = Shutter(1, "Hanging");
    setup.hangAtCall = 1;
    setup.hangMs = longMs;
    Add(setup);
    const double start = QS_GetTimeCounter();
    std::future<bool> opened = Send(1, true);
    ASSERT_TRUE(Eventually([] { return HasFault("call 1 hangs"); }));
    EXPECT_TRUE(Close(1));
    EXPECT_FALSE(opened.get());
    EXPECT_LT(Since(start), generousMs);
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(Lights(), IsEmpty());
}

TEST(Shutter, TurnsRoundWhenACloseOvertakesItsOpening)
{
    SShutterSetup setup = Shutter(1, "Slow");
    setup.openLatencyMs = longMs;
    setup.closeLatencyMs = 5.0;
    Add(setup);
    const double start = QS_GetTimeCounter();
    std::future<bool> opened = Send(1, true);
    ASSERT_TRUE(Eventually([] { return CQsDeviceManager::ShutterCalls(1) == 1; }));
    EXPECT_TRUE(Close(1));
    EXPECT_FALSE(opened.get());
    EXPECT_LT(Since(start), generousMs);
    EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(1));
    EXPECT_THAT(Lights(), IsEmpty());
}

TEST(Shutter, StaysLitWhenAnOpeningOvertakesItsClosing)
{
    SShutterSetup setup = Shutter(1, "Slow");
    setup.closeLatencyMs = longMs;
    Add(setup);
    EXPECT_TRUE(Open(1));
    std::future<bool> closed = Send(1, false);
    ASSERT_TRUE(Eventually([] { return CQsDeviceManager::ShutterCalls(1) == 2; }));
    EXPECT_TRUE(Open(1));
    EXPECT_FALSE(closed.get());
    EXPECT_EQ(1u, Lights().size());
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Slow"));
}

TEST(Shutter, LetsASecondCloseJoinTheFirst)
{
    SShutterSetup setup = Shutter(1, "Slow");
    setup.closeLatencyMs = 40.0;
    Add(setup);
    EXPECT_TRUE(Open(1));
    const double start = QS_GetTimeCounter();
    std::future<bool> first = Send(1, false);
    ASSERT_TRUE(Eventually([] { return CQsDeviceManager::ShutterCalls(1) == 2; }));
    EXPECT_TRUE(Close(1));
    EXPECT_GE(Since(start), 40.0);
    EXPECT_TRUE(first.get());
    EXPECT_EQ(2u, Lights().size());
}

TEST(Shutter, IsNotTurnedRoundByACallThatIsRefused)
{
    SShutterSetup setup = Shutter(1, "Sticking");
    setup.openLatencyMs = 40.0;
    setup.refuseFromCall = 2;
    setup.refuseToCall = 2;
    Add(setup);
    std::future<bool> opened = Send(1, true);
    ASSERT_TRUE(Eventually([] { return CQsDeviceManager::ShutterCalls(1) == 1; }));
    EXPECT_FALSE(Close(1));
    EXPECT_TRUE(opened.get());
    EXPECT_TRUE(CQsDeviceManager::IsShutterOpen(1));
}

TEST(DeviceManager, ClosesAllShuttersPastEveryFault)
{
    SShutterSetup sticking = Shutter(1, "Sticking");
    sticking.refuseFromCall = 2;
    Add(sticking);
    SShutterSetup slow = Shutter(2, "Slow");
    slow.openLatencyMs = longMs;
    Add(slow);
    SShutterSetup hanging = Shutter(3, "Hanging");
    hanging.hangAtCall = 1;
    hanging.hangMs = longMs;
    Add(hanging);
    Add(Shutter(4, "Shut"));
    SShutterSetup slowToClose = Shutter(5, "Slow to close");
    slowToClose.closeLatencyMs = longMs;
    Add(slowToClose);

    const double start = QS_GetTimeCounter();
    EXPECT_TRUE(Open(1));
    EXPECT_TRUE(Open(5));
    std::future<bool> moving = Send(2, true);
    std::future<bool> hung = Send(3, true);
    ASSERT_TRUE(Eventually([] { return CQsDeviceManager::ShutterCalls(2) == 1 && HasFault("call 1 hangs"); }));
    EXPECT_THAT(CQsDeviceManager::CloseAllShutters(), ElementsAre("Sticking", "Slow", "Slow to close"));
    EXPECT_FALSE(moving.get());
    EXPECT_FALSE(hung.get());
    EXPECT_LT(Since(start), generousMs);
    for (std::uint32_t id = 1; id <= 5; ++id)
        EXPECT_FALSE(CQsDeviceManager::IsShutterOpen(id)) << id;
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_THAT(CQsDeviceManager::CloseAllShutters(), IsEmpty());
}

TEST(DeviceManager, ResetRemovesEverythingAndLeavesNoLight)
{
    SShutterSetup setup = Shutter(1, "Lamp");
    setup.databaseId = 5;
    Add(setup);
    EXPECT_TRUE(Open(1));
    CQsDeviceManager::ReleaseHangs();
    CQsDeviceManager::Reset();
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(0xFFFFFFFFu, DMApi::Shutter_GetIndex(1).value);
    EXPECT_EQ(0u, DMApi::LogDev_GetIdByDBId(5).value);
    EXPECT_FALSE(Open(1));

    // The same ids are free again, and hangs hold again.
    SShutterSetup again = Shutter(1, "Another");
    again.hangAtCall = 1;
    again.hangMs = 20.0;
    Add(again);
    EXPECT_STREQ(L"Another", DMApi::Shutter_GetToolbarName(1));
    const double start = QS_GetTimeCounter();
    EXPECT_TRUE(Open(1));
    EXPECT_GE(Since(start), 20.0);
}

TEST(Shutter, EndsAsTheLastCommandSaysWhateverTheThreadsDo)
{
    SShutterSetup setup = Shutter(1, "Lamp");
    setup.openLatencyMs = 0.2;
    setup.closeLatencyMs = 0.1;
    setup.jitterMs = 0.2;
    Add(setup);
    Add(Shutter(2, "Laser"));
    constexpr int commands = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back(
            [t]
            {
                for (int i = 0; i < commands; ++i)
                {
                    const std::uint32_t id = t < 2 ? 1 : 2;
                    DMApi::Shutter_SetState(id, i % 2 == 0, false, i % 7 != 0);
                    CQsDeviceManager::IsShutterOpen(id);
                    DMApi::Shutter_GetIndex(id);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(Close(1));
    EXPECT_TRUE(Close(2));
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(2u * commands + 1, CQsDeviceManager::ShutterCalls(1));
    for (const char* device : {"Lamp", "Laser"})
    {
        bool lit = false;
        for (const SJournalEntry& entry : Lights())
            if (entry.device == device)
            {
                ASSERT_EQ(lit ? EJournalKind::LightOff : EJournalKind::LightOn, entry.kind) << device;
                lit = !lit;
            }
        EXPECT_FALSE(lit) << device;
    }
}
