// What the built module exports, out of its file.
#include "tests/integration/ModuleImage.h"
#include "tests/integration/Stimhost.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <regex>
#include <set>

#include <cxxabi.h>

using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

// As people write them.
std::set<std::string> DefinedSymbols()
{
    std::set<std::string> symbols;
    const CModuleImage image(ReadWhole(QS_MODULE));
    for (const std::string& name : image.ExportedNames())
    {
        int status = 0;
        const std::unique_ptr<char, void (*)(void*)> plain(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                           &std::free);
        symbols.insert(status == 0 && name.compare(0, 2, "_Z") == 0 ? plain.get() : name);
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
