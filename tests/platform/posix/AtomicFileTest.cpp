// Files that are replaced as a whole: permissions, links, pipes and limits as this side of the platform layer has them.
#include "platform/AtomicFile.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <csignal>
#include <functional>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using QsPlatform::EFlush;
using QsPlatform::ReplaceFileContents;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

bool Replace(const std::string& path, const std::string& text, std::string& error)
{
    return ReplaceFileContents(path, text.data(), text.size(), EFlush::ToSystem, error);
}

std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    return names;
}

mode_t ModeOf(const std::string& path)
{
    struct stat state
    {};
    EXPECT_EQ(0, stat(path.c_str(), &state));
    return state.st_mode & 07777;
}

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

TEST(AtomicFile, KeepsThePermissionsOfTheOldOne)
{
    const CTemporaryFolder folder;
    std::string error;
    const std::string path = folder.Write("file", "old");
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    ASSERT_TRUE(Replace(path, "new", error)) << error;
    EXPECT_EQ(0640u, ModeOf(path));

    const mode_t mask = umask(027);
    ASSERT_TRUE(Replace(folder.File("fresh"), "new", error)) << error;
    umask(mask);
    EXPECT_EQ(0640u, ModeOf(folder.File("fresh"))); // 0666 without what the mask takes away
}

TEST(AtomicFile, ReplacesWhatALinkPointsTo)
{
    const CTemporaryFolder folder;
    std::string error;
    fs::create_directory(folder.File("real"));
    const std::string real = folder.Write("real/file", "old");
    fs::create_symlink("real/file", folder.File("one"));
    fs::create_symlink(folder.File("one"), folder.File("two"));
    ASSERT_TRUE(Replace(folder.File("two"), "new", error)) << error;
    EXPECT_TRUE(fs::is_symlink(folder.File("two")));
    EXPECT_TRUE(fs::is_symlink(folder.File("one")));
    EXPECT_EQ("new", ContentsOf(real));

    fs::create_symlink("real/later", folder.File("dangling"));
    ASSERT_TRUE(Replace(folder.File("dangling"), "new", error)) << error;
    EXPECT_TRUE(fs::is_symlink(folder.File("dangling")));
    EXPECT_EQ("new", ContentsOf(folder.File("real/later")));

    fs::create_symlink("round", folder.File("round"));
    EXPECT_FALSE(Replace(folder.File("round"), "new", error));
    EXPECT_THAT(error, StartsWith(folder.File("round") + ": cannot be written: "));
}

TEST(AtomicFile, RefusesAFileThatMayNotBeWritten)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    ASSERT_EQ(0, chmod(folder.Path().c_str(), 0777));
    ASSERT_EQ(0, chmod(path.c_str(), 0444));
    constexpr uid_t nobody = 65534; // root may write everything
    EXPECT_EQ(0, InAnotherProcess(
                     [&]
                     {
                         std::string error;
                         if (geteuid() == 0 && setuid(nobody) != 0)
                             return 2;
                         return Replace(path, "new", error) ? 1 : 0;
                     }));
    EXPECT_EQ("old", ContentsOf(path));
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    ASSERT_EQ(0, chmod(folder.Path().c_str(), 0555));
    EXPECT_EQ(0, InAnotherProcess(
                     [&]
                     {
                         std::string error;
                         if (geteuid() == 0 && setuid(nobody) != 0)
                             return 2;
                         return Replace(path, "new", error) ? 1 : 0;
                     }));
    EXPECT_EQ("old", ContentsOf(path));
    ASSERT_EQ(0, chmod(folder.Path().c_str(), 0755));
}

TEST(AtomicFile, LeavesTheOldContentWhenTheNewOneDoesNotFit)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    EXPECT_EQ(0, InAnotherProcess(
                     [&]
                     {
                         // Files end at 100000 bytes: the first part of the content can be written, the rest cannot.
                         std::signal(SIGXFSZ, SIG_IGN);
                         const rlimit limit{100000, 100000};
                         if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                             return 2;
                         std::string error;
                         if (Replace(path, std::string(3000000, 'x'), error) || error.find(path) != 0)
                             return 1;
                         return Replace(path, std::string(100001, 'x'), error) ? 3 : 0;
                     }));
    EXPECT_EQ("old", ContentsOf(path));
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file"));
}

TEST(AtomicFile, RefusesAPipe)
{
    const CTemporaryFolder folder;
    std::string error;
    ASSERT_EQ(0, mkfifo(folder.File("pipe").c_str(), 0600));
    EXPECT_FALSE(Replace(folder.File("pipe"), "new", error));
    EXPECT_THAT(error, HasSubstr("expected a file, found something else"));
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("pipe"));
}

} // namespace
