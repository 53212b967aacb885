#include "core_ModuleBytes.h"
#include "standalone/ClassRecords.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <random>

using QsStandalone::ReadModuleFile;
using QsStandalone::SModuleFile;
using QsTest::ContentsOf;
using QsTest::CTemporaryFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

namespace {

const std::string probeModule = QS_PROBES "/Probe/ProbeModule" QS_MODULE_SUFFIX;

std::vector<std::string> NamesOf(const SModuleFile& module)
{
    std::vector<std::string> names;
    for (const auto& record : module.classes)
        names.push_back(record.className);
    return names;
}

void ExpectOneLine(const SModuleFile& module)
{
    EXPECT_THAT(module.error, ::testing::StartsWith(module.path + ": "));
    EXPECT_EQ(module.error.find('\n'), std::string::npos) << module.error;
}

SModuleFile ReadBytes(const CTemporaryFolder& folder, const std::string& bytes)
{
    return ReadModuleFile(folder.Write("module.bin", bytes));
}

} // namespace

TEST(ClassRecords, AreReadOutOfAModuleThatTheCompilerMade)
{
    const SModuleFile module = ReadModuleFile(probeModule);
    EXPECT_EQ(module.error, "");
    EXPECT_EQ(module.format, std::string(QS_MODULE_SUFFIX) == ".dll" ? "PE" : "ELF");
    EXPECT_EQ(module.section, "qsclass");
    // Compilers place the pairs of one source file in an order of their own.
    EXPECT_THAT(NamesOf(module), UnorderedElementsAre("CQsProbe", "CQsNestingProbe", "CQsThrowingProbe"));
    for (std::size_t i = 0; i < module.classes.size(); ++i)
    {
        const auto& record = module.classes[i];
        EXPECT_THAT(record.parents, ElementsAre("IQsStimulationDevice", "", "", "", "", "", "", "", ""));
        EXPECT_EQ(record.version, 1);
        EXPECT_EQ(record.friendlyName, record.className == "CQsProbe"          ? "Probe device"
                                       : record.className == "CQsNestingProbe" ? "Nesting probe"
                                                                               : "Throwing probe");
        EXPECT_EQ(record.offset % 16, 0u);
        EXPECT_EQ(record.offset == 0, i == 0);
    }
}

TEST(ClassRecords, AreReadOutOfBothKindsOfModulesWithZeroFilledGaps)
{
    const CTemporaryFolder folder;
    const std::string first = ClassBytes("CQsFirst", "First &amp; &#8364;");
    const std::string records = std::string(32, '\0') + first + std::string(48, '\0') + ClassBytes("CQsSecond", "");
    const std::pair<const char*, std::string> files[] = {{"PE", PeFile("qsclass", records)},
                                                         {"ELF", ElfFile("qsclass", records)}};
    for (const auto& [format, bytes] : files)
    {
        const SModuleFile module = ReadBytes(folder, bytes);
        EXPECT_EQ(module.error, "");
        EXPECT_EQ(module.format, format);
        ASSERT_THAT(NamesOf(module), ElementsAre("CQsFirst", "CQsSecond"));
        EXPECT_EQ(module.classes[0].friendlyName, "First & \xE2\x82\xAC");
        EXPECT_EQ(module.classes[0].offset, 32u);
        EXPECT_EQ(module.classes[1].offset, 32 + first.size() + 48);
    }
}

TEST(ClassRecords, AreNoneInAModuleWithoutTheirSection)
{
    const CTemporaryFolder folder;
    const SModuleFile module = ReadBytes(folder, PeFile(".data", "anything"));
    EXPECT_EQ(module.error, "");
    EXPECT_EQ(module.format, "PE");
    EXPECT_EQ(module.section, "");
    EXPECT_TRUE(module.classes.empty());
}

TEST(ClassRecords, GiveOneLineForWhatIsNoModule)
{
    const CTemporaryFolder folder;
    const std::string huge = folder.Write("huge.so", "\177ELF");
    std::filesystem::resize_file(std::filesystem::u8path(huge), std::uintmax_t{1} << 32); // takes no room on the disk
    const struct
    {
        std::string path;
        const char* says;
    } cases[] = {{folder.File("missing.so"), "no such file"},
                 {folder.Path(), "found a folder"},
                 {huge, "4294967296 bytes"},
                 {folder.Write("empty.so", ""), "empty"},
                 {folder.Write("text.so", "hello, this is a text\n"), "neither an ELF nor a PE"},
                 {folder.Write("magic.so", "\177ELF"), "headers"},
                 {folder.Write("dos.dll", "MZ" + std::string(200, '\0')), "without a PE header"},
                 {folder.Write("zeros.so", std::string(5000, '\0')), "neither an ELF nor a PE"}};
    for (const auto& c : cases)
    {
        const SModuleFile module = ReadModuleFile(c.path);
        ExpectOneLine(module);
        EXPECT_THAT(module.error, HasSubstr(c.says));
        EXPECT_TRUE(module.classes.empty());
    }
}

// The section table stands at the end of an ELF file, so that every cut loses part of it.
TEST(ClassRecords, AreNotTakenFromAFileThatWasCutOffAnywhere)
{
    const CTemporaryFolder folder;
    const std::string records = ClassBytes("CQsFirst", "First");
    for (const std::string& whole : {PeFile("qsclass", records), ElfFile("qsclass", records)})
    {
        for (std::size_t length = 0; length < whole.size(); ++length)
        {
            const SModuleFile module = ReadBytes(folder, whole.substr(0, length));
            ASSERT_NE(module.error, "") << length;
            ExpectOneLine(module);
            ASSERT_TRUE(module.classes.empty()) << length;
        }
    }
}

TEST(ClassRecords, OfADamagedPairAreNamedAndTheOthersKept)
{
    const CTemporaryFolder folder;
    const std::string good = ClassBytes("CQsGood", "Good");
    const std::string parents = ParentsText("CQsBad");
    const std::string version = VersionText("CQsBad", "1", "Bad");
    const auto without = [](std::string text, const std::string& part)
    { return text.erase(text.find(part), part.size()); };
    const struct
    {
        std::string records;
        const char* says;
    } cases[] = {
        {RecordBytes(without(parents, "<m_parent5 runtype=\"CQsStringW\" value=\"\"/>")) + RecordBytes(version),
         "m_parent5"},
        {RecordBytes(without(parents, "</variant>")) + RecordBytes(version), "not well-formed"},
        {RecordBytes(parents + "x") + RecordBytes(version), "not well-formed"},
        {RecordBytes(parents) + RecordBytes(VersionText("CQsOther", "1", "Bad")), "expected \"CQsBad\""},
        {RecordBytes(parents) + RecordBytes(VersionText("CQsBad", "one", "Bad")), "expected a number"},
        {RecordBytes(parents) + RecordBytes(without(version, " value=\"1\"")), "lacks \"value\""},
        {RecordBytes(version), "RQsRttiClass"},
        {RecordBytes(parents), "found \"RQsRttiClass\""}, // its version record is missing: the next class stands there
        {RecordBytes("hello"), "not well-formed"},
        {RecordBytes("<variant version=\"2.0\"/>"), "expected version=\"1.0\""},
        {RecordBytes("<!DOCTYPE a [<!ENTITY b \"c\">]><variant version=\"1.0\"/>"), "other than elements"},
        {RecordBytes(ParentsText("CQs-Bad")) + RecordBytes(version), "no class name"}};
    for (const auto& c : cases)
    {
        const SModuleFile module = ReadBytes(folder, PeFile("qsclass", good + c.records + good));
        ExpectOneLine(module);
        EXPECT_THAT(module.error, HasSubstr(c.says));
        EXPECT_THAT(module.error, HasSubstr("byte "));
        ASSERT_GE(module.classes.size(), 1u) << module.error;
        EXPECT_EQ(module.classes.front().className, "CQsGood");
    }
}

TEST(ClassRecords, MustEndAndBePaddedWithZeros)
{
    const CTemporaryFolder folder;
    const std::string parents = RecordBytes(ParentsText("CQsBad"));
    std::string unended = parents + RecordBytes(VersionText("CQsBad", "1", "x"));
    unended.resize(0x600, 'x');
    EXPECT_THAT(ReadBytes(folder, PeFile("qsclass", unended)).error, HasSubstr("has no end"));

    const std::string text = ParentsText("CQsPadded12"); // chosen to leave room behind the terminator
    std::string padded = RecordBytes(text);
    ASSERT_GE(padded.size(), 2 * text.size() + 4);
    padded[2 * text.size() + 2] = 'x';
    EXPECT_THAT(ReadBytes(folder, PeFile("qsclass", padded)).error, HasSubstr("padding is not zero"));
}

// Damage must give an error or the records that stand there, and never more than that.
TEST(ClassRecords, SurviveRandomDamage)
{
    const CTemporaryFolder folder;
    const std::string records = ClassBytes("CQsFirst", "First");
    const std::string modules[] = {ContentsOf(probeModule), PeFile("qsclass", records), ElfFile("qsclass", records)};
    std::mt19937 random(20240521);
    for (const std::string& whole : modules)
    {
        for (int round = 0; round < 2000; ++round)
        {
            std::string damaged = whole;
            for (unsigned i = 0; i < 1 + random() % 4; ++i)
                damaged[random() % 3 == 0 ? random() % 512 : random() % damaged.size()] =
                    static_cast<char>(random() & 0xFF);
            const SModuleFile module = ReadBytes(folder, damaged);
            ASSERT_LE(module.classes.size(), 3u);
            ASSERT_EQ(module.error.find('\n'), std::string::npos);
        }
    }
}
