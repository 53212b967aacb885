// The lock of a settings file over symbolic links, and in processes that are copies of each other.
#include "tests/standalone/SettingsLockTest.h"

#include <csignal>
#include <filesystem>

#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using QsTest::CTemporaryFolder;

namespace {

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

// The file is replaced behind the link, so whoever names it there must be excluded; also before it is first written.
TEST(SettingsFileLock, OfALinkIsThatOfTheFolderBehindIt)
{
    const CTemporaryFolder real;
    const CTemporaryFolder folder;
    fs::create_symlink(real.File("settings"), folder.File("link"));
    fs::create_directory_symlink(real.Path(), folder.File("linked folder"));
    const CLockHolder holder(real.File("settings")); // which is not there
    ASSERT_TRUE(holder.Holds());
    EXPECT_TRUE(IsInUse(folder.File("link")));
    EXPECT_TRUE(IsInUse(folder.File("linked folder/settings")));
    EXPECT_TRUE(CanBeHad(folder.File("beside")));
}

} // namespace
