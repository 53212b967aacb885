#include "core_ModuleBytes.h"
#include "host/QsSystem.h"
#include "platform/Process.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "standalone/PluginManager.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <thread>

using namespace QsStandalone;
using QsTest::CTemporaryFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

const std::string probes = QS_PROBES;
const std::string suffix = QS_MODULE_SUFFIX;
const std::string probeModule = probes + "/Probe/ProbeModule" + suffix;
const std::string noExportModule = probes + "/NoExport/NoExportModule" + suffix;
constexpr char itf[] = "IQsStimulationDevice";

class CCounted : public CQsClass
{
public:
    explicit CCounted(bool answers = true) : m_answers(answers) {}
    const CQsClassInfo* GetClass() const override { return nullptr; }
    IQsInterface* QueryInterface(const char* name) override
    {
        if (!m_answers || std::strcmp(name, itf) != 0)
            return nullptr;
        AddRef();
        return this;
    }

private:
    bool m_answers;
};

struct SUncounted : IQsInterface
{
    const CQsClassInfo* GetClass() const override { return nullptr; }
};

IQsInterface* MakeCounted(const char* file, unsigned line)
{
    return new (file, line) CCounted;
}
IQsInterface* MakeMute(const char* file, unsigned line)
{
    return new (file, line) CCounted(false);
}
IQsInterface* MakeUncounted(const char*, unsigned)
{
    return new SUncounted;
}

struct SCoded
{
    SCoded(const char* name, QsClassConstructor constructor, const char* parent = itf, const char* second = nullptr)
        : info(name, parent, second, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, sizeof(CCounted),
               constructor)
    {}
    CQsClassInfo info;
};

std::vector<std::string> Found(const char* interfaceName, const char* second = "", const char* third = "")
{
    std::vector<SQsClassEntry> entries;
    CQsRTTI::FindClasses(interfaceName, second, third, entries);
    std::vector<std::string> names;
    for (const SQsClassEntry& entry : entries)
        names.emplace_back(entry.cls.c_str());
    return names;
}

SKnownClass Known(const std::string& name)
{
    for (const SKnownClass& known : KnownClasses())
        if (known.className == name)
            return known;
    return {};
}

IQsInterface* Create(const char* cls, const char* interfaceName = itf)
{
    return CQsRTTI::CreateAndQuery(cls, interfaceName, "no file", -1);
}

// What a failed creation leaves: no object and one line from the unit.
void ExpectRefused(const char* cls, const wchar_t* unit, const std::string& says)
{
    const std::size_t objects = LiveObjectCount();
    CQsDiagnosticLog::ToMemory(false);
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(Create(cls), nullptr);
    EXPECT_EQ(LiveObjectCount(), objects);
    const std::vector<SLogLine> lines = CQsDiagnosticLog::MemoryLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].unit, unit);
    EXPECT_THAT(lines[0].text.ToUtf8(), HasSubstr(cls));
    EXPECT_THAT(lines[0].text.ToUtf8(), HasSubstr(says));
}

} // namespace

// ------------------------------------------------------------------------------------------------------------ objects

TEST(CountedObject, IsBornWithoutReferenceAndGoesWithTheLast)
{
    auto* const object = new ("no file", 1) CCounted;
    EXPECT_EQ(LiveObjectCount(), 1u);
    EXPECT_EQ(ReferenceCount(object), 0u);
    EXPECT_EQ(object->AddRef(), 1u);
    EXPECT_EQ(object->AddRef(), 2u);
    EXPECT_EQ(ReferenceCount(object), 2u);
    EXPECT_EQ(object->Release(), 1u);
    EXPECT_EQ(LiveObjectCount(), 1u);
    EXPECT_EQ(object->Release(), 0u);
    EXPECT_EQ(LiveObjectCount(), 0u);
}

TEST(CountedObject, GoesWhenReleasedWithoutAReference)
{
    auto* const object = new ("no file", 1) CCounted;
    EXPECT_EQ(object->Release(), 0u);
    EXPECT_EQ(LiveObjectCount(), 0u);
}

TEST(CountedObject, IsNotMadeWhenTheAllocatorRefuses)
{
    RefuseAllocation(true);
    EXPECT_EQ(MakeCounted("no file", 1), nullptr);
    RefuseAllocation(false);
    EXPECT_EQ(LiveObjectCount(), 0u);
}

TEST(CountedObject, CountsTheReferencesOfSeveralThreads)
{
    auto* const object = new ("no file", 1) CCounted;
    object->AddRef();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back(
            [object]
            {
                for (int i = 0; i < 5000; ++i)
                {
                    CQsRTTI::AddRef(object);
                    CQsRTTI::Release(object);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(ReferenceCount(object), 1u);
    object->Release();
    EXPECT_EQ(LiveObjectCount(), 0u);
}

TEST(References, OfNothingAndOfUncountedObjectsAreLeftAlone)
{
    SUncounted uncounted;
    CQsRTTI::AddRef(nullptr);
    CQsRTTI::Release(nullptr);
    CQsRTTI::AddRef(&uncounted);
    CQsRTTI::Release(&uncounted);
    EXPECT_EQ(ReferenceCount(&uncounted), 0u);
    EXPECT_EQ(ReferenceCount(nullptr), 0u);
    EXPECT_EQ(CQsRTTI::Query(nullptr, itf), nullptr);
    EXPECT_EQ(CQsRTTI::Query(&uncounted, itf), nullptr);
}

TEST(Query, AddsAReferenceOnlyWhenItIsAnswered)
{
    auto* const object = new ("no file", 1) CCounted;
    object->AddRef();
    EXPECT_EQ(CQsRTTI::Query(object, "IQsInterface"), nullptr);
    EXPECT_EQ(CQsRTTI::Query(object, nullptr), nullptr);
    EXPECT_EQ(ReferenceCount(object), 1u);
    EXPECT_EQ(CQsRTTI::Query(object, itf), object);
    EXPECT_EQ(ReferenceCount(object), 2u);
    object->Release();
    object->Release();
}

// ----------------------------------------------------------------------------------------------- classes known in code

TEST(ClassRegistry, ListsClassesInOrderOfRegistrationWhileTheyLive)
{
    EXPECT_THAT(Found(itf), IsEmpty());
    const SCoded b("CQsB", &MakeCounted);
    {
        const SCoded a("CQsA", &MakeCounted, itf, "IQsOther");
        const SCoded foreign("CQsForeign", &MakeCounted, "IQsOther");
        EXPECT_THAT(Found(itf), ElementsAre("CQsB", "CQsA"));
        EXPECT_THAT(Found(itf, "IQsOther"), ElementsAre("CQsA"));
        EXPECT_THAT(Found("IQsOther", nullptr, itf), ElementsAre("CQsA"));
        EXPECT_THAT(Found("iqsstimulationdevice"), IsEmpty());
        EXPECT_THAT(Found(""), IsEmpty());
        EXPECT_THAT(Found(nullptr), IsEmpty());
    }
    EXPECT_THAT(Found(itf), ElementsAre("CQsB"));
}

TEST(ClassRegistry, NamesTheProgramAsModuleOfItsOwnClasses)
{
    static const SCoded coded("CQsCoded", &MakeCounted); // as every real class: part of its file's data
    std::vector<SQsClassEntry> entries(1);               // what is there is kept
    CQsRTTI::FindClasses(itf, "", "", entries);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(std::filesystem::u8path(entries[1].module.ToUtf8()), std::filesystem::u8path(QsPlatform::ProgramFile()));
    const std::vector<SKnownClass> known = KnownClasses();
    ASSERT_EQ(known.size(), 1u);
    EXPECT_EQ(known[0].module, "");
    EXPECT_TRUE(known[0].moduleLoaded);
    EXPECT_THAT(known[0].parents, ElementsAre(itf));
}

TEST(CreateAndQuery, GivesAnObjectWithOneReference)
{
    const SCoded coded("CQsCoded", &MakeCounted);
    IQsInterface* const object = Create("CQsCoded");
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(ReferenceCount(object), 1u);
    CQsRTTI::Release(object);
    EXPECT_EQ(LiveObjectCount(), 0u);
}

TEST(CreateAndQuery, LeavesNothingBehindWhenItFails)
{
    const SCoded coded("CQsCoded", &MakeCounted);
    const SCoded mute("CQsMute", &MakeMute);
    const SCoded uncounted("CQsUncounted", &MakeUncounted);
    ExpectRefused("CQsUnknown", L"ClassRegistry", "no module");
    ExpectRefused("CQsMute", L"ClassRegistry", "does not answer");
    ExpectRefused("CQsUncounted", L"ClassRegistry", "does not answer");
    RefuseAllocation(true);
    ExpectRefused("CQsCoded", L"ClassRegistry", "made no object");
    RefuseAllocation(false);
    RefuseClass("CQsCoded", true);
    ExpectRefused("CQsCoded", L"ClassRegistry", "refused");
    RefuseClass("CQsCoded", false);
    EXPECT_EQ(Create(nullptr), nullptr);
    EXPECT_EQ(Create("CQsCoded", nullptr), nullptr);
    IQsInterface* const object = Create("CQsCoded");
    EXPECT_NE(object, nullptr);
    CQsRTTI::Release(object);
}

// ------------------------------------------------------------------------------------------ classes known from modules

TEST(Modules, AreLoadedWhenAClassIsFirstCreated)
{
    const std::vector<SModuleFile> scanned = CQsModules::ScanFolder(probes + "/Probe");
    ASSERT_EQ(scanned.size(), 1u);
    EXPECT_EQ(scanned[0].error, "");
    EXPECT_THAT(Found(itf), UnorderedElementsAre("CQsProbe", "CQsNestingProbe", "CQsThrowingProbe"));
    EXPECT_FALSE(CQsModules::IsLoaded(probeModule));
    EXPECT_FALSE(KnownClasses().front().moduleLoaded);

    IQsInterface* const object = Create("CQsProbe");
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(ReferenceCount(object), 1u);
    ASSERT_NE(object->GetClass(), nullptr);
    EXPECT_STREQ(object->GetClass()->GetName(), "CQsProbe");
    EXPECT_TRUE(CQsModules::IsLoaded(probeModule));
    CQsRTTI::Release(object);

    // Its registration in code adds nothing to what the records said.
    EXPECT_THAT(Found(itf), UnorderedElementsAre("CQsProbe", "CQsNestingProbe", "CQsThrowingProbe"));
    const SKnownClass known = Known("CQsProbe");
    EXPECT_TRUE(known.moduleLoaded);
    EXPECT_EQ(known.friendlyName, "Probe device");
    EXPECT_EQ(std::filesystem::u8path(known.module), std::filesystem::canonical(std::filesystem::u8path(probeModule)));
}

TEST(Modules, StandBeforeClassesThatOnlyRegisteredInCode)
{
    const SCoded coded("CQsCoded", &MakeCounted);
    CQsModules::ScanFile(noExportModule);
    EXPECT_THAT(Found(itf), ElementsAre("CQsNoExport", "CQsCoded"));
}

TEST(Modules, AreScannedInOrderOfNamesAndTheFirstKeepsAClass)
{
    const CTemporaryFolder folder;
    folder.Write("b.dll", PeFile("qsclass", ClassBytes("CQsB", "b") + ClassBytes("CQsShared", "of b")));
    folder.Write("a.dll", PeFile("qsclass", ClassBytes("CQsShared", "of a") + ClassBytes("CQsA", "a")));
    folder.Write("broken.so", "\177ELF");
    folder.Write("notes.txt", "no module");
    CQsDiagnosticLog::ToMemory(true);
    const std::vector<SModuleFile> scanned = CQsModules::ScanFolder(folder.Path());
    ASSERT_EQ(scanned.size(), 3u);
    EXPECT_NE(scanned[2].error, "");
    EXPECT_EQ(CQsDiagnosticLog::MemoryLines().size(), 1u);
    EXPECT_THAT(Found(itf), ElementsAre("CQsShared", "CQsA", "CQsB"));
    EXPECT_EQ(KnownClasses()[0].friendlyName, "of a");
    EXPECT_EQ(CQsModules::KnownModules().size(), 2u);

    CQsModules::ScanFolder(folder.Path()); // nothing twice
    EXPECT_THAT(Found(itf), ElementsAre("CQsShared", "CQsA", "CQsB"));
    EXPECT_EQ(CQsModules::KnownModules().size(), 2u);
}

TEST(Modules, LeaveAClassToTheProgramThatRegisteredIt)
{
    const SCoded coded("CQsProbe", &MakeCounted);
    CQsModules::ScanFile(probeModule);
    EXPECT_THAT(Found(itf), UnorderedElementsAre("CQsNestingProbe", "CQsThrowingProbe", "CQsProbe"));
    EXPECT_EQ(Known("CQsProbe").module, "");
    IQsInterface* const object = Create("CQsProbe");
    EXPECT_FALSE(CQsModules::IsLoaded(probeModule));
    CQsRTTI::Release(object);
}

TEST(Modules, OfAFolderThatCannotBeReadGiveOneEntryWithAnError)
{
    const CTemporaryFolder folder;
    for (const std::string& path : {folder.File("missing"), folder.Write("file", "x")})
    {
        const std::vector<SModuleFile> scanned = CQsModules::ScanFolder(path);
        ASSERT_EQ(scanned.size(), 1u);
        EXPECT_THAT(scanned[0].error, ::testing::StartsWith(path + ": "));
    }
}

TEST(Modules, FailInOneLineWhenAClassCannotBeMade)
{
    CQsModules::ScanFolder(probes + "/Probe");
    CQsModules::ScanFolder(probes + "/NoExport");
    CQsModules::ScanFolder(probes + "/Unresolved");
    ExpectRefused("CQsThrowingProbe", L"ClassRegistry", "no hardware");
    ExpectRefused("CQsNoExport", L"PluginManager", "QS_ConstructorForCQsNoExport");
    ExpectRefused("CQsUnresolved", L"PluginManager", QS_UNRESOLVED_SAYS);

    const CTemporaryFolder folder;
    const auto otherSystemsFile = suffix == ".dll" ? &ElfFile : &PeFile;
    CQsModules::ScanFile(folder.Write("foreign.dll", otherSystemsFile("qsclass", ClassBytes("CQsForeign", ""))));
    ExpectRefused("CQsForeign", L"PluginManager", "foreign.dll");
    std::filesystem::remove(std::filesystem::u8path(folder.File("foreign.dll")));
    ExpectRefused("CQsForeign", L"PluginManager", "no such file");
}

TEST(Modules, MayCreateObjectsWhileTheyMakeOne)
{
    CQsModules::ScanFolder(probes + "/Probe");
    IQsInterface* const object = Create("CQsNestingProbe");
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(LiveObjectCount(), 2u);
    CQsRTTI::Release(object);
    EXPECT_EQ(LiveObjectCount(), 0u);

    RefuseClass("CQsProbe", true); // now the inner one fails and takes the outer one with it
    EXPECT_EQ(Create("CQsNestingProbe"), nullptr);
    EXPECT_EQ(LiveObjectCount(), 0u);
}

TEST(Modules, AreLoadedByPathAndByClass)
{
    std::string error = "unset";
    EXPECT_FALSE(CQsModules::LoadModuleOfClass("CQsProbe", error));
    EXPECT_THAT(error, HasSubstr("CQsProbe"));
    EXPECT_FALSE(CQsModules::LoadModule(probes + "/none.so", error));
    EXPECT_THAT(error, HasSubstr("none.so"));
    EXPECT_FALSE(CQsModules::IsLoaded(probes + "/none.so"));
    EXPECT_FALSE(CQsModules::IsLoaded(""));

    const SCoded coded("CQsCoded", &MakeCounted);
    EXPECT_TRUE(CQsModules::LoadModuleOfClass("CQsCoded", error));
    CQsModules::ScanFile(probeModule);
    EXPECT_TRUE(CQsModules::LoadModuleOfClass("CQsProbe", error)) << error;
    EXPECT_TRUE(CQsModules::LoadModule(probes + "/./Probe/ProbeModule" + suffix, error)) << error; // harmless
    EXPECT_TRUE(CQsModules::IsLoaded(probes + "/Probe/../Probe/ProbeModule" + suffix));
}

TEST(Modules, AreForgottenUnlessTheyAreLoaded)
{
    CQsModules::ScanFile(probeModule);
    CQsModules::ScanFile(noExportModule);
    std::string error;
    ASSERT_TRUE(CQsModules::LoadModule(probeModule, error)) << error;
    CQsModules::Forget();
    EXPECT_THAT(Found(itf), UnorderedElementsAre("CQsProbe", "CQsNestingProbe", "CQsThrowingProbe"));
    EXPECT_EQ(CQsModules::KnownModules().size(), 1u);
}

// The loader holds a lock of its own while a module registers its classes; scanning and listing meanwhile must not wait
// for it with the registry's lock held.
TEST(Modules, MayBeLoadedListedAndScannedByManyThreads)
{
    CQsModules::ScanFolder(probes + "/Probe");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back(
            [t]
            {
                for (int i = 0; i < 20; ++i)
                {
                    CQsRTTI::Release(Create("CQsNestingProbe"));
                    const SCoded coded("CQsTransient", &MakeCounted);
                    EXPECT_GE(Found(itf).size(), 4u);
                    EXPECT_GE(KnownClasses().size(), 4u);
                    if (t == 0 && i % 5 == 0)
                        CQsModules::ScanFile(probeModule);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(LiveObjectCount(), 0u);
}
