// Files that are replaced as a whole.
#include "platform/AtomicFile.h"
#include "tests/platform/System.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using QsPlatform::EFlush;
using QsPlatform::KeepFileAside;
using QsPlatform::OnFileReplacementStep;
using QsPlatform::ReplaceFileContents;
using QsTest::CChildProcess;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

bool Replace(const std::string& path, const std::string& text, std::string& error, EFlush flush = EFlush::ToSystem)
{
    return ReplaceFileContents(path, text.data(), text.size(), flush, error);
}

std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(fs::u8path(folder)))
        names.push_back(entry.path().filename().u8string());
    return names;
}

// As the product reads; empty when it cannot be opened.
std::string Read(const std::string& path)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(QsPlatform::OpenToRead(path), &std::fclose);
    std::string text;
    char block[4096];
    std::size_t count = 0;
    while (file != nullptr && (count = std::fread(block, 1, sizeof block, file.get())) > 0)
        text.append(block, count);
    return text;
}

MATCHER_P(SaysWhyItIsNotWritten, path, "")
{
    return arg.find(path + std::string(": cannot be written: ")) == 0 && arg.find('\n') == std::string::npos &&
           arg.find('\r') == std::string::npos && arg.back() != '.' && arg.back() != ' ';
}

TEST(AtomicFile, HasTheNewContentAndNothingBesideIt)
{
    const CTemporaryFolder folder;
    std::string error = "poison";
    for (const EFlush flush : {EFlush::ToSystem, EFlush::ToDisk})
    {
        const std::string path = folder.File("file");
        ASSERT_TRUE(Replace(path, "first", error, flush)) << error;
        EXPECT_EQ("first", ContentsOf(path));
        ASSERT_TRUE(Replace(path, std::string(3000000, 'x'), error, flush)) << error;
        EXPECT_EQ(std::string(3000000, 'x'), ContentsOf(path));
        ASSERT_TRUE(Replace(path, "line\nand\r\nline\x1a", error, flush)) << error;
        EXPECT_EQ("line\nand\r\nline\x1a", ContentsOf(path));
        ASSERT_TRUE(Replace(path, "", error, flush)) << error;
        EXPECT_EQ("", ContentsOf(path));
    }
    EXPECT_EQ("poison", error);
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file"));
}

TEST(AtomicFile, MayHaveANameInAnyScript)
{
    const CTemporaryFolder folder;
    std::string error, kept;
    const std::string below = folder.File("J\xC3\xBCrgen \xE4\xB8\xAD \xF0\x9F\x98\x80");
    fs::create_directory(fs::u8path(below));
    const std::string path = below + "/\xC5\x82\xC3\xB3\xC5\xBC\xF0\x9F\x92\xA1.json";
    ASSERT_TRUE(Replace(path, "first", error)) << error;
    ASSERT_TRUE(Replace(path, "second", error)) << error;
    EXPECT_EQ("second", ContentsOf(path));
    ASSERT_TRUE(KeepFileAside(path, ".damaged", kept, error)) << error;
    EXPECT_EQ(path + ".damaged", kept);
    EXPECT_EQ("second", ContentsOf(kept));
    EXPECT_FALSE(Replace(below + "/\xE4\xB8\xAD/file", "new", error));
    EXPECT_THAT(error, SaysWhyItIsNotWritten(below + "/\xE4\xB8\xAD/file"));
}

TEST(AtomicFile, MayLieInADeepFolder)
{
    const CTemporaryFolder folder;
    std::string error, kept;
    std::vector<std::string> folders{folder.Path()};
    for (int i = 0; i < 5; ++i)
    {
        folders.push_back(folders.back() + "/" + std::string(100, static_cast<char>('a' + i)));
        ASSERT_TRUE(fs::create_directory(LongName(folders.back())));
    }
    const std::string path = folders.back() + "/file";
    ASSERT_TRUE(Replace(path, "first", error)) << error;
    ASSERT_TRUE(Replace(path, "second", error, EFlush::ToDisk)) << error;
    EXPECT_EQ("second", Read(path));
    ASSERT_TRUE(KeepFileAside(path, ".damaged", kept, error)) << error;
    EXPECT_EQ(path + ".damaged", kept);
    for (const std::string& file : {path, kept})
        EXPECT_TRUE(fs::remove(LongName(file)));
    for (auto below = folders.rbegin(); below + 1 != folders.rend(); ++below) // nothing else is in them
        EXPECT_TRUE(fs::remove(LongName(*below)));
}

TEST(AtomicFile, RefusesWhatIsNoFile)
{
    const CTemporaryFolder folder;
    std::string error;
    fs::create_directory(fs::u8path(folder.File("folder")));
    EXPECT_FALSE(Replace(folder.File("folder"), "new", error));
    EXPECT_THAT(error, HasSubstr("expected a file, found a folder"));
    EXPECT_FALSE(Replace(folder.File("folder/"), "new", error));
    EXPECT_THAT(error, HasSubstr("expected the path of a file"));
    EXPECT_FALSE(Replace(folder.File("none/file"), "new", error));
    EXPECT_THAT(error, SaysWhyItIsNotWritten(folder.File("none/file")));
    EXPECT_FALSE(Replace("", "new", error));
    EXPECT_FALSE(Replace(folder.Write("file", "") + "/below", "new", error));
    EXPECT_THAT(error, SaysWhyItIsNotWritten(folder.File("file/below")));
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("folder", "file"));
}

TEST(AtomicFile, TakesNamesUpToTheLongestOne)
{
    const CTemporaryFolder folder;
    std::string error;
    const std::string path = folder.File(std::string(255, 'n'));
    ASSERT_TRUE(Replace(path, "new", error)) << error;
    EXPECT_EQ("new", Read(path));
    EXPECT_FALSE(Replace(path + "n", "new", error));
    EXPECT_THAT(error, SaysWhyItIsNotWritten(path + "n"));
    EXPECT_EQ(1u, NamesIn(folder.Path()).size());
}

TEST(AtomicFile, IsKeptAsideUnderTheNextFreeName)
{
    const CTemporaryFolder folder;
    std::string kept, error;
    const std::string path = folder.Write("file", "bad");
    folder.Write("file.damaged2", "older");
    ASSERT_TRUE(KeepFileAside(path, ".damaged", kept, error)) << error;
    EXPECT_EQ(path + ".damaged", kept);
    ASSERT_TRUE(KeepFileAside(path, ".damaged", kept, error)) << error;
    EXPECT_EQ(path + ".damaged3", kept);
    ASSERT_TRUE(Replace(path, "good", error)) << error;
    EXPECT_EQ("bad", ContentsOf(path + ".damaged"));
    EXPECT_EQ("older", ContentsOf(path + ".damaged2"));
    EXPECT_EQ("bad", ContentsOf(path + ".damaged3"));
    EXPECT_FALSE(KeepFileAside(folder.File("none"), ".damaged", kept, error));
    EXPECT_THAT(error, StartsWith(folder.File("none") + ": cannot be kept aside: "));
}

// ------------------------------------------------------------------------------------------ other threads and
// processes

TEST(AtomicFile, IsWholeForEveryReaderWhileItIsReplaced)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", std::string(300000, 'a'));
    std::atomic<bool> done{false};
    std::atomic<unsigned> read{0}, notWhole{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i)
        readers.emplace_back(
            [&]
            {
                while (!done)
                {
                    const std::string text = Read(path);
                    ++read;
                    notWhole += text.size() != 300000 || text.find_first_not_of(text[0]) != std::string::npos ? 1 : 0;
                    std::this_thread::sleep_for(std::chrono::milliseconds(1)); // lets the writer in
                }
            });
    unsigned written = 0;
    std::string error;
    while (written < 100 || read < 100)
    {
        ASSERT_TRUE(Replace(path, std::string(300000, static_cast<char>('a' + written % 26)), error)) << error;
        ++written;
    }
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(0u, notWhole);
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file"));
}

TEST(AtomicFile, MayBeReplacedByManyAtTheSameTime)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    std::atomic<unsigned> failed{0};
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i)
        writers.emplace_back(
            [&, i]
            {
                std::string error;
                for (int n = 0; n < 25; ++n)
                    failed += Replace(path, std::string(70000, static_cast<char>('a' + i)), error) ? 0 : 1;
            });
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(0u, failed);
    const std::string text = ContentsOf(path);
    EXPECT_EQ(70000u, text.size());
    EXPECT_EQ(std::string::npos, text.find_first_not_of(text[0]));
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file"));
}

std::vector<std::string> g_steps;
std::size_t g_stepsLeft = 0;
std::string g_folder;

void NoteStep(const char* step)
{
    g_steps.push_back(step);
}

void KillAtStep(const char*)
{
    if (--g_stepsLeft == 0)
        QsTest::KillThisProcess();
}

void StayWhenItIsLocked(const char* step)
{
    if (step == std::string("locked"))
        QsTest::Meet(g_folder, "writing", "go on");
}

QS_CHILD_PROCESS(ReplacesAndIsKilled) // path, after how many steps
{
    g_stepsLeft = std::stoul(arguments.at(1));
    OnFileReplacementStep(&KillAtStep);
    std::string error;
    return Replace(arguments.at(0), std::string(150000, 'n'), error, EFlush::ToDisk) ? 0 : 1;
}

QS_CHILD_PROCESS(StaysWhileItReplaces) // path, folder to meet in
{
    g_folder = arguments.at(1);
    OnFileReplacementStep(&StayWhenItIsLocked);
    std::string error;
    return Replace(arguments.at(0), "of the one that stays", error) ? 0 : 1;
}

TEST(AtomicFile, IsOldOrNewAfterItsWriterWasKilledAtAnyStep)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "old");
    std::string error;
    g_steps.clear();
    OnFileReplacementStep(&NoteStep);
    ASSERT_TRUE(Replace(path, std::string(150000, 'n'), error, EFlush::ToDisk)) << error;
    OnFileReplacementStep(nullptr);
    const std::vector<std::string> steps = g_steps;
    ASSERT_THAT(steps, testing::IsSupersetOf(
                           {"created", "permitted", "wrote", "wrote", "flushed", "renamed", "flushed folder"}));
    const auto renamed = static_cast<std::size_t>(std::find(steps.begin(), steps.end(), "renamed") - steps.begin());
    for (std::size_t step = 0; step < steps.size(); ++step)
    {
        SCOPED_TRACE(steps[step]);
        ASSERT_TRUE(Replace(path, "old", error)) << error; // which removes what the last one left
        EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file"));
        EXPECT_EQ(std::nullopt, CChildProcess("ReplacesAndIsKilled", {path, std::to_string(step + 1)}).Wait());
        EXPECT_EQ(step < renamed ? "old" : std::string(150000, 'n'), ContentsOf(path));
        EXPECT_EQ(step < renamed ? 2u : 1u, NamesIn(folder.Path()).size());
    }
}

TEST(AtomicFile, RemovesWhatKilledProcessesLeftAndOnlyThat)
{
    const CTemporaryFolder folder, meeting, other;
    std::string error;
    folder.Write(".file.4194304999-3.tmp", "left behind");
    folder.Write(".file.other.tmp", "of somebody else");
    folder.Write(".file2.17-3.tmp", "of another file");
    CChildProcess killed("StaysWhileItReplaces", {folder.File("file"), meeting.Path()});
    CChildProcess living("StaysWhileItReplaces", {folder.File("file"), other.Path()});
    ASSERT_TRUE(QsTest::WaitForFile(meeting.File("writing")) && QsTest::WaitForFile(other.File("writing")));
    ASSERT_TRUE(Replace(folder.File("file"), "new", error)) << error;
    const auto ofAWriter = AllOf(StartsWith(".file."), Not(HasSubstr("-3.tmp")), Not(HasSubstr("other")));
    EXPECT_THAT(NamesIn(folder.Path()),
                UnorderedElementsAre("file", ".file.other.tmp", ".file2.17-3.tmp", ofAWriter, ofAWriter));
    killed.Kill();
    ASSERT_TRUE(Replace(folder.File("file"), "newer", error)) << error;
    EXPECT_EQ("newer", ContentsOf(folder.File("file")));
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file", ".file.other.tmp", ".file2.17-3.tmp", ofAWriter));
    other.Write("go on", "");
    EXPECT_EQ(0, living.Wait());
    EXPECT_EQ("of the one that stays", ContentsOf(folder.File("file")));
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file", ".file.other.tmp", ".file2.17-3.tmp"));
}

} // namespace
