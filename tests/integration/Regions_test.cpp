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

TEST_F(Regions, MapShowsWhereAScanAreaAndItsCropLie)
{
    const SOutcome outcome = Run({"map", "rect", "-1,-1,1,1", "--from", "area", "--to", "image", "--json",
                                  "--scan-area", "zoom=2,x=0.5,angle=30,crop-zoom=2"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    // By hand, of 640 x 480: half the field's width, as high as wide since the field is square, its centre a quarter of
    // the width beside that of the image; the crop is half of it.
    const double area[] = {320.0, 80.0, 640.0, 400.0};
    const double crop[] = {400.0, 160.0, 560.0, 320.0};
    for (rapidjson::SizeType i = 0; i < 4; ++i)
    {
        EXPECT_NEAR(area[i], json["scanAreaRect"]["bounds"][i].GetDouble(), 1e-9) << i;
        EXPECT_NEAR(crop[i], json["cropRect"]["bounds"][i].GetDouble(), 1e-9) << i;
    }
    EXPECT_NEAR(30.0, json["scanAreaRect"]["angle"].GetDouble(), 1e-9);
    EXPECT_NEAR(30.0, json["cropRect"]["angle"].GetDouble(), 1e-9);

    const SOutcome text =
        Run({"map", "rect", "-1,-1,1,1", "--from", "area", "--to", "image", "--scan-area", "zoom=2,x=0.5"});
    EXPECT_THAT(text.out, testing::HasSubstr("scan area 320.000000,80.000000,640.000000,400.000000 turned by"));
    EXPECT_THAT(text.out, testing::Not(testing::HasSubstr("crop")));
}

TEST_F(Regions, MapNamesTheCropThatARectangleStandsFor)
{
    const SOutcome outcome =
        Run({"map", "rect", "160,120,480,360", "--to", "area", "--json", "--scan-area", "crop-zoom=2"});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    // Half of the image's width, which is half of the field's.
    EXPECT_NEAR(4.0, json["cropArea"]["zoom"].GetDouble(), 1e-12);
    EXPECT_NEAR(4.0 / 3.0, json["cropArea"]["aspect"].GetDouble(), 1e-12);
    EXPECT_NEAR(0.0, json["cropArea"]["x"].GetDouble(), 1e-12);
    EXPECT_NEAR(0.0, json["cropArea"]["y"].GetDouble(), 1e-12);
    const SOutcome whole = Run({"map", "rect", "160,120,480,360", "--to", "area", "--json"});
    EXPECT_FALSE(ParsedJson(whole.out).HasMember("cropArea"));
}

TEST_F(Regions, MapPrintsNothingThatIsNoNumber)
{
    // Zooms so small that what is divided by them is infinite.
    const std::vector<std::vector<std::string>> places = {
        {"point", "1,2", "--to", "area", "--scan-area", "zoom=1e-310"},
        {"rect", "1,2,3,4", "--to", "area", "--scan-area", "zoom=1e-310"},
        {"rect", "1,2,3,4", "--to", "area", "--scan-area", "crop-aspect=1e308,crop-zoom=1e308"},
        {"rect", "1,2,3,4", "--from", "area", "--to", "image", "--scan-area", "zoom=1e-310"},
        {"rect", "1,2,3,4", "--from", "area", "--to", "image", "--scan-area", "crop-zoom=1e-310"},
        {"roi", "ellipse 100,100,20,10", "--to", "area", "--scan-area", "zoom=1e-310"}};
    for (std::vector<std::string> arguments : places)
    {
        const std::string shown = testing::PrintToString(arguments);
        arguments.insert(arguments.begin(), "map");
        const SOutcome outcome = Run(arguments);
        ExpectOneLine(outcome, 1, "expected");
        EXPECT_EQ("", outcome.out) << shown;
    }
}

TEST_F(Regions, AScanAreaThatCannotBeMappedToTheChipIsNamed)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const SOutcome outcome = Run({"map", "point", "1,2", "--scan-area", "zoom=2e6"});
    ExpectOneLine(outcome, 2, "--scan-area: expected one that can be mapped to the chip of");
    EXPECT_THAT(outcome.err, testing::HasSubstr("zoom=2e6"));
    EXPECT_EQ("", outcome.out);
}

TEST_F(Regions, MapCountsNoMirrorsOfARegionBesideTheChip)
{
    // A tenth of a camera pixel for each mirror, from the left top corner: the chip covers 102 x 77 pixels.
    const std::string rig = OpticsRig(R"({ "optics": { "scale": 0.1, "dx": 0, "dy": 0 } })");
    ASSERT_EQ(0, Run({"calibrate", "--save", "--grid", "5x4"}, rig).exitCode);
    const SOutcome outcome = Run({"map", "roi", "ellipse 400,300,20,10", "--json"}, rig);
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    EXPECT_EQ(0, json["mirrors"].GetInt());
    EXPECT_FALSE(json["points"][0]["onChip"].GetBool());
}

TEST_F(Regions, ListSaysWhichCameraIsAConfocalScanner)
{
    const std::string rig = File("cameras.json", R"({ "format": "stimulation-rig", "version": 1, "name": "Two",
        "cameras": [ { "class": "CQsSimCamera", "name": "Eye" },
                     { "class": "CQsSimConfocalCamera", "name": "Scanner" } ], "devices": [] })");
    const SOutcome outcome = Run({"list", "--json"}, rig);
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document json = ParsedJson(outcome.out);
    ASSERT_EQ(2u, json["cameras"].Size());
    EXPECT_STREQ("Eye", json["cameras"][0]["name"].GetString());
    EXPECT_FALSE(json["cameras"][0]["confocal"].GetBool());
    EXPECT_STREQ("Scanner", json["cameras"][1]["name"].GetString());
    EXPECT_TRUE(json["cameras"][1]["confocal"].GetBool());
    EXPECT_THAT(Run({"list"}, rig).out, testing::ContainsRegex("Scanner +confocal scanner"));
    EXPECT_EQ(0u, ParsedJson(Run({"list", "--json"}, ShutterRig()).out)["cameras"].Size());
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
