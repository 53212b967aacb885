// The lock of a settings file: between threads and processes, over links, and what happens when it cannot be had.
#include "platform/FileLock.h"
#include "standalone/DiagnosticLog.h"
#include "tests/standalone/SettingsTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace fs = std::filesystem;
using QsStandalone::CQsDiagnosticLog;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

CQsStringW Wide(const std::string& path)
{
    return CQsStringW::FromUtf8(path);
}

bool CanBeHad(const std::string& path)
{
    return CQsSettingsFileLock(Wide(path).c_str()).IsHeld();
}

// Without the wait.
bool IsInUse(const std::string& path)
{
    std::string error;
    const bool held = QsPlatform::CFolderLock(path, 0, error).IsHeld();
    EXPECT_EQ(held, error.empty());
    return !held && error.find("found in use") != std::string::npos;
}

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

// Adds one to the number in a file, in steps that lose an addition when another one comes between them.
void AddOne(const CTemporaryFolder& folder)
{
    const CQsSettingsFileLock lock(Wide(folder.File("settings")).c_str());
    if (!lock.IsHeld())
        return;
    const int number = std::stoi(ContentsOf(folder.File("number")));
    std::this_thread::yield();
    folder.Write("number", std::to_string(number + 1));
}

// A process that has the lock of the path and sleeps until it is killed.
class CHolder
{
public:
    explicit CHolder(const std::string& path)
    {
        int ends[2];
        if (pipe(ends) != 0)
            throw std::runtime_error("no pipe");
        m_process = fork();
        if (m_process == 0)
        {
            const CQsSettingsFileLock lock(Wide(path).c_str());
            const char held = lock.IsHeld() ? 'y' : 'n';
            if (write(ends[1], &held, 1) == 1)
                for (;;)
                    pause();
            _exit(1);
        }
        close(ends[1]);
        char held = 'n';
        m_holds = read(ends[0], &held, 1) == 1 && held == 'y';
        close(ends[0]);
    }
    ~CHolder() { Kill(); }
    CHolder(const CHolder&) = delete;
    CHolder& operator=(const CHolder&) = delete;

    bool Holds() const { return m_holds; }
    void Kill()
    {
        if (m_process <= 0)
            return;
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        m_process = -1;
    }

private:
    pid_t m_process = -1;
    bool m_holds = false;
};

// The working folder of the process, for the scope.
class CWorkingFolder
{
public:
    explicit CWorkingFolder(const std::string& path) : m_before(fs::current_path()) { fs::current_path(path); }
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
    constexpr int times = 200;
    const auto addAll = [&]
    {
        for (int i = 0; i < times; ++i)
            AddOne(folder);
    };
    std::vector<pid_t> children;
    for (int i = 0; i < 2; ++i)
    {
        const pid_t child = fork();
        if (child == 0)
        {
            addAll();
            _exit(0);
        }
        children.push_back(child);
    }
    std::thread first(addAll);
    std::thread second(addAll);
    first.join();
    second.join();
    for (const pid_t child : children)
    {
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(std::to_string(4 * times), ContentsOf(folder.File("number")));
}

TEST(SettingsFileLock, IsGivenBackWhenItsProcessIsKilled)
{
    const CTemporaryFolder folder;
    CHolder holder(folder.File("settings"));
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
    const CHolder holder(folder.File("settings"));
    ASSERT_TRUE(holder.Holds());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(folder.File("settings") + ": cannot be locked: its folder: expected free within 5000 ms, found in use",
              Complaint(folder.File("settings")));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

// A child has every descriptor of the moment at which it was made.
TEST(SettingsFileLock, IsFreeAfterItsScopeThoughAChildWasMadeInIt)
{
    const CTemporaryFolder folder;
    pid_t child = -1;
    {
        const CQsSettingsFileLock lock(Wide(folder.File("settings")).c_str());
        ASSERT_TRUE(lock.IsHeld());
        child = fork();
        if (child == 0)
            for (;;)
                pause();
    }
    EXPECT_FALSE(IsInUse(folder.File("settings")));
    kill(child, SIGKILL);
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
}

// ------------------------------------------------------------------------------------------------------------- paths

TEST(SettingsFileLock, LeavesNothingInTheFolder)
{
    const CTemporaryFolder folder;
    ASSERT_TRUE(CanBeHad(folder.File("settings")));
    EXPECT_TRUE(fs::is_empty(folder.Path()));
}

TEST(SettingsFileLock, OfANameWithoutFolderIsThatOfTheWorkingFolder)
{
    const CTemporaryFolder folder;
    const CWorkingFolder working(folder.Path());
    for (const bool isThere : {false, true})
    {
        if (isThere)
            folder.Write("settings", "{}");
        const CHolder holder(folder.File("settings"));
        ASSERT_TRUE(holder.Holds());
        EXPECT_TRUE(IsInUse("settings")) << isThere;
    }
    EXPECT_TRUE(CanBeHad("settings"));
}

// The file is replaced behind the link, so whoever names it there must be excluded; also before it is first written.
TEST(SettingsFileLock, OfALinkIsThatOfTheFolderBehindIt)
{
    const CTemporaryFolder real;
    const CTemporaryFolder folder;
    fs::create_symlink(real.File("settings"), folder.File("link"));
    fs::create_directory_symlink(real.Path(), folder.File("linked folder"));
    const CHolder holder(real.File("settings")); // which is not there
    ASSERT_TRUE(holder.Holds());
    EXPECT_TRUE(IsInUse(folder.File("link")));
    EXPECT_TRUE(IsInUse(folder.File("linked folder/settings")));
    EXPECT_TRUE(CanBeHad(folder.File("beside")));
}

TEST(SettingsFileLock, IsNotHeldAndSaysSoWhereThereIsNoFolder)
{
    const CTemporaryFolder folder;
    folder.Write("file", "");
    EXPECT_THAT(Complaint(folder.File("none/settings")),
                AllOf(StartsWith(folder.File("none/settings: ")), HasSubstr("No such file or directory")));
    EXPECT_THAT(Complaint(folder.File("file/settings")),
                AllOf(StartsWith(folder.File("file/settings: ")), HasSubstr("Not a directory")));
    EXPECT_EQ(": cannot be locked: expected the path of a file", Complaint(""));
    EXPECT_EQ(folder.Path() + "/: cannot be locked: expected the path of a file", Complaint(folder.Path() + "/"));
    EXPECT_FALSE(CQsSettingsFileLock(nullptr).IsHeld());
}

} // namespace
