// The lock of a folder: between threads and processes.
#include "platform/FileLock.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using QsPlatform::CFolderLock;
using QsTest::CChildProcess;
using QsTest::CTemporaryFolder;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr unsigned kLong = 60000; // ends only when something is broken

bool CanBeHad(const std::string& file)
{
    std::string error;
    const CFolderLock lock(file, 0, error);
    EXPECT_EQ(lock.IsHeld(), error.empty()) << error;
    return lock.IsHeld();
}

TEST(FolderLock, IsThatOfTheFolderWhateverTheFile)
{
    const CTemporaryFolder folder, other;
    std::string error;
    {
        const CFolderLock lock(folder.File("file"), 0, error);
        ASSERT_TRUE(lock.IsHeld()) << error;
        EXPECT_FALSE(CanBeHad(folder.File("file")));
        EXPECT_FALSE(CanBeHad(folder.File("another one")));
        EXPECT_FALSE(CanBeHad(folder.Path() + "/./file"));
        EXPECT_TRUE(CanBeHad(other.File("file")));
        fs::create_directory(fs::u8path(folder.File("below")));
        EXPECT_TRUE(CanBeHad(folder.File("below/file")));
        EXPECT_FALSE(CanBeHad(folder.File("below/../file")));
    }
    EXPECT_TRUE(CanBeHad(folder.File("file")));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(fs::u8path(folder.Path())), fs::directory_iterator())); // "below"
}

TEST(FolderLock, WaitsForItsTurnAndNotLongerThanItIsTold)
{
    const CTemporaryFolder folder;
    std::string error;
    auto lock = std::make_unique<CFolderLock>(folder.File("file"), 0, error);
    const auto begin = std::chrono::steady_clock::now();
    const CFolderLock late(folder.File("file"), 50, error);
    EXPECT_FALSE(late.IsHeld());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(folder.File("file") + ": cannot be locked: its folder: expected free within 50 ms, found in use", error);

    bool held = false;
    std::thread waiter(
        [&]
        {
            std::string ignored;
            held = CFolderLock(folder.File("file"), kLong, ignored).IsHeld();
        });
    // On another thread than the one that took it.
    std::thread([&] { lock.reset(); }).join();
    waiter.join();
    EXPECT_TRUE(held);
}

TEST(FolderLock, KeepsFourThreadsApart)
{
    const CTemporaryFolder folder;
    std::atomic<int> entered{0}, inside{0};
    std::atomic<unsigned> overlaps{0}, failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&]
            {
                for (int n = 0; n < 50; ++n)
                {
                    std::string error;
                    const CFolderLock lock(folder.File("file"), kLong, error);
                    failed += lock.IsHeld() ? 0 : 1;
                    overlaps += ++inside == 1 ? 0 : 1;
                    ++entered;
                    std::this_thread::sleep_for(std::chrono::milliseconds(1)); // others try to get in
                    --inside;
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0u, failed);
    EXPECT_EQ(0u, overlaps);
    EXPECT_EQ(200, entered);
}

// Adds one to the number in a file, many times, in steps that lose one when another process comes between them.
QS_CHILD_PROCESS(AddsUnderTheLock) // the folder, its own name and that of the other one
{
    const fs::path number = fs::u8path(arguments.at(0) + "/number");
    if (!QsTest::Meet(arguments.at(0), arguments.at(1), arguments.at(2)))
        return 1;
    for (int i = 0; i < 100; ++i)
    {
        std::string error;
        const CFolderLock lock(arguments.at(0) + "/number", kLong, error);
        int before = 0;
        if (!lock.IsHeld() || !(std::ifstream(number) >> before) || !(std::ofstream(number) << before + 1))
            return 2;
    }
    return 42;
}

TEST(FolderLock, KeepsTwoProcessesApart)
{
    const CTemporaryFolder folder;
    folder.Write("number", "0");
    CChildProcess first("AddsUnderTheLock", {folder.Path(), "first", "second"});
    CChildProcess second("AddsUnderTheLock", {folder.Path(), "second", "first"});
    EXPECT_EQ(42, first.Wait());
    EXPECT_EQ(42, second.Wait());
    EXPECT_EQ("200", QsTest::ContentsOf(folder.File("number")));
}

QS_CHILD_PROCESS(KeepsTheLock) // the folder, one to meet in
{
    std::string error;
    const CFolderLock lock(arguments.at(0) + "/file", 0, error);
    return lock.IsHeld() && QsTest::Meet(arguments.at(1), "held", "never") ? 0 : 1;
}

TEST(FolderLock, IsGivenBackByAProcessThatIsKilled)
{
    const CTemporaryFolder folder, meeting;
    CChildProcess holder("KeepsTheLock", {folder.Path(), meeting.Path()});
    ASSERT_TRUE(QsTest::WaitForFile(meeting.File("held")));
    EXPECT_FALSE(CanBeHad(folder.File("file")));
    // Also while others wait for it.
    bool held = false;
    std::thread waiter(
        [&]
        {
            std::string error;
            held = CFolderLock(folder.File("file"), kLong, error).IsHeld();
        });
    holder.Kill();
    waiter.join();
    EXPECT_TRUE(held);
    EXPECT_TRUE(CanBeHad(folder.File("file")));
    EXPECT_TRUE(fs::is_empty(fs::u8path(folder.Path())));
}

TEST(FolderLock, SaysWhyItCannotBeHad)
{
    const CTemporaryFolder folder;
    const std::string file = folder.Write("file", "");
    for (const std::string& path : {folder.File("missing/file"), file + "/below"})
    {
        std::string error;
        EXPECT_FALSE(CFolderLock(path, kLong, error).IsHeld());
        EXPECT_THAT(error, AllOf(StartsWith(path + ": cannot be locked: its folder: "), Not(HasSubstr("\n"))));
    }
    for (const std::string& path : {std::string(), folder.Path() + "/"})
    {
        std::string error;
        EXPECT_FALSE(CFolderLock(path, kLong, error).IsHeld());
        EXPECT_EQ(path + ": cannot be locked: expected the path of a file", error);
    }
}

TEST(FolderLock, HoldsForAFolderInAnyScript)
{
    const CTemporaryFolder folder;
    const std::string below = folder.File("J\xC3\xBCrgen \xE4\xB8\xAD\xF0\x9F\x98\x80");
    fs::create_directory(fs::u8path(below));
    std::string error;
    const CFolderLock lock(below + "/file", 0, error);
    EXPECT_TRUE(lock.IsHeld()) << error;
    EXPECT_FALSE(CanBeHad(below + "/file"));
}

} // namespace
