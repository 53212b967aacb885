// The demo from end to end, on its own rig.
#include "tests/integration/Stimhost.h"

#include <QDir>
#include <QFile>
#include <QXmlStreamReader>

#include <gmock/gmock.h>

#include <map>

using testing::HasSubstr;
using testing::Not;

using Demo = StimhostTest;

namespace {

constexpr char s_deviceRig[] = QS_SOURCE "/examples/rigs/demo.json";

// One bar for each pulse at least, beside the background, the legend and the panels.
void ExpectPicture(const std::string& path, int fewestBars)
{
    QXmlStreamReader svg(QByteArray::fromStdString(ReadWhole(path)));
    std::map<std::string, int> elements;
    while (!svg.atEnd())
        if (svg.readNext() == QXmlStreamReader::StartElement)
            ++elements[svg.name().toString().toStdString()];
    EXPECT_FALSE(svg.hasError()) << svg.errorString().toStdString();
    EXPECT_EQ(1, elements["svg"]);
    EXPECT_GT(elements["rect"], fewestBars);
    EXPECT_GT(elements["text"], fewestBars);
}

// Nothing broken, nothing skipped; the report.
rapidjson::Document KeptReport(const SOutcome& outcome, const std::string& path)
{
    EXPECT_EQ(0, outcome.exitCode) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.out, Not(HasSubstr("BROKEN")));
    EXPECT_THAT(outcome.out, Not(HasSubstr("skipped")));
    EXPECT_EQ("", outcome.err);
    rapidjson::Document report = ParsedJson(ReadWhole(path));
    EXPECT_TRUE(report.IsObject());
    EXPECT_EQ(2, report["version"].GetInt());
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
    EXPECT_GT(report["promises"].Size(), 30u);
    for (const auto& promise : report["promises"].GetArray())
        EXPECT_TRUE(promise["kept"].GetBool()) << promise["promise"].GetString();
    return report;
}

} // namespace

TEST_F(Demo, KeepsEveryPromiseOfTheDevicesAndWritesItsReportAndItsPicture)
{
    const SOutcome outcome = Stimhost({"demo", "--rig", s_deviceRig, "--out", Path("results")});
    const rapidjson::Document report = KeptReport(outcome, Path("results/report.json"));

    // Timed, continuous, aborted, patterns, refused second start.
    ASSERT_EQ(5u, report["phases"].Size());
    unsigned aborted = 0;
    unsigned continuous = 0;
    unsigned patterns = 0;
    for (const auto& phase : report["phases"].GetArray())
    {
        EXPECT_TRUE(phase["succeeded"].GetBool()) << phase["title"].GetString();
        ASSERT_EQ(1u, phase["measured"].Size()) << phase["title"].GetString();
        aborted += phase["abort"]["aborted"].GetBool() ? 1 : 0;
        continuous += phase["requested"]["kind"] == "continuous" ? 1 : 0;
        patterns += phase["measured"][0]["pulsesMs"].Size() > 1 ? 1 : 0;
    }
    EXPECT_EQ(1u, aborted);
    EXPECT_EQ(1u, continuous);
    EXPECT_EQ(1u, patterns);
    ExpectPicture(Path("results/timeline.svg"), 15);
}

TEST_F(Demo, KeepsEveryPromiseOfTheBeampaths)
{
    const SOutcome outcome = Stimhost({"demo", "--out", Path("results")});
    const rapidjson::Document report = KeptReport(outcome, Path("results/report.json"));

    // Timed, continuous, aborted, patterns, slow, gone, appeared.
    ASSERT_EQ(7u, report["phases"].Size());
    const auto& phases = report["phases"];
    for (const unsigned i : {0u, 1u, 2u})
    {
        EXPECT_TRUE(phases[i]["succeeded"].GetBool()) << i;
        EXPECT_EQ(4u, phases[i]["beampath"]["subbeampaths"].Size()) << i;
        EXPECT_EQ(3u, phases[i]["measured"].Size()) << i; // one path has no device
    }
    EXPECT_TRUE(phases[2]["abort"]["aborted"].GetBool());
    EXPECT_EQ(-9, phases[3]["status"].GetInt());
    EXPECT_EQ(0u, phases[3]["measured"].Size());
    EXPECT_EQ(0, phases[4]["status"].GetInt());
    EXPECT_EQ(1u, phases[4]["late"].Size());
    EXPECT_EQ(-9, phases[5]["startStatus"].GetInt());
    EXPECT_EQ(2u, phases[6]["measured"].Size());
    ExpectPicture(Path("results/timeline.svg"), 20);
}

TEST_F(Demo, KeepsEveryPromiseOfTheCalibration)
{
    const SOutcome outcome =
        Stimhost({"demo", "--rig", QS_SOURCE "/examples/rigs/optics.json", "--out", Path("results")});
    const rapidjson::Document report = KeptReport(outcome, Path("results/report.json"));
    EXPECT_GE(report["calibrations"].Size(), 3u);

    // By calibration state: where it fits, the light is where the image says.
    std::map<int, int> landings;
    for (const auto& landing : report["landings"].GetArray())
    {
        const int state = landing["state"].GetInt();
        ++landings[state];
        if (state != 4 || !landing["lightSeen"].GetBool())
            continue;
        EXPECT_LE(landing["centreErrorPx"].GetDouble(), 0.5) << landing["title"].GetString();
        EXPECT_GE(landing["overlap"].GetDouble(), 0.95) << landing["title"].GetString();
    }
    EXPECT_EQ(2, landings[1]); // before there is a calibration, and after all were forgotten
    EXPECT_EQ(1, landings[2]); // another objective
    EXPECT_GE(landings[4], 14);
    EXPECT_TRUE(QDir(QString::fromStdString(Path("results"))).exists("calibration-1.svg"));
    EXPECT_TRUE(QDir(QString::fromStdString(Path("results"))).exists("region-2.svg"));
}

TEST_F(Demo, DoesNotTouchCalibrationsThatAreNotItsOwn)
{
    const std::string optics = QS_SOURCE "/examples/rigs/optics.json";
    const std::string settings = Path("settings");
    ASSERT_EQ(0, Stimhost({"calibrate", "--save", "--grid", "4x3", "--rig", optics, "--settings", settings}).exitCode);
    const std::string file = Path("settings/calibrations.json");
    const std::string saved = ReadWhole(file);
    ASSERT_NE("", saved);
    const auto expectRefused =
        [this](const std::string& rig, const std::string& folder, const std::string& named, const std::string& why)
    {
        std::vector<std::string> arguments = {"demo", "--rig", rig, "--out", Path("results")};
        if (!folder.empty())
            arguments.insert(arguments.end(), {"--settings", folder});
        const SOutcome outcome = Stimhost(arguments);
        EXPECT_EQ(2, outcome.exitCode) << outcome.out;
        EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(named));
        EXPECT_THAT(outcome.err, HasSubstr(why));
        EXPECT_EQ("", outcome.out);
    };
    expectRefused(optics, settings, file, "expected none of CQsSimMicromirrorDevice in it, found 1");
    EXPECT_EQ(saved, ReadWhole(file));

    // A rig that names the user's file, or one beside whatever folder it is given, though nothing is there yet.
    for (const std::string& name : {file, Path("elsewhere.json"), std::string("../beside.json")})
    {
        const std::string rig = File("rig.json", R"({ "format": "stimulation-rig", "version": 1, "name": "Own",
            "cameras": [ { "class": "CQsSimCamera", "name": "Eye" } ],
            "devices": [ { "class": "CQsSimMicromirrorDevice", "list": "simple", "name": "Mirrors",
                           "settings": { "camera": "Eye", "calibrationFile": ")" +
                                                     name + R"(" } } ] })");
        expectRefused(rig, "", name.substr(name.rfind('/')), "in the folder of settings, found one beside it");
    }
    EXPECT_EQ(saved, ReadWhole(file));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(Path("elsewhere.json"))));

    // A damaged one, which a save would put aside.
    File("settings/calibrations.json", "torn");
    expectRefused(optics, settings, file, "expected a settings file");
    EXPECT_EQ("torn", ReadWhole(file));
}

TEST_F(Demo, LeavesADatabaseThatItIsGivenAsItWas)
{
    const std::string rig = QS_SOURCE "/examples/rigs/beampaths.json";
    const std::string database = "sqlite:" + Path("devices.sqlite");
    ASSERT_EQ(0, Stimhost({"rig", "import", rig, "--database", database}).exitCode);
    ASSERT_EQ(0, Stimhost({"oc", "set", "Warm:mine", "--database", database}).exitCode);
    ASSERT_EQ(0, Stimhost({"groups", "save", "--oc", "Bleach:x", "--assign", "1=13", "--database", database}).exitCode);
    const std::string before = Stimhost({"rig", "export", "--database", database}).out;
    EXPECT_EQ(0, Stimhost({"demo", "--out", Path("results"), "--database", database}).exitCode);
    const std::string after = Stimhost({"rig", "export", "--database", database}).out;
    // At its end every host saves the groups of the beampaths that it had, also of those that it had for a while.
    const auto withoutGroupsOfTheOther = [](const std::string& content)
    {
        std::vector<std::string> parameters;
        const rapidjson::Document json = ParsedJson(content);
        for (const auto& parameter : json["deviceDatabase"]["parameters"].GetArray())
            if (parameter["name"] != "CQsStimulationDeviceAggregator.StimGroupSubbeampathAssignments_2")
                parameters.push_back(std::string(parameter["name"].GetString()) + "=" + parameter["text"].GetString());
        return parameters;
    };
    EXPECT_EQ(withoutGroupsOfTheOther(before), withoutGroupsOfTheOther(after));
}

TEST_F(Demo, PrintsItsReportAsJsonOnly)
{
    const SOutcome outcome = Stimhost({"demo", "--out", Path("results"), "--json"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    ASSERT_TRUE(report.IsObject());
    EXPECT_EQ(7u, report["phases"].Size());
}

TEST_F(Demo, ExitsOneWhenALightIsLeftOn)
{
    const SOutcome outcome = Stimhost(
        {"demo", "--rig", ShutterRig(R"("faults": { "refuse": { "fromCall": 2 } })"), "--out", Path("results")});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.out, HasSubstr("BROKEN  no light is on"));
    const rapidjson::Document report = ParsedJson(ReadWhole(Path("results/report.json")));
    ASSERT_EQ(1u, report["lightOnAtEnd"].Size());
    EXPECT_STREQ("Blue", report["lightOnAtEnd"][0].GetString());
}

TEST_F(Demo, RefusesAnOutputFolderThatIsAFile)
{
    const std::string file = File("results", "mine");
    const SOutcome outcome = Stimhost({"demo", "--out", file});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_EQ("mine", ReadWhole(file));
}
