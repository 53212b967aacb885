// Statically known device classes.
#include "tests/manager/ManagerTest.h"

#include "standalone/Script.h"

#include <deque>
#include <filesystem>

using namespace QsTest;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

class CRegisteredDevice : public CQsFakeDevice
{
public:
    CRegisteredDevice() : CQsFakeDevice(L"Registered")
    {
        ++s_created;
        bVisible = s_bVisible;
        bConnected = s_bConnected;
    }

    static IQsInterface* Construct(const char* file, unsigned line) { return new (file, line) CRegisteredDevice; }

    static inline unsigned s_created = 0;
    static inline bool s_bVisible = true;
    static inline bool s_bConnected = true;
};

constexpr const char* s_className = "CQsRegisteredTestDevice";

// Registers a class of that name while it lives.
class CTestClass
{
public:
    explicit CTestClass(const char* name)
        : m_info(name, "IQsStimulationDevice", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                 sizeof(CRegisteredDevice), &CRegisteredDevice::Construct)
    {}

private:
    CQsClassInfo m_info;
};

bool ScriptCommandExists()
{
    const auto procedures = QsStandalone::CQsScriptHost::Procedures();
    return std::any_of(procedures.begin(), procedures.end(),
                       [](const auto& procedure) { return procedure.name == "Stg_StimDev_AddPatternFromImage"; });
}

std::vector<std::string> StaticClasses()
{
    std::vector<std::string> names;
    for (const auto& info : Access::StaticDevices(ManagerTest::M()))
        names.emplace_back(info.sClassName.c_str());
    return names;
}

} // namespace

class StaticDevices : public ManagerTest
{
public:
    StaticDevices()
    {
        CRegisteredDevice::s_created = 0;
        CRegisteredDevice::s_bVisible = true;
        CRegisteredDevice::s_bConnected = true;
    }
    ~StaticDevices() override { QsStandalone::RefuseClass(s_className, false); }

    Manager::SQsDeviceInfo Loaded() const { return {s_className, ThisProgram().c_str()}; }
    Manager::SQsDeviceInfo NotLoaded() const
    {
        return {s_className, CQsStringW::FromUtf8(Folder() + "/no-such-module.so").c_str()};
    }

protected:
    CTestClass m_class{s_className};
};

TEST_F(StaticDevices, AreEveryRegisteredDeviceClassButThoseThatRegisterThemselves)
{
    const char* const excluded[] = {
        "CQsOptConfStimulationDevice",    "CQsStimulationDeviceMosaic",     "CQsStimulationDeviceMosaicSim",
        "CQsStimulationDeviceMightex",    "CQsStimulationDeviceMightexSim", "CQsMightexAggregator",
        "CQsMightexAggregatorSim",        "CQsStimulationDeviceFrappa",     "CQsStimulationDeviceFrappaSim",
        "CQsStimulationDeviceAggregator", "CQsStimulationDeviceProxy",
    };
    std::deque<CTestClass> classes;
    for (const char* const name : excluded)
        classes.emplace_back(name);
    const CTestClass galvo("CQsStimulationDeviceGalvoXY");
    const CTestClass galvoSim("CQsStimulationDeviceGalvoXYSim");
    const CTestClass nearlyExcluded("CQsStimulationDeviceMosaicSim2");

    // The shutter's class comes with the module itself.
    const auto known = QsStandalone::KnownClasses();
    ASSERT_TRUE(std::any_of(known.begin(), known.end(),
                            [](const auto& entry) { return entry.className == "CQsShutterStimulationDevice"; }));
    std::vector<SQsClassEntry> registered;
    CQsRTTI::FindClasses("IQsStimulationDevice", "", "", registered);
    std::vector<std::string> expected;
    for (const SQsClassEntry& entry : registered)
    {
        const std::string name = entry.cls.c_str();
        if (name != "CQsShutterStimulationDevice" && std::count(std::begin(excluded), std::end(excluded), name) == 0)
            expected.push_back(name);
    }
    ASSERT_THAT(expected, ::testing::IsSupersetOf({"CQsStimulationDeviceGalvoXY", "CQsStimulationDeviceGalvoXYSim",
                                                   "CQsStimulationDeviceMosaicSim2", s_className}));

    EXPECT_THAT(StaticClasses(), ElementsAreArray(expected));
    for (const auto& info : Access::StaticDevices(M()))
        EXPECT_EQ(nullptr, info.pDevice);
    EXPECT_EQ(0u, CRegisteredDevice::s_created);
    EXPECT_TRUE(ScriptCommandExists());
}

TEST_F(StaticDevices, AreNotLoadedOnADeviceDatabase)
{
    QsStandalone::SetDeviceDatabaseInitialized(true);
    EXPECT_TRUE(Access::IsDatabaseMode(M()));
    EXPECT_THAT(StaticClasses(), IsEmpty());
    EXPECT_FALSE(ScriptCommandExists());
}

TEST_F(StaticDevices, AreRemovedByTheNameOfTheirClassOneAtATime)
{
    M().StaticDeviceRemove(s_className);
    ASSERT_THAT(StaticClasses(), IsEmpty());
    EXPECT_FALSE(ScriptCommandExists());
    EXPECT_EQ(-13, M().StaticDeviceRemove("CQsA"));

    EXPECT_EQ(0, M().StaticDeviceAdd({"CQsA", L"a"}));
    EXPECT_TRUE(ScriptCommandExists());
    EXPECT_EQ(0, M().StaticDeviceAdd({"CQsB", L"b"}));
    EXPECT_EQ(0, M().StaticDeviceAdd({"CQsA", L"c"}));
    EXPECT_EQ(-13, M().StaticDeviceRemove("CQsC"));
    EXPECT_EQ(-13, M().StaticDeviceRemove("cqsa"));

    EXPECT_EQ(0, M().StaticDeviceRemove("CQsA"));
    EXPECT_THAT(StaticClasses(), ElementsAre("CQsB", "CQsA"));
    EXPECT_EQ(L"c", Access::StaticDevices(M())[1].sModuleFile);
    EXPECT_TRUE(ScriptCommandExists());
    EXPECT_EQ(0, M().StaticDeviceRemove("CQsA"));
    EXPECT_EQ(0, M().StaticDeviceRemove("CQsB"));
    EXPECT_FALSE(ScriptCommandExists());
    EXPECT_EQ(-13, M().StaticDeviceRemove("CQsB"));
}

TEST_F(StaticDevices, AreFoundByUniqueNameOnceTheyExist)
{
    M(); // the class of the fixture has no object and is passed over
    CQsFakeDevice& first = Static(L"A");
    Static(L"B");
    Static(L"A");
    EXPECT_EQ(&first, M().GetStaticDevice(L"A"));
    EXPECT_EQ(nullptr, M().GetStaticDevice(L"a"));
    EXPECT_EQ(nullptr, M().GetStaticDevice(L"Registered"));
}

TEST_F(StaticDevices, HaveALoadedModuleWhenItIsInTheProcess)
{
    EXPECT_TRUE(Loaded().IsModuleLoaded());
    EXPECT_FALSE(NotLoaded().IsModuleLoaded());
    const std::filesystem::path host = std::filesystem::u8path(QS_HOST_LIBRARY).make_preferred();
    const CQsStringW library = CQsStringW::FromUtf8(host.u8string());
    EXPECT_TRUE(Manager::SQsDeviceInfo(s_className, library.c_str()).IsModuleLoaded());
    EXPECT_FALSE(Manager::SQsDeviceInfo(s_className, L"").IsModuleLoaded());
    EXPECT_FALSE(Manager::SQsDeviceInfo().IsModuleLoaded());
}

TEST_F(StaticDevices, AreVisibleWhileTheirModuleIsNotLoadedAndLoseTheirObject)
{
    Manager::SQsDeviceInfo info = NotLoaded();
    EXPECT_TRUE(info.IsDeviceVisible());
    EXPECT_EQ(0u, CRegisteredDevice::s_created);

    CQsFakeDevice& device = Make(L"A");
    device.bVisible = false;
    device.AddRef();
    info.pDevice = &device;
    EXPECT_TRUE(info.IsDeviceVisible());
    EXPECT_EQ(nullptr, info.pDevice);
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&device));
}

TEST_F(StaticDevices, AreVisibleWhenTheirObjectCannotBeCreated)
{
    QsStandalone::RefuseClass(s_className, true);
    Manager::SQsDeviceInfo info = Loaded();
    EXPECT_TRUE(info.IsDeviceVisible());
    EXPECT_EQ(nullptr, info.pDevice);

    Manager::SQsDeviceInfo unknown("CQsNoSuchClass", ThisProgram().c_str());
    EXPECT_TRUE(unknown.IsDeviceVisible());
    EXPECT_EQ(nullptr, unknown.pDevice);
}

TEST_F(StaticDevices, AnswerForTheirVisibilityOnceTheyExistAndAreCreatedOnce)
{
    CRegisteredDevice::s_bVisible = false;
    Manager::SQsDeviceInfo info = Loaded();
    EXPECT_FALSE(info.IsDeviceVisible());
    ASSERT_NE(nullptr, info.pDevice);
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(info.pDevice));
    EXPECT_FALSE(info.IsDeviceVisible());
    EXPECT_EQ(1u, CRegisteredDevice::s_created);
    CQsRTTI::Release(info.pDevice);
}

TEST_F(StaticDevices, TellNameAndDeviceOnlyWhenTheHardwareIsConnected)
{
    CQsStringW name = L"untouched";
    CQsFakeDevice& poison = Make(L"poison");
    IQsStimulationDevice* device = &poison;

    Manager::SQsDeviceInfo gone = NotLoaded();
    EXPECT_FALSE(gone.IsHwConnected(name, &device));
    QsStandalone::RefuseClass(s_className, true);
    Manager::SQsDeviceInfo info = Loaded();
    EXPECT_FALSE(info.IsHwConnected(name, &device));
    QsStandalone::RefuseClass(s_className, false);
    CRegisteredDevice::s_bConnected = false;
    EXPECT_FALSE(info.IsHwConnected(name, &device));
    EXPECT_EQ(L"untouched", name);
    EXPECT_EQ(&poison, device);
    ASSERT_NE(nullptr, info.pDevice);

    dynamic_cast<CRegisteredDevice&>(*info.pDevice).bConnected = true;
    EXPECT_TRUE(info.IsHwConnected(name, &device));
    EXPECT_EQ(L"Registered", name);
    EXPECT_EQ(info.pDevice, device);
    name = L"untouched";
    EXPECT_TRUE(info.IsHwConnected(name, nullptr));
    EXPECT_EQ(L"Registered", name);
    EXPECT_EQ(1u, CRegisteredDevice::s_created);
    CQsRTTI::Release(info.pDevice);
}

TEST_F(StaticDevices, AreReleasedAndForgottenByTheConnectionTestWhenTheirModuleIsGone)
{
    CQsFakeDevice& device = Make(L"A");
    device.AddRef();
    Manager::SQsDeviceInfo info = NotLoaded();
    info.pDevice = &device;
    CQsStringW name;
    EXPECT_FALSE(info.IsHwConnected(name, nullptr));
    EXPECT_EQ(nullptr, info.pDevice);
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&device));
}

TEST_F(StaticDevices, AreCopiedWithTheirPointerAndWithoutAReference)
{
    CQsFakeDevice& device = Make(L"A");
    Manager::SQsDeviceInfo info = Loaded();
    EXPECT_EQ(nullptr, info.pDevice);
    info.pDevice = &device;
    const Manager::SQsDeviceInfo copy = info;
    EXPECT_EQ(&device, copy.pDevice);
    EXPECT_EQ(0, copy.sClassName.Compare(s_className));
    EXPECT_EQ(ThisProgram(), copy.sModuleFile);
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&device));
}

TEST_F(StaticDevices, AreCreatedByTheUpdateThatListsThem)
{
    CRegisteredDevice::s_bVisible = false;
    M();
    Access::StaticDevices(M())[0].sModuleFile = ThisProgram();
    EXPECT_EQ(0, M().Update());
    EXPECT_THAT(DeviceNames(), ElementsAre("Registered"));
    EXPECT_FALSE(Info(L"Registered").bVisible);
    EXPECT_EQ(0, M().Update());
    EXPECT_EQ(1u, CRegisteredDevice::s_created);
    EXPECT_EQ(M().GetDevice(L"Registered"), M().GetStaticDevice(L"Registered"));
}
