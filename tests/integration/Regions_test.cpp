// Regions that are drawn on the camera's image, lit and mapped from the command line.
#include "tests/integration/OpticsTest.h"

#include <cmath>

using Regions = OpticsTest;

TEST_F(Regions, ARegionIsLitWhereItIsDrawnHoweverTheCameraIsMounted)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const std::vector<std::vector<std::string>> mountings = {
        {},
        {"--camera-rotation", "90", "--camera-flip"},
        {"--camera-rotation", "270", "--camera-region", "40,20,600,460"},
        {"--camera-flip", "--camera-region", "0,60,600,480"}};
    for (std::vector<std::string> arguments : mountings)
    {
        const std::string shown = testing::PrintToString(arguments);
        arguments.insert(arguments.begin(), {"stimulate", "--roi", s_region, "--kind", "continuous", "--duration",
                                             "300", "--json", "--picture", Path("region.svg")});
        const SOutcome outcome = Run(arguments);
        ASSERT_EQ(0, outcome.exitCode) << shown << outcome.err;
        const rapidjson::Document report = ParsedJson(outcome.out);
        ASSERT_EQ(1u, report["landings"].Size()) << shown;
        const auto& landing = report["landings"][0];
        EXPECT_EQ(4, landing["state"].GetInt()) << shown;
        ASSERT_TRUE(landing["lightSeen"].GetBool()) << shown;
        EXPECT_LT(landing["centreErrorPx"].GetDouble(), 0.5) << shown;
        EXPECT_GT(landing["overlap"].GetDouble(), 0.95) << shown;
        EXPECT_EQ(1.0, landing["reach"].GetDouble()) << shown;
        ASSERT_EQ(1u, report["phases"].Size()) << shown;
        EXPECT_TRUE(report["phases"][0]["succeeded"].GetBool()) << shown;
        EXPECT_EQ(0u, report["lightOnAtEnd"].Size()) << shown;
        std::map<std::string, int> elements = ElementsOf(Path("region.svg"));
        EXPECT_EQ(1, elements["image"]) << shown;
        EXPECT_GE(elements["path"], 2) << shown; // requested and measured
    }
}

TEST_F(Regions, ACalibrationThatDoesNotFitIsWarnedOfBeforeTheLight)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const SOutcome outcome = Run({"stimulate", "--roi", "ellipse 320,240,60,40", "--objective", "Plan 40x", "--kind",
                                  "continuous", "--duration", "300", "--json"});
    ExpectOneLine(outcome, 0, "the light may land elsewhere: calibration state 2 Changed");
    EXPECT_EQ(2, ParsedJson(outcome.out)["landings"][0]["state"].GetInt());
}

TEST_F(Regions, ARegionWithoutACalibrationIsRefusedAndNothingLights)
{
    const SOutcome outcome = Run({"stimulate", "--roi", s_region, "--json"});
    ExpectOneLine(outcome, 1, "does not take the region, status -9; calibration state 1 Invalid");
    const rapidjson::Document report = ParsedJson(outcome.out);
    EXPECT_EQ(0u, report["phases"].Size());
    EXPECT_FALSE(report["landings"][0]["lightSeen"].GetBool());
}

TEST_F(Regions, ABadRegionGetsOneLine)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    ExpectOneLine(Run({"stimulate", "--roi", "circle 1,2,3"}), 2, "expected \"ellipse CX,CY,RX,RY\" or \"polygon");
    ExpectOneLine(Run({"stimulate", "--roi", "ellipse 1,2,3"}), 2, "CX,CY,RX,RY");
    ExpectOneLine(Run({"stimulate", "--roi", "ellipse 630,100,20,20"}), 2, "inside the image of 640 x 480 pixels");
    ExpectOneLine(Run({"stimulate", "--roi", "ellipse 100.5,100.5,0.2,0.2"}), 2, "covers no pixel's centre");
    ExpectOneLine(Run({"stimulate", "--roi", s_region}, ShutterRig()), 2, "expected a device with a calibration");
    ExpectOneLine(Run({"stimulate", "--roi", s_region}, BeampathRig()), 2, "without a device database");
}

TEST_F(Regions, MapGoesFromTheImageToTheChipAndBack)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const auto mapped = [this](const std::string& point, const std::string& from, const std::string& to)
    {
        const SOutcome outcome =
            Run({"map", "point", point, "--from", from, "--to", to, "--json", "--camera-rotation", "90"});
        EXPECT_EQ(0, outcome.exitCode) << outcome.err;
        const rapidjson::Document json = ParsedJson(outcome.out);
        return std::make_pair(json["points"][0]["to"][0].GetDouble(), json["points"][0]["to"][1].GetDouble());
    };
    const auto chip = mapped("123.25,321.5", "image", "chip");
    const auto image = mapped(QString::number(chip.first, 'g', 17).toStdString() + "," +
                                  QString::number(chip.second, 'g', 17).toStdString(),
                              "chip", "image");
    EXPECT_NEAR(123.25, image.first, 1e-9);
    EXPECT_NEAR(321.5, image.second, 1e-9);
}

TEST_F(Regions, MapKnowsTheScannersField)
{
    const auto points = [this](const std::vector<std::string>& arguments)
    {
        const SOutcome outcome = Run(arguments);
        EXPECT_EQ(0, outcome.exitCode) << outcome.err;
        return ParsedJson(outcome.out);
    };
    // Of the full field on an image of 640 x 480 the centre is 0, 0 and the right bottom corner 1, 1.
    const rapidjson::Document centre = points({"map", "point", "320,240", "--to", "area", "--json"});
    EXPECT_NEAR(0.0, centre["points"][0]["to"][0].GetDouble(), 1e-12);
    EXPECT_NEAR(0.0, centre["points"][0]["to"][1].GetDouble(), 1e-12);
    // At twice the zoom the same corner is half as far out.
    const rapidjson::Document corner =
        points({"map", "point", "640,480", "--to", "area", "--scan-area", "zoom=2", "--json"});
    EXPECT_NEAR(0.5, corner["points"][0]["to"][0].GetDouble(), 1e-12);
    EXPECT_NEAR(0.5, corner["points"][0]["to"][1].GetDouble(), 1e-12);
    const rapidjson::Document back = points({"map", "point", "-1,1", "--from", "area", "--to", "image", "--json"});
    EXPECT_NEAR(0.0, back["points"][0]["to"][0].GetDouble(), 1e-12);
    EXPECT_NEAR(480.0, back["points"][0]["to"][1].GetDouble(), 1e-12);
    // The middle quarter is the field at twice the zoom.
    const rapidjson::Document rect = points({"map", "rect", "160,120,480,360", "--to", "area", "--json"});
    EXPECT_NEAR(2.0, rect["scanArea"]["zoom"].GetDouble(), 1e-12);
    EXPECT_NEAR(0.0, rect["scanArea"]["x"].GetDouble(), 1e-12);
    EXPECT_NEAR(4.0 / 3.0, rect["scanArea"]["aspect"].GetDouble(), 1e-12);
    EXPECT_EQ(4u, rect["points"].Size());
}

TEST_F(Regions, MapCountsTheMirrorsOfARegionFromAFile)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const std::string file = File("region.txt", std::string(s_region) + "\n");
    const SOutcome outcome = Run({"map", "roi", file, "--json"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    EXPECT_EQ(5u, json["points"].Size());
    // The polygon's area by hand (shoelace): 18 950 square image pixels; a mirror covers the determinant of the
    // measured mapping.
    const rapidjson::Document shown = ParsedJson(Run({"calibration", "show", "--json"}).out);
    const auto& m = shown["cameraFromDmd"];
    const double mirror = std::fabs(m[0].GetDouble() * m[4].GetDouble() - m[1].GetDouble() * m[3].GetDouble());
    EXPECT_NEAR(18950.0 / mirror, json["mirrors"].GetDouble(), 0.01 * 18950.0 / mirror);
}

TEST_F(Regions, MapRefusesBadInputWithOneLine)
{
    ExpectOneLine(Run({"map", "point", "1;2"}), 2, "expected a point as X,Y");
    ExpectOneLine(Run({"map", "rect", "1,2,1,3", "--to", "area"}), 2, "expected a rectangle as L,T,R,B");
    ExpectOneLine(Run({"map", "roi", "nowhere.txt", "--to", "area"}), 2, "expected \"ellipse");
    ExpectOneLine(Run({"map", "point", "1,2", "--to", "moon"}), 2, "moon");
    ExpectOneLine(Run({"map", "point", "1,2", "--to", "area", "--scan-area", "zum=1"}), 2, "expected one of zoom");
    ExpectOneLine(Run({"map", "point", "1,2"}), 1, "has no usable calibration");
    ExpectOneLine(Run({"map", "point", "1,2"}, ShutterRig()), 2, "expected a device with a calibration");
    ExpectOneLine(Run({"map", "point", "1,2", "--to", "area"}, ShutterRig()), 2, "expected a rig with a camera");
}
