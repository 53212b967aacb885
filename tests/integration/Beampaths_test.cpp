// Beampaths, optical configurations and stimulation groups from the command line, on a device database.
#include "tests/integration/Stimhost.h"

#include <QSqlDatabase>
#include <QSqlQuery>

#include <gmock/gmock.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using BeampathCommands = StimhostTest;
using OCCommands = StimhostTest;
using GroupCommands = StimhostTest;
using StimulateBeampath = StimhostTest;

namespace {

// A machine that builds meanwhile may be that late.
constexpr double s_schedulingMs = 2000.0;

using JsonList = rapidjson::Document::ConstArray;

std::vector<std::string> Texts(JsonList list)
{
    std::vector<std::string> texts;
    for (const auto& item : list)
        texts.emplace_back(item.GetString());
    return texts;
}

// "8", "OC 1" and so on.
std::vector<std::string> Signals(const rapidjson::Value& phase)
{
    std::vector<std::string> signals;
    double last = 0.0;
    for (const auto& signal : phase["signals"].GetArray())
    {
        EXPECT_GE(signal["timeMs"].GetDouble(), last);
        last = signal["timeMs"].GetDouble();
        signals.push_back((signal["kind"] == "command" ? "OC " : "") + std::to_string(signal["code"].GetInt()));
    }
    return signals;
}

// The light of that name in the journal; null when it did not light.
const rapidjson::Value* Light(const rapidjson::Value& phase, const std::string& name)
{
    for (const auto& light : phase["measured"].GetArray())
        if (light["device"].GetString() == name)
            return &light;
    return nullptr;
}

} // namespace

TEST_F(BeampathCommands, ListEachBeampathWithItsDevices)
{
    const SOutcome outcome = Stimhost({"beampaths", "--rig", BeampathRig(), "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    EXPECT_EQ(1, json["setup"].GetInt());
    EXPECT_EQ(1, json["hwConfig"].GetInt());
    EXPECT_EQ(1, json["user"].GetInt());
    ASSERT_EQ(5u, json["beampaths"].Size()); // the parts are no stimulation beampaths
    const auto& both = json["beampaths"][0];
    EXPECT_EQ(1, both["id"].GetInt());
    EXPECT_STREQ("Both", both["name"].GetString());
    EXPECT_STREQ("Both shutters", both["userName"].GetString());
    EXPECT_TRUE(both["on"].GetBool());
    EXPECT_TRUE(both["hasDevice"].GetBool());
    EXPECT_TRUE(both["connected"].GetBool());
    EXPECT_FALSE(both["active"].GetBool());
    ASSERT_EQ(3u, both["subbeampaths"].Size());
    EXPECT_EQ(11, both["subbeampaths"][0]["id"].GetInt());
    EXPECT_STREQ("Shutter_1", both["subbeampaths"][0]["device"].GetString());
    EXPECT_STREQ("Red light", both["subbeampaths"][1]["name"].GetString());
    EXPECT_STREQ("Shutter_2", both["subbeampaths"][1]["device"].GetString());
    EXPECT_STREQ("Bare", both["subbeampaths"][2]["name"].GetString());
    EXPECT_STREQ("no device", both["subbeampaths"][2]["device"].GetString());
    ASSERT_EQ(3u, both["groups"].Size());
    for (const auto& group : both["groups"].GetArray())
        EXPECT_EQ(11, group.GetInt()); // the lowest, until something is saved
    const auto& other = json["beampaths"][2];
    EXPECT_STREQ("Other", other["name"].GetString());
    EXPECT_FALSE(other["on"].GetBool());
    EXPECT_FALSE(other["hasDevice"].GetBool());

    const SOutcome text = Stimhost({"beampaths", "--rig", BeampathRig()});
    EXPECT_THAT(text.out, AllOf(HasSubstr("Both"), HasSubstr("no device"), HasSubstr("off")));
}

TEST_F(BeampathCommands, ListWhatAnotherHardwareConfigurationSwitchesOn)
{
    const SOutcome outcome = Stimhost({"beampaths", "--rig", BeampathRig(), "--hw-config", "2", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    EXPECT_EQ(2, json["hwConfig"].GetInt());
    EXPECT_FALSE(json["beampaths"][0]["on"].GetBool());
    EXPECT_TRUE(json["beampaths"][2]["on"].GetBool());
    EXPECT_TRUE(json["beampaths"][2]["hasDevice"].GetBool());
}

TEST_F(BeampathCommands, NeedADeviceDatabase)
{
    for (const std::vector<std::string>& command : {std::vector<std::string>{"beampaths"},
                                                    {"oc", "show"},
                                                    {"oc", "set", "Both:x"},
                                                    {"groups", "show"},
                                                    {"groups", "save"},
                                                    {"stimulate", "--oc", "Both:x"}})
    {
        std::vector<std::string> arguments = {"--rig", ShutterRig()};
        arguments.insert(arguments.end(), command.begin(), command.end());
        const SOutcome outcome = Stimhost(arguments);
        EXPECT_EQ(2, outcome.exitCode) << command[0];
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr("device database"));
        EXPECT_EQ("", outcome.out);
    }
}

TEST_F(BeampathCommands, HaveARigOfTheProgramsWhereNoneIsNamed)
{
    const SOutcome outcome = Stimhost({"beampaths", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_GT(ParsedJson(outcome.out)["beampaths"].Size(), 2u);
}

TEST_F(OCCommands, IsKeptForTheNextProcessOfItsUser)
{
    const std::string database = BeampathDatabase();
    const std::vector<std::string> rig = {"--rig", BeampathRig(), "--database", database};
    const auto run = [&](const std::vector<std::string>& arguments)
    {
        std::vector<std::string> all = rig;
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Stimhost(all);
    };
    const SOutcome set = run({"oc", "set", "Both:488 nm", "--json"});
    ASSERT_EQ(0, set.exitCode) << set.err;
    EXPECT_TRUE(ParsedJson(set.out)["kept"].GetBool());
    EXPECT_EQ("", set.err);

    const rapidjson::Document shown = ParsedJson(run({"oc", "show", "--json"}).out);
    EXPECT_STREQ("Both:488 nm", shown["stimulationOC"].GetString());
    EXPECT_STREQ("Both", shown["beampath"].GetString());
    EXPECT_EQ(1, shown["beampathId"].GetInt());
    EXPECT_TRUE(shown["hasDevice"].GetBool());
    EXPECT_TRUE(ParsedJson(run({"beampaths", "--json"}).out)["beampaths"][0]["active"].GetBool());

    const rapidjson::Document otherUser = ParsedJson(run({"oc", "show", "--user", "2", "--json"}).out);
    EXPECT_STREQ("", otherUser["stimulationOC"].GetString());
    EXPECT_EQ(-1, otherUser["beampathId"].GetInt());

    // Its beampath is off in the other hardware configuration.
    const rapidjson::Document off = ParsedJson(run({"oc", "show", "--hw-config", "2", "--json"}).out);
    EXPECT_STREQ("Both:488 nm", off["stimulationOC"].GetString());
    EXPECT_FALSE(off["hasDevice"].GetBool());
}

TEST_F(OCCommands, ThatNamesNoBeampathIsRefusedAndTheOldOneStays)
{
    const std::string database = BeampathDatabase();
    ASSERT_EQ(0, Stimhost({"oc", "set", "Both:x", "--rig", BeampathRig(), "--database", database}).exitCode);
    for (const char* name : {"Both", "Nowhere:x", ":x", "Blue:x", ""})
    {
        const SOutcome outcome = Stimhost({"oc", "set", name, "--rig", BeampathRig(), "--database", database});
        EXPECT_EQ(2, outcome.exitCode) << name;
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_EQ("", outcome.out);
    }
    EXPECT_THAT(Stimhost({"oc", "set", "Nowhere:x", "--rig", BeampathRig()}).err,
                AllOf(HasSubstr("\"Nowhere\""), HasSubstr("Both, Late, Other, Fails, Shots")));
    const SOutcome shown = Stimhost({"oc", "show", "--rig", BeampathRig(), "--database", database, "--json"});
    EXPECT_STREQ("Both:x", ParsedJson(shown.out)["stimulationOC"].GetString());
}

TEST_F(OCCommands, SaysWhenItIsGoneWithTheRun)
{
    const SOutcome outcome = Stimhost({"oc", "set", "Both:x", "--rig", BeampathRig()});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("this run alone"));
    EXPECT_FALSE(ParsedJson(Stimhost({"oc", "set", "Both:x", "--rig", BeampathRig(), "--json"}).out)["kept"].GetBool());
}

TEST_F(OCCommands, OfABeampathThatIsOffIsSetWithAWarning)
{
    const SOutcome outcome = Stimhost({"oc", "set", "Other:x", "--rig", BeampathRig()});
    EXPECT_EQ(0, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("no device in this hardware configuration"));
}

TEST_F(OCCommands, ThatCannotBeStoredIsNotSaidToBeStored)
{
    const std::string database = BeampathDatabase();
    ASSERT_EQ(0, Stimhost({"oc", "set", "Both:old", "--rig", BeampathRig(), "--database", database}).exitCode);
    QSqlDatabase writer = QSqlDatabase::addDatabase("QSQLITE", "writer");
    writer.setDatabaseName(QString::fromStdString(database.substr(database.find(':') + 1)));
    ASSERT_TRUE(writer.open());
    for (const char* change : {"INSERT", "UPDATE", "DELETE"})
        ASSERT_TRUE(QSqlQuery(writer).exec(QString("CREATE TRIGGER refuse_%1 BEFORE %1 ON dev_Parameter BEGIN "
                                                   "SELECT RAISE(FAIL, 'refused by the test'); END")
                                               .arg(change)));
    writer.close();
    const SOutcome outcome = Stimhost({"oc", "set", "Late:new", "--rig", BeampathRig(), "--database", database});
    EXPECT_EQ(2, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("\"Late:new\" cannot be stored: "));
    EXPECT_EQ("", outcome.out);
    const SOutcome shown = Stimhost({"oc", "show", "--rig", BeampathRig(), "--database", database, "--json"});
    EXPECT_STREQ("Both:old", ParsedJson(shown.out)["stored"].GetString());
}

TEST_F(GroupCommands, AreSavedAndReadBackByANewProcess)
{
    const std::string database = BeampathDatabase();
    const std::string rig = BeampathRig();
    const SOutcome saved = Stimhost({"groups", "save", "--rig", rig, "--database", database, "--oc", "Both:x",
                                     "--assign", "0=14", "--assign", "2=12", "--json"});
    ASSERT_EQ(0, saved.exitCode) << saved.err;
    EXPECT_TRUE(ParsedJson(saved.out)["kept"].GetBool());

    const SOutcome shown =
        Stimhost({"groups", "show", "--rig", rig, "--database", database, "--oc", "Both:x", "--json"});
    ASSERT_EQ(0, shown.exitCode) << shown.err;
    const rapidjson::Document json = ParsedJson(shown.out);
    EXPECT_EQ(1, json["beampath"]["id"].GetInt());
    EXPECT_STREQ("[14,11,12]", json["stored"].GetString());
    ASSERT_EQ(3u, json["groups"].Size());
    EXPECT_EQ(14, json["groups"][0]["subbeampath"].GetInt());
    EXPECT_STREQ("no device", json["groups"][0]["device"].GetString());
    EXPECT_EQ(11, json["groups"][1]["subbeampath"].GetInt());
    EXPECT_EQ(12, json["groups"][2]["subbeampath"].GetInt());
    EXPECT_STREQ("Shutter_2", json["groups"][2]["device"].GetString());

    // Another user has his own.
    const SOutcome other =
        Stimhost({"groups", "show", "--rig", rig, "--database", database, "--oc", "Both:x", "--user", "2", "--json"});
    EXPECT_EQ(11, ParsedJson(other.out)["groups"][0]["subbeampath"].GetInt());
}

TEST_F(GroupCommands, AreSavedWhenTheProgramEndsAsAHostDoes)
{
    const std::string database = BeampathDatabase();
    ASSERT_EQ(0, Stimhost({"beampaths", "--rig", BeampathRig(), "--database", database}).exitCode);
    const SOutcome exported = Stimhost({"rig", "export", "--database", database});
    std::vector<std::string> names;
    const rapidjson::Document content = ParsedJson(exported.out);
    for (const auto& parameter : content["deviceDatabase"]["parameters"].GetArray())
        names.emplace_back(parameter["name"].GetString());
    // Those of several sub-beampaths that are on: "Both", "Late" and "Fails".
    EXPECT_THAT(names, ElementsAre("CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_1",
                                   "CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_2",
                                   "CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_4"));
}

TEST_F(GroupCommands, ThatAreWrongAreRefusedAndNothingIsChanged)
{
    const std::string database = BeampathDatabase();
    const std::vector<std::string> save = {"groups",     "save",   "--rig",    BeampathRig(),
                                           "--database", database, "--assign", "0=12"};
    for (const char* assignment : {"0=15", "3=11", "-1=11", "0", "0=", "=11", "0=11x", "x=11", "0=99999999999"})
    {
        std::vector<std::string> arguments = save;
        arguments.insert(arguments.end(), {"--oc", "Both:x", "--assign", assignment});
        const SOutcome outcome = Stimhost(arguments);
        EXPECT_EQ(2, outcome.exitCode) << assignment;
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_EQ("", outcome.out);
    }
    const SOutcome shown =
        Stimhost({"groups", "show", "--rig", BeampathRig(), "--database", database, "--oc", "Both:x", "--json"});
    EXPECT_EQ(11, ParsedJson(shown.out)["groups"][0]["subbeampath"].GetInt());

    const SOutcome withoutBeampath = Stimhost(save);
    EXPECT_EQ(2, withoutBeampath.exitCode);
    EXPECT_EQ(1u, LineCount(withoutBeampath.err)) << withoutBeampath.err;
    EXPECT_THAT(withoutBeampath.err, HasSubstr("no beampath is active"));
}

TEST_F(GroupCommands, OfOneSubbeampathAreNotStored)
{
    const SOutcome outcome = Stimhost({"groups", "save", "--rig", BeampathRig(), "--oc", "Shots:x", "--json"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    EXPECT_STREQ("", json["stored"].GetString());
    EXPECT_FALSE(json["kept"].GetBool());
}

TEST_F(StimulateBeampath, MeasuresEveryDeviceAndTellsWhatTheHostWasTold)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--duration", "120", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    EXPECT_EQ(2, report["version"].GetInt());
    const auto& phase = report["phases"][0];
    EXPECT_STREQ("Both", phase["activeDevice"].GetString());
    EXPECT_TRUE(phase["succeeded"].GetBool());
    EXPECT_EQ(0, phase["status"].GetInt());
    const auto& paths = phase["beampath"]["subbeampaths"];
    ASSERT_EQ(3u, paths.Size());
    EXPECT_STREQ("Blue", paths[0]["name"].GetString());
    EXPECT_STREQ("Shutter_1", paths[0]["device"].GetString());
    EXPECT_STREQ("Blue shutter", paths[0]["light"].GetString());
    EXPECT_STREQ("no device", paths[2]["device"].GetString());
    EXPECT_STREQ("", paths[2]["light"].GetString());
    EXPECT_TRUE(paths[2]["beginMs"].IsNull());

    // Light passes from the end of the opening, 2 and 20 ms, to the end of the closing, 3 and 10 ms.
    ASSERT_EQ(2u, phase["measured"].Size());
    const rapidjson::Value* const blue = Light(phase, "Blue shutter");
    const rapidjson::Value* const red = Light(phase, "Red shutter");
    ASSERT_NE(nullptr, blue);
    ASSERT_NE(nullptr, red);
    EXPECT_GE((*blue)["beginMs"].GetDouble(), 2.0);
    EXPECT_GE((*red)["beginMs"].GetDouble(), 20.0);
    for (const auto& [light, closingMs] : {std::pair(blue, 3.0), std::pair(red, 10.0)})
    {
        EXPECT_GE((*light)["durationMs"].GetDouble(), 120.0 + closingMs - 1.0);
        EXPECT_LE((*light)["durationMs"].GetDouble(), 120.0 + closingMs + s_schedulingMs);
    }
    EXPECT_EQ((*blue)["beginMs"].GetDouble(), paths[0]["beginMs"].GetDouble());
    EXPECT_EQ((*red)["endMs"].GetDouble(), paths[1]["endMs"].GetDouble());
    const double starts = (*red)["beginMs"].GetDouble() - (*blue)["beginMs"].GetDouble();
    const double ends = (*red)["endMs"].GetDouble() - (*blue)["endMs"].GetDouble();
    EXPECT_NEAR(std::abs(starts), phase["startSkewMs"].GetDouble(), 0.002);
    EXPECT_NEAR(std::abs(ends), phase["endSkewMs"].GetDouble(), 0.002);
    // The two are lit at the same time.
    EXPECT_LT((*red)["beginMs"].GetDouble(), (*blue)["endMs"].GetDouble());
    EXPECT_LT((*blue)["beginMs"].GetDouble(), (*red)["endMs"].GetDouble());

    // A timed phase, and the path without a device tells of its end once more.
    EXPECT_THAT(Signals(phase), ElementsAre("8", "OC 1", "OC 2", "OC 1", "OC 16", "OC 16", "16"));
    for (const char* list : {"withoutLight", "failed", "late", "strayLights", "lightLeftOn", "faults", "messages"})
        EXPECT_EQ(0u, phase[list].Size()) << list;
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
}

TEST_F(StimulateBeampath, ContinuouslyIsBegunAndEndedThroughTheBeampath)
{
    const SOutcome outcome = Stimhost(
        {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--kind", "continuous", "--duration", "80", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    const auto& phase = report["phases"][0];
    ASSERT_EQ(2u, phase["measured"].Size());
    for (const auto& light : phase["measured"].GetArray())
        EXPECT_GE(light["durationMs"].GetDouble(), 80.0 - 1.0);
    EXPECT_THAT(Signals(phase), ElementsAre("8", "OC 1", "OC 2", "OC 1", "OC 16", "OC 16", "16"));
}

TEST_F(StimulateBeampath, AnAbortPutsEveryDeviceOut)
{
    const SOutcome outcome = Stimhost({"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--duration", "30000",
                                       "--abort-after", "100", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    const auto& phase = report["phases"][0];
    EXPECT_TRUE(phase["abort"]["aborted"].GetBool());
    EXPECT_EQ(0, phase["abort"]["managerStatus"].GetInt()); // it reaches the beampath by itself
    EXPECT_LE(phase["abort"]["latencyMs"].GetDouble(), s_schedulingMs);
    ASSERT_EQ(2u, phase["measured"].Size());
    for (const auto& light : phase["measured"].GetArray())
        EXPECT_LE(light["endMs"].GetDouble(), phase["abort"]["calledMs"].GetDouble() + s_schedulingMs);
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
}

TEST_F(StimulateBeampath, ADeviceThatIsTooSlowIsNamedAndEndsDark)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", BeampathRig(), "--oc", "Late:x", "--duration", "30", "--json"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.err, HasSubstr("Slow was late"));
    const rapidjson::Document report = ParsedJson(outcome.out);
    const auto& phase = report["phases"][0];
    EXPECT_EQ(0, phase["status"].GetInt());
    EXPECT_FALSE(phase["succeeded"].GetBool());
    EXPECT_THAT(Texts(phase["late"].GetArray()), ElementsAre("Slow"));
    ASSERT_EQ(1u, phase["messages"].Size());
    EXPECT_STREQ(
        "CQsStimulationDeviceAggregator::StimulationBegin: Timeout while waiting for devices to finish their tasks.",
        phase["messages"][0]["text"].GetString());
    EXPECT_GE(phase["messages"][0]["timeMs"].GetDouble(), 100.0 - 1.0); // the shortest wait
    const rapidjson::Value* const slow = Light(phase, "Slow");
    ASSERT_NE(nullptr, slow);
    EXPECT_GE((*slow)["beginMs"].GetDouble(), 300.0);
    EXPECT_GE((*slow)["durationMs"].GetDouble(), 30.0 - 1.0);
    EXPECT_EQ(0u, phase["lightLeftOn"].Size());
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
}

TEST_F(StimulateBeampath, ADeviceThatFailsIsNamed)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", BeampathRig(), "--oc", "Fails:x", "--duration", "50", "--json"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.err, HasSubstr("Failing: the begin fails"));
    const rapidjson::Document report = ParsedJson(outcome.out);
    const auto& phase = report["phases"][0];
    EXPECT_EQ(0, phase["status"].GetInt());
    EXPECT_THAT(Texts(phase["failed"].GetArray()), ElementsAre("Failing"));
    EXPECT_THAT(Texts(phase["withoutLight"].GetArray()), ElementsAre("Failing"));
    EXPECT_THAT(Texts(phase["late"].GetArray()), IsEmpty());
    ASSERT_EQ(1u, phase["messages"].Size());
    EXPECT_THAT(phase["messages"][0]["text"].GetString(),
                HasSubstr("StimulationBeginAsync: Failed to call StimulationROIPrepare on device Failing, thread ("));
    EXPECT_NE(nullptr, Light(phase, "Blue shutter"));
}

TEST_F(StimulateBeampath, PatternsWithoutAreasCallNoDeviceAndSaySo)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", BeampathRig(), "--oc", "Shots:x", "--duration", "50", "--json"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("no areas to fire patterns at"));
    const rapidjson::Document report = ParsedJson(outcome.out);
    EXPECT_EQ(0, report["phases"][0]["status"].GetInt());
    EXPECT_EQ(0u, report["phases"][0]["signals"].Size());
    EXPECT_EQ(0u, report["phases"][0]["measured"].Size());
}

TEST_F(StimulateBeampath, ThatIsNotThereFailsWithOneLine)
{
    const std::vector<std::vector<std::string>> commands = {{"stimulate", "--duration", "50"},
                                                            {"stimulate", "--oc", "Other:x", "--duration", "50"}};
    for (std::vector<std::string> command : commands)
    {
        command.insert(command.end(), {"--rig", BeampathRig(), "--json"});
        const SOutcome outcome = Stimhost(command);
        EXPECT_EQ(1, outcome.exitCode);
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        const rapidjson::Document report = ParsedJson(outcome.out);
        EXPECT_EQ(-9, report["phases"][0]["startStatus"].GetInt());
        EXPECT_EQ(0u, report["phases"][0]["measured"].Size());
    }
    const SOutcome device = Stimhost({"stimulate", "--rig", BeampathRig(), "--device", "Slow"});
    EXPECT_EQ(2, device.exitCode);
    EXPECT_EQ(1u, LineCount(device.err)) << device.err;
    EXPECT_THAT(device.err, HasSubstr("--oc"));
}

TEST_F(StimulateBeampath, ShowsAPathWithoutADeviceInTableAndPicture)
{
    const SOutcome outcome = Stimhost(
        {"stimulate", "--rig", BeampathRig(), "--oc", "Both:x", "--duration", "20", "--picture", Path("phase.svg")});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("Blue: Shutter_1"), HasSubstr("Red light: Shutter_2"), HasSubstr("Bare"),
                                   HasSubstr("no device, no light"), HasSubstr("start skew")));
    EXPECT_THAT(ReadWhole(Path("phase.svg")),
                AllOf(HasSubstr(">Red light<"), HasSubstr(">Shutter_2<"), HasSubstr(">no device, no light<")));
}

TEST_F(StimulateBeampath, MeasuresAlsoWhenNothingIsLogged)
{
    const SOutcome outcome = Stimhost({"stimulate", "--rig", BeampathRig(), "--log-level", "off", "--verbose", "--oc",
                                       "Late:x", "--duration", "30", "--json"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_EQ(1u, ParsedJson(outcome.out)["phases"][0]["late"].Size());
}
