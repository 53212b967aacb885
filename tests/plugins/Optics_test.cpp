#include "OpticsTest.h"

#include "tests/support/LogCapture.h"

#include <cmath>

using namespace QsTest;
using testing::IsEmpty;

namespace {

constexpr CQsSizeBase<int> sensor = {640, 480};
constexpr double pi = 3.14159265358979323846;

// No noise but that of the photons, and these are many.
const char* const bright = R"("photons": 1e5, "background": 0, "readNoise": 0)";
const char* const trueOptics =
    R"("optics": {"rotationDeg": 5, "scale": 0.7, "shear": 0.03, "aspect": 1.1, "dx": -30, "dy": -55})";

// The same by hand: turned by 5 degrees after (1 shear; 0 aspect) times the scale.
SAffine TrueMapping()
{
    const double c = std::cos(5.0 * pi / 180.0);
    const double s = std::sin(5.0 * pi / 180.0);
    return {0.7 * c, 0.7 * (0.03 * c - 1.1 * s), -30.0, 0.7 * s, 0.7 * (0.03 * s + 1.1 * c), -55.0};
}

std::string Settings(const std::string& more)
{
    return "{" + std::string(trueOptics) + ", " + more + "}";
}

// Lights these mirrors while the object lives.
class CLit
{
public:
    CLit(SMicromirror& mirrors, const SQsRLEPicBuf& picture) : m_mirrors(mirrors)
    {
        EXPECT_EQ(0, m_mirrors.calibrated->SetChipPicture(picture));
        EXPECT_EQ(0, m_mirrors.device->StimulationBegin(Request(1)));
    }
    ~CLit() { EXPECT_EQ(0, m_mirrors.device->StimulationEnd(nullptr, nullptr, 0)); }

private:
    SMicromirror& m_mirrors;
};

} // namespace

// The blur spreads the spot over several pixels also where eight of them are binned, so that the centre of mass of the
// pixels is that of the light.
TEST(SimulatedCamera, ShowsOneMirrorWhereTheTrueMappingPutsItWhateverItsState)
{
    CCameras cameras;
    IQsGrabberCamera* camera = cameras.Add(Settings(R"("blurPx": 5, "photons": 1e6, "background": 0, "readNoise": 0)"));
    SMicromirror mirrors;
    const CLit lit(mirrors, Mirrors(1024, 768, {{310, 470, 1}}));
    const SPoint onSensor = TrueMapping()({470.0, 310.0});
    for (const SQsCameraState& state : AllCameraStates())
    {
        ASSERT_EQ(0, camera->SetState(state)) << Text(state);
        const SPoint expected = ImageFromSensor(onSensor, state, sensor);
        const SSpot spot = Spot(Grab(*camera));
        EXPECT_NEAR(expected.x, spot.centre.x, 0.05) << Text(state);
        EXPECT_NEAR(expected.y, spot.centre.y, 0.05) << Text(state);
    }
}

TEST(SimulatedCamera, FollowsEveryPartOfTheTrueMapping)
{
    struct SCase
    {
        const char* optics;
        SAffine mapping; // by hand
    };
    const SCase cases[] = {
        {R"({"scale": 0.5, "dx": 10, "dy": 20})", {0.5, 0.0, 10.0, 0.0, 0.5, 20.0}},
        {R"({"scale": 0.5, "dx": 10, "dy": 400, "flip": true})", {0.5, 0.0, 10.0, 0.0, -0.5, 400.0}},
        {R"({"scale": 0.5, "dx": 10, "dy": 20, "shear": 0.2})", {0.5, 0.1, 10.0, 0.0, 0.5, 20.0}},
        {R"({"scale": 0.5, "dx": 10, "dy": 20, "aspect": 1.2})", {0.5, 0.0, 10.0, 0.0, 0.6, 20.0}},
        {R"({"scale": 0.5, "dx": 500, "dy": 20, "rotationDeg": 90})", {0.0, -0.5, 500.0, 0.5, 0.0, 20.0}},
        {R"({"scale": 0.5, "dx": 300, "dy": 300, "rotationDeg": 90, "shear": 0.2, "aspect": 1.2, "flip": true})",
         // The turn takes (x, y) to (-y, x) of what shear, aspect and flip make of a mirror: (x - 0.2 y, -1.2 y).
         {0.0, 0.6, 300.0, 0.5, -0.1, 300.0}}};
    for (const SCase& one : cases)
    {
        CCameras cameras;
        IQsGrabberCamera* camera =
            cameras.Add(std::string("{\"blurPx\": 1, \"optics\": ") + one.optics + ", " + bright + "}");
        SMicromirror mirrors;
        for (const SQsRLEPicBuf::SRun& mirror : {SQsRLEPicBuf::SRun{100, 200, 1}, SQsRLEPicBuf::SRun{300, 50, 1}})
        {
            const SPoint expected = ImageFromSensor(
                one.mapping({static_cast<double>(mirror.uiFirst), static_cast<double>(mirror.uiRow)}), {}, sensor);
            ASSERT_TRUE(expected.x > 10.0 && expected.x < 630.0 && expected.y > 10.0 && expected.y < 470.0)
                << one.optics;
            const CLit lit(mirrors, Mirrors(1024, 768, {mirror}));
            const SSpot spot = Spot(Grab(*camera));
            EXPECT_NEAR(expected.x, spot.centre.x, 0.05) << one.optics;
            EXPECT_NEAR(expected.y, spot.centre.y, 0.05) << one.optics;
        }
    }
}

TEST(SimulatedCamera, SeesThroughTheObjectiveOfNow)
{
    CCameras cameras;
    IQsGrabberCamera* camera = cameras.Add(Settings(
        bright + std::string(R"(, "objectives": {"Plan 20x": {}, "Plan 40x": {"scale": 2, "dx": 3, "dy": -4}})")));
    SMicromirror mirrors;
    const CLit lit(mirrors, Mirrors(1024, 768, {{380, 500, 1}}));
    const SPoint plain = TrueMapping()({500.0, 380.0});
    // Twice as far from the middle of the sensor, (320, 240), and moved.
    const SPoint twofold = {2.0 * (plain.x - 320.0) + 320.0 + 3.0, 2.0 * (plain.y - 240.0) + 240.0 - 4.0};
    const std::pair<const wchar_t*, SPoint> cases[] = {
        {L"Plan 40x", twofold}, {L"Plan 20x", plain}, {L"unknown", plain}, {L"Plan 40x", twofold}};
    for (const auto& one : cases)
    {
        SQsDMApiHardware hardware;
        hardware.sObjective = one.first;
        QsStandalone::SetHardware(hardware);
        const SSpot spot = Spot(Grab(*camera));
        EXPECT_NEAR(one.second.x - 0.5, spot.centre.x, 0.05);
        EXPECT_NEAR(one.second.y - 0.5, spot.centre.y, 0.05);
    }
}

// What the mirrors send to the sensor is neither lost nor found by turning them against its pixels.
TEST(SimulatedCamera, KeepsAllLightOfThePatternOnItsSensor)
{
    CCameras cameras;
    IQsGrabberCamera* camera =
        cameras.Add(std::string("{\"photons\": 20000, \"background\": 0, \"readNoise\": 0, ") + trueOptics + "}");
    SMicromirror mirrors;
    SQsRLEPicBuf chequered = Mirrors(1024, 768, {});
    for (std::uint32_t row = 300; row < 400; ++row)
        for (std::uint32_t column = 400 + row % 2; column < 500; column += 2)
            chequered.runs.push_back({row, column, 1});
    for (const SQsRLEPicBuf& picture : {Rectangle({1024, 768}, {400, 300, 500, 400}), chequered})
    {
        std::uint64_t count = 0;
        for (const SQsRLEPicBuf::SRun& run : picture.runs)
            count += run.uiCount;
        const CLit lit(mirrors, picture);
        const double expected = 20000.0 * static_cast<double>(count) * TrueMapping().Area();
        EXPECT_NEAR(expected, Spot(Grab(*camera)).light, 5.0 * std::sqrt(expected));
    }
}

TEST(SimulatedCamera, GivesAPixelThatIsLitAllOverItsFullSignal)
{
    CCameras cameras;
    IQsGrabberCamera* camera = cameras.Add(R"({"photons": 3000, "background": 200, "readNoise": 4, "blurPx": 2})");
    ASSERT_EQ(0, camera->SetState({0.0, false, 1, {100, 100, 540, 380}}));
    SMicromirror mirrors;
    const CLit lit(mirrors, Rectangle({1024, 768}, {0, 0, 1024, 768}));
    const SQsGrabberImage image = Grab(*camera);
    const double count = static_cast<double>(image.pixels.size());
    const double variance = 3200.0 + 16.0 + 1.0 / 12.0; // of photons, reading and rounding
    EXPECT_NEAR(3200.0, Mean(image), 5.0 * std::sqrt(variance / count));
    EXPECT_NEAR(variance, Variance(image), 5.0 * variance * std::sqrt(2.0 / count));
}

TEST(SimulatedCamera, SumsTheLightOfSeveralDevicesAndSeesThatOfItsOwnOnly)
{
    CCameras cameras;
    IQsGrabberCamera* camera = cameras.Add(R"({"name": "one", "photons": 1000, "background": 0, "readNoise": 0})");
    IQsGrabberCamera* other = cameras.Add(R"({"name": "other", "photons": 1000, "background": 0, "readNoise": 0})");
    SMicromirror first(R"({"name": "first", "camera": "one"})");
    SMicromirror second(R"({"name": "second", "camera": "one"})");
    const CLit litFirst(first, Rectangle({1024, 768}, {400, 300, 600, 500}));
    const double alone = Spot(Grab(*camera)).light;
    const CLit litSecond(second, Rectangle({1024, 768}, {400, 300, 600, 500}));
    EXPECT_NEAR(2.0 * alone, Spot(Grab(*camera)).light, 10.0 * std::sqrt(2.0 * alone));
    for (const std::uint16_t pixel : Grab(*other).pixels)
        ASSERT_EQ(0, pixel);
}

TEST(SimulatedCamera, IsDarkBeforeTheLightAndAfterItsEndAnAbortAndTheDeviceItself)
{
    CCameras cameras;
    IQsGrabberCamera* camera = cameras.Add(R"({"background": 100, "readNoise": 2})");
    const auto isDark = [camera]
    {
        const SQsGrabberImage image = Grab(*camera);
        const double variance = 104.0 + 1.0 / 12.0;
        return std::abs(Mean(image) - 100.0) < 5.0 * std::sqrt(variance / static_cast<double>(image.pixels.size())) &&
               *std::max_element(image.pixels.begin(), image.pixels.end()) < 100 + 8 * 11;
    };
    auto mirrors = std::make_unique<SMicromirror>();
    ASSERT_EQ(0, mirrors->calibrated->SetChipPicture(Rectangle({1024, 768}, {500, 380, 503, 383})));
    EXPECT_TRUE(isDark());
    ASSERT_EQ(0, mirrors->device->StimulationBegin(Request(1)));
    EXPECT_FALSE(isDark());
    ASSERT_EQ(0, mirrors->device->StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(isDark());
    ASSERT_EQ(0, mirrors->device->StimulationBegin(Request(1)));
    EXPECT_FALSE(isDark());
    ASSERT_EQ(0, mirrors->device->StimulationAbort());
    EXPECT_TRUE(isDark());
    ASSERT_EQ(0, mirrors->device->StimulationEnd(nullptr, nullptr, 0));
    ASSERT_EQ(0, mirrors->device->StimulationBegin(Request(2, 1.0)));
    EXPECT_TRUE(isDark()); // a timed light is over when its begin is
    ASSERT_EQ(0, mirrors->device->StimulationBegin(Request(1)));
    EXPECT_FALSE(isDark());
    mirrors.reset(); // nobody ended it
    EXPECT_TRUE(isDark());
}

TEST(SimulatedCamera, HasTheNoiseOfPhotonsAndOfReading)
{
    struct SCase
    {
        double background;
        double readNoise;
    };
    for (const SCase& one :
         {SCase{400.0, 5.0}, SCase{3.0, 0.0}, SCase{15.0, 0.0}, SCase{9.99, 0.0}, SCase{5000.0, 0.0}})
    {
        const CameraPtr camera = MakeCamera(
            CQsStringW::Format(L"{\"background\": %g, \"readNoise\": %g}", one.background, one.readNoise).ToUtf8());
        const SQsGrabberImage image = Grab(*camera);
        const double count = static_cast<double>(image.pixels.size());
        const double rounding = one.readNoise > 0.0 ? 1.0 / 12.0 : 0.0; // counts of photons are whole
        const double variance = one.background + one.readNoise * one.readNoise + rounding;
        EXPECT_NEAR(one.background, Mean(image), 5.0 * std::sqrt(variance / count)) << one.background;
        // Of Poisson counts the fourth moment makes the variance's own deviation a little larger.
        EXPECT_NEAR(variance, Variance(image), 5.0 * std::sqrt((2.0 * variance * variance + one.background) / count))
            << one.background;
        // The third central moment of Poisson counts is their mean; a normal distribution has none.
        EXPECT_NEAR(one.background, ThirdMoment(image),
                    6.0 * std::sqrt((6.0 * std::pow(variance, 3.0) + 18.0 * variance * variance + variance) / count))
            << one.background;
    }
}

TEST(SimulatedCamera, BinsToTheMeanOfTheNoisyPixels)
{
    const CameraPtr camera = MakeCamera(R"({"background": 900, "readNoise": 0})");
    for (const int binning : {2, 4, 8})
    {
        ASSERT_EQ(0, camera->SetState({0.0, false, binning, {}}));
        const SQsGrabberImage image = Grab(*camera);
        EXPECT_EQ(640u / static_cast<unsigned>(binning), image.uiWidth);
        EXPECT_EQ(480u / static_cast<unsigned>(binning), image.uiHeight);
        const double count = static_cast<double>(image.pixels.size());
        const double variance = 900.0 / (binning * binning) + 1.0 / 12.0;
        // The half that rounding up of whole sums leaves is at most half a step of the mean.
        EXPECT_NEAR(900.0, Mean(image), 5.0 * std::sqrt(variance / count) + 0.5 / (binning * binning));
        EXPECT_NEAR(variance, Variance(image), 5.0 * variance * std::sqrt(2.0 / count) + 0.1) << binning;
    }
}

TEST(SimulatedCamera, RepeatsEveryFrameOfItsSeed)
{
    const std::string settings = R"({"background": 50, "dust": 5, "seed": 7})";
    const CameraPtr one = MakeCamera(settings);
    const CameraPtr same = MakeCamera(settings);
    const CameraPtr other = MakeCamera(R"({"background": 50, "dust": 5, "seed": 8})");
    const SQsGrabberImage first = Grab(*one);
    const SQsGrabberImage second = Grab(*one);
    EXPECT_NE(first.pixels, second.pixels);
    EXPECT_EQ(first.pixels, Grab(*same).pixels);
    EXPECT_EQ(second.pixels, Grab(*same).pixels);
    EXPECT_NE(first.pixels, Grab(*other).pixels);
}

// The image of any state is the sensor's image of the same frame, moved.
TEST(SimulatedCamera, TurnsMirrorsAndCutsByMovingPixels)
{
    const CameraPtr plain = MakeCamera("{}");
    for (const SQsCameraState& state : AllCameraStates())
    {
        if (state.iBinning != 1)
            continue;
        const CameraPtr turned = MakeCamera("{}");
        ASSERT_EQ(0, turned->SetState(state));
        const CameraPtr straight = MakeCamera("{}");
        const SQsGrabberImage whole = Grab(*straight);
        const SQsGrabberImage image = Grab(*turned);
        SQsGrabberFormatDesc format;
        ASSERT_EQ(0, turned->GetFormat(format));
        ASSERT_EQ(static_cast<unsigned>(format.size.cx), image.uiWidth) << Text(state);
        ASSERT_EQ(static_cast<unsigned>(format.size.cy), image.uiHeight) << Text(state);
        for (std::size_t i = 0; i < image.pixels.size(); ++i)
        {
            const SPoint p = SensorFromImage(
                {static_cast<double>(i % image.uiWidth), static_cast<double>(i / image.uiWidth)}, state, sensor);
            const auto column = static_cast<std::size_t>(std::lround(p.x - 0.5));
            const auto row = static_cast<std::size_t>(std::lround(p.y - 0.5));
            ASSERT_EQ(whole.pixels[row * 640 + column], image.pixels[i]) << Text(state) << ", pixel " << i;
        }
    }
}

TEST(SimulatedCamera, HasDarkSpotsWhereDustLies)
{
    const auto darkPixels = [](const SQsGrabberImage& image)
    {
        std::vector<std::size_t> dark;
        for (std::size_t i = 0; i < image.pixels.size(); ++i)
            if (image.pixels[i] < 8000) // dust lets at most 60 % of 10000 pass, the noise is about 100
                dark.push_back(i);
        return dark;
    };
    EXPECT_THAT(darkPixels(Grab(*MakeCamera(R"({"background": 10000})"))), IsEmpty());
    const CameraPtr dusty = MakeCamera(R"({"background": 10000, "dust": 12})");
    const std::vector<std::size_t> spots = darkPixels(Grab(*dusty));
    EXPECT_GE(spots.size(), 12u);               // each covers several pixels, a few may lie over the edge or each other
    EXPECT_LE(spots.size(), 12u * 64u);         // a radius of at most 4 pixels
    EXPECT_EQ(spots, darkPixels(Grab(*dusty))); // they stay where they are
    EXPECT_NE(spots, darkPixels(Grab(*MakeCamera(R"({"background": 10000, "dust": 12, "seed": 2})"))));
}

TEST(SimulatedCamera, SaysWhatItDelivers)
{
    const CameraPtr camera = MakeCamera(
        R"({"name": "Kamera \u00e4", "width": 800, "height": 600, "rotation": 90, "flipped": true, "binning": 2,
                       "region": [10, 20, 310, 121]})");
    EXPECT_TRUE(camera->GetName() == L"Kamera \u00E4");
    const SQsCameraState state = camera->GetState();
    EXPECT_EQ(90.0, state.dRotation);
    EXPECT_TRUE(state.bFlipped);
    EXPECT_EQ(2, state.iBinning);
    SQsGrabberFormatDesc format;
    ASSERT_EQ(0, camera->GetFormat(format));
    EXPECT_EQ(50, format.size.cx); // 101 sensor rows stand upright: 50 pixels, one row is left over
    EXPECT_EQ(150, format.size.cy);
    EXPECT_EQ(2, format.binning.cx);
    EXPECT_EQ(2.0, format.fx);
    EXPECT_EQ(2.0, format.fy);
    EXPECT_EQ(800, format.rcSensor.Width());
    EXPECT_EQ(600, format.rcSensor.Height());
    EXPECT_EQ(-1.0, format.dPixelSizeX); // it gives none
    SQsGrabberFormatValue value;
    ASSERT_EQ(0, camera->GetFormatValue(value));
    EXPECT_EQ(800, value.rcFormat.Width());
    EXPECT_EQ(600, value.rcFormat.Height());
    EXPECT_EQ(20, value.rcRegion.top);
    EXPECT_EQ(310, value.rcRegion.right);
    double a = unwritten, b = unwritten, c = unwritten, d = unwritten;
    ASSERT_EQ(0, camera->GetFlipReference(a, b, c, d));
    EXPECT_EQ(1.0, a);
    EXPECT_EQ(0.0, b);
    EXPECT_EQ(0.0, c);
    EXPECT_EQ(-1.0, d);
    ASSERT_EQ(0, camera->SetState({}));
    ASSERT_EQ(0, camera->GetFlipReference(a, b, c, d));
    EXPECT_EQ(1.0, d);
    ASSERT_EQ(0, camera->GetFormatValue(value));
    EXPECT_EQ(800, value.rcRegion.Width()); // all of it
}

TEST(SimulatedCamera, RefusesStatesThatItCannotTakeAndSaysWhy)
{
    const CameraPtr camera = MakeCamera("{}");
    const SQsCameraState good{270.0, true, 2, {10, 10, 100, 100}};
    ASSERT_EQ(0, camera->SetState(good));
    const SQsCameraState wrong[] = {{45.0, false, 1, {}},
                                    {-90.0, false, 1, {}},
                                    {360.0, false, 1, {}},
                                    {std::nan(""), false, 1, {}},
                                    {0.0, false, 0, {}},
                                    {0.0, false, 3, {}},
                                    {0.0, false, -2, {}},
                                    {0.0, false, 1, {-1, 0, 10, 10}},
                                    {0.0, false, 1, {0, 0, 641, 10}},
                                    {0.0, false, 1, {0, 0, 10, 481}},
                                    {0.0, false, 1, {10, 10, 10, 20}},
                                    {0.0, false, 1, {20, 10, 10, 20}},
                                    {0.0, false, 8, {0, 0, 7, 100}}};
    for (const SQsCameraState& state : wrong)
    {
        const CLogCapture log;
        EXPECT_EQ(-9, camera->SetState(state)) << Text(state);
        EXPECT_EQ(1u, log.Of(L"SimulatedDevices").size()) << Text(state);
        EXPECT_EQ(Text(good), Text(camera->GetState()));
    }
}

TEST(SimulatedCamera, ThatIsNotThereAnswersNothing)
{
    const CameraPtr camera = MakeCamera(R"({"connected": false})");
    SQsGrabberImage image;
    image.uiWidth = 7;
    EXPECT_EQ(-9, camera->Grab(image));
    EXPECT_EQ(7u, image.uiWidth);
    EXPECT_THAT(image.pixels, IsEmpty());
    SQsGrabberFormatDesc format;
    format.fx = unwritten;
    EXPECT_EQ(-9, camera->GetFormat(format));
    EXPECT_EQ(unwritten, format.fx);
    SQsGrabberFormatValue value;
    value.dGain = unwritten;
    EXPECT_EQ(-9, camera->GetFormatValue(value));
    EXPECT_EQ(unwritten, value.dGain);
    double a = unwritten, b = unwritten, c = unwritten, d = unwritten;
    EXPECT_EQ(-9, camera->GetFlipReference(a, b, c, d));
    EXPECT_EQ(unwritten, a);
}

TEST(SimulatedCamera, HasItsDefaultsAndOneLineInTheLogWhenItsSettingsAreWrong)
{
    for (const char* settings : {"[]",
                                 R"({"Width": 640})",
                                 R"({"width": 641})",
                                 R"({"height": 0})",
                                 R"({"width": 10000})",
                                 R"({"rotation": 45})",
                                 R"({"binning": 3})",
                                 R"({"region": [0, 0, 10]})",
                                 R"({"region": [0, 0, 641, 10]})",
                                 R"({"region": [20, 0, 10, 10]})",
                                 R"({"optics": 3})",
                                 R"({"optics": {"rotation": 3}})",
                                 R"({"optics": {"scale": 0}})",
                                 R"({"optics": {"scale": -1}})",
                                 R"({"blurPx": -1})",
                                 R"({"photons": "many"})",
                                 R"({"dust": 1.5})",
                                 R"({"objectives": {"Plan 20x": 3}})",
                                 R"({"objectives": {"Plan 20x": {"zoom": 3}}})",
                                 R"({"objectives": []})",
                                 R"({"seed": -1})",
                                 R"({"readNoise": 1e9})",
                                 R"({"fullFieldZoom": 1})"})
    {
        QsStandalone::TakeSettingsFaults();
        const CLogCapture log;
        const CameraPtr camera = MakeCamera(settings);
        const std::vector<std::wstring> lines = log.Of(L"SimulatedDevices");
        ASSERT_EQ(1u, lines.size()) << settings;
        EXPECT_EQ(0u, lines[0].find(L"Settings of CQsSimCamera - ")) << settings;
        EXPECT_EQ(1u, QsStandalone::TakeSettingsFaults().size()) << settings;
        EXPECT_TRUE(camera->GetName() == L"Simulated camera") << settings;
        SQsGrabberFormatDesc format;
        EXPECT_EQ(0, camera->GetFormat(format));
        EXPECT_EQ(640, format.size.cx) << settings;
        EXPECT_EQ(480, format.size.cy) << settings;
    }
}

TEST(SimulatedCamera, AnswersForItsInterfaceAndIsGoneAfterTheLastRelease)
{
    const std::size_t before = QsStandalone::LiveObjectCount();
    {
        const CameraPtr camera = MakeCamera("{}");
        EXPECT_EQ(1u, QsStandalone::ReferenceCount(camera.get()));
        EXPECT_EQ(nullptr, CQsRTTI::Query(camera.get(), "IQsStimulationDevice"));
        EXPECT_EQ(nullptr, CQsRTTI::Query(camera.get(), "iqsgrabbercamera"));
        EXPECT_NE(nullptr, dynamic_cast<IQsGenericProvider*>(camera.get()));
        EXPECT_EQ(1u, QsStandalone::ReferenceCount(camera.get()));
        EXPECT_EQ(before + 1, QsStandalone::LiveObjectCount());
    }
    EXPECT_EQ(before, QsStandalone::LiveObjectCount());
}
