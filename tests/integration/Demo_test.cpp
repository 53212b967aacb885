// The demo from end to end, on its own rig.
#include "tests/integration/Stimhost.h"

#include <QDir>
#include <QXmlStreamReader>

#include <gmock/gmock.h>

#include <map>

using testing::HasSubstr;
using testing::Not;

using Demo = StimhostTest;

TEST_F(Demo, KeepsEveryPromiseAndWritesItsReportAndItsPicture)
{
    const SOutcome outcome = Stimhost({"demo", "--out", Path("results")});
    EXPECT_EQ(0, outcome.exitCode) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.out, Not(HasSubstr("BROKEN")));
    EXPECT_THAT(outcome.out, Not(HasSubstr("skipped")));
    EXPECT_EQ("", outcome.err);

    const rapidjson::Document report = ParsedJson(ReadWhole(Path("results/report.json")));
    ASSERT_TRUE(report.IsObject());
    EXPECT_EQ(1, report["version"].GetInt());
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size());
    EXPECT_GT(report["promises"].Size(), 30u);
    for (const auto& promise : report["promises"].GetArray())
        EXPECT_TRUE(promise["kept"].GetBool()) << promise["promise"].GetString();

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

    // One bar for each pulse at least, beside the background, the legend and the panels.
    QXmlStreamReader svg(QByteArray::fromStdString(ReadWhole(Path("results/timeline.svg"))));
    std::map<std::string, int> elements;
    while (!svg.atEnd())
        if (svg.readNext() == QXmlStreamReader::StartElement)
            ++elements[svg.name().toString().toStdString()];
    EXPECT_FALSE(svg.hasError()) << svg.errorString().toStdString();
    EXPECT_EQ(1, elements["svg"]);
    EXPECT_GT(elements["rect"], 15);
    EXPECT_GT(elements["text"], 15);
}

TEST_F(Demo, PrintsItsReportAsJsonOnly)
{
    const SOutcome outcome = Stimhost({"demo", "--out", Path("results"), "--json"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    ASSERT_TRUE(report.IsObject());
    EXPECT_EQ(5u, report["phases"].Size());
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
