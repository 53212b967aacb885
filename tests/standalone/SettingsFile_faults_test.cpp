// Settings files that are damaged, foreign, not to be read or not to be written, and processes that are killed while
// they save.
#include "platform/posix/Control.h"
#include "standalone/DiagnosticLog.h"
#include "tests/standalone/SettingsTest.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <unistd.h>

namespace fs = std::filesystem;
using QsStandalone::CQsDiagnosticLog;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    return names;
}

void Fill(CQsLiteVariantW& writer, double number)
{
    writer.OpenLevel(L"Section");
    writer.SetString(L"text", L"\u00e4 \\ \"quoted\"");
    for (int i = 0; i < 2; ++i)
    {
        writer.OpenLevel(L"");
        writer.SetDouble(L"v", number + i);
        writer.SetUnsigned(L"u", 7);
        writer.CloseLevel();
    }
    writer.SetBinary(L"b", "xyz", 3);
    writer.SetDouble(L"nan", OfBits(0x7ff8000000000000u));
    writer.SetBool(L"f", false);
}

std::string ContentOf(double number, bool compact = false)
{
    const CTemporaryFolder folder;
    CQsLiteVariantW writer;
    Fill(writer, number);
    EXPECT_EQ(0, Save(CQsLiteVariantR(writer), folder.File("file"), compact));
    return ContentsOf(folder.File("file"));
}

// A store with one entry, to see that a failed load leaves it.
class CUntouched
{
public:
    CUntouched() : m_store((m_writer.SetDouble(L"untouched", 4.0), m_writer)) {}

    CQsLiteVariantR& Store() { return m_store; }
    bool Is() const { return m_store.GetEntryCount() == 1 && m_store.GetDouble(L"untouched", 0.0) == 4.0; }

private:
    CQsLiteVariantW m_writer;
    CQsLiteVariantR m_store;
};

// The line that the refusal writes, without the path in front of it; "" when the file is taken.
std::string Complaint(const std::string& text, bool check = true)
{
    static const CTemporaryFolder folder; // one for the thousands of files of a test
    folder.Write("file", text);
    CQsDiagnosticLog::ToMemory(false);
    CQsDiagnosticLog::ToMemory(true);
    CUntouched untouched;
    if (Load(untouched.Store(), folder.File("file"), check) == 0)
        return {};
    EXPECT_TRUE(untouched.Is());
    const auto lines = CQsDiagnosticLog::MemoryLines();
    EXPECT_EQ(1u, lines.size());
    const std::string line = lines.empty() ? std::string() : lines[0].text.ToUtf8();
    EXPECT_THAT(line, StartsWith(folder.File("file") + ":"));
    EXPECT_EQ(std::string::npos, line.find('\n'));
    return line.substr(std::min(line.size(), folder.File("file").size()));
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

// ------------------------------------------------------------------------------------------------------------ damage

TEST(SettingsDamage, IsSeenWhereverTheFileIsCut)
{
    for (const bool compact : {false, true})
    {
        const std::string whole = ContentOf(1.5, compact);
        ASSERT_EQ("", Complaint(whole));
        for (std::size_t length = 0; length < whole.size(); ++length)
            EXPECT_THAT(Complaint(whole.substr(0, length)), HasSubstr(": expected ")) << "cut to " << length;
    }
}

TEST(SettingsDamage, IsSeenWhicheverBitIsFlipped)
{
    for (const bool compact : {false, true})
    {
        const std::string whole = ContentOf(1.5, compact);
        for (std::size_t i = 0; i < whole.size() * 8; i += compact ? 5 : 1) // every bit; every fifth of the same store
        {
            std::string damaged = whole;
            damaged[i / 8] = static_cast<char>(damaged[i / 8] ^ (1 << (i % 8)));
            EXPECT_THAT(Complaint(damaged), HasSubstr(": expected ")) << "byte " << i / 8 << " bit " << i % 8;
        }
    }
}

TEST(SettingsDamage, IsSeenWhereverAByteBeforeTheEndSumIsMissingOrDoubled)
{
    const std::string whole = ContentOf(1.5);
    const std::size_t end = whole.rfind("\"sum\"");
    ASSERT_NE(std::string::npos, end);
    for (std::size_t i = 0; i < end; ++i)
    {
        EXPECT_THAT(Complaint(std::string(whole).erase(i, 1)), HasSubstr(": expected ")) << "without byte " << i;
        EXPECT_THAT(Complaint(std::string(whole).insert(i, 1, whole[i])), HasSubstr(": expected ")) << i << " doubled";
    }
}

TEST(SettingsDamage, IsNamedWithItsLineAndWhatWasExpected)
{
    const std::string head = "{\"format\": \"stimulation-settings\", \"version\": 1, \"entries\": [\n";
    const std::map<std::string, std::string> complaints{
        {"", ":1: expected a JSON object, found an empty file"},
        {"\n", ":2: expected a JSON object, found an empty file"},
        {"[]", ":1: expected a settings file, an object, found a list"},
        {"17", ":1: expected a settings file, an object, found 17"},
        {"null", ":1: expected a settings file, an object, found null"},
        {"{}", ":1: expected the key \"format\", found the end of the object"},
        {"{\"version\": 1}", ":1: expected the key \"format\", found the key \"version\""},
        {"{\"format\": \"stimulation-rig\", \"version\": 1}",
         ":1: expected \"format\" to be \"stimulation-settings\", found \"stimulation-rig\""},
        {"{\"format\": \"stimulation-settings\",\n\"version\": 2}", ":2: expected \"version\" to be 1, found 2"},
        {"{\"format\": \"stimulation-settings\", \"version\": 1}",
         ":1: expected the key \"entries\", found the end of the object"},
        {"{\"format\": \"stimulation-settings\", \"version\": 1, \"entries\": {}}",
         ":1: expected a list of entries, found an object"},
        {head + "1]}", ":2: expected an entry, an object with one key, found 1"},
        {head + "{}]}", ":2: expected the name of an entry, found the end of the object"},
        {head + "{\"a\": null}]}",
         ":2: expected a number, a text, true, false, a list of entries or a typed value, found null"},
        {head + "{\"a\": 1, \"b\": 2}]}", ":2: expected one key in this object, found the key \"b\""},
        {head + "{\"a\": {\"float\": 1}}]}",
         ":2: expected the key \"unsigned\", \"binary\" or \"double\", found the key \"float\""},
        {head + "{\"a\": {\"unsigned\": -1}}]}", ":2: expected a whole number from 0 to 4294967295, found -1"},
        {head + "{\"a\": {\"unsigned\": 4294967296}}]}",
         ":2: expected a whole number from 0 to 4294967295, found 4294967296"},
        {head + "{\"a\": {\"unsigned\": 1.0}}]}", ":2: expected a whole number from 0 to 4294967295, found 1.0"},
        {head + "{\"a\": {\"binary\": \"0\"}}]}", ":2: expected bytes of two digits each, found \"0\""},
        {head + "{\"a\": {\"binary\": \"0G\"}}]}", ":2: expected bytes of two digits each, found \"0G\""},
        {head + "{\"a\": {\"double\": \"7ff\"}}]}", ":2: expected the 16 digits of a double, found \"7ff\""},
        {head + "{\"a\": {\"unsigned\": 1, \"binary\": \"\"}}]}",
         ":2: expected one key in this object, found the key \"binary\""},
        {head + "{\"a\": 1e999}]}", ":2: expected a number that a double can hold, found \"1e999\""},
        {head + "{\"a\": 1e-999}]}", ":2: expected a number that a double can hold, found 1e-999"},
        {head + "{\"a\": NaN}]}", ":2: expected a JSON value, found \"NaN\""},
        {head + "{\"\xFF\": 1}]}", ":2: expected a text in UTF-8, found other bytes"},
        {head + "{\"a\": \"\xC0\x80\"}]}", ":2: expected a text in UTF-8, found other bytes"},
        {head + "{\"a\": \"\\u0000D8\"}]}", ":2: expected a text in UTF-8, found other bytes"},
        {head + "], \"sum\": \"0123\"}\n", ":2: expected an end sum of 16 digits, found \"0123\""},
        {head + "], \"more\": 1}\n", ":2: expected the key \"sum\", found the key \"more\""},
        {head + "]} x", ":2: expected the end of the file, found \"x\""},
        {head + "]}" + std::string(1, '\0'), ":2: expected text, found a zero byte"},
    };
    for (const auto& [text, complaint] : complaints)
    {
        EXPECT_EQ(complaint, Complaint(text)) << text;
        EXPECT_EQ(complaint, Complaint(text, false)) << text; // not even without the check
    }
}

TEST(SettingsDamage, OfAForeignFileIsSeen)
{
    for (const char* const name : {"README.md", "examples/rigs/demo.json", "tests/support/vectors.json", "dev"})
        EXPECT_THAT(Complaint(ContentsOf(std::string(QS_SOURCE "/") + name)), HasSubstr(": expected ")) << name;
    EXPECT_THAT(Complaint("<?xml version=\"1.0\"?><variant/>"), HasSubstr(": expected "));
    std::string noise;
    std::mt19937 random(5);
    for (int i = 0; i < 5000; ++i)
        noise += static_cast<char>(random());
    EXPECT_THAT(Complaint(noise), HasSubstr(": expected "));
    EXPECT_THAT(Complaint(std::string(100000, '[')), HasSubstr(": expected "));
    EXPECT_THAT(Complaint(std::string(100000, '{')), HasSubstr(": expected "));
}

TEST(SettingsDamage, IsNestingBeyond64Levels)
{
    const CTemporaryFolder folder;
    CQsLiteVariantW writer;
    for (int i = 0; i < 64; ++i)
        writer.OpenLevel(L"l");
    writer.SetDouble(L"deepest", 1.0);
    CQsLiteVariantR store;
    ASSERT_EQ(0, Save(CQsLiteVariantR(writer), folder.File("file")));
    const std::string before = ContentsOf(folder.File("file"));
    folder.Write("copy", before + "\n");
    ASSERT_EQ(0, Load(store, folder.File("copy")));
    for (int i = 0; i < 64; ++i)
        ASSERT_TRUE(store.EnterLevel(L"l"));
    EXPECT_EQ(1.0, store.GetDouble(L"deepest", 0.0));

    writer.OpenLevel(L"one more");
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(-9, Save(CQsLiteVariantR(writer), folder.File("file")));
    EXPECT_EQ(folder.File("file") + ": expected at most 64 levels in each other, found more",
              CQsDiagnosticLog::MemoryLines().back().text.ToUtf8());
    EXPECT_EQ(before, ContentsOf(folder.File("file")));

    std::string deep = before;
    deep.insert(deep.find("{\"deepest"), "{\"l\": []},");
    EXPECT_THAT(Complaint(deep), HasSubstr("expected at most 64 levels in each other, found more"));
}

TEST(SettingsDamage, IsAFileOfMoreThan256MiB)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", "{");
    ASSERT_EQ(0, truncate(path.c_str(), (off_t{256} << 20) + 1)); // sparse: it takes no room
    CUntouched untouched;
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(-9, Load(untouched.Store(), path));
    EXPECT_TRUE(untouched.Is());
    EXPECT_EQ(path + ": has 268435457 bytes, at most 268435456 are expected",
              CQsDiagnosticLog::MemoryLines().back().text.ToUtf8());
    EXPECT_EQ(0, Save(untouched.Store(), path));
    EXPECT_EQ((std::uintmax_t{256} << 20) + 1, fs::file_size(path + ".damaged"));
}

TEST(SettingsDamage, IsKeptBesideTheFileThatReplacesIt)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    CUntouched store;
    std::string altered = ContentOf(1.5);
    altered.replace(altered.find("1.5"), 3, "9.5");
    for (const std::string& damaged : {std::string("no settings"), ContentOf(1.5).substr(0, 100), altered})
    {
        folder.Write("file", damaged);
        CQsDiagnosticLog::ToMemory(false);
        CQsDiagnosticLog::ToMemory(true);
        ASSERT_EQ(0, Save(store.Store(), path));
        ASSERT_EQ(1u, CQsDiagnosticLog::MemoryLines().size()); // says so
        EXPECT_THAT(CQsDiagnosticLog::MemoryLines()[0].text.ToUtf8(), HasSubstr("; kept as " + path + ".damaged"));
    }
    EXPECT_EQ("no settings", ContentsOf(path + ".damaged"));
    EXPECT_EQ(ContentOf(1.5).substr(0, 100), ContentsOf(path + ".damaged2"));
    EXPECT_EQ(altered, ContentsOf(path + ".damaged3"));
    CQsLiteVariantR loaded;
    EXPECT_EQ(0, Load(loaded, path));
    EXPECT_EQ(4.0, loaded.GetDouble(L"untouched", 0.0));
    ASSERT_EQ(0, Save(store.Store(), path)); // a whole one is not kept
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("file", "file.damaged", "file.damaged2", "file.damaged3"));
}

// --------------------------------------------------------------------------------------------- what cannot be done

TEST(SettingsFault, AFolderOrAPipeIsNoFile)
{
    const CTemporaryFolder folder;
    fs::create_directory(folder.File("folder"));
    ASSERT_EQ(0, mkfifo(folder.File("pipe").c_str(), 0600));
    CUntouched untouched;
    for (const char* const name : {"folder", "pipe"})
    {
        CQsDiagnosticLog::ToMemory(false);
        CQsDiagnosticLog::ToMemory(true);
        EXPECT_EQ(-9, Load(untouched.Store(), folder.File(name)));
        EXPECT_EQ(-9, Save(untouched.Store(), folder.File(name)));
        ASSERT_EQ(2u, CQsDiagnosticLog::MemoryLines().size());
        for (const QsStandalone::SLogLine& line : CQsDiagnosticLog::MemoryLines())
            EXPECT_THAT(line.text.ToUtf8(), StartsWith(folder.File(name) + ": expected a file, found a "));
    }
    EXPECT_TRUE(untouched.Is());
    EXPECT_THAT(NamesIn(folder.Path()), UnorderedElementsAre("folder", "pipe"));
}

TEST(SettingsFault, APathThatCannotBeIsAFailure)
{
    const CTemporaryFolder folder;
    CUntouched untouched;
    EXPECT_EQ(-9, Save(untouched.Store(), folder.File("none/file")));
    EXPECT_EQ(-9, Save(untouched.Store(), ""));
    EXPECT_EQ(-9, untouched.Store().SaveToFile(nullptr, false, false, false));
    EXPECT_EQ(-13, untouched.Store().LoadFromFile(nullptr, true, false));
    EXPECT_TRUE(untouched.Is());
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

TEST(SettingsFault, KeepsTheOldFileWhenTheBackupCannotBeWritten)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", ContentOf(1.5));
    fs::create_directory(path + ".bak");
    CUntouched store;
    EXPECT_EQ(-9, store.Store().SaveToFile(CQsStringW::FromUtf8(path).c_str(), false, false, true));
    EXPECT_EQ(ContentOf(1.5), ContentsOf(path));
}

// ---------------------------------------------------------------------------------------------- several at a time

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

TEST(SettingsWriters, OfSeveralThreadsAndProcessesEachLeaveAWholeFile)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    const auto saveRepeatedly = [&](double number, int times)
    {
        CQsLiteVariantW writer;
        FillEqual(writer, number, keysOfOne);
        const CQsLiteVariantR store(writer);
        int failures = 0;
        for (int i = 0; i < times; ++i)
            failures += Save(store, path) != 0 ? 1 : 0;
        return failures;
    };
    ASSERT_EQ(0, saveRepeatedly(1.0, 1));
    constexpr int times = 40;
    std::vector<pid_t> children;
    for (const double number : {2.0, 3.0})
    {
        const pid_t child = fork();
        if (child == 0)
            _exit(std::min(saveRepeatedly(number, times), 99));
        children.push_back(child);
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (const double number : {4.0, 5.0})
        threads.emplace_back([&, number] { failures += saveRepeatedly(number, times); });
    for (int i = 0; i < times; ++i)
    {
        const double number = NumberIn(path, keysOfOne);
        EXPECT_TRUE(number >= 1.0 && number <= 5.0) << "read " << i << ": " << number;
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const pid_t child : children)
    {
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(0, WEXITSTATUS(status));
    }
    EXPECT_EQ(0, failures);
    EXPECT_GE(NumberIn(path, keysOfOne), 2.0);
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file")); // and nothing was taken for damaged
}

// -------------------------------------------------------------------------------------------------- killed processes

int s_stepsLeft = 0;
std::vector<std::string> s_steps;

void KillAtStep(const char*)
{
    if (--s_stepsLeft == 0)
        kill(getpid(), SIGKILL);
}

void CountStep(const char* step)
{
    s_steps.push_back(step);
}

TEST(SettingsKill, BetweenAnyTwoStepsOfASaveLeavesTheOldOrTheNewContent)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    std::vector<CQsLiteVariantW> writers(2);
    FillEqual(writers[0], 0.0, keysOfOne);
    FillEqual(writers[1], 1.0, keysOfOne);
    const CQsLiteVariantR stores[2]{CQsLiteVariantR(writers[0]), CQsLiteVariantR(writers[1])};

    ASSERT_EQ(0, Save(stores[0], path, false, true));
    QsPlatform::OnFileReplacementStep(CountStep);
    ASSERT_EQ(0, Save(stores[0], path, false, true));
    QsPlatform::OnFileReplacementStep(nullptr);
    const std::size_t steps = s_steps.size();
    ASSERT_THAT(s_steps, testing::IsSupersetOf({"created", "locked", "permitted", "wrote", "wrote", "flushed",
                                                "renamed", "flushed folder"}));

    constexpr int kills = 500;
    std::mt19937 random(500);
    std::vector<int> killedAt(steps, 0);
    int oldOnes = 0, newOnes = 0, leftBehind = 0;
    int current = 0;
    for (int i = 0; i < kills; ++i)
    {
        const std::size_t step = i < static_cast<int>(steps) ? static_cast<std::size_t>(i) : random() % steps;
        const int next = 1 - current;
        ASSERT_EQ(-SIGKILL, InAnotherProcess(
                                [&]
                                {
                                    s_stepsLeft = static_cast<int>(step) + 1;
                                    QsPlatform::OnFileReplacementStep(KillAtStep);
                                    return Save(stores[next], path, false, true) == 0 ? 1 : 2;
                                }))
            << "step " << step;
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
    ASSERT_EQ(0, Save(stores[0], path));
    EXPECT_EQ(0.0, NumberIn(path, keysOfOne));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

TEST(SettingsKill, AtAnyTimeLeavesAWholeFile)
{
    const CTemporaryFolder folder;
    const std::string path = folder.File("file");
    std::vector<CQsLiteVariantW> writers(2);
    FillEqual(writers[0], 0.0, keysOfOne);
    FillEqual(writers[1], 1.0, keysOfOne);
    const CQsLiteVariantR stores[2]{CQsLiteVariantR(writers[0]), CQsLiteVariantR(writers[1])};
    ASSERT_EQ(0, Save(stores[0], path));
    std::mt19937 random(100);
    for (int i = 0; i < 100; ++i)
    {
        const pid_t child = fork();
        if (child == 0)
            for (int turn = 0;; ++turn)
                if (Save(stores[turn % 2], path, false, turn % 3 == 0) != 0)
                    _exit(1);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000)); // any moment of its work will do
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "a save failed";
        const double number = NumberIn(path, keysOfOne);
        ASSERT_TRUE(number == 0.0 || number == 1.0) << number;
    }
    ASSERT_EQ(0, Save(stores[1], path));
    EXPECT_EQ(1.0, NumberIn(path, keysOfOne));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("file"));
}

} // namespace
