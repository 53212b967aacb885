// Names in every script: on the command line, in the environment, in files and in what is printed.
#include "tests/integration/Stimhost.h"

#include <QDir>
#include <QFile>

#include <gmock/gmock.h>

using testing::HasSubstr;

namespace {

// One, two, three and four bytes of UTF-8; the last is a pair of surrogates in UTF-16.
constexpr char s_name[] = "Ab \xC3\xA4\xC3\x9F \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9D\x94\x98";

class Texts : public StimhostTest
{
protected:
    void SetUp() override
    {
        StimhostTest::SetUp();
        ASSERT_TRUE(QDir().mkpath(QString::fromStdString(Path(s_name))));
    }

    // In a folder of that name, a file of that name.
    std::string Named(const std::string& extension) const
    {
        return Path(std::string(s_name) + "/" + s_name + extension);
    }
    // A copy of the rig, in such a file.
    std::string NamedRig(const std::string& rig) const
    {
        return File(std::string(s_name) + "/" + s_name + ".json", ReadWhole(rig));
    }
};

} // namespace

TEST_F(Texts, OfFilesAndDevicesPassThroughAStimulation)
{
    const std::string rig = File(std::string(s_name) + "/rig.json",
                                 std::string(R"({ "format": "stimulation-rig", "version": 1, "name": ")") + s_name +
                                     R"(", "shutters": [ { "id": 1, "name": ")" + s_name +
                                     R"(" } ], "stimulationShutters": [ { "shutter": 1 } ] })");
    const SOutcome outcome = Stimhost({"stimulate", "--rig", rig, "--duration", "10", "--report", Named(".json"),
                                       "--picture", Named(".svg"), "--log", Named(".log"), "--log-level", "detailed"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr(s_name));

    const rapidjson::Document report = ParsedJson(ReadWhole(Named(".json")));
    EXPECT_STREQ(s_name, report["rig"]["name"].GetString());
    EXPECT_STREQ(rig.c_str(), report["rig"]["file"].GetString());
    EXPECT_STREQ(s_name, report["phases"][0]["measured"][0]["device"].GetString());
    EXPECT_THAT(ReadWhole(Named(".svg")), HasSubstr(s_name));
    EXPECT_THAT(ReadWhole(Named(".log")), HasSubstr("StimulationManager"));
    // Nothing under another name.
    const QStringList files = QDir(QString::fromStdString(Path(s_name))).entryList(QDir::Files);
    EXPECT_EQ(4, files.size()) << files.join(", ").toStdString();
}

TEST_F(Texts, OfACommandAreShownAsTheyWereTyped)
{
    const SOutcome unknown = Stimhost({"activate", s_name, "--rig", ShutterRig()});
    EXPECT_EQ(2, unknown.exitCode);
    EXPECT_THAT(unknown.err, HasSubstr(std::string("\"") + s_name + "\""));

    const SOutcome missing = Stimhost({"list", "--rig", Named(".none")});
    EXPECT_EQ(2, missing.exitCode);
    EXPECT_THAT(missing.err, HasSubstr(Named(".none")));
}

TEST_F(Texts, NameDatabasesOnTheCommandLineAndInTheEnvironment)
{
    const std::string rig = BeampathRig();
    // What has a meaning in an address.
    const std::string database = "sqlite:" + Named(" #%41.sqlite");
    const SOutcome imported = Stimhost({"rig", "import", rig, "--database", database});
    ASSERT_EQ(0, imported.exitCode) << imported.err;
    EXPECT_TRUE(QFile::exists(QString::fromStdString(Named(" #%41.sqlite"))));
    const SOutcome shown = Stimhost({"beampaths", "--rig", rig, "--json"}, {"QS_DATABASE=" + database});
    ASSERT_EQ(0, shown.exitCode) << shown.err;
    EXPECT_EQ(database, ParsedJson(shown.out)["database"].GetString());
}

TEST_F(Texts, NameRegistriesWithoutMixingThem)
{
    const std::string rig = ShutterRig(), own = Path(s_name), other = Path(std::string(s_name) + "2");
    const auto activate = [&](const std::string& registry) {
        return RunProgram(QS_STIMHOST, {"--registry", registry, "--rig", rig, "activate", "Shutter_1", "--save"});
    };
    const auto shown = [](const std::string& registry) {
        return RunProgram(QS_STIMHOST, {"--registry", registry, "registry", "show"}).out;
    };
    ASSERT_EQ(0, activate(own).exitCode);
    EXPECT_THAT(shown(own), HasSubstr("Shutter_1"));
    EXPECT_THAT(shown(other), testing::Not(HasSubstr("Shutter_1")));
}

TEST_F(Texts, NameTheFoldersOfADemo)
{
    const std::string rig = NamedRig(QS_SOURCE "/examples/rigs/optics.json");
    const SOutcome outcome = Stimhost({"demo", "--rig", rig, "--settings", Path("settings " + std::string(s_name)),
                                       "--out", Path("out " + std::string(s_name)) + "/"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_EQ("", outcome.err);
    for (const char* name : {"/report.json", "/timeline.svg", "/calibration-1.svg", "/region-2.svg"})
        EXPECT_TRUE(QFile::exists(QString::fromStdString(Path("out " + std::string(s_name)) + name))) << name;
    EXPECT_EQ(rig,
              ParsedJson(ReadWhole(Path("out " + std::string(s_name)) + "/report.json"))["rig"]["file"].GetString());
}
