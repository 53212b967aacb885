// A scanner's field from the command line: its devices, its light, and places in it.
#include "tests/integration/OpticsTest.h"

namespace {

constexpr char s_confocalRig[] = QS_SOURCE "/examples/rigs/confocal.json";

} // namespace

using Confocal = OpticsTest;

TEST_F(Confocal, TheRigIsValidAndItsGalvanometerIsListed)
{
    EXPECT_EQ(0, Stimhost({"rig", "check", s_confocalRig}).exitCode);
    const SOutcome outcome = Run({"list", "--json"}, s_confocalRig);
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    unsigned found = 0;
    for (const auto& device : report["devices"].GetArray())
        found += std::string(device["name"].GetString()) == "CQsSimGalvoDevice" ? 1u : 0u;
    EXPECT_EQ(1u, found) << outcome.out;
}

TEST_F(Confocal, TheGalvanometerScansItsFieldAndGoesDark)
{
    const SOutcome outcome = Run(
        {"stimulate", "--device", "CQsSimGalvoDevice", "--kind", "timed", "--duration", "5", "--json"}, s_confocalRig);
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document report = ParsedJson(outcome.out);
    ASSERT_EQ(1u, report["phases"].Size()) << outcome.out;
    EXPECT_TRUE(report["phases"][0]["succeeded"].GetBool()) << outcome.out;
    EXPECT_EQ(0u, report["lightOnAtEnd"].Size()) << outcome.out;
}

// The scanner answers 0.8 for its full field: at a zoom of 1 its image shows from -0.8 to 0.8 of the field, and at a
// zoom of 2 half of that.
TEST_F(Confocal, MapCountsInTheZoomThatTheScannerAnswers)
{
    const auto corner = [this](std::vector<std::string> more)
    {
        more.insert(more.begin(), {"map", "point", "512,512", "--to", "area", "--json"});
        const SOutcome outcome = Run(more, s_confocalRig);
        EXPECT_EQ(0, outcome.exitCode) << outcome.err;
        return ParsedJson(outcome.out)["points"][0]["to"][0].GetDouble();
    };
    EXPECT_NEAR(0.8, corner({}), 1e-12);
    EXPECT_NEAR(0.4, corner({"--scan-area", "zoom=2"}), 1e-12);
    EXPECT_NEAR(0.65, corner({"--scan-area", "zoom=2,x=0.25"}), 1e-12);
    EXPECT_NEAR(1.0, corner({"--scan-area", "reference-zoom=1"}), 1e-12); // as told, the scanner is not asked
}
