// Stimulations from the command line: measured times, faults, and no light left on.
#include "tests/integration/Stimhost.h"

#include <QElapsedTimer>
#include <QXmlStreamReader>

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Stimulate = StimhostTest;

namespace {

// A machine that builds meanwhile may be that late.
constexpr double s_schedulingMs = 2000.0;

} // namespace

TEST_F(Stimulate, ATimedStimulationIsMeasuredFromItsLight)
{
    const SOutcome outcome = Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "120", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    ASSERT_EQ(1u, report["phases"].Size());
    const auto& phase = report["phases"][0];
    EXPECT_STREQ("Shutter_1", phase["activeDevice"].GetString());
    EXPECT_STREQ("timed", phase["requested"]["kind"].GetString());
    EXPECT_EQ(120.0, phase["requested"]["durationMs"].GetDouble());
    EXPECT_TRUE(phase["succeeded"].GetBool());
    EXPECT_FALSE(phase["abort"]["aborted"].GetBool());
    ASSERT_EQ(1u, phase["measured"].Size());
    const auto& light = phase["measured"][0];
    // The blade needs 2 ms to open and 3 ms to close; light is on from the end of the one to the end of the other.
    EXPECT_GE(light["beginMs"].GetDouble(), 2.0);
    EXPECT_GE(light["durationMs"].GetDouble(), 120.0 + 3.0 - 1.0);
    EXPECT_LE(light["durationMs"].GetDouble(), 120.0 + 3.0 + s_schedulingMs);
    EXPECT_NEAR(light["endMs"].GetDouble() - light["beginMs"].GetDouble(), light["durationMs"].GetDouble(), 0.002);
    EXPECT_NEAR(light["durationMs"].GetDouble() - 120.0, light["durationErrorMs"].GetDouble(), 0.002);
    ASSERT_EQ(1u, phase["reportedByDevice"]["beginMs"].Size());
    EXPECT_LE(phase["reportedByDevice"]["beginMs"][0].GetDouble(), light["beginMs"].GetDouble());
    EXPECT_GE(phase["reportedByDevice"]["endMs"][0].GetDouble(), light["endMs"].GetDouble());
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
}

TEST_F(Stimulate, AContinuousStimulationLastsUntilItIsEnded)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", ShutterRig(), "--kind", "continuous", "--duration", "80", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    const auto& light = report["phases"][0]["measured"][0];
    EXPECT_GE(light["durationMs"].GetDouble(), 80.0 + 3.0 - 1.0);
    EXPECT_LE(light["durationMs"].GetDouble(), 80.0 + 3.0 + s_schedulingMs);
}

TEST_F(Stimulate, RepetitionsAreSeparateStimulations)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "10", "--repetitions", "3", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    ASSERT_EQ(3u, report["phases"].Size());
    double end = 0.0;
    for (const auto& phase : report["phases"].GetArray())
    {
        ASSERT_EQ(1u, phase["measured"].Size());
        EXPECT_GE(phase["startedMs"].GetDouble(), end);
        end = phase["startedMs"].GetDouble() + phase["measured"][0]["endMs"].GetDouble();
    }
}

TEST_F(Stimulate, AnAbortPutsTheLightOutBeforeItsTime)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "20000", "--abort-after", "50", "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    const auto& phase = report["phases"][0];
    EXPECT_TRUE(phase["abort"]["aborted"].GetBool());
    EXPECT_EQ(-13, phase["abort"]["managerStatus"].GetInt());
    EXPECT_GE(phase["abort"]["calledMs"].GetDouble(), 50.0 - 1.0);
    EXPECT_GE(phase["abort"]["latencyMs"].GetDouble(), 0.0);
    EXPECT_LE(phase["abort"]["latencyMs"].GetDouble(), 3.0 + s_schedulingMs);
    EXPECT_LE(phase["measured"][0]["durationMs"].GetDouble(), 50.0 + 3.0 + 2.0 * s_schedulingMs);
    EXPECT_TRUE(phase["measured"][0]["durationErrorMs"].IsNull());
}

TEST_F(Stimulate, TheReportAndThePictureAreWritten)
{
    const SOutcome outcome = Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "10", "--picture",
                                       Path("a & b.svg"), "--report", Path("r.json")});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("Blue"));
    EXPECT_EQ(1u, ParsedJson(ReadWhole(Path("r.json")))["phases"].Size());
    QXmlStreamReader svg(QByteArray::fromStdString(ReadWhole(Path("a & b.svg"))));
    while (!svg.atEnd())
        svg.readNext();
    EXPECT_FALSE(svg.hasError()) << svg.errorString().toStdString();
}

TEST_F(Stimulate, AFileThatCannotBeWrittenIsNamed)
{
    const std::string path = Path("no/such/folder/r.json");
    const SOutcome outcome = Stimhost({"stimulate", "--rig", ShutterRig(), "--duration", "10", "--report", path});
    EXPECT_EQ(2, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(path));
}

TEST_F(Stimulate, AShutterThatRefusesToCloseIsReportedByName)
{
    // Its first call opens it; every later one is refused.
    const std::string rig = ShutterRig(R"("faults": { "refuse": { "fromCall": 2 } })");
    const SOutcome outcome = Stimhost({"stimulate", "--rig", rig, "--duration", "20"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.err, HasSubstr("the light of Blue is still on"));
    EXPECT_THAT(outcome.err, HasSubstr("a light was still on: Blue; it has been switched off"));
}

TEST_F(Stimulate, AShutterThatHangsIsGivenUp)
{
    // The closing call would take ten minutes.
    const std::string rig = ShutterRig(R"("faults": { "hang": { "atCall": 2, "ms": 600000 } })");
    QElapsedTimer timer;
    timer.start();
    const SOutcome outcome = Stimhost({"stimulate", "--rig", rig, "--duration", "20", "--grace", "500"});
    EXPECT_EQ(1, outcome.exitCode) << outcome.err;
    EXPECT_LT(timer.elapsed(), 30000);
    EXPECT_THAT(outcome.err, HasSubstr("did not answer in time and was given up"));
}

TEST_F(Stimulate, AShutterThatDropsOutIsReported)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", ShutterRig(R"("faults": { "dropOut": { "atCall": 2 } })"), "--duration", "20"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.err, HasSubstr("Blue: call 2: the shutter drops out"));
    EXPECT_THAT(outcome.err, Not(HasSubstr("still on")));
}

TEST_F(Stimulate, AShutterThatIsGoneGivesNoLightAndFails)
{
    const SOutcome outcome =
        Stimhost({"stimulate", "--rig", ShutterRig("\"connected\": false"), "--duration", "20", "--json"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.err, HasSubstr("Shutter_1 gave no light"));
    const rapidjson::Document report = ParsedJson(outcome.out);
    EXPECT_EQ(0u, report["phases"][0]["measured"].Size());
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
}

TEST_F(Stimulate, ADeviceThatThrowsIsAFailedStimulationAndNotTheEndOfTheProcess)
{
    for (const char* kind : {"timed", "continuous"})
    {
        const SOutcome outcome = Stimhost({"stimulate", "--rig", QS_SOURCE "/examples/rigs/faults.json", "--device",
                                           "Throwing device", "--kind", kind, "--duration", "50", "--json"});
        EXPECT_EQ(1, outcome.exitCode) << kind << ": " << outcome.err;
        const rapidjson::Document report = ParsedJson(outcome.out);
        ASSERT_TRUE(report.IsObject());
        EXPECT_EQ(-9, report["phases"][0]["status"].GetInt()) << kind;
        EXPECT_EQ(0u, report["lightOnAtEnd"].Size()) << kind;
    }
}

TEST_F(Stimulate, ARigWithoutDevicesFailsWithOneLine)
{
    const std::string rig =
        File("empty.json", "{ \"format\": \"stimulation-rig\", \"version\": 1, \"name\": \"Empty\" }\n");
    const SOutcome outcome = Stimhost({"stimulate", "--rig", rig, "--duration", "20", "--json"});
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ(1u, LineCount(outcome.err)) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("no device is active"));
}
