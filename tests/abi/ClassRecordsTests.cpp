// The class records in what the host's compiler makes of the module's sources: in each object file, and in the module
// file that a linker puts together of them, which keeps nothing that nobody refers to.
#include "standalone/ClassRecords.h"
#include "tests/abi/Compiler.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Vectors.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <filesystem>
#include <ostream>

namespace {

using QsTest::SAnswer;
using testing::ElementsAre;
using testing::HasSubstr;

struct SRegistered
{
    std::string name;
    std::string source;
    std::string vector; // of the reference values: the texts of its records
};

void PrintTo(const SRegistered& registered, std::ostream* stream)
{
    *stream << registered.name;
}

const SRegistered s_classes[] = {
    {"CQsShutterStimulationDevice", "device/ShutterStimulationDevice.cpp", "records-001"},
    {"CQsStimulationDeviceAggregator", "beampath/StimulationDeviceAggregator.cpp", "records-002"},
    {"CQsStimulationDeviceProxy", "beampath/StimulationDeviceProxy.cpp", "records-003"},
};

std::uint32_t Number(const std::string& bytes, std::size_t at, unsigned count)
{
    std::uint32_t number = 0;
    for (unsigned i = count; i-- > 0;)
        number = number << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return number;
}

// A section of an object file.
struct SSection
{
    std::string bytes;
    std::uint32_t relocations = 0;
    std::uint32_t characteristics = 0;
};

// All sections of that name of a COFF object file: a header of 20 bytes, then 40 for each section.
std::vector<SSection> SectionsOf(const std::string& object, const std::string& name)
{
    std::vector<SSection> sections;
    const std::uint32_t count = Number(object, 2, 2);
    std::size_t at = 20 + Number(object, 16, 2);
    for (std::uint32_t i = 0; i < count; ++i, at += 40)
        if (object.compare(at, 8, name + std::string(8 - name.size(), '\0')) == 0)
            sections.push_back({object.substr(Number(object, at + 20, 4), Number(object, at + 16, 4)),
                                Number(object, at + 32, 2), Number(object, at + 36, 4)});
    return sections;
}

// A record's bytes: the text in UTF-16LE, a terminator, zeros to a multiple of 16. The texts are ASCII.
std::string RecordBytes(const std::string& text)
{
    std::string bytes;
    for (const char character : text)
        bytes += {character, '\0'};
    bytes.append(2, '\0');
    bytes.resize((bytes.size() + 15) / 16 * 16);
    return bytes;
}

std::string BothRecords(const SRegistered& registered)
{
    const QsTest::Json& texts = QsTest::Member(QsTest::Member(QsTest::Vector(registered.vector), "output"), "texts");
    return RecordBytes(texts[0].GetString()) + RecordBytes(texts[1].GetString());
}

std::string Compile(const std::string& source, const std::string& object)
{
    const SAnswer answer =
        QsTest::CompileForHost(std::string(QS_SOURCE "/") + source, {"/c", "/Fo" + object, "/DQS_STIM_BUILD"});
    EXPECT_EQ(0, answer.status) << answer.text;
    return QsTest::ContentsOf(object);
}

class ClassRecords : public testing::TestWithParam<SRegistered>
{};

TEST_P(ClassRecords, StandInOrderInTheirSection)
{
    const QsTest::CTemporaryFolder folder;
    const std::string object = Compile(GetParam().source, folder.File("object.obj"));
    const std::vector<SSection> sections = SectionsOf(object, "qsclass");
    ASSERT_EQ(1u, sections.size());
    EXPECT_EQ(BothRecords(GetParam()), sections[0].bytes);
    // Constants: nothing is filled in by the linker or by code.
    EXPECT_EQ(0u, sections[0].relocations);
    // Initialised data, at multiples of 16, readable, writable.
    EXPECT_EQ(0x00000040u | 0x00500000u | 0x40000000u | 0x80000000u, sections[0].characteristics);
}

TEST_P(ClassRecords, AreNamedToTheLinkerBesideTheConstructor)
{
    const QsTest::CTemporaryFolder folder;
    const std::string object = Compile(GetParam().source, folder.File("object.obj"));
    const std::vector<SSection> directives = SectionsOf(object, ".drectve");
    ASSERT_EQ(1u, directives.size());
    EXPECT_THAT(directives[0].bytes, HasSubstr(" /include:qs_classRecords" + GetParam().name + " "));
    EXPECT_THAT(directives[0].bytes, HasSubstr(" /EXPORT:QS_ConstructorFor" + GetParam().name + " "));
}

INSTANTIATE_TEST_SUITE_P(Classes, ClassRecords, testing::ValuesIn(s_classes),
                         [](const testing::TestParamInfo<SRegistered>& c) { return c.param.name; });

TEST(LinkedModule, HasTheRecordsOfAllClasses)
{
    if (std::string(QS_ABI_LINK).empty())
        GTEST_SKIP() << "no linker for Windows";
    const QsTest::CTemporaryFolder folder;
    const std::string module = folder.File("module.dll");
    // The host and the run-time libraries are not there: what the module takes from them stays open.
    std::vector<std::string> arguments = {"/dll",     "/noentry",          "/nodefaultlib",
                                          "/opt:ref", "/force:unresolved", "/out:" + module};
    std::string expected;
    for (const SRegistered& registered : s_classes)
    {
        arguments.push_back(folder.File(registered.name + ".obj"));
        Compile(registered.source, arguments.back());
        expected += BothRecords(registered);
    }
    QsTest::Run(QS_ABI_LINK, arguments);
    EXPECT_THAT(QsTest::ContentsOf(module), HasSubstr(expected));

    const QsStandalone::SModuleFile file = QsStandalone::ReadModuleFile(module);
    EXPECT_EQ("", file.error);
    EXPECT_EQ("PE", file.format);
    EXPECT_EQ("qsclass", file.section);
    std::vector<std::string> names;
    for (const QsStandalone::SClassRecord& record : file.classes)
        names.push_back(record.className);
    EXPECT_THAT(names, ElementsAre(s_classes[0].name, s_classes[1].name, s_classes[2].name));
}

} // namespace
