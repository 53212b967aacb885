// The commands that list, choose and check.
#include "tests/integration/Stimhost.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gmock/gmock.h>

using testing::HasSubstr;

using CommandLine = StimhostTest;

TEST_F(CommandLine, HelpNamesEveryExitCode)
{
    const SOutcome help = RunProgram(QS_STIMHOST, {"--help"});
    EXPECT_EQ(0, help.exitCode);
    EXPECT_THAT(help.out, HasSubstr("  0  done"));
    EXPECT_THAT(help.out, HasSubstr("  1  a device or a stimulation failed"));
    EXPECT_THAT(help.out, HasSubstr("  2  bad usage, bad input"));
    EXPECT_THAT(help.out, HasSubstr("  3  an internal error"));
    EXPECT_EQ("", help.err);
}

TEST_F(CommandLine, EveryCommandHasHelp)
{
    const std::vector<std::vector<std::string>> commands = {
        {"list"},           {"inspect"},        {"activate"},       {"stimulate"},        {"demo"},
        {"beampaths"},      {"script", "list"}, {"script", "call"}, {"rig", "check"},     {"rig", "init"},
        {"rig", "import"},  {"rig", "export"},  {"oc", "show"},     {"registry", "show"}, {"oc", "set"},
        {"groups", "show"}, {"groups", "save"}};
    for (std::vector<std::string> command : commands)
    {
        command.push_back("--help");
        const SOutcome help = Stimhost(command);
        EXPECT_EQ(0, help.exitCode) << command[0];
        EXPECT_THAT(help.out, HasSubstr("--json")) << command[0];
    }
}

TEST_F(CommandLine, BadUsageGetsOneLineAndExitCodeTwo)
{
    const std::vector<std::vector<std::string>> bad = {{},
                                                       {"shine"},
                                                       {"list", "--colour"},
                                                       {"inspect"},
                                                       {"activate"},
                                                       {"activate", "A", "--mru", "1"},
                                                       {"activate", "--confocal", "maybe"},
                                                       {"stimulate", "--kind", "strobe"},
                                                       {"stimulate", "--duration", "-1"},
                                                       {"stimulate", "--duration", "nan"},
                                                       {"stimulate", "--duration", "inf"},
                                                       {"stimulate", "--duration", "1e99"},
                                                       {"stimulate", "--duration", "soon"},
                                                       {"stimulate", "--groups", "8"},
                                                       {"stimulate", "--repetitions", "0"},
                                                       {"--log-level", "loud", "list"},
                                                       {"script", "call", "P", "--param", "no value"},
                                                       {"script", "call", "no such procedure"},
                                                       {"--modules", "/nowhere at all", "list"},
                                                       {"--rig", "", "list"},
                                                       {"--log", "", "list"},
                                                       {"stimulate", "--report", ""},
                                                       {"stimulate", "--picture", ""},
                                                       {"demo", "--out", ""},
                                                       {"oc"},
                                                       {"oc", "set"},
                                                       {"groups"},
                                                       {"rig"},
                                                       {"rig", "import"},
                                                       {"stimulate", "--oc", ""},
                                                       {"--database", "", "list"},
                                                       {"--setup", "-1", "beampaths"}};
    for (const std::vector<std::string>& arguments : bad)
    {
        const SOutcome outcome = Stimhost(arguments);
        const std::string last = arguments.empty() ? "no arguments" : arguments.back();
        EXPECT_EQ(2, outcome.exitCode) << last;
        EXPECT_EQ(1u, LineCount(outcome.err)) << last << ": " << outcome.err;
        EXPECT_EQ("", outcome.out) << last;
    }
}

TEST_F(CommandLine, ABadRigIsNamedWithItsLine)
{
    const std::string rig =
        File("bad.json", "{\n  \"format\": \"stimulation-rig\", \"version\": 1,\n  \"shutterz\": []\n}\n");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"rig", "check", rig}, {"list", "--rig", rig}, {"stimulate", "--rig", rig}})
    {
        const SOutcome outcome = Stimhost(arguments);
        EXPECT_EQ(2, outcome.exitCode);
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(rig + ":3: "));
        EXPECT_THAT(outcome.err, HasSubstr("shutterz"));
    }
}

TEST_F(CommandLine, WrongSettingsOfADeviceAreBadInput)
{
    for (const char* list : {"simple", "special", "option", "static"})
    {
        const std::string rig = File("settings.json", std::string(R"({
            "format": "stimulation-rig", "version": 1, "name": "Wrong",
            "devices": [ { "class": "CQsSimPatternDevice", "list": ")") +
                                                          list + R"(",
                           "settings": { "exposureMs": -1 } } ] })");
        const SOutcome outcome = Stimhost({"list", "--rig", rig});
        EXPECT_EQ(2, outcome.exitCode) << list;
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(rig + ": settings of a device of class CQsSimPatternDevice: "));
        EXPECT_THAT(outcome.err, HasSubstr("exposureMs"));
        EXPECT_EQ("", outcome.out) << list;
    }
}

TEST_F(CommandLine, AMissingRigIsNamed)
{
    const SOutcome outcome = Stimhost({"list", "--rig", Path("none.json")});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(Path("none.json")));
}

TEST_F(CommandLine, TheRigsOfTheDemoAreValid)
{
    const SOutcome outcome = Stimhost(
        {"rig", "check", QS_SOURCE "/examples/rigs/demo.json", QS_SOURCE "/examples/rigs/beampaths.json", "--json"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    ASSERT_TRUE(json.IsObject());
    for (const auto& rig : json["rigs"].GetArray())
        EXPECT_TRUE(rig["valid"].GetBool()) << rig["file"].GetString();
}

TEST_F(CommandLine, ListShowsClassesDevicesAndOptions)
{
    const SOutcome outcome = Stimhost({"list", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    ASSERT_TRUE(json.IsObject());
    EXPECT_EQ(1, json["version"].GetInt());
    bool shutterClass = false;
    for (const auto& known : json["classes"].GetArray())
        if (known["class"].GetString() == std::string("CQsShutterStimulationDevice"))
        {
            shutterClass = true;
            EXPECT_TRUE(known["loaded"].GetBool());
            EXPECT_STREQ("Shutter Stimulation device", known["friendlyName"].GetString());
            EXPECT_THAT(known["module"].GetString(), HasSubstr("qsstimulation"));
        }
    EXPECT_TRUE(shutterClass);
    ASSERT_GT(json["devices"].Size(), 1u);
    unsigned active = 0;
    for (const auto& device : json["devices"].GetArray())
    {
        EXPECT_STRNE("", device["name"].GetString());
        EXPECT_STRNE("", device["displayName"].GetString());
        EXPECT_TRUE(device["visible"].IsBool());
        active += device["active"].GetBool() ? 1 : 0;
    }
    EXPECT_EQ(1u, active);
    EXPECT_EQ(0u, json["recentlyUsed"].Size());
    EXPECT_FALSE(json["options"]["autoActivateV4Behaviour"].GetBool());
    EXPECT_FALSE(json["options"]["doNotUseVDMStyle"].GetBool());
}

TEST_F(CommandLine, TheRecentlyUsedDevicesSurviveTheProcess)
{
    const rapidjson::Document before = ParsedJson(Stimhost({"list", "--json"}).out);
    ASSERT_TRUE(before.IsObject());
    std::string other;
    for (const auto& device : before["devices"].GetArray())
        if (!device["active"].GetBool())
            other = device["name"].GetString();
    ASSERT_NE("", other);

    const SOutcome activated = Stimhost({"activate", other, "--save"});
    ASSERT_EQ(0, activated.exitCode) << activated.err;
    EXPECT_EQ("active: " + other + "\n", activated.out);

    const rapidjson::Document after = ParsedJson(Stimhost({"list", "--json"}).out);
    ASSERT_GT(after["recentlyUsed"].Size(), 0u);
    EXPECT_EQ(other, after["recentlyUsed"][0].GetString());
    for (const auto& device : after["devices"].GetArray())
        EXPECT_EQ(device["name"].GetString() == other, device["active"].GetBool()) << device["name"].GetString();

    const rapidjson::Document stored = ParsedJson(Stimhost({"registry", "show", "--json"}).out);
    bool first = false;
    for (const auto& value : stored["values"].GetArray())
        first = first || (value["name"] == "Device-0" && value["value"].GetString() == other);
    EXPECT_TRUE(first);
}

TEST_F(CommandLine, TheMachinesOptionsAreWrittenOnce)
{
    ASSERT_EQ(0, Stimhost({"list"}).exitCode);
    const rapidjson::Document stored = ParsedJson(Stimhost({"registry", "show", "--machine", "--json"}).out);
    ASSERT_EQ(2u, stored["values"].Size());
    for (const auto& value : stored["values"].GetArray())
    {
        EXPECT_STREQ("number", value["type"].GetString());
        EXPECT_EQ(0u, value["value"].GetUint());
    }
}

TEST_F(CommandLine, ActivateRefusesAnUnknownName)
{
    for (const char* name : {"no such device", ""})
    {
        const SOutcome outcome = Stimhost({"activate", name});
        EXPECT_EQ(2, outcome.exitCode);
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(std::string("\"") + name + "\""));
    }
}

TEST_F(CommandLine, ActivateByAPlaceBeyondTheRecentlyUsedFails)
{
    const SOutcome outcome = Stimhost({"activate", "--mru", "4000"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.err, HasSubstr("-13"));
}

TEST_F(CommandLine, ScriptProceduresAreListedWithTheirParameters)
{
    const SOutcome outcome = Stimhost({"script", "list", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    ASSERT_EQ(1u, json["procedures"].Size());
    const auto& procedure = json["procedures"][0];
    EXPECT_STREQ("Stg_StimDev_AddPatternFromImage", procedure["name"].GetString());
    EXPECT_STREQ("Device.Stimulation", procedure["group"].GetString());
    ASSERT_EQ(4u, procedure["parameters"].Size());
    EXPECT_STREQ("StimDev_ImageFilePath", procedure["parameters"][0]["name"].GetString());
    EXPECT_STREQ("flag", procedure["parameters"][3]["kind"].GetString());
}

TEST_F(CommandLine, InspectRefusesATextFileWithOneLine)
{
    const std::string path = File("notes.so", "this is no module\n");
    const SOutcome outcome = Stimhost({"inspect", path});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(path));
}

TEST_F(CommandLine, InspectRefusesATruncatedModuleWithOneLineAndStillShowsTheOther)
{
    const std::string whole = ReadWhole(QS_MODULE);
    const std::string path = File("half.so", whole.substr(0, whole.size() / 2));
    const SOutcome outcome = Stimhost({"inspect", path, QS_MODULE});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(path));
    EXPECT_THAT(outcome.out, HasSubstr("CQsShutterStimulationDevice"));
}

TEST_F(CommandLine, AMissingModuleGetsOneLineAndExitCodeThreeAndInspectStillWorks)
{
    // The program with what the system's loader wants beside it, in a folder without the module.
    const QFileInfo program(QS_STIMHOST);
    const std::string copy = Path(program.fileName().toStdString());
    ASSERT_TRUE(QFile::copy(program.filePath(), QString::fromStdString(copy)));
    for (const QString& library : program.dir().entryList({"*.dll"}))
    {
        const QString to = QString::fromStdString(Path(library.toStdString()));
        ASSERT_TRUE(library == QS_MODULE_NAME || QFile::copy(program.dir().filePath(library), to));
    }
    const SOutcome missing = RunProgram(copy, {"list"});
    EXPECT_EQ(3, missing.exitCode);
    EXPECT_EQ(1u, LineCount(missing.err)) << missing.err;
    EXPECT_THAT(missing.err, HasSubstr("the stimulation module cannot be loaded"));
    EXPECT_EQ(0, RunProgram(copy, {"inspect", QS_MODULE}).exitCode);
    EXPECT_EQ(0, RunProgram(copy, {"--version"}).exitCode);

    File(QS_MODULE_NAME, "no module");
    const SOutcome damaged = RunProgram(copy, {"list"});
    EXPECT_EQ(3, damaged.exitCode);
    EXPECT_EQ(1u, LineCount(damaged.err)) << damaged.err;
}

TEST_F(CommandLine, TheLogGoesToAFile)
{
    ASSERT_EQ(0, Stimhost({"list", "--log", Path("host.log"), "--log-level", "detailed"}).exitCode);
    EXPECT_THAT(ReadWhole(Path("host.log")), HasSubstr("CQsStimulationDeviceManager::SetActive("));
    const SOutcome unwritable = Stimhost({"list", "--log", Path("no/such/folder/host.log")});
    EXPECT_EQ(2, unwritable.exitCode);
    EXPECT_EQ(1u, LineCount(unwritable.err)) << unwritable.err;
}
