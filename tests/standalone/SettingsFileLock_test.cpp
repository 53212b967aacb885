// The lock of a settings file: between threads and processes, and what happens when it cannot be had.
#include "platform/FileLock.h"
#include "standalone/DiagnosticLog.h"
#include "tests/standalone/SettingsLockTest.h"
#include "tests/support/SystemTexts.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace fs = std::filesystem;
using QsStandalone::CQsDiagnosticLog;
using QsTest::CChildProcess;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// The only line that a lock which cannot be had writes; "" when it can.
std::string Complaint(const std::string& path)
{
    CQsDiagnosticLog::ToMemory(false);
    CQsDiagnosticLog::ToMemory(true);
    if (CanBeHad(path))
        return {};
    const auto lines = CQsDiagnosticLog::MemoryLines();
    EXPECT_EQ(1u, lines.size());
    return lines.empty() ? std::string() : lines[0].text.ToUtf8();
}

constexpr int s_additions = 200;

// Adds one to the number in a file, many times, in steps that lose an addition when another one comes between them.
void AddAll(const std::string& folder)
{
    const fs::path number = fs::u8path(folder + "/number");
    for (int i = 0; i < s_additions; ++i)
    {
        const CQsSettingsFileLock lock(Wide(folder + "/settings").c_str());
        if (!lock.IsHeld())
            return;
        const int before = std::stoi(ContentsOf(folder + "/number"));
        std::this_thread::yield();
        std::ofstream(number) << before + 1;
    }
}

// When the parent has come to the second folder.
QS_CHILD_PROCESS(AddsAll)
{
    if (!QsTest::Meet(arguments.at(1), arguments.at(2), "parent"))
        return 1;
    AddAll(arguments.at(0));
    return 0;
}

// As soon as it has the lock of the path it tells so in the folder.
QS_CHILD_PROCESS(HoldsLock)
{
    const CQsSettingsFileLock lock(Wide(arguments.at(0)).c_str());
    while (lock.IsHeld())
        QsTest::Meet(arguments.at(1), "held", "nobody");
    return 1;
}

// The working folder of the process, for the scope.
class CWorkingFolder
{
public:
    explicit CWorkingFolder(const std::string& path) : m_before(fs::current_path())
    {
        fs::current_path(fs::u8path(path));
    }
    ~CWorkingFolder() { fs::current_path(m_before); }
    CWorkingFolder(const CWorkingFolder&) = delete;
    CWorkingFolder& operator=(const CWorkingFolder&) = delete;

private:
    fs::path m_before;
};

// --------------------------------------------------------------------------------------------------------- exclusion

TEST(SettingsFileLock, ExcludesThreadsAndProcesses)
{
    const CTemporaryFolder folder;
    folder.Write("number", "0");
    const CTemporaryFolder meeting;
    CChildProcess one("AddsAll", {folder.Path(), meeting.Path(), "one"});
    CChildProcess other("AddsAll", {folder.Path(), meeting.Path(), "other"});
    ASSERT_TRUE(QsTest::WaitForFile(meeting.File("one")));
    ASSERT_TRUE(QsTest::Meet(meeting.Path(), "parent", "other"));
    std::thread first(AddAll, folder.Path());
    std::thread second(AddAll, folder.Path());
    first.join();
    second.join();
    EXPECT_EQ(0, one.Wait());
    EXPECT_EQ(0, other.Wait());
    EXPECT_EQ(std::to_string(4 * s_additions), ContentsOf(folder.File("number")));
}

TEST(SettingsFileLock, IsGivenBackWhenItsProcessIsKilled)
{
    const CTemporaryFolder folder;
    CLockHolder holder(folder.File("settings"));
    ASSERT_TRUE(holder.Holds());
    std::atomic<bool> had{false};
    std::thread waiting([&] { had = CanBeHad(folder.File("settings")); });
    holder.Kill();
    waiting.join();
    EXPECT_TRUE(had);
}

TEST(SettingsFileLock, IsRefusedWithALineAfterFiveSecondsInUse)
{
    const CTemporaryFolder folder;
    const CLockHolder holder(folder.File("settings"));
    ASSERT_TRUE(holder.Holds());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(folder.File("settings") + ": cannot be locked: its folder: expected free within 5000 ms, found in use",
              Complaint(folder.File("settings")));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(SettingsFileLock, IsFreeAfterItsScopeThoughAProcessWasMadeInIt)
{
    const CTemporaryFolder folder;
    const CTemporaryFolder other;
    std::optional<CLockHolder> holder;
    {
        const CQsSettingsFileLock lock(Wide(folder.File("settings")).c_str());
        ASSERT_TRUE(lock.IsHeld());
        holder.emplace(other.File("settings"));
        ASSERT_TRUE(holder->Holds());
    }
    EXPECT_FALSE(IsInUse(folder.File("settings")));
}

// ------------------------------------------------------------------------------------------------------------- paths

TEST(SettingsFileLock, LeavesNothingInTheFolder)
{
    const CTemporaryFolder folder;
    ASSERT_TRUE(CanBeHad(folder.File("settings")));
    EXPECT_TRUE(fs::is_empty(fs::u8path(folder.Path())));
}

TEST(SettingsFileLock, OfANameWithoutFolderIsThatOfTheWorkingFolder)
{
    const CTemporaryFolder folder;
    const CWorkingFolder working(folder.Path());
    for (const bool isThere : {false, true})
    {
        if (isThere)
            folder.Write("settings", "{}");
        const CLockHolder holder(folder.File("settings"));
        ASSERT_TRUE(holder.Holds());
        EXPECT_TRUE(IsInUse("settings")) << isThere;
    }
    EXPECT_TRUE(CanBeHad("settings"));
}

TEST(SettingsFileLock, IsNotHeldAndSaysSoWhereThereIsNoFolder)
{
    const CTemporaryFolder folder;
    folder.Write("file", "");
    EXPECT_THAT(Complaint(folder.File("none/settings")),
                AllOf(StartsWith(folder.File("none/settings: ")), HasSubstr(QsTest::WordsForMissing())));
    const std::string complaint = Complaint(folder.File("file/settings"));
    EXPECT_THAT(complaint, StartsWith(folder.File("file/settings: ")));
    const std::vector<std::string> reasons = QsTest::WordsForNoFolder();
    EXPECT_TRUE(std::any_of(reasons.begin(), reasons.end(),
                            [&](const std::string& reason) { return complaint.find(reason) != std::string::npos; }))
        << complaint;
    EXPECT_EQ(": cannot be locked: expected the path of a file", Complaint(""));
    EXPECT_EQ(folder.Path() + "/: cannot be locked: expected the path of a file", Complaint(folder.Path() + "/"));
    EXPECT_FALSE(CQsSettingsFileLock(nullptr).IsHeld());
}

} // namespace
