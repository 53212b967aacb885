// The tables and records as three compilers lay them out: the host's, MinGW's and this system's.
#include "tests/abi/Layouts.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <ostream>

namespace QsTest {

void PrintTo(const SAbi& abi, std::ostream* stream)
{
    *stream << abi.name;
}

} // namespace QsTest

namespace {

using QsTest::SAbi;
using QsTest::SAnswer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class Layouts : public testing::TestWithParam<SAbi>
{};

TEST_P(Layouts, AreTheGoldenOnes)
{
    const SAnswer layouts = AskForLayouts(GetParam());
    ASSERT_EQ(0, layouts.status) << layouts.Complaints();
    EXPECT_THAT(Differences(layouts, GetParam()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Compilers, Layouts, testing::ValuesIn(QsTest::Abis()),
                         [](const testing::TestParamInfo<SAbi>& abi) { return abi.param.name; });

// What a caller does with a pointer to a device: reads the table's address where it points, and takes the slot's entry.
TEST(HostLayouts, ADevicePointsToItsTableAndTheRootInterfaceLiesBehind)
{
    const SAnswer layouts = QsTest::AskForLayouts(QsTest::HostAbi());
    ASSERT_EQ(0, layouts.status) << layouts.Complaints();
    // Table of operations, table of virtual bases, and the root interface with a table of its own.
    EXPECT_THAT(layouts.text, testing::HasSubstr("         0 | class IQsStimulationDevice\n"
                                                 "         0 |   (IQsStimulationDevice vftable pointer)\n"
                                                 "         8 |   (IQsStimulationDevice vbtable pointer)\n"
                                                 "        16 |   class IQsInterface (virtual base)\n"
                                                 "        16 |     (IQsInterface vftable pointer)\n"
                                                 "           | [sizeof=24, align=8,"));
}

TEST(HostLayouts, TheRootInterfacesOperationsAreNotAmongThoseOfTheDevice)
{
    const SAnswer layouts = QsTest::AskForLayouts(QsTest::HostAbi());
    const auto table = FindTable(layouts, QsTest::HostAbi(), "IQsStimulationDevice", "SDevice");
    ASSERT_TRUE(table.has_value());
    ASSERT_EQ(29u, table->size());
    EXPECT_EQ("CQsStringW GetUniqueName()const", table->front().operation);
    for (const QsTest::SGoldenSlot& slot : *table)
        EXPECT_THAT(slot.operation, Not(testing::AnyOf("destructor", "const CQsClassInfo*GetClass()const")));
}

TEST(Spelling, LeavesOutWhatCompilersWriteDifferently)
{
    EXPECT_EQ("const vector<CQsPointBase<double>>&",
              QsTest::Spelled("const class std::vector<struct CQsPointBase<double> > &"));
    EXPECT_EQ("unsigned int StimulationModeGet()",
              QsTest::Spelled("unsigned int IQsStimulationDevice::StimulationModeGet()"));
    EXPECT_EQ("bool f(bool)", QsTest::Spelled("_Bool Some::Inner::f(bool)"));
}

// A change of a public header that breaks what hosts and other plug-ins rely on.
struct SChange
{
    std::string name;
    std::string header;
    std::vector<std::pair<std::string, std::string>> edits; // each text, which is there once, and what it becomes
    std::string said;                                       // part of what the comparison must say of the host's ABI
    bool hostAlone = false;                                 // the other ABI shows nothing of it
};

void PrintTo(const SChange& change, std::ostream* stream)
{
    *stream << change.name;
}

const char* const s_device = "device/StimulationDevice.h";
const char* const s_calibration = "calibration/StimulationDeviceCalibration.h";

std::vector<std::pair<std::string, std::string>> Swap(const std::string& a, const std::string& b)
{
    return {{a, "@"}, {b, a}, {"@", b}};
}

const SChange s_changes[] = {
    {"SlotsSwapped", s_device, Swap("bool IsHWConnected()", "bool IsVisible()"), "slot 1: bool IsVisible() = 0"},
    {"DistantSlotsSwapped", s_device, Swap("int StimulationAbort()", "int StimulationAreaUpload()"), "slot 24: "},
    {"SlotInserted",
     s_device,
     {{"virtual int StimulationAbort()",
       "virtual int StimulationPause() { return 0; }\nvirtual int StimulationAbort()"}},
     "slot 24: int StimulationPause()"},
    {"SlotAppended",
     s_device,
     {{"void DeviceStateChangedCallback", "virtual int More() { return 0; }\nvoid DeviceStateChangedCallback"}},
     "slot 29: int More()"},
    {"OverloadAppended",
     s_device,
     {{"void DeviceStateChangedCallback", "virtual int SetActive(int) { return 0; }\nvoid DeviceStateChangedCallback"}},
     "SetActive(int)"},
    {"SlotRemoved", s_device, {{"virtual int StimulationROIPrepare(unsigned int roiIndex) = 0;", ""}}, "slot 25: "},
    {"LastSlotRemoved",
     s_device,
     {{"virtual int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const = 0;", ""}},
     "slot 28: "},
    {"ResultChanged",
     s_calibration,
     {{"virtual void OnCalibrationStateChanged", "virtual int OnCalibrationStateChanged"}},
     "slot 1: int OnCalibrationStateChanged"},
    {"ConstRemoved",
     s_device,
     {{"GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const",
       "GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info)"}},
     "slot 28: "},
    {"BodyGiven",
     s_device,
     {{"virtual bool IsVisible() = 0", "virtual bool IsVisible() { return true; }"}},
     "slot 2: ",
     true},
    {"DestructorBeforeTheDriver",
     s_device,
     {{"protected:\n    ~IQsStimulationPhysDev() = default;", ""},
      {"virtual int PhysDevOperation0() = 0;",
       "virtual ~IQsStimulationPhysDev() {}\nvirtual int PhysDevOperation0() = 0;"}},
     "slot 0: destructor"},
    {"DestructorBeforeTheListener",
     s_device,
     {{"protected:\n    ~IQsStimulationDeviceManagerEventListener() = default;", ""},
      {"virtual int AvailableStimulationDevicesChanged() = 0;",
       "virtual ~IQsStimulationDeviceManagerEventListener() {}\nvirtual int AvailableStimulationDevicesChanged() = 0;"}},
     "slot 0: destructor"},
    {"DestructorBeforeTheOwner",
     s_calibration,
     {{"protected:\n    ~IQsStimulationDeviceCalibration() = default;", ""},
      {"virtual void GetWatchedDeviceTypes",
       "virtual ~IQsStimulationDeviceCalibration() {}\nvirtual void GetWatchedDeviceTypes"}},
     "slot 0: destructor"},
    // The table is then the root interface's, with the device's operations behind.
    {"RootInterfaceNotVirtual",
     s_device,
     {{"IQsStimulationDevice : virtual public IQsInterface", "IQsStimulationDevice : public IQsInterface"}},
     "IQsStimulationDevice of SDevice: no table",
     true},
    {"OwnersSlotsSwapped", s_calibration,
     Swap("CQsStringW GetCalibrationFileName()", "CQsStringW GetCalibrationSectionName()"), "slot 2: "},
    {"DriversSlotRemoved", s_device, {{"virtual int PhysDevOperation11() = 0;", ""}}, "slot 11: nothing"},
    {"ConcreteDevicesSlotsSwapped", "device/MultilaserStimulationDevice.h",
     Swap("IQsStimulationPhysDev* GetDriver()", "void SetDriver(IQsStimulationPhysDev* pDriver)"), "slot 30: "},
    {"RequestsFieldWidened",
     s_device,
     {{"std::uint32_t uiRepeatCount = 0;", "std::uint64_t uiRepeatCount = 0;"}},
     "SQsStimulationType: "},
    {"FieldMoved", s_device, Swap("double dCropXOffset", "double dCropZoom"), "dCropZoom at 48 instead of"},
    {"FieldRemoved", s_device, {{"std::uint32_t uiTag = 0;", ""}}, "instead of uint32_t uiTag"},
    {"ArraysSwapped", s_device,
     Swap("std::vector<std::uint32_t> vecLogDevIds", "std::vector<std::uint32_t> vecPhysDevIds"), "vecPhysDevIds at 0"},
    {"BasesSwapped", "device/ShutterStimulationDevice.h", Swap("public IQsStimulationDevice", "public CQsClass"),
     "CQsShutterStimulationDevice: other bases"},
};

// The answer for a copy of the header with these edits, which stands in front of the real one.
SAnswer AskAboutCopy(const SAbi& abi, const std::string& header,
                     const std::vector<std::pair<std::string, std::string>>& edits)
{
    std::string text = QsTest::ContentsOf(std::string(QS_SOURCE "/") + header);
    for (const auto& [from, to] : edits)
    {
        const std::size_t at = text.find(from);
        if (at == std::string::npos || text.find(from, at + 1) != std::string::npos)
            return {-1, "error: not there once: " + from};
        text.replace(at, from.size(), to);
    }
    const QsTest::CTemporaryFolder folder;
    std::filesystem::create_directories(std::filesystem::u8path(folder.File(header)).parent_path());
    folder.Write(header, text);
    // What the headers themselves say about overriding and sizes must not be what finds it.
    return AskForLayouts(abi, folder.Path(), {"-Doverride=", "-Dstatic_assert(...)=", "-w"});
}

class ChangedHeader : public testing::TestWithParam<SChange>
{};

TEST_P(ChangedHeader, IsFoundOut)
{
    for (const SAbi& abi : QsTest::Abis())
    {
        SCOPED_TRACE(abi.name);
        const SAnswer layouts = AskAboutCopy(abi, GetParam().header, GetParam().edits);
        ASSERT_EQ(0, layouts.status) << layouts.Complaints();
        const std::vector<std::string> differences = Differences(layouts, abi);
        if (abi.microsoft)
        {
            EXPECT_THAT(differences, testing::Contains(testing::HasSubstr(GetParam().said)));
        }
        else
        {
            EXPECT_EQ(!GetParam().hostAlone, !differences.empty());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, ChangedHeader, testing::ValuesIn(s_changes),
                         [](const testing::TestParamInfo<SChange>& change) { return change.param.name; });

TEST(CopiedHeader, IsNoDifferenceWithoutAChange)
{
    for (const SAbi& abi : QsTest::Abis())
        for (const char* const header : {s_device, s_calibration})
        {
            const SAnswer layouts = AskAboutCopy(abi, header, {});
            ASSERT_EQ(0, layouts.status) << layouts.Complaints();
            EXPECT_THAT(Differences(layouts, abi), IsEmpty());
        }
}

// Two of one name stand beside each other in the host's compiler's table, the last one first: why the interface has
// none.
TEST(HostLayouts, PutOverloadsTogetherTheLastFirst)
{
    QsTest::CTemporaryFolder folder;
    const std::string source =
        folder.Write("Overloads.cpp", "struct I { virtual void a(int); virtual void b();\n"
                                      "virtual void a(double); };\n"
                                      "namespace LaidOut { struct S : I { S(); }; S::S() {} }\n");
    const SAnswer layouts = QsTest::Run(QS_ABI_CLANG, {"--target=" + QsTest::HostAbi().target, "-S", "-emit-llvm", "-o",
                                                       "/dev/null", "-Xclang", "-fdump-vtable-layouts", source});
    ASSERT_EQ(0, layouts.status) << layouts.Complaints();
    const auto table = FindTable(layouts, QsTest::HostAbi(), "I", "S");
    ASSERT_TRUE(table.has_value());
    std::vector<std::string> operations;
    for (const QsTest::SGoldenSlot& slot : *table)
        operations.push_back(slot.operation);
    EXPECT_THAT(operations, ElementsAre("void a(double)", "void a(int)", "void b()"));
}

} // namespace
