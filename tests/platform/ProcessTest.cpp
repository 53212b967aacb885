// The running program: its file, its environment and its standard streams.
#include "platform/Process.h"
#include "tests/platform/System.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace fs = std::filesystem;
using QsTest::CTemporaryFolder;

namespace {

TEST(Process, KnowsItsFile)
{
    const fs::path file = fs::u8path(QsPlatform::ProgramFile());
    EXPECT_TRUE(file.is_absolute()) << file;
    EXPECT_TRUE(fs::is_regular_file(file)) << file;
    EXPECT_EQ("platform_tests", file.stem());
}

TEST(Process, ReadsItsEnvironment)
{
    EXPECT_NE(std::nullopt, QsPlatform::EnvironmentVariable("PATH"));
    EXPECT_EQ(std::nullopt, QsPlatform::EnvironmentVariable("QS_TEST_NOT_THERE"));
    for (const std::string& value :
         {std::string("plain"), std::string("J\xC3\xBCrgen \xE4\xB8\xAD\xF0\x9F\x98\x80"), std::string(5000, 'x')})
    {
        SetEnvironment("QS_TEST_VARIABLE", value);
        EXPECT_EQ(value, QsPlatform::EnvironmentVariable("QS_TEST_VARIABLE"));
    }
}

// A program that is started without streams. Its file says by its number whether a stream was free to be taken.
QS_CHILD_PROCESS(HasNoStreams)
{
    constexpr int streams = 3;
    for (int number = 0; number < streams; ++number)
        CloseStandardStream(number);
    QsPlatform::GuardStandardStreams();
    std::FILE* const file = std::fopen(arguments.at(0).c_str(), "wb");
    if (file == nullptr || fileno(file) < streams)
        return 1;
    for (std::FILE* const stream : {stdout, stderr})
        if (std::fputs("lost", stream) != EOF && std::fflush(stream) != EOF)
            return 2;
    if (std::fgetc(stdin) != EOF || std::ferror(stdin) == 0)
        return 3;
    return std::fputs("kept", file) != EOF && std::fclose(file) == 0 ? 42 : 4;
}

TEST(StandardStreams, ThatAreClosedFailAndAreNotTakenByFiles)
{
    const CTemporaryFolder folder;
    EXPECT_EQ(42, QsTest::CChildProcess("HasNoStreams", {folder.File("file")}).Wait());
    EXPECT_EQ("kept", QsTest::ContentsOf(folder.File("file")));
}

// The same program with its output in a file, which it writes itself.
QS_CHILD_PROCESS(WritesLines)
{
    if (std::freopen(arguments.at(0).c_str(), "w", stdout) == nullptr)
        return 1;
    QsPlatform::GuardStandardStreams();
    return std::fputs("one\ntwo\n\xC3\xBC\n", stdout) != EOF && std::fflush(stdout) != EOF ? 42 : 2;
}

TEST(StandardStreams, PassOnWhatIsWritten)
{
    const CTemporaryFolder folder;
    EXPECT_EQ(42, QsTest::CChildProcess("WritesLines", {folder.File("file")}).Wait());
    EXPECT_EQ("one\ntwo\n\xC3\xBC\n", QsTest::ContentsOf(folder.File("file")));
}

QS_CHILD_PROCESS(EndsAtOnce)
{
    static const struct SLeavesATrace
    {
        std::string file;
        ~SLeavesATrace() { std::fclose(std::fopen(file.c_str(), "wb")); }
    } trace{arguments.at(0)};
    QsPlatform::EndProcess(17);
}

TEST(Process, EndsWithTheCodeAndDestroysNothing)
{
    const CTemporaryFolder folder;
    EXPECT_EQ(17, QsTest::CChildProcess("EndsAtOnce", {folder.File("trace")}).Wait());
    EXPECT_FALSE(fs::exists(fs::u8path(folder.File("trace"))));
}

} // namespace
