// The class records of the module, byte by byte in its file: what loaders match without running code of it.
//
// The tests read this build's module and, where QS_OTHER_MODULE has been built, the one for the other system.
#include "tests/integration/ModuleImage.h"
#include "tests/integration/Stimhost.h"
#include "tests/standalone/core_ModuleBytes.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <gmock/gmock.h>

#include <algorithm>

using testing::Each;
using testing::UnorderedElementsAre;

namespace {

constexpr std::size_t s_boundary = 16;

struct SClass
{
    const char* name;
    const char* friendlyName;
};
constexpr SClass s_classes[] = {{"CQsShutterStimulationDevice", "Shutter Stimulation device"},
                                {"CQsStimulationDeviceAggregator", "Beampath Aggregated Stimulation device"},
                                {"CQsStimulationDeviceProxy", "Beampath Proxy Stimulation device"}};

// Always nine parents, those that are none with an empty value; `runtype` before `value`.
std::string ParentsRecord(const std::string& name)
{
    return "<variant version=\"1.0\"><" + name +
           " runtype=\"RQsRttiClass\">"
           "<m_parent1 runtype=\"CQsStringW\" value=\"IQsStimulationDevice\"/>"
           "<m_parent2 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent3 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent4 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent5 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent6 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent7 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent8 runtype=\"CQsStringW\" value=\"\"/>"
           "<m_parent9 runtype=\"CQsStringW\" value=\"\"/></" +
           name + "></variant>";
}

// `value` before `runtype`.
std::string VersionRecord(const std::string& name, const std::string& friendlyName)
{
    return "<variant version=\"1.0\"><" + name +
           " runtype=\"CQsListVariant\">"
           "<m_version value=\"1\" runtype=\"qs_int32\"/>"
           "<m_friendlyName value=\"" +
           friendlyName + "\" runtype=\"CQsStringW\"/></" + name + "></variant>";
}

// UTF-16LE with the terminator.
std::string Wide(const std::string& ascii)
{
    std::string bytes;
    for (const char c : ascii)
        bytes += {c, '\0'};
    return bytes + std::string(2, '\0');
}

std::size_t NextBoundary(std::size_t offset)
{
    return (offset + s_boundary - 1) / s_boundary * s_boundary;
}

// The bytes at `offset` are the text with its terminator and zeros up to the next boundary, which is returned; they are
// cleared, so that what is left can be looked at.
std::size_t TakeRecord(std::string& section, std::size_t offset, const std::string& text)
{
    const std::string wide = Wide(text);
    EXPECT_EQ(0u, offset % s_boundary) << text;
    EXPECT_EQ(wide, section.substr(offset, wide.size())) << "expected at " << offset << ": " << text;
    const std::size_t end = std::min(NextBoundary(offset + wide.size()), section.size());
    for (std::size_t i = offset + wide.size(); i < end; ++i)
        EXPECT_EQ('\0', section[i]) << "padding at " << i << " behind " << text;
    std::fill(section.begin() + static_cast<std::ptrdiff_t>(offset), section.begin() + static_cast<std::ptrdiff_t>(end),
              '\0');
    return end;
}

std::string RecordSection(const CModuleImage& image)
{
    for (const SImageSection& section : image.Sections())
        if (section.name == "qsclass")
            return section.bytes;
    return {};
}

enum class EModule
{
    Own,
    Other
};

class ClassRecords : public StimhostTest, public testing::WithParamInterface<EModule>
{
protected:
    void SetUp() override
    {
        StimhostTest::SetUp();
        m_path = GetParam() == EModule::Own ? QS_MODULE : QS_OTHER_MODULE;
        if (GetParam() == EModule::Other && !QFile::exists(QString::fromStdString(m_path)))
            GTEST_SKIP() << m_path << " has not been built";
    }

    std::string m_path;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modules, ClassRecords, testing::Values(EModule::Own, EModule::Other),
                         [](const testing::TestParamInfo<EModule>& module)
                         { return module.param == EModule::Own ? "ThisSystem" : "OtherSystem"; });

TEST_P(ClassRecords, StandInAWritableSectionOfTheirOwn)
{
    const CModuleImage image(ReadWhole(m_path));
    unsigned found = 0;
    for (const SImageSection& section : image.Sections())
        if (section.name == "qsclass")
        {
            ++found;
            EXPECT_TRUE(section.loaded);
            EXPECT_TRUE(section.writable);
            EXPECT_FALSE(section.executable);
            EXPECT_EQ(0u, section.address % s_boundary);
        }
    EXPECT_EQ(1u, found);
}

TEST_P(ClassRecords, AreTheParentsThenTheVersionOfEachClassAtBoundariesAndNothingElse)
{
    std::string section = RecordSection(CModuleImage(ReadWhole(m_path)));
    ASSERT_FALSE(section.empty());
    for (const SClass& cls : s_classes)
    {
        const std::string parents = ParentsRecord(cls.name);
        const std::size_t offset = section.find(Wide(parents));
        ASSERT_NE(std::string::npos, offset) << cls.name;
        const std::size_t version = TakeRecord(section, offset, parents);
        TakeRecord(section, version, VersionRecord(cls.name, cls.friendlyName));
    }
    // Neither a further class nor a byte of what stood between them.
    EXPECT_THAT(section, Each('\0'));
}

// Against the values that other implementations of this interface are checked with.
TEST_P(ClassRecords, HaveTheBytesOfTheReferenceValues)
{
    const std::string section = RecordSection(CModuleImage(ReadWhole(m_path)));
    const rapidjson::Document vectors = ParsedJson(ReadWhole(QS_VECTORS));
    unsigned compared = 0;
    for (const auto& vector : vectors["vectors"].GetArray())
    {
        if (std::string(vector["id"].GetString()).rfind("records-", 0) != 0)
            continue;
        const auto& layout = vector["output"]["layout"];
        ASSERT_EQ(2u, layout.Size());
        const std::size_t start = section.find(Wide(vector["output"]["texts"][0].GetString()));
        ASSERT_NE(std::string::npos, start) << vector["name"].GetString();
        for (const auto& record : layout.GetArray())
        {
            const std::size_t offset = start + record["offset"].GetUint();
            const std::size_t padded = record["padded"].GetUint();
            ASSERT_LE(offset + padded, section.size());
            const QByteArray bytes(section.data() + offset, static_cast<int>(padded));
            EXPECT_EQ(record["sha256"].GetString(),
                      QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex().toStdString())
                << vector["name"].GetString() << " at " << offset;
            ++compared;
        }
    }
    EXPECT_EQ(6u, compared); // two records of each of the three classes
}

TEST_P(ClassRecords, AreInspectedOnEverySystem)
{
    const SOutcome outcome = Stimhost({"inspect", m_path, "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    const auto& file = json["files"][0];
    EXPECT_STREQ(CModuleImage(ReadWhole(m_path)).IsElf() ? "ELF" : "PE", file["format"].GetString());
    EXPECT_STREQ("qsclass", file["section"].GetString());
    std::vector<std::pair<std::string, std::string>> classes;
    for (const auto& cls : file["classes"].GetArray())
    {
        classes.emplace_back(cls["class"].GetString(), cls["friendlyName"].GetString());
        EXPECT_EQ(1, cls["version"].GetInt());
        EXPECT_EQ(0u, cls["offset"].GetUint() % s_boundary);
        ASSERT_EQ(9u, cls["parents"].Size());
        EXPECT_STREQ("IQsStimulationDevice", cls["parents"][0].GetString());
        for (unsigned i = 1; i < 9; ++i)
            EXPECT_STREQ("", cls["parents"][i].GetString());
    }
    EXPECT_THAT(classes, UnorderedElementsAre(std::pair(s_classes[0].name, s_classes[0].friendlyName),
                                              std::pair(s_classes[1].name, s_classes[1].friendlyName),
                                              std::pair(s_classes[2].name, s_classes[2].friendlyName)));
}

TEST_P(ClassRecords, ComeWithAConstructorAndClassInformationByPlainNames)
{
    EXPECT_THAT(CModuleImage(ReadWhole(m_path)).ExportedNames(),
                testing::IsSupersetOf(
                    {"QS_ConstructorForCQsShutterStimulationDevice", "QS_ConstructorForCQsStimulationDeviceAggregator",
                     "QS_ConstructorForCQsStimulationDeviceProxy", "sm_classCQsShutterStimulationDevice",
                     "sm_classCQsStimulationDeviceAggregator", "sm_classCQsStimulationDeviceProxy",
                     "sm_classWcsCQsStimulationDeviceAggregator", "sm_classWcsCQsStimulationDeviceProxy"}));
}

using ModuleFiles = StimhostTest;

// Both formats on every system, whichever its own is.
TEST_F(ModuleFiles, OfBothFormatsAreInspected)
{
    const std::string records =
        ClassBytes("CQsFirst", "First") + std::string(32, '\0') + ClassBytes("CQsSecond", "Second");
    const SOutcome outcome = Stimhost(
        {"inspect", "--json", File("elf.so", ElfFile("qsclass", records)), File("pe.dll", PeFile("qsclass", records))});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    ASSERT_EQ(2u, json["files"].Size());
    const char* const formats[] = {"ELF", "PE"};
    for (unsigned i = 0; i < 2; ++i)
    {
        const auto& file = json["files"][i];
        EXPECT_STREQ(formats[i], file["format"].GetString());
        ASSERT_EQ(2u, file["classes"].Size()) << formats[i];
        EXPECT_STREQ("CQsFirst", file["classes"][0]["class"].GetString());
        EXPECT_STREQ("Second", file["classes"][1]["friendlyName"].GetString());
        EXPECT_EQ(ClassBytes("CQsFirst", "First").size() + 32, file["classes"][1]["offset"].GetUint());
    }
}

TEST_F(ModuleFiles, OfAFolderAreKnownWhateverTheLettersOfTheirNames)
{
    ASSERT_TRUE(QDir().mkdir(QString::fromStdString(Path("modules"))));
    File("modules/First.DLL", PeFile("qsclass", ClassBytes("CQsFirst", "First")));
    File("modules/second.So", ElfFile("qsclass", ClassBytes("CQsSecond", "Second")));
    File("modules/third.txt", ElfFile("qsclass", ClassBytes("CQsThird", "Third")));
    const SOutcome outcome = Stimhost({"list", "--rig", ShutterRig(), "--modules", Path("modules")});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.out, testing::ContainsRegex("CQsFirst +known +First +First.DLL\n"));
    EXPECT_THAT(outcome.out, testing::ContainsRegex("CQsSecond +known +Second +second.So\n"));
    EXPECT_THAT(outcome.out, testing::Not(testing::HasSubstr("CQsThird")));
}

TEST_F(ModuleFiles, ThatAreCutOffAnywhereGetOneLineEach)
{
    const std::string records = ClassBytes("CQsFirst", "First");
    const std::pair<const char*, std::string> wholes[] = {{"elf", ElfFile("qsclass", records)},
                                                          {"pe", PeFile("qsclass", records)}};
    constexpr std::size_t parts = 40;
    for (const auto& [name, whole] : wholes)
    {
        std::vector<std::string> arguments = {"inspect"};
        for (std::size_t i = 0; i < parts; ++i)
            arguments.push_back(File(name + std::to_string(i), whole.substr(0, whole.size() * i / parts)));
        const SOutcome outcome = Stimhost(arguments);
        EXPECT_EQ(2, outcome.exitCode) << name;
        EXPECT_EQ(parts, LineCount(outcome.err)) << outcome.err;
        EXPECT_EQ("", outcome.out) << name;
        for (std::size_t i = 0; i < parts; ++i)
            EXPECT_THAT(outcome.err, testing::HasSubstr(arguments[i + 1] + ": ")) << outcome.err;
    }
}
