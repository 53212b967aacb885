// Settings files that are damaged, foreign, not to be read or not to be written.
#include "standalone/DiagnosticLog.h"
#include "tests/standalone/SettingsFileTest.h"

#include <algorithm>
#include <map>

namespace fs = std::filesystem;
using QsStandalone::CQsDiagnosticLog;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

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
    fs::resize_file(fs::u8path(path), (std::uintmax_t{256} << 20) + 1); // sparse: it takes no room
    CUntouched untouched;
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(-9, Load(untouched.Store(), path));
    EXPECT_TRUE(untouched.Is());
    EXPECT_EQ(path + ": has 268435457 bytes, at most 268435456 are expected",
              CQsDiagnosticLog::MemoryLines().back().text.ToUtf8());
    EXPECT_EQ(0, Save(untouched.Store(), path));
    EXPECT_EQ((std::uintmax_t{256} << 20) + 1, fs::file_size(fs::u8path(path + ".damaged")));
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

TEST(SettingsFault, AFolderIsNoFile)
{
    const CTemporaryFolder folder;
    fs::create_directory(fs::u8path(folder.File("folder")));
    ExpectNoFile(folder.File("folder"));
    EXPECT_THAT(NamesIn(folder.Path()), ElementsAre("folder"));
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

TEST(SettingsFault, KeepsTheOldFileWhenTheBackupCannotBeWritten)
{
    const CTemporaryFolder folder;
    const std::string path = folder.Write("file", ContentOf(1.5));
    fs::create_directory(fs::u8path(path + ".bak"));
    CUntouched store;
    EXPECT_EQ(-9, store.Store().SaveToFile(CQsStringW::FromUtf8(path).c_str(), false, false, true));
    EXPECT_EQ(ContentOf(1.5), ContentsOf(path));
}

} // namespace
