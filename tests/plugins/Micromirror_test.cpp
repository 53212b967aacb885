#include "OpticsTest.h"

#include "manager/StimulationManager.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OwnRegistry.h"
#include "tests/support/TemporaryFolder.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

using namespace QsTest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr CQsSizeBase<int> sensor = {640, 480};
constexpr CQsSizeBase<int> chip = {1024, 768};
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
const char* const name = "CQsSimMicromirrorDevice";
const char* const cameraSettings =
    R"({"photons": 4000, "background": 100, "readNoise": 2, "blurPx": 1.2,
        "optics": {"rotationDeg": 5, "scale": 0.7, "shear": 0.03, "aspect": 1.1, "dx": -30, "dy": -55}})";

// The same by hand: turned by 5 degrees after (1 shear; 0 aspect) times the scale.
SAffine TrueMapping()
{
    const double c = std::cos(5.0 * 3.14159265358979323846 / 180.0);
    const double s = std::sin(5.0 * 3.14159265358979323846 / 180.0);
    return {0.7 * c, 0.7 * (0.03 * c - 1.1 * s), -30.0, 0.7 * s, 0.7 * (0.03 * s + 1.1 * c), -55.0};
}

// A microscope with a camera and a device that is calibrated without any error.
class SimulatedMicromirrors : public testing::Test
{
protected:
    SimulatedMicromirrors() : camera(cameras.Add(cameraSettings)), calibration(mirrors.calibrated->GetCalibration())
    {
        QsStandalone::SetSettingsFolder(folder.Path());
        Calibrate(TrueMapping().Inverse().Matrix());
    }

    void Calibrate(const std::vector<double>& mirrorsFromSensor)
    {
        calibration.SetCalibrationCamToDMD(mirrorsFromSensor);
        calibration.SetCalibrationDMDToCam(TrueMapping().Matrix());
    }

    int ImageToChip(std::array<double, 9>& matrix)
    {
        SQsGrabberFormatDesc format;
        SQsGrabberFormatValue value;
        EXPECT_EQ(0, camera->GetFormat(format));
        EXPECT_EQ(0, camera->GetFormatValue(value));
        return mirrors.calibrated->GetImageToChip(format, nullptr, value.rcRegion, matrix.data());
    }

    // Nothing of the device's light arrives at the camera: all of it would be thousands.
    bool IsDark()
    {
        const SQsGrabberImage image = Grab(*camera);
        return *std::max_element(image.pixels.begin(), image.pixels.end()) < 100 + 8 * 11;
    }

    // Whether upload and begin refuse, with one line in the log for each, and nothing is lit.
    void ExpectRefused(const char* reason)
    {
        const CLogCapture log;
        QsStandalone::CQsJournal::Clear();
        EXPECT_EQ(-9, mirrors.device->StimulationAreaUpload()) << reason;
        EXPECT_FALSE(mirrors.device->StimulationAreaIsUpToDate()) << reason;
        for (const std::uint32_t kind : {1u, 2u, 3u})
            EXPECT_EQ(-9, mirrors.device->StimulationBegin(Request(kind, 1.0))) << reason;
        EXPECT_EQ(-9, mirrors.device->StimulationFire(Request(3), nullptr, nullptr)) << reason;
        EXPECT_EQ(0, mirrors.device->StimulationEnd(nullptr, nullptr, 0));
        EXPECT_FALSE(HasLit(name)) << reason;
        const std::vector<std::wstring> lines = log.Of(L"SimulatedDevices");
        EXPECT_EQ(4u, lines.size()) << reason;
        for (const std::wstring& line : lines)
            EXPECT_THAT(CQsStringW(line).ToUtf8(), HasSubstr(reason));
    }

    const CTemporaryFolder folder;
    CCameras cameras;
    IQsGrabberCamera* camera;
    SMicromirror mirrors;
    CQsStimulationDeviceCalibration& calibration;
};

} // namespace

TEST_F(SimulatedMicromirrors, MapImagePointsAsTheTrueOpticsDoWhateverTheStateOfTheCamera)
{
    for (const SQsCameraState& state : AllCameraStates())
    {
        ASSERT_EQ(0, camera->SetState(state));
        std::array<double, 9> m;
        m.fill(unwritten);
        ASSERT_EQ(0, ImageToChip(m)) << Text(state);
        const SAffine imageToChip{m[0], m[1], m[2], m[3], m[4], m[5]};
        EXPECT_NEAR(0.0, m[6], 1e-12);
        EXPECT_NEAR(0.0, m[7], 1e-12);
        EXPECT_NEAR(1.0, m[8], 1e-12);
        for (const SPoint& point : {SPoint{0.0, 0.0}, SPoint{31.5, 7.25}, SPoint{-3.0, 40.0}})
        {
            const SPoint mirror = imageToChip(point);
            const SPoint expected = TrueMapping().Inverse()(SensorFromImage(point, state, sensor));
            EXPECT_NEAR(expected.x, mirror.x, 1e-6) << Text(state);
            EXPECT_NEAR(expected.y, mirror.y, 1e-6) << Text(state);
            const SPoint back = ImageFromSensor(TrueMapping()(mirror), state, sensor);
            EXPECT_NEAR(point.x, back.x, 1e-6) << Text(state);
            EXPECT_NEAR(point.y, back.y, 1e-6) << Text(state);
        }
    }
}

TEST_F(SimulatedMicromirrors, SwitchOnExactlyTheMirrorsWhoseCentresFallIntoLitPixels)
{
    for (const SQsCameraState& state :
         {SQsCameraState{}, SQsCameraState{90.0, true, 2, {100, 60, 500, 420}}, SQsCameraState{270.0, false, 4, {}}})
    {
        ASSERT_EQ(0, camera->SetState(state));
        SQsGrabberFormatDesc format;
        ASSERT_EQ(0, camera->GetFormat(format));
        // A ragged triangle with a gap in every row.
        SQsRLEPicBuf picture = Rectangle(format.size, {});
        const auto isLit = [](long x, long y)
        { return y >= 20 && y < 70 && ((x >= y && x < y + 9) || (x >= y + 12 && x < 85)); };
        for (std::uint32_t y = 20; y < 70; ++y)
        {
            picture.runs.push_back({y, y, 9});
            if (y + 12 < 85)
                picture.runs.push_back({y, y + 12, 85 - y - 12});
        }
        ASSERT_EQ(0, SetArea(*mirrors.device, *camera, picture));
        SQsRLEPicBuf lit;
        ASSERT_EQ(0, mirrors.calibrated->GetChipPicture(lit));
        EXPECT_EQ(1024u, lit.uiWidth);
        EXPECT_EQ(768u, lit.uiHeight);
        std::vector<char> on(1024 * 768, 0);
        for (const SQsRLEPicBuf::SRun& run : lit.runs)
            for (std::uint32_t i = 0; i < run.uiCount; ++i)
                on.at(run.uiRow * 1024 + run.uiFirst + i) = 1;
        unsigned expectedLit = 0;
        for (int y = 0; y < chip.cy; ++y)
            for (int x = 0; x < chip.cx; ++x)
            {
                const SPoint p =
                    ImageFromSensor(TrueMapping()({static_cast<double>(x), static_cast<double>(y)}), state, sensor);
                const bool expected = isLit(std::lround(std::floor(p.x + 0.5)), std::lround(std::floor(p.y + 0.5)));
                expectedLit += expected ? 1u : 0u;
                const double edge =
                    std::min(std::abs(p.x + 0.5 - std::round(p.x + 0.5)), std::abs(p.y + 0.5 - std::round(p.y + 0.5)));
                if (edge > 1e-6) // on the edge of a pixel either is right
                {
                    ASSERT_EQ(expected, on[static_cast<std::size_t>(y * 1024 + x)] != 0)
                        << Text(state) << ", mirror " << x << ", " << y;
                }
            }
        EXPECT_GT(expectedLit, 500u) << Text(state);
    }
}

// The whole loop: what is asked for on the image is lit there on the next image.
TEST_F(SimulatedMicromirrors, LightWhatTheImageAsksForWhateverTheStateOfTheCamera)
{
    for (const SQsCameraState& state : AllCameraStates())
    {
        ASSERT_EQ(0, camera->SetState(state));
        SQsGrabberFormatDesc format;
        ASSERT_EQ(0, camera->GetFormat(format));
        const CQsRectBase<int> asked = {format.size.cx / 3, format.size.cy / 4, format.size.cx * 2 / 3,
                                        format.size.cy / 2};
        ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(format.size, asked))) << Text(state);
        ASSERT_EQ(0, mirrors.device->StimulationAreaUpload()) << Text(state);
        EXPECT_TRUE(mirrors.device->StimulationAreaIsUpToDate());
        ASSERT_EQ(0, mirrors.device->StimulationBegin(Request(1)));
        const SQsGrabberImage image = Grab(*camera);
        ASSERT_EQ(0, mirrors.device->StimulationEnd(nullptr, nullptr, 0));
        const SSpot spot = Spot(image, 100.0);
        // The pixels from left to right - 1 have their middle half a pixel before the middle of the rectangle.
        EXPECT_NEAR((asked.left + asked.right - 1) / 2.0, spot.centre.x, 0.5 / state.iBinning) << Text(state);
        EXPECT_NEAR((asked.top + asked.bottom - 1) / 2.0, spot.centre.y, 0.5 / state.iBinning) << Text(state);
        // Half the full signal separates the pixels that are lit; those beside the edge of the rectangle are left out.
        for (int y = 0; y < format.size.cy; ++y)
            for (int x = 0; x < format.size.cx; ++x)
            {
                const int inside = std::min(std::min(x - asked.left, asked.right - 1 - x),
                                            std::min(y - asked.top, asked.bottom - 1 - y));
                if (inside == 0 || inside == -1)
                    continue;
                const bool lit = image.pixels[static_cast<std::size_t>(y * format.size.cx + x)] > 2100;
                ASSERT_EQ(inside > 0, lit) << Text(state) << ", pixel " << x << ", " << y;
            }
    }
}

TEST_F(SimulatedMicromirrors, TellTheJournalHowManyMirrorsAreLit)
{
    ASSERT_EQ(0, mirrors.calibrated->SetChipPicture(Mirrors(1024, 768, {{3, 4, 5}, {7, 0, 2}})));
    EXPECT_FALSE(mirrors.device->StimulationAreaIsUpToDate());
    ASSERT_EQ(0, mirrors.device->StimulationBegin(Request(2, 1.0)));
    EXPECT_EQ("7 mirrors", LastLight(name));
    ASSERT_EQ(0, mirrors.calibrated->SetChipPicture(Mirrors(1024, 768, {}))); // all off, on purpose
    ASSERT_EQ(0, mirrors.device->StimulationBegin(Request(2, 1.0)));
    EXPECT_EQ("0 mirrors", LastLight(name));
}

TEST_F(SimulatedMicromirrors, RefuseAChipPictureThatDoesNotFit)
{
    ASSERT_EQ(0, mirrors.calibrated->SetChipPicture(Mirrors(1024, 768, {{3, 4, 5}})));
    for (const SQsRLEPicBuf& wrong :
         {Mirrors(1023, 768, {{0, 0, 1}}), Mirrors(1024, 769, {{0, 0, 1}}), Mirrors(1024, 768, {{768, 0, 1}}),
          Mirrors(1024, 768, {{0, 1000, 25}}), Mirrors(1024, 768, {{0, 4294967295u, 2}}), SQsRLEPicBuf()})
        EXPECT_EQ(-9, mirrors.calibrated->SetChipPicture(wrong));
    SQsRLEPicBuf lit;
    ASSERT_EQ(0, mirrors.calibrated->GetChipPicture(lit));
    ASSERT_EQ(1u, lit.runs.size());
    EXPECT_EQ(5u, lit.runs[0].uiCount);
}

TEST_F(SimulatedMicromirrors, LightAChipPictureWithoutAnyCameraOrCalibration)
{
    const SMicromirror alone(R"({"name": "alone", "camera": "none", "chipWidth": 64, "chipHeight": 48})");
    EXPECT_EQ(64, alone.calibrated->GetChipSize().cx);
    EXPECT_EQ(48, alone.calibrated->GetChipSize().cy);
    EXPECT_TRUE(alone.calibrated->GetCalibrationCamera() == L"none");
    ASSERT_EQ(0, alone.calibrated->SetChipPicture(Rectangle({64, 48}, {1, 2, 11, 12})));
    EXPECT_EQ(1u, alone.device->StimulationAreaGetCount());
    ASSERT_EQ(0, alone.device->StimulationBegin(Request(2, 1.0)));
    EXPECT_EQ("100 mirrors", LastLight("alone"));
}

TEST_F(SimulatedMicromirrors, LightAllAreasAndPatternsTogether)
{
    const std::string stripe = folder.Write("stripe.pgm", "P2 2 1 255\n255 0\n");
    ASSERT_EQ(0, mirrors.calibrated->SetChipPicture(Mirrors(1024, 768, {{700, 10, 20}})));
    IQsInterface* answer = CQsRTTI::Query(mirrors.device.get(), "IQsStimulationDeviceEx");
    auto* extended = dynamic_cast<IQsStimulationDeviceEx*>(answer);
    ASSERT_NE(nullptr, extended);
    ASSERT_EQ(0, extended->AddPatternFromImage(CQsStringW::FromUtf8(stripe).c_str(), L"one", true, false));
    SQsRLEPicBuf lit;
    ASSERT_EQ(0, mirrors.calibrated->GetChipPicture(lit));
    ASSERT_EQ(2u, lit.runs.size()); // one mirror of the image one to one, and the picture
    EXPECT_EQ(0u, lit.runs[0].uiRow);
    EXPECT_EQ(1u, lit.runs[0].uiCount);
    EXPECT_EQ(700u, lit.runs[1].uiRow);
    ASSERT_EQ(0, extended->AddPatternFromImage(CQsStringW::FromUtf8(stripe).c_str(), L"one", false, true));
    ASSERT_EQ(0, mirrors.calibrated->GetChipPicture(lit));
    ASSERT_EQ(768u, lit.runs.size()); // the left half of every row; the picture lies within
    EXPECT_EQ(512u, lit.runs[700].uiCount);
    // Areas of the image take the place of all of them.
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {300, 200, 302, 202})));
    ASSERT_EQ(0, mirrors.calibrated->GetChipPicture(lit));
    EXPECT_LT(lit.runs.size(), 10u);
    CQsRTTI::Release(answer);
}

TEST_F(SimulatedMicromirrors, RefuseToLightThroughACalibrationThatIsNone)
{
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {300, 200, 340, 240})));
    ASSERT_EQ(0, mirrors.device->StimulationAreaUpload());
    ASSERT_EQ(0, mirrors.device->StimulationBegin(Request(1))); // so that there is a pattern that could be stale
    EXPECT_FALSE(IsDark());
    ASSERT_EQ(0, mirrors.device->StimulationEnd(nullptr, nullptr, 0));

    const std::vector<double> good = TrueMapping().Inverse().Matrix();
    const auto with = [&good](std::size_t index, double value)
    {
        std::vector<double> matrix = good;
        matrix[index] = value;
        return matrix;
    };
    const std::vector<double> unusable[] = {
        {1.0, 2.0, 3.0, 2.0, 4.0, 5.0, 0.0, 0.0, 1.0}, // the second row twice the first
        std::vector<double>(9, 0.0),
        with(0, notANumber),
        with(2, notANumber),
        with(5, std::numeric_limits<double>::infinity()),
        with(6, 0.001), // not affine
        with(8, 0.0)};
    std::array<double, 9> matrix;
    for (const std::vector<double>& measured : unusable)
    {
        Calibrate(measured);
        matrix.fill(unwritten);
        EXPECT_EQ(-9, ImageToChip(matrix));
        EXPECT_THAT(matrix, testing::Each(unwritten));
        ExpectRefused("image points cannot be mapped to mirrors: the mapping is singular, not finite or not affine");
        EXPECT_TRUE(IsDark());
    }
    Calibrate({1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0}); // what a calibration begins with
    EXPECT_EQ(-9, ImageToChip(matrix));
    ExpectRefused("image points cannot be mapped to mirrors: there is no calibration");
    EXPECT_TRUE(IsDark());
    Calibrate(good);
    EXPECT_EQ(0, ImageToChip(matrix));
    EXPECT_EQ(0, mirrors.device->StimulationBegin(Request(1)));
    EXPECT_FALSE(IsDark());
}

TEST_F(SimulatedMicromirrors, RefuseFormatsThatSayNothing)
{
    SQsGrabberFormatDesc good;
    ASSERT_EQ(0, camera->GetFormat(good));
    double matrix[9];
    EXPECT_EQ(0, mirrors.calibrated->GetImageToChip(good, nullptr, {}, matrix));
    EXPECT_EQ(-4, mirrors.calibrated->GetImageToChip(good, nullptr, {}, nullptr));
    SQsGrabberFormatDesc wrong = good;
    wrong.fx = -1.0; // as where a camera gives none
    EXPECT_EQ(-9, mirrors.calibrated->GetImageToChip(wrong, nullptr, {}, matrix));
    wrong = good;
    wrong.fy = notANumber;
    EXPECT_EQ(-9, mirrors.calibrated->GetImageToChip(wrong, nullptr, {}, matrix));
    wrong = good;
    wrong.rcSensor = {};
    EXPECT_EQ(-9, mirrors.calibrated->GetImageToChip(wrong, nullptr, {}, matrix));
}

TEST_F(SimulatedMicromirrors, RefuseWithoutTheirCamera)
{
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {300, 200, 340, 240})));
    EXPECT_EQ(0, mirrors.calibrated->UpdateHardware());
    EXPECT_THAT(calibration.GetConfigurationStringCurrent().ToUtf8(), HasSubstr("Simulated camera"));
    QsStandalone::RemoveCameras();
    EXPECT_EQ(-9, mirrors.calibrated->UpdateHardware());
    EXPECT_THAT(calibration.GetConfigurationStringCurrent().ToUtf8(), testing::Not(HasSubstr("Simulated camera")));
    ExpectRefused("the camera is not there");
    CCameras again;
    IQsGrabberCamera* unplugged = again.Add(R"({"connected": false})");
    ASSERT_NE(nullptr, unplugged);
    EXPECT_EQ(-9, mirrors.calibrated->UpdateHardware());
    ExpectRefused("the camera is not there");
}

// What lies under the region on an older image lies elsewhere on an image of now.
TEST_F(SimulatedMicromirrors, RefuseAreasOfAnImageFromBeforeTheCameraWasTurned)
{
    const SQsRLEPicBuf picture = Rectangle(sensor, {300, 200, 340, 240});
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, picture));
    for (const SQsCameraState& turned : {SQsCameraState{180.0, false, 1, {}}, SQsCameraState{0.0, true, 1, {}}})
    {
        ASSERT_EQ(0, camera->SetState(turned));
        ExpectRefused("the camera was turned or flipped after the areas were given");
    }
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, picture));
    EXPECT_EQ(0, mirrors.device->StimulationAreaUpload());
    // Binning and region come with the areas.
    ASSERT_EQ(0, camera->SetState({0.0, true, 4, {100, 100, 200, 200}}));
    EXPECT_EQ(0, mirrors.device->StimulationAreaUpload());
}

TEST_F(SimulatedMicromirrors, RefuseToBeginWithNothingToLight)
{
    ExpectRefused("there is no area to light");
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {})));
    ExpectRefused("the areas lie beside the chip");
    // Far to the left of the sensor, where there is no mirror.
    Calibrate(SAffine{1.0, 0.0, -5000.0, 0.0, 1.0, 0.0}.Matrix());
    const CLogCapture log;
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {300, 200, 340, 240})));
    EXPECT_EQ(-9, mirrors.device->StimulationBegin(Request(1)));
    EXPECT_FALSE(HasLit(name));
}

TEST_F(SimulatedMicromirrors, LightTheWholeChipForAreasThatStandInTheirSettings)
{
    const SMicromirror preset(R"({"name": "preset", "areas": 2})");
    EXPECT_EQ(2u, preset.device->StimulationAreaGetCount());
    ASSERT_EQ(0, preset.device->StimulationBegin(Request(2, 1.0)));
    EXPECT_EQ("786432 mirrors", LastLight("preset"));
}

TEST_F(SimulatedMicromirrors, ShowTheirHardwareToTheCalibration)
{
    SQsDMApiHardware hardware;
    hardware.sMicroscope = L"Stand";
    hardware.sObjective = L"Plan 20x";
    hardware.dManualZoom = 1.5;
    hardware.lights = {L"Lamp"};
    hardware.filterChangers = {{L"FW1", L"GFP", 2}};
    hardware.multilasers = {{L"Laser", 3}};
    hardware.bIlluminatorConnected = true;
    hardware.iIlluminatorPort = 4;
    QsStandalone::SetHardware(hardware);
    ASSERT_EQ(0, camera->SetState({270.0, true, 1, {}}));
    ASSERT_EQ(0, mirrors.calibrated->UpdateHardware());

    CQsStimulationDeviceConfiguration* current = calibration.AccessConfigurationCurrent();
    EXPECT_TRUE(current->IsValid());
    EXPECT_TRUE(current->GetCamera() == L"Simulated camera");
    EXPECT_EQ(1.5, current->GetManualZoom());
    EXPECT_EQ(270.0, current->GetCameraRotation());
    EXPECT_EQ(4, current->GetORBAPort());
    EXPECT_TRUE(current->IsORBAConnected());
    calibration.UnaccessConfigurationCurrent(current);
    EXPECT_EQ(270.0, calibration.GetCameraRotationCurrent());
    std::vector<double> values;
    calibration.GetFlipMatrix(values);
    EXPECT_EQ(-1.0, values.at(4));
    calibration.GetTranslationVector(values);
    EXPECT_THAT(values, testing::ElementsAre(320.0, 240.0, 1.0));

    // Only what is watched stands in the key of a saved calibration.
    const std::string key = calibration.GetConfigurationStringCurrent().ToUtf8();
    EXPECT_THAT(key, HasSubstr("FW1"));
    EXPECT_THAT(key, HasSubstr("Plan 20x"));
    EXPECT_THAT(key, testing::Not(HasSubstr("Lamp")));
    EXPECT_THAT(key, testing::Not(HasSubstr("Stand")));
    EXPECT_THAT(key, testing::Not(HasSubstr("#R270")));
    const SMicromirror all(R"({"name": "all", "watches": ["lights", "microscope", "cameraRotation"]})");
    ASSERT_EQ(0, all.calibrated->UpdateHardware());
    const std::string other = all.calibrated->GetCalibration().GetConfigurationStringCurrent().ToUtf8();
    EXPECT_THAT(other, HasSubstr("Lamp"));
    EXPECT_THAT(other, HasSubstr("Stand"));
    EXPECT_THAT(other, HasSubstr("#R270"));
    EXPECT_THAT(other, testing::Not(HasSubstr("Plan 20x")));
}

TEST_F(SimulatedMicromirrors, FindTheirSavedCalibrationAgain)
{
    SQsDMApiHardware hardware;
    hardware.sObjective = L"Plan 20x";
    QsStandalone::SetHardware(hardware);
    ASSERT_EQ(0, mirrors.calibrated->UpdateHardware());
    ASSERT_EQ(0, calibration.SaveCalibrationMatrices(calibration.GetConfigurationStringCurrent()));
    EXPECT_FALSE(ContentsOf(folder.File("calibrations.json")).empty());

    const SMicromirror next; // as after a restart
    CQsStimulationDeviceCalibration& found = next.calibrated->GetCalibration();
    ASSERT_EQ(0, next.calibrated->UpdateHardware());
    EXPECT_EQ(eCalibrationStateInvalid, found.GetCurrentCalibrationState());
    bool changed = false;
    EXPECT_EQ(0, found.LoadCalibration(changed));
    EXPECT_TRUE(changed);
    EXPECT_EQ(eCalibrationStateIdentical, found.GetCurrentCalibrationState());
    std::vector<double> measured;
    found.GetCalibrationCamToDMD(measured);
    EXPECT_EQ(TrueMapping().Inverse().Matrix(), measured);
    ASSERT_EQ(0, camera->SetState({90.0, true, 2, {}})); // corrected for, so not watched
    ASSERT_EQ(0, next.calibrated->UpdateHardware());
    EXPECT_EQ(eCalibrationStateIdentical, found.GetCurrentCalibrationState());
    hardware.sObjective = L"Plan 40x";
    QsStandalone::SetHardware(hardware);
    ASSERT_EQ(0, next.calibrated->UpdateHardware());
    EXPECT_EQ(eCalibrationStateChanged, found.GetCurrentCalibrationState());
}

TEST_F(SimulatedMicromirrors, KeepTheirCalibrationsWhereTheSettingsSay)
{
    const std::string file = folder.File("mine.json");
    const SMicromirror absolute("{\"name\": \"absolute\", \"section\": \"Section\", \"calibrationFile\": \"" + file +
                                "\"}");
    auto* owner = dynamic_cast<IQsStimulationDeviceCalibration*>(absolute.device.get());
    ASSERT_NE(nullptr, owner);
    EXPECT_EQ(file, owner->GetCalibrationFileName().ToUtf8());
    EXPECT_EQ("Section", owner->GetCalibrationSectionName().ToUtf8());
    EXPECT_EQ("absolute", owner->GetCalibrationDeviceName().ToUtf8());
    const SMicromirror relative(R"({"name": "relative", "calibrationFile": "other.json"})");
    owner = dynamic_cast<IQsStimulationDeviceCalibration*>(relative.device.get());
    ASSERT_NE(nullptr, owner);
    EXPECT_EQ(folder.File("other.json"), owner->GetCalibrationFileName().ToUtf8());
}

namespace {

std::atomic<unsigned> s_states{0};

void CountState(IQsStimulationDevice*, unsigned state)
{
    if (state == 2)
        ++s_states;
}

} // namespace

TEST_F(SimulatedMicromirrors, TellTheHostWhenTheStateOfTheCalibrationChanges)
{
    const COwnRegistry registry;
    const SMicromirror heard(R"({"name": "heard"})");
    QsStandalone::SetDeviceSettings(name, R"({"connected": false})"); // of the manager's own device
    CQsStimulationDeviceManager* manager = CQsStimulationDeviceManager::GetInstance();
    ASSERT_EQ(0, manager->RegisterSimpleStimulationDevice(heard.device.get()));
    ASSERT_EQ(0, manager->Update());
    ASSERT_EQ(0, manager->SetActive(L"heard", false));
    manager->AddCallbackForDeviceStateChange(&CountState);
    ASSERT_EQ(0, heard.calibrated->UpdateHardware());
    CQsStimulationDeviceCalibration& itsCalibration = heard.calibrated->GetCalibration();
    CQsStimulationDeviceConfiguration* current = itsCalibration.AccessConfigurationCurrent();
    const CQsStimulationDeviceConfiguration now(*current);
    itsCalibration.UnaccessConfigurationCurrent(current);
    CQsStimulationDeviceConfiguration* calibrated = itsCalibration.AccessConfigurationCalibrated();
    *calibrated = now;
    itsCalibration.UnaccessConfigurationCalibrated(calibrated);
    const unsigned before = s_states;
    ASSERT_EQ(0, heard.calibrated->UpdateHardware()); // from invalid to identical
    EXPECT_EQ(eCalibrationStateIdentical, itsCalibration.GetCurrentCalibrationState());
    EXPECT_TRUE(Eventually([before] { return s_states > before; }));
    // The thread that tells it has a reference of its own.
    EXPECT_TRUE(Eventually([&heard] { return QsStandalone::ReferenceCount(heard.device.get()) <= 3; }));
    manager->RemoveCallbackForDeviceStateChange(&CountState);
    EXPECT_EQ(0, manager->UnregisterSimpleStimulationDevice(heard.device.get()));
}

TEST_F(SimulatedMicromirrors, AnswerForTheInterfacesThatTheyHave)
{
    ASSERT_EQ(2u, QsStandalone::ReferenceCount(mirrors.device.get()));
    IQsInterface* extended = CQsRTTI::Query(mirrors.device.get(), "IQsStimulationDeviceEx");
    EXPECT_NE(nullptr, dynamic_cast<IQsStimulationDeviceEx*>(extended));
    EXPECT_EQ(3u, QsStandalone::ReferenceCount(mirrors.device.get()));
    CQsRTTI::Release(extended);
    for (const char* unknown :
         {"IQsInterface", "iqscalibratedstimulationdevice", "IQsStimulationDeviceCalibration", ""})
        EXPECT_EQ(nullptr, CQsRTTI::Query(mirrors.device.get(), unknown)) << unknown;
    EXPECT_EQ(7u, mirrors.device->StimulationModeGet());
    EXPECT_EQ(20.0, mirrors.device->GetStimulationExposureTimeCombined(0));
    EXPECT_TRUE(mirrors.device->GetLocalizedStringForUI(0) == L"Simulated micromirror device");
}

TEST_F(SimulatedMicromirrors, HaveTheirDefaultsAndOneLineInTheLogWhenTheSettingsAreWrong)
{
    for (const char* settings :
         {R"({"Camera": "x"})", R"({"camera": 3})", R"({"watches": "camera"})", R"({"watches": ["cameras"]})",
          R"({"watches": [1]})", R"({"chipWidth": 0})", R"({"chipHeight": 9000})", R"({"chipWidth": 1.5})",
          R"({"calibrationFile": ""})", R"({"exposureMs": -1})"})
    {
        QsStandalone::TakeSettingsFaults();
        const CLogCapture log;
        const SMicromirror device(settings);
        EXPECT_THAT(log.Of(L"SimulatedDevices"), SizeIs(1)) << settings;
        EXPECT_THAT(QsStandalone::TakeSettingsFaults(), SizeIs(1)) << settings;
        EXPECT_TRUE(device.calibrated->GetCalibrationCamera() == L"Simulated camera") << settings;
        EXPECT_EQ(1024, device.calibrated->GetChipSize().cx) << settings;
        EXPECT_EQ(768, device.calibrated->GetChipSize().cy) << settings;
    }
}

// A light of the pulse that is fired, of its exposure, and no other.
TEST_F(SimulatedMicromirrors, FireTheirAreasShotByShot)
{
    const SMicromirror quick(R"({"name": "quick", "exposureMs": 5})");
    quick.calibrated->GetCalibration().SetCalibrationCamToDMD(TrueMapping().Inverse().Matrix());
    ASSERT_EQ(0, SetArea(*quick.device, *camera, Rectangle(sensor, {300, 200, 340, 240})));
    ASSERT_EQ(0, quick.device->StimulationBegin(Request(3, 0.0, 2)));
    EXPECT_TRUE(IsDark());
    ASSERT_EQ(0, quick.device->StimulationFire(Request(3), nullptr, nullptr));
    ASSERT_EQ(0, quick.device->StimulationFire(Request(3), nullptr, nullptr));
    EXPECT_TRUE(IsDark());
    ASSERT_EQ(0, quick.device->StimulationEnd(nullptr, nullptr, 0));
    ASSERT_EQ(2u, Pulses("quick").size());
    for (const SPulse& pulse : Pulses("quick"))
        EXPECT_GE(pulse.off - pulse.on, 5.0);
}

TEST_F(SimulatedMicromirrors, LeaveNoLightHoweverCallsFallTogether)
{
    std::atomic<bool> over{false};
    std::vector<std::thread> threads;
    const auto beside = [&over, &threads](auto work)
    {
        threads.emplace_back(
            [&over, work]
            {
                while (!over)
                {
                    work();
                    std::this_thread::yield();
                }
            });
    };
    beside([this] { mirrors.device->StimulationAbort(); });
    beside(
        [this]
        {
            camera->SetState({90.0, false, 2, {}});
            camera->SetState({});
        });
    beside(
        [this]
        {
            std::array<double, 9> matrix;
            ImageToChip(matrix); // there may be no calibration at the moment
            EXPECT_EQ(0, mirrors.calibrated->UpdateHardware());
        });
    beside(
        [this]
        {
            bool changed = false;
            calibration.LoadCalibration(changed);
            calibration.UpdateCalibrationState();
            Calibrate(TrueMapping().Inverse().Matrix());
        });
    for (int i = 0; i < 30; ++i)
    {
        SetArea(*mirrors.device, *camera, Rectangle(sensor, {100, 100, 140, 140}));
        mirrors.device->StimulationAreaUpload();
        mirrors.device->StimulationBegin(Request(1 + static_cast<std::uint32_t>(i) % 3, 1.0, 2));
        mirrors.device->StimulationFire(Request(3), nullptr, nullptr);
        EXPECT_EQ(0, mirrors.device->StimulationEnd(nullptr, nullptr, 0));
        EXPECT_THAT(QsStandalone::CQsJournal::LitDevices(), IsEmpty());
    }
    over = true;
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_EQ(0, camera->SetState({}));
    EXPECT_TRUE(IsDark());
}
