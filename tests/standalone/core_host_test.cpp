#include "host/QsDMApi.h"
#include "host/QsDevice.h"
#include "host/QsPicture.h"
#include "host/QsPluginManager.h"
#include "host/QsScript.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "standalone/Script.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <thread>

using namespace QsStandalone;
using QsTest::CTemporaryFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// -------------------------------------------------------------------------------------------------------------- clock

namespace {

double s_time = 0.0;
double ControlledTime()
{
    return s_time;
}

} // namespace

TEST(Clock, RunsForwardUntilATestTakesIt)
{
    const double before = QS_GetTimeCounter();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_GE(QS_GetTimeCounter(), before + 2.0); // milliseconds: a sleep is never shorter
    SetTimeCounter(&ControlledTime);
    s_time = 1234.5;
    EXPECT_EQ(QS_GetTimeCounter(), 1234.5);
    SetTimeCounter(nullptr);
    EXPECT_GE(QS_GetTimeCounter(), before);
}

// -------------------------------------------------------------------------------------------------------- translations

TEST(Translation, ComesFromTheCatalogueAndElseIsTheTextItself)
{
    const CTemporaryFolder folder;
    std::string error = "unset";
    ASSERT_TRUE(LoadTranslations(
        folder.Write("de.json", "\xEF\xBB\xBF{\"<none>\": \"<kein Ger\xC3\xA4t>\", \"\": \"leer\"}\n"), error))
        << error;
    EXPECT_EQ(QS_GetTranslation(L"<none>", "file.cpp"), CQsStringW(L"<kein Ger\u00E4t>"));
    EXPECT_EQ(QS_GetTranslation(L"other", "file.cpp"), CQsStringW(L"other"));
    EXPECT_EQ(QS_GetTranslation(nullptr, nullptr), CQsStringW(L"leer"));
    ClearTranslations();
    EXPECT_EQ(QS_GetTranslation(L"<none>", "file.cpp"), CQsStringW(L"<none>"));
}

TEST(Translation, OfADamagedCatalogueIsRefusedWithItsPlaceAndTheOldOneStays)
{
    const CTemporaryFolder folder;
    std::string error;
    ASSERT_TRUE(LoadTranslations(folder.Write("good.json", "{\"a\": \"b\"}"), error));
    const struct
    {
        std::string contents;
        const char* says;
    } cases[] = {{"", ":1: "},
                 {"{\n\"a\": \"c\",\n\"x\": 5\n}", ":3: expected a text"},
                 {"{\n\"a\": {\"b\": \"c\"}}", ":2: expected a text, found an object"},
                 {"{\"a\": [\"b\"]}", ":1: expected a text, found a list"},
                 {"{\"a\": null}", ":1: expected a text"},
                 {"[\"a\"]", ":1: expected an object"},
                 {"\"a\"", ":1: expected an object"},
                 {"7", ":1: expected an object"},
                 {"{\"a\": \"c\",\n\n\"a\": \"d\"}", ":3: \"a\" stands here a second time"},
                 {"{\"a\": \"c\"}\n}", ":2: "},
                 {"{\"a\": \"c\"", ":1: "},
                 {std::string("{\"a\": \"c\"\0}", 11), ":1: "},
                 {"{\"a\": \"\xFF\"}", ":1: "},
                 {std::string(200000, '['), ":1: "}};
    for (const auto& c : cases)
    {
        const std::string path = folder.Write("bad.json", c.contents);
        error = "unset";
        EXPECT_FALSE(LoadTranslations(path, error)) << c.contents.substr(0, 40);
        EXPECT_THAT(error, HasSubstr(path + c.says));
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_EQ(QS_GetTranslation(L"a", ""), CQsStringW(L"b"));
    }
    EXPECT_FALSE(LoadTranslations(folder.File("missing.json"), error));
    EXPECT_THAT(error, HasSubstr("missing.json: no such file"));
    EXPECT_FALSE(LoadTranslations(folder.Path(), error));
    EXPECT_EQ(QS_GetTranslation(L"a", ""), CQsStringW(L"b"));
}

// ------------------------------------------------------------------------------------------------------------ switches

TEST(DeviceDatabase, IsNotThereUntilItIsSwitchedOn)
{
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
    SetDeviceDatabaseInitialized(true);
    EXPECT_TRUE(DeviceDBApi::IsInitialized());
    SetDeviceDatabaseInitialized(false);
    EXPECT_FALSE(DeviceDBApi::IsInitialized());
}

TEST(DeviceSettings, AreAnEmptyObjectUntilTheyAreSet)
{
    EXPECT_EQ(GetDeviceSettings("A"), "{}");
    SetDeviceSettings("A", "{\"mode\": 7}");
    EXPECT_EQ(GetDeviceSettings("A"), "{\"mode\": 7}");
    EXPECT_EQ(GetDeviceSettings("a"), "{}");
}

TEST(Picture, IsCopiedDeeplyAndOntoItself)
{
    SQsRLEPicBuf source;
    source.uiWidth = 4;
    source.uiHeight = 2;
    source.runs = {{0, 1, 2}, {1, 0, 4}};
    SQsRLEPicBuf copy;
    copy.runs.resize(9);
    EXPECT_EQ(CQsRLEPicBufAPI::Copy(copy, source), 0);
    EXPECT_EQ(CQsRLEPicBufAPI::Copy(copy, copy), 0);
    source.runs[1].uiCount = 0;
    EXPECT_EQ(copy.uiWidth, 4u);
    EXPECT_EQ(copy.uiHeight, 2u);
    ASSERT_EQ(copy.runs.size(), 2u);
    EXPECT_EQ(copy.runs[1].uiCount, 4u);
}

// -------------------------------------------------------------------------------------------------------------- script

namespace {

std::string s_called;

int Record(const wchar_t* device, const wchar_t* image, const wchar_t* pattern, bool oneToOne, bool overwrite)
{
    s_called = CQsStringW::Format(L"%s|%s|%s|%d|%d", device, image, pattern, oneToOne, overwrite).ToUtf8();
    return -42;
}

int Throw(const wchar_t*, const wchar_t*, const wchar_t*, bool, bool)
{
    throw std::runtime_error("broken");
}

int UnregisterItself(const wchar_t*, const wchar_t*, const wchar_t*, bool, bool)
{
    return CQsScript::UnregisterProc_Exe(L"Proc");
}

int Register(const wchar_t* name, QsScriptDeviceProcedure procedure,
             const wchar_t* parameters = L"Image;Pattern;One;Over")
{
    return CQsScript::Register_ProcToGroupWithGUIProc(name, L"Group", nullptr, parameters, procedure);
}

class Script : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(CQsScript::Register_Parameter(L"Image", CQsScript::s_kindText, L"default.tif"), 0);
        ASSERT_EQ(CQsScript::Register_Parameter(L"Pattern", CQsScript::s_kindText, nullptr), 0);
        ASSERT_EQ(CQsScript::Register_Parameter(L"One", CQsScript::s_kindFlag, L"1"), 0);
        ASSERT_EQ(CQsScript::Register_Parameter(L"Over", CQsScript::s_kindFlag, L"false"), 0);
    }
};

} // namespace

TEST_F(Script, CallsAProcedureWithItsParametersByNameAndDefaults)
{
    ASSERT_EQ(Register(L"Proc", &Record), 0);
    int result = -77;
    std::string error;
    EXPECT_TRUE(CQsScriptHost::Call("Proc", "caf\xC3\xA9", {{"Over", "true"}, {"Pattern", "p"}}, result, error))
        << error;
    EXPECT_EQ(result, -42);
    EXPECT_EQ(s_called, "caf\xC3\xA9|default.tif|p|1|1");
    EXPECT_TRUE(CQsScriptHost::Call("Proc", "", {{"Image", "i"}, {"One", "0"}}, result, error));
    EXPECT_EQ(s_called, "|i||0|0");
}

TEST_F(Script, RefusesAWrongCallInOneLine)
{
    ASSERT_EQ(Register(L"Proc", &Record), 0);
    ASSERT_EQ(Register(L"Throws", &Throw), 0);
    const struct
    {
        const char* procedure;
        std::map<std::string, std::string> parameters;
        const char* says;
    } cases[] = {{"proc", {}, "no script procedure \"proc\""},
                 {"Proc", {{"image", "x"}}, "no parameter \"image\""},
                 {"Proc", {{"One", "yes"}}, "One is \"yes\""},
                 {"Throws", {}, "broken"}};
    for (const auto& c : cases)
    {
        int result = -77;
        std::string error;
        EXPECT_FALSE(CQsScriptHost::Call(c.procedure, "d", c.parameters, result, error));
        EXPECT_THAT(error, HasSubstr(c.says));
        EXPECT_EQ(result, -77);
    }
    EXPECT_EQ(s_called, "");
}

TEST_F(Script, ListsReplacesAndUnregistersProcedures)
{
    ASSERT_EQ(Register(L"Proc", &Throw), 0);
    ASSERT_EQ(Register(L"Other", &Record), 0);
    ASSERT_EQ(Register(L"Proc", &Record), 0);
    const std::vector<SScriptProcedure> procedures = CQsScriptHost::Procedures();
    ASSERT_EQ(procedures.size(), 2u);
    EXPECT_EQ(procedures[0].name, "Proc");
    EXPECT_EQ(procedures[0].group, "Group");
    ASSERT_EQ(procedures[0].parameters.size(), 4u);
    EXPECT_EQ(procedures[0].parameters[2].name, "One");
    EXPECT_EQ(procedures[0].parameters[2].kind, CQsScript::s_kindFlag);
    EXPECT_EQ(procedures[0].parameters[2].defaultValue, "1");
    EXPECT_EQ(CQsScript::UnregisterProc_Exe(L"Proc"), 0);
    EXPECT_EQ(CQsScript::UnregisterProc_Exe(L"Proc"), -13);
    EXPECT_EQ(CQsScriptHost::Procedures().size(), 1u);
}

TEST_F(Script, RefusesARegistrationThatCouldNotBeCalled)
{
    EXPECT_EQ(Register(L"", &Record), -9);
    EXPECT_EQ(Register(nullptr, &Record), -9);
    EXPECT_EQ(Register(L"Proc", nullptr), -9);
    EXPECT_EQ(Register(L"Proc", &Record, L"Image;Pattern;One;Unknown"), -9);
    EXPECT_EQ(Register(L"Proc", &Record, L"Image;Pattern;One"), -9);
    EXPECT_EQ(Register(L"Proc", &Record, L"One;Pattern;Image;Over"), -9);
    EXPECT_EQ(Register(L"Proc", &Record, nullptr), -9);
    EXPECT_EQ(CQsScript::Register_Parameter(L"", CQsScript::s_kindText, L""), -9);
    EXPECT_EQ(CQsScript::Register_Parameter(L"X", 2, L""), -9);
    EXPECT_EQ(CQsScript::Register_Parameter(L"X", CQsScript::s_kindFlag, L"maybe"), -9);
    EXPECT_TRUE(CQsScriptHost::Procedures().empty());
}

TEST_F(Script, LetsAProcedureUnregisterItself)
{
    ASSERT_EQ(Register(L"Proc", &UnregisterItself), 0);
    int result = -77;
    std::string error;
    EXPECT_TRUE(CQsScriptHost::Call("Proc", "", {}, result, error));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(CQsScriptHost::Procedures().empty());
}

// -------------------------------------------------------------------------------------------------------------- events

namespace {

struct SConsumer final : IQsDMApiPluginNotification
{
    unsigned AppRntm_HandleEvent(const wchar_t* name, void* context) override
    {
        heard.push_back(CQsStringW(name).ToUtf8());
        if (context != nullptr)
            *static_cast<double*>(context) = 2.0;
        if (onEvent)
            onEvent();
        return 0;
    }
    std::vector<std::string> heard;
    std::function<void()> onEvent;
};

unsigned Tell(const wchar_t* name, void* context = nullptr)
{
    return CQsPluginManager::AppRntm_HandleEvent(name, 0, 0, context);
}

} // namespace

TEST(RuntimeEvent, ReachesThoseThatRegisteredForItsExactName)
{
    SConsumer a;
    SConsumer b;
    for (SConsumer* const consumer : {&a, &b})
    {
        DMApi::AppRntm_RegisterConsumer(consumer);
        DMApi::AppRntm_RegisterConsumer(consumer); // harmless
    }
    DMApi::AppRntm_RegisterEvent(&a, L"Event");
    DMApi::AppRntm_RegisterEvent(&a, L"Event");
    DMApi::AppRntm_RegisterEvent(&b, L"Other");
    double zoom = 1.0;
    EXPECT_EQ(Tell(L"Event", &zoom), 1u);
    EXPECT_EQ(zoom, 2.0);
    EXPECT_EQ(Tell(L"event"), 0u);
    EXPECT_EQ(Tell(nullptr), 0u);
    EXPECT_THAT(a.heard, ElementsAre("Event"));
    EXPECT_TRUE(b.heard.empty());
    DMApi::AppRntm_UnregisterEvent(&a, L"Event");
    EXPECT_EQ(Tell(L"Event"), 0u);
    DMApi::AppRntm_UnregisterConsumer(&a);
    DMApi::AppRntm_UnregisterConsumer(&b);
    EXPECT_EQ(Tell(L"Other"), 0u);
}

TEST(RuntimeEvent, IsForgottenForAConsumerThatIsNotRegistered)
{
    SConsumer consumer;
    DMApi::AppRntm_RegisterEvent(&consumer, L"Event");
    DMApi::AppRntm_RegisterConsumer(nullptr);
    DMApi::AppRntm_RegisterEvent(nullptr, L"Event");
    EXPECT_EQ(Tell(L"Event"), 0u);
}

TEST(RuntimeEvent, MayUnregisterConsumersThatHaveNotBeenToldYet)
{
    SConsumer first;
    SConsumer second;
    for (SConsumer* const consumer : {&first, &second})
    {
        DMApi::AppRntm_RegisterConsumer(consumer);
        DMApi::AppRntm_RegisterEvent(consumer, L"Event");
    }
    first.onEvent = [&]
    {
        DMApi::AppRntm_UnregisterConsumer(&second);
        DMApi::AppRntm_UnregisterConsumer(&first); // itself, while it is called
    };
    EXPECT_EQ(Tell(L"Event"), 1u);
    EXPECT_TRUE(second.heard.empty());
    EXPECT_EQ(Tell(L"Event"), 0u);
}

TEST(RuntimeEvent, OutlivesAConsumerThatThrows)
{
    SConsumer first;
    SConsumer second;
    for (SConsumer* const consumer : {&first, &second})
    {
        DMApi::AppRntm_RegisterConsumer(consumer);
        DMApi::AppRntm_RegisterEvent(consumer, L"Event");
    }
    first.onEvent = [] { throw std::runtime_error("broken"); };
    CQsDiagnosticLog::ToMemory(true);
    EXPECT_EQ(Tell(L"Event"), 2u);
    EXPECT_EQ(second.heard.size(), 1u);
    ASSERT_EQ(CQsDiagnosticLog::MemoryLines().size(), 1u);
    EXPECT_THAT(CQsDiagnosticLog::MemoryLines()[0].text.ToUtf8(), HasSubstr("broken"));
    DMApi::AppRntm_UnregisterConsumer(&first);
    DMApi::AppRntm_UnregisterConsumer(&second);
}

TEST(RuntimeEvent, IsOverWhenAConsumerHasBeenUnregistered)
{
    std::promise<void> inside;
    std::promise<void> goOn;
    std::atomic<bool> left{false};
    SConsumer consumer;
    consumer.onEvent = [&]
    {
        inside.set_value();
        goOn.get_future().wait();
        left = true;
    };
    DMApi::AppRntm_RegisterConsumer(&consumer);
    DMApi::AppRntm_RegisterEvent(&consumer, L"Event");
    std::thread teller([] { Tell(L"Event"); });
    inside.get_future().wait();
    std::atomic<bool> unregistered{false};
    std::thread owner(
        [&]
        {
            DMApi::AppRntm_UnregisterConsumer(&consumer);
            EXPECT_TRUE(left);
            unregistered = true;
        });
    EXPECT_FALSE(unregistered); // somebody is inside
    goOn.set_value();
    owner.join();
    teller.join();
    EXPECT_TRUE(unregistered);
}
