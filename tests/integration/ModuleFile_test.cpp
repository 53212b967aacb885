// The built module as its file: what it exports, and the class records that loaders read out of it.
#include "tests/integration/Stimhost.h"

#include <QCryptographicHash>

#include <gmock/gmock.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

std::set<std::string> DefinedSymbols()
{
    const SOutcome outcome = RunProgram(QS_NM, {"-D", "--defined-only", "-C", QS_MODULE});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    std::set<std::string> symbols;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);)
    {
        // Address, type, name.
        std::istringstream fields(line);
        std::string address;
        std::string type;
        std::string name;
        fields >> address >> type >> std::ws;
        std::getline(fields, name);
        symbols.insert(name);
    }
    return symbols;
}

} // namespace

TEST(ModuleFile, ExportsItsClassesAndNothingElse)
{
    const std::string classes =
        "(CQsStimulationDeviceManager|CQsStimulationDeviceAggregator|CQsStimulationDeviceProxy|"
        "CQsMultilaserStimulationDevice|CQsStimulationDeviceConfiguration|CQsConfigurationAutoLock|"
        "CQsStimulationDeviceCalibration|SQsConfigItem|IQsStimulationDevice)";
    const std::string hostTypes = "(IQsInterface|CQsClass|CQsStringW|CQsStringA|IQsStimulationDeviceEx)";
    const std::vector<std::regex> allowed = {
        std::regex("(typeinfo for |typeinfo name for |vtable for |VTT for |construction vtable for |"
                   "virtual thunk to |non-virtual thunk to )" +
                   classes + "(::.*|-in-.*)?"),
        std::regex(classes + "::.*"),
        std::regex(
            "(typeinfo for |typeinfo name for |vtable for |VTT for |construction vtable for |virtual thunk to )" +
            hostTypes + "(::.*|-in-" + classes + ")?"),
        // Types of functions, which sanitizers compare at calls.
        std::regex("typeinfo (name )?for [^(]*\\(.*\\)( const)?"),
        std::regex("sm_class(Wcs)?CQs\\w+|QS_ConstructorForCQs\\w+"),
        // Instantiations and run-time parts of the standard library and of the compiler.
        std::regex("(.* )?(std|__gnu_cxx|__cxxabiv1)::.*"),
        std::regex("(guard variable for |typeinfo for |typeinfo name for |vtable for )(std|__gnu_cxx)::.*"),
        std::regex("_init|_fini|_edata|_end|__bss_start|__(asan|odr_asan|ubsan|tsan|start|stop)_.*|"
                   "DW\\.ref\\..*|operator (new|delete).*")};
    std::vector<std::string> foreign;
    for (const std::string& symbol : DefinedSymbols())
        if (std::none_of(allowed.begin(), allowed.end(),
                         [&symbol](const std::regex& pattern) { return std::regex_match(symbol, pattern); }))
            foreign.push_back(symbol);
    EXPECT_THAT(foreign, IsEmpty());
}

TEST(ModuleFile, ExportsTheConstructorAndTheClassInformationOfEveryRegisteredClass)
{
    EXPECT_THAT(DefinedSymbols(),
                IsSupersetOf({"sm_classCQsShutterStimulationDevice", "sm_classCQsStimulationDeviceAggregator",
                              "sm_classCQsStimulationDeviceProxy", "sm_classWcsCQsStimulationDeviceAggregator",
                              "sm_classWcsCQsStimulationDeviceProxy", "QS_ConstructorForCQsShutterStimulationDevice",
                              "QS_ConstructorForCQsStimulationDeviceAggregator",
                              "QS_ConstructorForCQsStimulationDeviceProxy"}));
}

// What plug-ins derive from and copy.
TEST(ModuleFile, ExportsTheMakingCopyingAndEndOfTheMultilaserDevice)
{
    const std::string name = "CQsMultilaserStimulationDevice";
    EXPECT_THAT(DefinedSymbols(), IsSupersetOf({name + "::" + name + "()", name + "::" + name + "(" + name + " const&)",
                                                name + "::operator=(" + name + " const&)", name + "::~" + name + "()",
                                                "vtable for " + name, "typeinfo for " + name}));
}

// What hosts and plug-ins call; the other public operations stand in the header.
TEST(ModuleFile, ExportsEveryPublicOperationOfTheManager)
{
    const std::vector<std::string> operations = {"GetInstance",
                                                 "InstanceIfExists",
                                                 "GetDevice",
                                                 "GetDeviceCount",
                                                 "GetDeviceInfo",
                                                 "FindStimulationDeviceByNameIntelligent",
                                                 "FindExStimulationDeviceByNameIntelligent",
                                                 "RegisterSimpleStimulationDevice",
                                                 "UnregisterSimpleStimulationDevice",
                                                 "StaticDeviceAdd",
                                                 "StaticDeviceRemove",
                                                 "GetStaticDevice",
                                                 "GetSpecialDevice",
                                                 "SpecialDevicesAdd",
                                                 "ShuttersAdd",
                                                 "OptConfDevicesAdd",
                                                 "SpecialDevicesRemoveAll",
                                                 "ShuttersRemoveAll",
                                                 "OptConfDevicesRemoveAll",
                                                 "SetVisible",
                                                 "GetStimulationDevicesForLogDevId",
                                                 "GetStimulationDevicesForPhysDevId",
                                                 "QueryFeatureSupported",
                                                 "QueryFeatureEnabled",
                                                 "SetActive",
                                                 "SetActiveMru",
                                                 "GetV4Device",
                                                 "IsV4Active",
                                                 "SetActiveV4",
                                                 "Save",
                                                 "AddCallbackForChange",
                                                 "RemoveCallbackForChange",
                                                 "AddCallbackForDeviceStateChange",
                                                 "RemoveCallbackForDeviceStateChange",
                                                 "AddCallbackForStimulationOCCommand",
                                                 "RemoveCallbackForStimulationOCCommand",
                                                 "FireCallbackForChange",
                                                 "FireCallbackForDeviceStateChange",
                                                 "FireCallbackForStimulationOCCommand",
                                                 "RegisterStimulationDeviceManagerEventListener",
                                                 "UnregisterStimulationDeviceManagerEventListener",
                                                 "NotifyStimulationDeviceManagerEventListeners",
                                                 "StimulateTimedWithActiveAsync",
                                                 "StimulationAbort",
                                                 "Update",
                                                 "SetStimulationBeampathsDirty",
                                                 "GetActiveStimulationBeampathId",
                                                 "GetStimulationDeviceInterfaceForBeampath",
                                                 "SQsDeviceInfo::IsModuleLoaded",
                                                 "SQsDeviceInfo::IsHwConnected",
                                                 "SQsDeviceInfo::IsDeviceVisible",
                                                 "SQsInfoEx::SQsInfoEx"};
    const std::string manager = "CQsStimulationDeviceManager::";
    const std::set<std::string> symbols = DefinedSymbols();
    std::vector<std::string> missing;
    for (const std::string& operation : operations)
    {
        const std::string prefix = manager + operation + "(";
        const auto found = symbols.lower_bound(prefix);
        if (found == symbols.end() || found->compare(0, prefix.size(), prefix) != 0)
            missing.push_back(operation);
    }
    EXPECT_THAT(missing, IsEmpty());
    // The one name that stands for two.
    EXPECT_THAT(symbols, IsSupersetOf({manager + "GetActive()", manager + "GetActive(" + manager + "SQsInfo&)"}));
}

TEST(ModuleFile, KeepsTheClassRecordsInAWritableSectionOfTheirOwn)
{
    const SOutcome outcome = RunProgram(QS_READELF, {"-S", "-W", QS_MODULE});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    // [Nr] Name Type Address Off Size ES Flg Lk Inf Al
    const std::regex section(
        "\\] qsclass +PROGBITS +[0-9a-f]+ +[0-9a-f]+ +[0-9a-f]+ +[0-9a-f]+ +(\\w+) +\\d+ +\\d+ +(\\d+)");
    std::smatch found;
    ASSERT_TRUE(std::regex_search(outcome.out, found, section)) << outcome.out;
    EXPECT_THAT(found[1].str(), HasSubstr("W"));
    EXPECT_THAT(found[1].str(), HasSubstr("A"));
    EXPECT_EQ(0, std::stoi(found[2].str()) % 16);
}

class ModuleRecords : public StimhostTest
{};

TEST_F(ModuleRecords, StandByteForByteAsLoadersMatchThem)
{
    const std::string dump = Path("qsclass");
    const SOutcome outcome = RunProgram(QS_OBJCOPY, {"--dump-section", "qsclass=" + dump, QS_MODULE, Path("copy.so")});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const std::string section = ReadWhole(dump);

    const rapidjson::Document vectors = ParsedJson(ReadWhole(QS_VECTORS));
    unsigned compared = 0;
    for (const auto& vector : vectors["vectors"].GetArray())
    {
        if (std::string(vector["id"].GetString()).rfind("records-", 0) != 0)
            continue;
        const auto& texts = vector["output"]["texts"];
        const auto& layout = vector["output"]["layout"];
        ASSERT_EQ(2u, texts.Size());
        ASSERT_EQ(2u, layout.Size());
        std::string wide;
        for (const char* c = texts[0].GetString(); *c != '\0'; ++c)
            wide += {*c, '\0'};
        const std::size_t start = section.find(wide);
        ASSERT_NE(std::string::npos, start) << vector["name"].GetString();
        EXPECT_EQ(0u, start % 16) << vector["name"].GetString();
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
