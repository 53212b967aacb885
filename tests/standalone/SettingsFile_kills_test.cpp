// Settings files that several write at a time, and that are written by processes that are killed.
#include "platform/AtomicFile.h"
#include "tests/standalone/SettingsFileTest.h"
#include "tests/support/ChildProcess.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <thread>

using QsTest::CChildProcess;
using QsTest::CTemporaryFolder;
using QsTest::Meet;
using QsTest::WaitForFile;
using testing::ElementsAre;

namespace {

// A store that a reader can tell from a mixture of two: every value is the same.
void FillEqual(CQsLiteVariantW& writer, double number, int count)
{
    for (int i = 0; i < count; ++i)
    {
        writer.OpenLevel((L"key " + std::to_wstring(i)).c_str());
        for (int k = 0; k < 6; ++k)
        {
            writer.OpenLevel(L"");
            writer.SetDouble(L"v", number);
            writer.CloseLevel();
        }
        writer.CloseLevel();
    }
}

// The number that all values of the file have; NaN when the file is not whole.
double NumberIn(const std::string& path, int count)
{
    const double none = std::numeric_limits<double>::quiet_NaN();
    CQsLiteVariantR store;
    if (Load(store, path) != 0 || store.GetEntryCount() != static_cast<std::size_t>(count))
        return none;
    double number = none;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i)
    {
        store.EnterEntry(i);
        for (std::size_t k = 0; k < 6; ++k)
        {
            if (!store.EnterEntry(k))
                return none;
            const double here = store.GetDouble(L"v", none);
            store.LeaveLevel();
            if (i + k > 0 && here != number)
                return none;
            number = here;
        }
        store.LeaveLevel();
    }
    return number;
}

constexpr int keysOfOne = 500; // of a file that takes several writes

CQsLiteVariantR StoreOf(double number)
{
    CQsLiteVariantW writer;
    FillEqual(writer, number, keysOfOne);
    return CQsLiteVariantR(writer);
}

// ---------------------------------------------------------------------------------------------- several at a time

// The number of saves that failed.
int SaveRepeatedly(const std::string& path, double number, int times)
{
    const CQsLiteVariantR store = StoreOf(number);
    int failures = 0;
    for (int i = 0; i < times; ++i)
        failures += Save(store, path) != 0 ? 1 : 0;
    return failures;
}

constexpr int times = 40;

// Of the path, with the number, when the parent has come to the folder.
QS_CHILD_PROCESS(SavesRepeatedly)
{
    if (!Meet(arguments.at(2), arguments.at(1), "parent"))
        return 100;
    return std::min(SaveRepeatedly(arguments.at(0), std::stod(arguments.at(1)), times), 99);
}

TEST(SettingsWriters, OfSeveralThreadsAndProcessesEachLeaveAWholeFile)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    ASSERT_EQ(0, SaveRepeatedly(path, 1.0, 1));
    const CTemporaryFolder meeting;
    CChildProcess second("SavesRepeatedly", {path, "2", meeting.Path()});
    CChildProcess third("SavesRepeatedly", {path, "3", meeting.Path()});
    ASSERT_TRUE(WaitForFile(meeting.File("3")));
    ASSERT_TRUE(Meet(meeting.Path(), "parent", "2"));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (const double number : {4.0, 5.0})
        threads.emplace_back([&, number] { failures += SaveRepeatedly(path, number, times); });
    for (int i = 0; i < times; ++i)
    {
        const double number = NumberIn(path, keysOfOne);
        EXPECT_TRUE(number >= 1.0 && number <= 5.0) << "read " << i << ": " << number;
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, second.Wait());
    EXPECT_EQ(0, third.Wait());
    EXPECT_EQ(0, failures);
    EXPECT_GE(NumberIn(path, keysOfOne), 2.0);
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file")); // and nothing was taken for damaged
}

// -------------------------------------------------------------------------------------------------- killed processes

std::size_t s_stepsLeft = 0;
std::vector<std::string> s_steps;

void KillAtStep(const char*)
{
    if (--s_stepsLeft == 0)
        QsTest::KillThisProcess();
}

void NoteStep(const char* step)
{
    s_steps.push_back(step);
}

// Saves the number to the path, and is killed after so many steps.
QS_CHILD_PROCESS(SavesAndIsKilled)
{
    const CQsLiteVariantR store = StoreOf(std::stod(arguments.at(1)));
    s_stepsLeft = std::stoul(arguments.at(2));
    QsPlatform::OnFileReplacementStep(KillAtStep);
    return Save(store, arguments.at(0), false, true) == 0 ? 1 : 2;
}

TEST(SettingsKill, BetweenAnyTwoStepsOfASaveLeavesTheOldOrTheNewContent)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    ASSERT_EQ(0, Save(StoreOf(0.0), path, false, true));
    QsPlatform::OnFileReplacementStep(NoteStep);
    ASSERT_EQ(0, Save(StoreOf(0.0), path, false, true));
    QsPlatform::OnFileReplacementStep(nullptr);
    const std::size_t steps = s_steps.size();
    ASSERT_THAT(s_steps, testing::IsSupersetOf({"created", "locked", "permitted", "wrote", "wrote", "flushed",
                                                "renamed", "flushed folder"}));

    std::mt19937 random(500);
    std::vector<int> killedAt(steps, 0);
    int oldOnes = 0, newOnes = 0, leftBehind = 0;
    int current = 0;
    for (unsigned i = 0; i < QsTest::s_mostProcesses; ++i)
    {
        const std::size_t step = i < steps ? i : random() % steps;
        const int next = 1 - current;
        CChildProcess child("SavesAndIsKilled", {path, std::to_string(next), std::to_string(step + 1)});
        ASSERT_EQ(std::nullopt, child.Wait()) << "not killed after step " << step;
        ++killedAt[step];
        const double number = NumberIn(path, keysOfOne);
        const std::size_t renamed =
            static_cast<std::size_t>(std::find(s_steps.begin(), s_steps.end(), "renamed") - s_steps.begin());
        ASSERT_EQ(step >= renamed ? next : current, number) << "killed after " << s_steps[step];
        ++(step >= renamed ? newOnes : oldOnes);
        current = static_cast<int>(number);
        const std::size_t files = NamesIn(folder.Path()).size();
        ASSERT_LE(files, 2u); // the file and what this process left; that of the one before is gone
        leftBehind += files == 2 ? 1 : 0;
    }
    EXPECT_THAT(killedAt, testing::Each(testing::Gt(0)));
    EXPECT_GT(oldOnes, 0);
    EXPECT_GT(newOnes, 0);
    EXPECT_EQ(oldOnes, leftBehind);
    ASSERT_EQ(0, Save(StoreOf(0.0), path));
    EXPECT_EQ(0.0, NumberIn(path, keysOfOne));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

// Saves to the path until a save fails; tells in the folder when it begins.
QS_CHILD_PROCESS(SavesWithoutEnd)
{
    const CQsLiteVariantR stores[] = {StoreOf(0.0), StoreOf(1.0)};
    Meet(arguments.at(1), "begin", "begin");
    for (int turn = 0;; ++turn)
        if (Save(stores[turn % 2], arguments.at(0), false, turn % 3 == 0) != 0)
            return 1;
}

TEST(SettingsKill, AtAnyTimeLeavesAWholeFile)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    ASSERT_EQ(0, Save(StoreOf(0.0), path));
    std::mt19937 random(100);
    for (int i = 0; i < 100; ++i)
    {
        const CTemporaryFolder meeting;
        CChildProcess child("SavesWithoutEnd", {path, meeting.Path()});
        ASSERT_TRUE(WaitForFile(meeting.File("begin")));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000)); // any moment of its work will do
        child.Kill();
        ASSERT_EQ(std::nullopt, child.Wait()) << "a save failed";
        const double number = NumberIn(path, keysOfOne);
        ASSERT_TRUE(number == 0.0 || number == 1.0) << number;
    }
    ASSERT_EQ(0, Save(StoreOf(1.0), path));
    EXPECT_EQ(1.0, NumberIn(path, keysOfOne));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

} // namespace
