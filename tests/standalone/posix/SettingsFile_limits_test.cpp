// Settings files where permissions and limits of the system forbid something, and what only these systems have.
#include "tests/standalone/SettingsFileTest.h"

#include <csignal>
#include <functional>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::ElementsAre;

namespace {

// The exit code of a process that does the work, or minus the signal that ended it.
int InAnotherProcess(const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(SettingsFault, APipeIsNoFile)
{
    const CTemporaryFolder folder;
    ASSERT_EQ(0, mkfifo(folder.File("pipe").c_str(), 0600));
    ExpectNoFile(folder.File("pipe"));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("pipe"));
}

TEST(SettingsFault, AFileThatMayNotBeReadIsNeitherReadNorReplaced)
{
    const CTemporaryFolder folder;
    ASSERT_EQ(0, chmod(folder.Path().c_str(), 0777));
    const std::string path = folder.Write("file", "somebody's");
    ASSERT_EQ(0, chmod(path.c_str(), 0200));
    constexpr uid_t nobody = 65534; // root may read everything
    EXPECT_EQ(0, InAnotherProcess(
                     [&]
                     {
                         if (geteuid() == 0 && setuid(nobody) != 0)
                             return 2;
                         CUntouched untouched;
                         return Load(untouched.Store(), path) == -9 && untouched.Is() &&
                                        Save(untouched.Store(), path) == -9
                                    ? 0
                                    : 1;
                     }));
    EXPECT_EQ("somebody's", ContentsOf(path));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

TEST(SettingsFault, AFullDiskLeavesTheOldContent)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", ContentOf(1.5));
    EXPECT_EQ(0, InAnotherProcess(
                     [&]
                     {
                         std::signal(SIGXFSZ, SIG_IGN);
                         const rlimit limit{50000, 50000}; // no file may grow beyond it
                         if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                             return 2;
                         CQsLiteVariantW writer;
                         for (int i = 0; i < 10000; ++i)
                             writer.SetDouble(std::to_wstring(i).c_str(), i);
                         for (const bool sync : {false, true})
                             if (Save(CQsLiteVariantR(writer), path, false, sync) != -9)
                                 return 1;
                         CQsLiteVariantR loaded;
                         return Load(loaded, path) == 0 ? 0 : 3;
                     }));
    EXPECT_EQ(ContentOf(1.5), ContentsOf(path));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

} // namespace
