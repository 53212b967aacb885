// Calibrating, and what is saved of it, from the command line.
#include "tests/integration/OpticsTest.h"

using testing::HasSubstr;

using Calibration = OpticsTest;

TEST_F(Calibration, IsMeasuredSavedAndFoundAgainByANewProcess)
{
    const SOutcome outcome = Calibrated({"--picture", Path("calibration.svg")});
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document measured = ParsedJson(outcome.out);
    EXPECT_STREQ("", measured["refusal"].GetString());
    EXPECT_TRUE(measured["saved"].GetBool());
    EXPECT_GE(measured["projected"].GetInt(), 12);
    EXPECT_GE(measured["inliers"].GetInt(), 6);
    EXPECT_EQ(measured["found"].GetUint(), measured["spots"].Size());
    EXPECT_LT(measured["rmsPx"].GetDouble(), 0.25);
    EXPECT_LE(measured["rmsPx"].GetDouble(), measured["largestPx"].GetDouble());
    EXPECT_EQ(4, measured["state"].GetInt());

    const SOutcome find = Run({"calibration", "find", "--json"});
    ASSERT_EQ(0, find.exitCode) << find.err;
    const rapidjson::Document found = ParsedJson(find.out);
    EXPECT_TRUE(found["found"].GetBool());
    EXPECT_TRUE(found["changed"].GetBool());
    EXPECT_STREQ(measured["configuration"].GetString(), found["foundKey"].GetString());
    EXPECT_STREQ("Identical", found["stateName"].GetString());

    const rapidjson::Document shown = ParsedJson(Run({"calibration", "show", "--json"}).out);
    for (const char* matrix : {"dmdFromCamera", "cameraFromDmd"})
        EXPECT_EQ(measured[matrix], shown[matrix]) << matrix;        // to the last digit
    EXPECT_EQ(shown["dmdFromCamera"], shown["mappingDmdFromImage"]); // the camera is upright

    std::map<std::string, int> elements = ElementsOf(Path("calibration.svg"));
    EXPECT_EQ(1, elements["image"]);
    EXPECT_GE(elements["circle"], 6); // an arrow for each spot
}

TEST_F(Calibration, IsTheInverseOfWhatItMeasuresTheOtherWay)
{
    const rapidjson::Document measured = ParsedJson(Calibrated().out);
    const auto& d = measured["dmdFromCamera"];
    const auto& c = measured["cameraFromDmd"];
    for (rapidjson::SizeType row = 0; row < 3; ++row)
        for (rapidjson::SizeType column = 0; column < 3; ++column)
        {
            double product = 0.0;
            for (rapidjson::SizeType k = 0; k < 3; ++k)
                product += d[3 * row + k].GetDouble() * c[3 * k + column].GetDouble();
            EXPECT_NEAR(row == column ? 1.0 : 0.0, product, 1e-9);
        }
}

TEST_F(Calibration, IsNotSavedUnlessAsked)
{
    const SOutcome outcome = Run({"calibrate", "--grid", "4x3"});
    EXPECT_EQ(0, outcome.exitCode) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("not saved"));
    EXPECT_FALSE(IsSaved());
}

TEST_F(Calibration, OfSpotsOnALineIsRefusedAndSavesNothing)
{
    const SOutcome outcome = Run({"calibrate", "--save", "--grid", "9x1", "--json"});
    ExpectOneLine(outcome, 1, "not calibrated: the spots lie on a line");
    const rapidjson::Document measured = ParsedJson(outcome.out);
    EXPECT_FALSE(measured["saved"].GetBool());
    EXPECT_FALSE(measured.HasMember("dmdFromCamera"));
    EXPECT_FALSE(IsSaved());
}

TEST_F(Calibration, OfTooFewSpotsIsRefused)
{
    ExpectOneLine(Run({"calibrate", "--save", "--grid", "1x1"}), 1, "expected at least 4 spots, found 1");
    EXPECT_FALSE(IsSaved());
}

TEST_F(Calibration, IsRefusedWhereTheCameraSeesNothing)
{
    const std::string rig = OpticsRig(R"({ "photons": 0 })");
    ExpectOneLine(Run({"calibrate", "--save", "--grid", "4x3"}, rig), 1, "the camera Eye sees none of the spots");
    EXPECT_FALSE(IsSaved());
}

TEST_F(Calibration, MeasuresTheTrueMappingOfACameraWithoutNoise)
{
    // A quarter of a camera pixel for each mirror along x and y, the chip's first mirror at 10, 20.
    const std::string rig = OpticsRig(R"({ "width": 400, "height": 300, "blurPx": 1, "photons": 4000, "readNoise": 0,
        "dust": 0, "optics": { "rotationDeg": 0, "scale": 0.25, "shear": 0, "aspect": 1, "dx": 10, "dy": 20 } })");
    const SOutcome outcome = Run({"calibrate", "--grid", "4x3", "--json"}, rig);
    ASSERT_EQ(0, outcome.exitCode) << outcome.err;
    const rapidjson::Document measured = ParsedJson(outcome.out);
    const double expected[] = {0.25, 0.0, 10.0, 0.0, 0.25, 20.0, 0.0, 0.0, 1.0};
    for (rapidjson::SizeType i = 0; i < 9; ++i)
        EXPECT_NEAR(expected[i], measured["cameraFromDmd"][i].GetDouble(), i % 3 == 2 ? 0.05 : 1e-4) << i;
    EXPECT_EQ(12, measured["inliers"].GetInt());
}

TEST_F(Calibration, BadUsageGetsOneLineThatNamesWhatWasExpected)
{
    ExpectOneLine(Run({"calibrate", "--grid", "7"}), 2, "expected columns and rows as NxM");
    ExpectOneLine(Run({"calibrate", "--grid", "0x5"}), 2, "each from 1 to 40");
    ExpectOneLine(Run({"calibrate", "--camera-rotation", "45"}), 2, "45");
    ExpectOneLine(Run({"calibrate", "--camera-binning", "3"}), 2, "3");
    ExpectOneLine(Run({"calibrate", "--camera-region", "10,10,10,20"}), 2, "left, top, right and bottom");
    ExpectOneLine(Run({"calibrate", "--camera-region", "0,0,5000,5000"}), 2, "fits its sensor of 640 x 480");
    ExpectOneLine(Run({"calibrate", "--filter", "GFP"}), 2, "expected KEY=NAME:POSITION");
    ExpectOneLine(Run({"calibrate", "--device", "nobody"}), 2, "no device with a calibration is named \"nobody\"");
    ExpectOneLine(Run({"calibrate"}, ShutterRig()), 2, "expected a device with a calibration, found none");
    ExpectOneLine(Run({"calibrate", "--camera-flip"}, ShutterRig()), 2, "expected a camera to change, found none");
    ExpectOneLine(Stimhost({"calibrate", "--rig", s_opticsRig, "--settings", File("a-file", "x")}), 2,
                  "expected a folder of settings");
    EXPECT_FALSE(IsSaved());
}

TEST_F(Calibration, ListShowsWhatIsSavedForEachHardware)
{
    const SOutcome empty = Run({"calibration", "list", "--json"});
    EXPECT_EQ(0, empty.exitCode) << empty.err;
    EXPECT_EQ(0u, ParsedJson(empty.out)["calibrations"].Size());
    ASSERT_EQ(0, Calibrated().exitCode);
    ASSERT_EQ(0, Calibrated({"--zoom", "1.5", "--filter", "FW1=RFP:3"}).exitCode);
    const rapidjson::Document list = ParsedJson(Run({"calibration", "list", "--json"}).out);
    ASSERT_EQ(2u, list["calibrations"].Size());
    bool seen = false;
    for (const auto& saved : list["calibrations"].GetArray())
    {
        EXPECT_STREQ("Camera", saved["camera"].GetString());
        EXPECT_STREQ("Plan 20x", saved["objective"].GetString());
        if (std::string(saved["zoom"].GetString()) != "1.50x")
            continue;
        seen = true;
        ASSERT_EQ(1u, saved["filterChangers"].Size());
        EXPECT_STREQ("RFP", saved["filterChangers"][0]["name"].GetString());
        EXPECT_STREQ("3", saved["filterChangers"][0]["position"].GetString());
    }
    EXPECT_TRUE(seen);
    EXPECT_THAT(Run({"calibration", "list"}).out, HasSubstr("filter FW1=RFP:3"));
}

TEST_F(Calibration, FindSaysThatNothingFits)
{
    const SOutcome outcome = Run({"calibration", "find", "--json"});
    ExpectOneLine(outcome, 1, "no saved calibration fits the hardware of now");
    EXPECT_FALSE(ParsedJson(outcome.out)["found"].GetBool());
}

TEST_F(Calibration, WhyNamesThePartsThatDiffer)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const auto reasons = [this](std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"calibration", "why", "--json"});
        const SOutcome outcome = Run(arguments);
        EXPECT_EQ(0, outcome.exitCode) << outcome.err;
        const rapidjson::Document why = ParsedJson(outcome.out);
        std::string text = why["stateName"].GetString();
        for (const auto& reason : why["calibrations"][0]["reasons"].GetArray())
            text += std::string("; ") + reason.GetString();
        return text;
    };
    EXPECT_EQ("Identical", reasons({}));
    EXPECT_EQ("Changed; objective: saved with \"Plan 20x\", now \"Plan 40x\"", reasons({"--objective", "Plan 40x"}));
    EXPECT_EQ("Changed; zoom: saved with 1.00x, now 2.00x", reasons({"--zoom", "2"}));
    EXPECT_EQ("Changed; filters: saved with FW1=GFP:2, now FW1=RFP:3", reasons({"--filter", "FW1=RFP:3"}));
    EXPECT_EQ("Changed; filters: saved with FW1=GFP:2, now FW1=GFP:2, FW2=ND:1", reasons({"--filter", "FW2=ND:1"}));
    EXPECT_EQ("Identical", reasons({"--camera-rotation", "90", "--camera-flip"})); // it is corrected for
}

TEST_F(Calibration, WhyReadsPositionsAsTheCalibrationDoes)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    const std::string saved = ReadWhole(SavedFile());
    // By hand in another spelling of the same number; an altered file goes without its end sum.
    for (const std::string position : {"$P 2", "$P+2"})
    {
        std::string altered = saved.substr(0, saved.rfind(",\n  \"sum\"")) + "\n}\n";
        const std::size_t at = altered.find("$P2#");
        ASSERT_NE(std::string::npos, at);
        File("settings/calibrations.json", altered.replace(at, 3, position));
        const SOutcome outcome = Run({"calibration", "why", "--json"});
        ASSERT_EQ(0, outcome.exitCode) << outcome.err;
        const rapidjson::Document why = ParsedJson(outcome.out);
        EXPECT_STREQ("Identical", why["stateName"].GetString()) << position;
        ASSERT_EQ(1u, why["calibrations"].Size()) << position;
        EXPECT_FALSE(why["calibrations"][0]["sameText"].GetBool()) << position;
        EXPECT_STREQ("Identical", why["calibrations"][0]["stateName"].GetString()) << position;
        EXPECT_EQ(0u, why["calibrations"][0]["reasons"].Size()) << position;
    }
}

TEST_F(Calibration, ThatCouldNeverBeFoundAgainIsNotMeasuredToBeSaved)
{
    const std::string rig = OpticsRig("{}", R"("watches": [])");
    const SOutcome outcome = Run({"calibrate", "--save", "--grid", "4x3", "--json"}, rig);
    ExpectOneLine(outcome, 1, "expected a part of the hardware that Mirrors watches to save it for, found none");
    EXPECT_EQ(0, ParsedJson(outcome.out)["projected"].GetInt());
    EXPECT_FALSE(ParsedJson(outcome.out)["saved"].GetBool());
    EXPECT_FALSE(IsSaved());
    const SOutcome unsaved = Run({"calibrate", "--grid", "4x3"}, rig);
    EXPECT_EQ(0, unsaved.exitCode) << unsaved.err;
    EXPECT_EQ("", unsaved.err);
}

TEST_F(Calibration, WhoseTextReadsBackAsAnotherHardwareIsWarnedOf)
{
    const auto warning = [](const std::string& parts)
    { return "saved, but its text reads back as of another " + parts + ", so it will not fit: expected names"; };
    ExpectOneLine(Calibrated({"--objective", "Plan #1"}), 0, warning("objective"));
    ExpectOneLine(Calibrated({"--filter", "FW1=A$PB:2"}), 0, warning("filters"));
    ExpectOneLine(Calibrated({"--objective", "Plan #Cx", "--filter", "FW#1=A:2"}), 0, warning("objective, filters"));
    // Of two tokens of one kind the last counts: the camera's own one stands behind, and comes back.
    ExpectOneLine(Calibrated({"--objective", "#CX"}), 0, warning("objective"));
    EXPECT_EQ(4u, SavedCount());
    EXPECT_EQ("", Calibrated({"--objective", "Plan $1"}).err); // which is read whole there
    EXPECT_EQ("", Calibrated({"--objective", ""}).err);
}

TEST_F(Calibration, OfACameraWhoseNameHoldsAMarkIsWarnedOf)
{
    const std::string rig = File("rig.json", R"({ "format": "stimulation-rig", "version": 1, "name": "Small",
        "cameras": [ { "class": "CQsSimCamera", "name": "Eye #2" } ],
        "devices": [ { "class": "CQsSimMicromirrorDevice", "list": "simple", "name": "Mirrors",
                       "settings": { "camera": "Eye #2" } } ] })");
    ExpectOneLine(Run({"calibrate", "--save", "--grid", "4x3"}, rig), 0, "reads back as of another camera");
}

TEST_F(Calibration, ClearingNeedsToBeMeant)
{
    ASSERT_EQ(0, Calibrated().exitCode);
    ExpectOneLine(Run({"calibration", "clear"}), 2, "expected --yes to forget 1 saved calibrations");
    EXPECT_EQ(1u, SavedCount());
    EXPECT_EQ(0, Run({"calibration", "clear", "--yes"}).exitCode);
    EXPECT_EQ(0u, SavedCount());
    ASSERT_EQ(0, Calibrated().exitCode); // and it can be saved again
    EXPECT_EQ(1u, SavedCount());
}

TEST_F(Calibration, AFileThatIsNoSettingsFileIsReportedAndKept)
{
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(Path("settings"))));
    const std::string torn = "{ \"format\": \"stimulation-set";
    File("settings/calibrations.json", torn);
    ExpectOneLine(Run({"calibration", "list"}), 2, "settings/calibrations.json: expected a settings file");
    for (const char* command : {"show", "find", "why", "clear"})
        ExpectOneLine(Run({"calibration", command}), 2, "settings/calibrations.json: expected a settings file");
    ExpectOneLine(Run({"map", "point", "1,2"}), 2, "settings/calibrations.json: expected a settings file");
    ExpectOneLine(Run({"stimulate", "--roi", s_region}), 1, "settings/calibrations.json: expected a settings file");
    EXPECT_EQ(torn, ReadWhole(SavedFile()));
    ExpectOneLine(Calibrated(), 0, "kept as " + SavedFile() + ".damaged");
    EXPECT_EQ(1u, SavedCount());
    EXPECT_EQ(torn, ReadWhole(SavedFile() + ".damaged"));
    EXPECT_EQ("", Calibrated().err); // what was kept earlier is no news
    File("settings/calibrations.json", torn);
    ExpectOneLine(Calibrated(), 0, "kept as " + SavedFile() + ".damaged2");
}
