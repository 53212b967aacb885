#include "standalone/Journal.h"

#include "host/QsSystem.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

using namespace QsStandalone;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Journal, KeepsEntriesInOrderWithTheirTimesAndThreads)
{
    const double before = QS_GetTimeCounter();
    CQsJournal::Call("Lamp", "Open()");
    CQsJournal::LightOn("Lamp", "first");
    CQsJournal::LightOff("Lamp");
    CQsJournal::Fault("Lamp", "it sticks");
    CQsJournal::Return("Lamp", "Open()", -9);
    const double after = QS_GetTimeCounter();

    const std::vector<SJournalEntry> entries = CQsJournal::Entries();
    ASSERT_EQ(5u, entries.size());
    const EJournalKind kinds[] = {EJournalKind::Call, EJournalKind::LightOn, EJournalKind::LightOff,
                                  EJournalKind::Fault, EJournalKind::Return};
    const char* texts[] = {"Open()", "first", "", "it sticks", "Open()"};
    double last = before;
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        EXPECT_EQ(kinds[i], entries[i].kind) << i;
        EXPECT_EQ(texts[i], entries[i].text) << i;
        EXPECT_EQ("Lamp", entries[i].device) << i;
        EXPECT_EQ(entries[0].thread, entries[i].thread) << i;
        EXPECT_GE(entries[i].timeMs, last) << i;
        last = entries[i].timeMs;
    }
    EXPECT_LE(last, after);
    EXPECT_EQ(0, entries[3].status);
    EXPECT_EQ(-9, entries[4].status);
}

TEST(Journal, TellsThreadsApart)
{
    CQsJournal::Call("A", "here");
    std::thread([] { CQsJournal::Call("A", "there"); }).join();
    const std::vector<SJournalEntry> entries = CQsJournal::Entries();
    ASSERT_EQ(2u, entries.size());
    EXPECT_NE(entries[0].thread, entries[1].thread);
}

TEST(Journal, LightsADeviceOnceHoweverOftenItIsToldSo)
{
    CQsJournal::LightOn("Laser");
    CQsJournal::LightOn("Lamp");
    CQsJournal::LightOn("Laser");
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Lamp", "Laser"));
    CQsJournal::LightOff("Laser");
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Lamp"));
    CQsJournal::LightOff("Lamp");
    CQsJournal::LightOff("Lamp");
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
    EXPECT_EQ(6u, CQsJournal::Count());
}

TEST(Journal, ClearForgetsTheEntriesAndNotTheLight)
{
    CQsJournal::LightOn("Lamp");
    CQsJournal::Clear();
    EXPECT_EQ(0u, CQsJournal::Count());
    EXPECT_THAT(CQsJournal::Entries(), IsEmpty());
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Lamp"));
}

TEST(Journal, KnowsWhatIsLitAlsoWhenItKeepsNoEntries)
{
    EXPECT_TRUE(CQsJournal::IsRecording());
    CQsJournal::LightOn("Lamp");
    CQsJournal::SetRecording(false);
    EXPECT_FALSE(CQsJournal::IsRecording());
    CQsJournal::Call("Lamp", "unheard");
    CQsJournal::LightOn("Laser");
    CQsJournal::LightOff("Lamp");
    EXPECT_EQ(1u, CQsJournal::Count());
    EXPECT_THAT(CQsJournal::LitDevices(), ElementsAre("Laser"));
    CQsJournal::SetRecording(true);
    CQsJournal::LightOff("Laser");
    EXPECT_EQ(2u, CQsJournal::Count());
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
}

TEST(Journal, EntriesFromAPositionAreThoseWrittenSince)
{
    CQsJournal::Call("A", "one");
    const std::size_t position = CQsJournal::Count();
    CQsJournal::Call("A", "two");
    const std::vector<SJournalEntry> since = CQsJournal::EntriesFrom(position);
    ASSERT_EQ(1u, since.size());
    EXPECT_EQ("two", since[0].text);
    EXPECT_THAT(CQsJournal::EntriesFrom(99), IsEmpty());
}

TEST(Journal, LosesNothingOfManyThreads)
{
    constexpr int threadCount = 4;
    constexpr int switches = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t)
        threads.emplace_back(
            [t]
            {
                const std::string device = "Device " + std::to_string(t);
                for (int i = 0; i < switches; ++i)
                {
                    CQsJournal::LightOn(device);
                    CQsJournal::LightOff(device);
                }
            });
    for (std::thread& thread : threads)
        thread.join();

    const std::vector<SJournalEntry> entries = CQsJournal::Entries();
    ASSERT_EQ(std::size_t{2} * threadCount * switches, entries.size());
    for (std::size_t i = 1; i < entries.size(); ++i)
        ASSERT_LE(entries[i - 1].timeMs, entries[i].timeMs) << i;
    for (int t = 0; t < threadCount; ++t)
    {
        bool lit = false;
        for (const SJournalEntry& entry : entries)
            if (entry.device == "Device " + std::to_string(t))
            {
                ASSERT_EQ(lit ? EJournalKind::LightOff : EJournalKind::LightOn, entry.kind);
                lit = !lit;
            }
        EXPECT_FALSE(lit);
    }
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());
}
