// The script command that adds a pattern from an image file.
#include "tests/manager/ManagerTest.h"

#include "host/QsScript.h"
#include "standalone/Script.h"

using namespace QsTest;
using ::testing::IsEmpty;

namespace {

constexpr const char* s_procedure = "Stg_StimDev_AddPatternFromImage";

} // namespace

class ScriptCommand : public ManagerTest
{
public:
    static int Call(const std::string& device, const std::map<std::string, std::string>& parameters)
    {
        int result = 12345; // a value no device gives
        std::string error;
        EXPECT_TRUE(QsStandalone::CQsScriptHost::Call(s_procedure, device, parameters, result, error)) << error;
        return result;
    }
};

TEST_F(ScriptCommand, IsThereExactlyWhileAStaticDeviceIsKnown)
{
    int result = 0;
    std::string error;
    M();
    EXPECT_THAT(QsStandalone::CQsScriptHost::Procedures(), IsEmpty());
    EXPECT_FALSE(QsStandalone::CQsScriptHost::Call(s_procedure, "", {}, result, error));
    M().StaticDeviceAdd({"CQsA", L"a"});
    M().StaticDeviceAdd({"CQsB", L"b"});
    EXPECT_EQ(1u, QsStandalone::CQsScriptHost::Procedures().size());
    EXPECT_EQ(0, M().StaticDeviceRemove("CQsA"));
    EXPECT_EQ(1u, QsStandalone::CQsScriptHost::Procedures().size());
    EXPECT_EQ(0, M().StaticDeviceRemove("CQsB"));
    EXPECT_THAT(QsStandalone::CQsScriptHost::Procedures(), IsEmpty());
    M().StaticDeviceAdd({"CQsA", L"a"});
    EXPECT_EQ(1u, QsStandalone::CQsScriptHost::Procedures().size());
}

TEST_F(ScriptCommand, IsDescribedByFourParameters)
{
    M().StaticDeviceAdd({"CQsA", L"a"});
    const auto procedures = QsStandalone::CQsScriptHost::Procedures();
    ASSERT_EQ(1u, procedures.size());
    EXPECT_EQ(s_procedure, procedures[0].name);
    EXPECT_EQ("Device.Stimulation", procedures[0].group);
    struct SParameter
    {
        const char* name;
        unsigned kind;
        const char* defaultValue;
    };
    const SParameter expected[] = {{"StimDev_ImageFilePath", 1, ""},
                                   {"StimDev_PatternName", 1, ""},
                                   {"StimDev_Load1To1", 5, "0"},
                                   {"StimDev_OverwriteExisting", 5, "0"}};
    ASSERT_EQ(std::size(expected), procedures[0].parameters.size());
    for (std::size_t i = 0; i < std::size(expected); ++i)
    {
        EXPECT_EQ(expected[i].name, procedures[0].parameters[i].name);
        EXPECT_EQ(expected[i].kind, procedures[0].parameters[i].kind);
        EXPECT_EQ(expected[i].defaultValue, procedures[0].parameters[i].defaultValue);
    }
}

TEST_F(ScriptCommand, HandsItsParametersToTheExtendedDeviceThatTheTextMeans)
{
    Static(L"Alpha"); // no extended device
    CQsFakeDeviceEx& other = Static<CQsFakeDeviceEx>(L"Beta");
    CQsFakeDeviceEx& device = Static<CQsFakeDeviceEx>(L"Alpha Ex");
    device.iAddPatternResult = -7;
    EXPECT_EQ(-7, Call("Alpha", {{"StimDev_ImageFilePath", "/data/\xC3\xA9.png"},
                                 {"StimDev_PatternName", "cross"},
                                 {"StimDev_Load1To1", "1"},
                                 {"StimDev_OverwriteExisting", "0"}}));
    EXPECT_EQ(1u, device.log.Count("AddPatternFromImage()"));
    EXPECT_EQ(L"/data/\u00E9.png", device.sImageFile);
    EXPECT_EQ(L"cross", device.sPatternName);
    EXPECT_TRUE(device.bLoadOneToOne);
    EXPECT_FALSE(device.bOverwriteExisting);
    EXPECT_EQ(-7, Call("Alpha", {{"StimDev_OverwriteExisting", "1"}}));
    EXPECT_EQ(L"", device.sImageFile);
    EXPECT_EQ(L"", device.sPatternName);
    EXPECT_FALSE(device.bLoadOneToOne);
    EXPECT_TRUE(device.bOverwriteExisting);
    EXPECT_EQ(0u, other.log.Count("AddPatternFromImage()"));
    EXPECT_EQ(2u, QsStandalone::ReferenceCount(static_cast<CQsFakeDevice*>(&device)));
}

TEST_F(ScriptCommand, SucceedsWithoutAnExtendedDevice)
{
    CQsFakeDevice& device = Static(L"Alpha");
    EXPECT_EQ(0, Call("Alpha", {}));
    M().StaticDeviceRemove(ClassName(L"Alpha").c_str());
    // Known to the script host although the manager has no static device any more.
    Access::RegisterScriptCommand();
    EXPECT_EQ(0, Call("whatever", {}));
    Access::UnregisterScriptCommand();
    device.Release(); // the manager forgot it with its class
}

TEST_F(ScriptCommand, FailsWithoutAManager)
{
    M().StaticDeviceAdd({"CQsA", L"a"});
    ASSERT_EQ(0, Call("whatever", {}));
    Access::DeleteInstance();
    EXPECT_EQ(-9, Call("whatever", {}));
    EXPECT_EQ(nullptr, Manager::InstanceIfExists());
    EXPECT_EQ(0, CQsScript::UnregisterProc_Exe(L"Stg_StimDev_AddPatternFromImage"));
}
