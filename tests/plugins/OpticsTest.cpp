#include "OpticsTest.h"

#include "standalone/PluginManager.h"

#include <cmath>

namespace QsTest {

CameraPtr MakeCamera(const std::string& settings, const std::string& className)
{
    static const QsStandalone::SModuleFile file = QsStandalone::CQsModules::ScanFile(QS_SIMULATED_DEVICES);
    EXPECT_EQ("", file.error);
    QsStandalone::SetDeviceSettings(className, settings);
    IQsInterface* object = CQsRTTI::CreateAndQuery(className.c_str(), "IQsGrabberCamera", "no file", -1);
    auto* camera = dynamic_cast<IQsGrabberCamera*>(object);
    EXPECT_NE(nullptr, camera) << className;
    return CameraPtr(camera);
}

IQsGrabberCamera* CCameras::Add(const std::string& settings, const std::string& className)
{
    m_cameras.push_back(MakeCamera(settings, className));
    EXPECT_TRUE(QsStandalone::AddCamera(m_cameras.back().get()));
    return m_cameras.back().get();
}

SMicromirror::SMicromirror(const std::string& settings) : device(MakeDevice("CQsSimMicromirrorDevice", settings))
{
    calibrated =
        dynamic_cast<IQsCalibratedStimulationDevice*>(CQsRTTI::Query(device.get(), "IQsCalibratedStimulationDevice"));
    EXPECT_NE(nullptr, calibrated);
}

SMicromirror::~SMicromirror()
{
    CQsRTTI::Release(calibrated);
}

SAffine SAffine::Inverse() const
{
    const double determinant = a * e - b * d;
    SAffine inverse{e / determinant, -b / determinant, 0.0, -d / determinant, a / determinant, 0.0};
    const SPoint moved = inverse({c, f});
    inverse.c = -moved.x;
    inverse.f = -moved.y;
    return inverse;
}

namespace {

// The whole image, not cut and not binned, counted from its corner. Cosine and sine are looked up: the angles are
// multiples of 90 degrees.
SPoint WholeImageFromSensor(const SPoint& p, const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    const double x = p.x - sensor.cx / 2.0;
    const double y = p.y - sensor.cy / 2.0;
    SPoint turned;
    if (state.dRotation == 0.0)
        turned = {x + sensor.cx / 2.0, y + sensor.cy / 2.0};
    else if (state.dRotation == 90.0)
        turned = {y + sensor.cy / 2.0, -x + sensor.cx / 2.0};
    else if (state.dRotation == 180.0)
        turned = {-x + sensor.cx / 2.0, -y + sensor.cy / 2.0};
    else
        turned = {-y + sensor.cy / 2.0, x + sensor.cx / 2.0};
    const double height = state.dRotation == 90.0 || state.dRotation == 270.0 ? sensor.cx : sensor.cy;
    if (state.bFlipped)
        turned.y = height - turned.y;
    return turned;
}

SPoint RegionCorner(const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    CQsRectBase<int> region = state.rcRegion;
    if (region.Width() == 0)
        region = {0, 0, sensor.cx, sensor.cy};
    const SPoint one =
        WholeImageFromSensor({static_cast<double>(region.left), static_cast<double>(region.top)}, state, sensor);
    const SPoint other =
        WholeImageFromSensor({static_cast<double>(region.right), static_cast<double>(region.bottom)}, state, sensor);
    return {std::min(one.x, other.x), std::min(one.y, other.y)};
}

double Moment(const SQsGrabberImage& image, int order)
{
    const double mean = order == 1 ? 0.0 : Moment(image, 1);
    double sum = 0.0;
    for (const std::uint16_t pixel : image.pixels)
        sum += std::pow(pixel - mean, order);
    return sum / static_cast<double>(image.pixels.size());
}

} // namespace

SPoint ImageFromSensor(const SPoint& sensorPoint, const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    const SPoint whole = WholeImageFromSensor(sensorPoint, state, sensor);
    const SPoint corner = RegionCorner(state, sensor);
    return {(whole.x - corner.x) / state.iBinning - 0.5, (whole.y - corner.y) / state.iBinning - 0.5};
}

SPoint SensorFromImage(const SPoint& imagePoint, const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    // The way there is affine: it is inverted by what it does to three points.
    const SPoint origin = ImageFromSensor({0.0, 0.0}, state, sensor);
    const SPoint alongX = ImageFromSensor({1.0, 0.0}, state, sensor);
    const SPoint alongY = ImageFromSensor({0.0, 1.0}, state, sensor);
    const SAffine there{alongX.x - origin.x, alongY.x - origin.x, origin.x,
                        alongX.y - origin.y, alongY.y - origin.y, origin.y};
    return there.Inverse()(imagePoint);
}

std::vector<SQsCameraState> AllCameraStates()
{
    // All of the sensor; half of it; one at odd places; one that binning leaves rows and columns over.
    const CQsRectBase<int> regions[] = {{}, {100, 60, 500, 420}, {37, 21, 421, 405}, {91, 43, 522, 409}};
    std::vector<SQsCameraState> states;
    for (const double rotation : {0.0, 90.0, 180.0, 270.0})
        for (const bool flipped : {false, true})
            for (const CQsRectBase<int>& region : regions)
                for (const int binning : {1, 2, 4, 8})
                    states.push_back({rotation, flipped, binning, region});
    return states;
}

std::string Text(const SQsCameraState& state)
{
    const CQsRectBase<int>& region = state.rcRegion;
    return CQsStringW::Format(L"rotation %g%hs, binning %d, region %d %d %d %d", state.dRotation,
                              state.bFlipped ? " flipped" : "", state.iBinning, region.left, region.top, region.right,
                              region.bottom)
        .ToUtf8();
}

SQsRLEPicBuf Mirrors(unsigned width, unsigned height, const std::vector<SQsRLEPicBuf::SRun>& runs)
{
    SQsRLEPicBuf picture;
    picture.uiWidth = width;
    picture.uiHeight = height;
    picture.runs = runs;
    return picture;
}

SQsRLEPicBuf Rectangle(const CQsSizeBase<int>& size, const CQsRectBase<int>& lit)
{
    SQsRLEPicBuf picture = Mirrors(static_cast<unsigned>(size.cx), static_cast<unsigned>(size.cy), {});
    for (int row = lit.top; row < lit.bottom; ++row)
        picture.runs.push_back({static_cast<std::uint32_t>(row), static_cast<std::uint32_t>(lit.left),
                                static_cast<std::uint32_t>(lit.Width())});
    return picture;
}

SQsGrabberImage Grab(IQsGrabberCamera& camera)
{
    SQsGrabberImage image;
    EXPECT_EQ(0, camera.Grab(image));
    EXPECT_EQ(std::size_t{image.uiWidth} * image.uiHeight, image.pixels.size());
    EXPECT_FALSE(image.pixels.empty());
    return image;
}

SSpot Spot(const SQsGrabberImage& image, double background)
{
    SSpot spot;
    for (std::size_t i = 0; i < image.pixels.size(); ++i)
    {
        const double light = image.pixels[i] - background;
        spot.light += light;
        spot.centre.x += light * static_cast<double>(i % image.uiWidth);
        spot.centre.y += light * static_cast<double>(i / image.uiWidth);
    }
    spot.centre.x /= spot.light;
    spot.centre.y /= spot.light;
    return spot;
}

double Mean(const SQsGrabberImage& image)
{
    return Moment(image, 1);
}

double Variance(const SQsGrabberImage& image)
{
    return Moment(image, 2);
}

double ThirdMoment(const SQsGrabberImage& image)
{
    return Moment(image, 3);
}

int SetArea(IQsStimulationDevice& device, IQsGrabberCamera& camera, const SQsRLEPicBuf& picture,
            const IQsStimulationDevice::SQsScanAreaDesc* scanArea)
{
    SQsGrabberFormatDesc format;
    SQsGrabberFormatValue value;
    EXPECT_EQ(0, camera.GetFormat(format));
    EXPECT_EQ(0, camera.GetFormatValue(value));
    return device.StimulationAreaSet({}, picture, scanArea, format, value.rcRegion);
}

bool HasLit(const std::string& device)
{
    return !Pulses(device).empty();
}

std::string LastLight(const std::string& device)
{
    std::string text;
    for (const QsStandalone::SJournalEntry& entry : QsStandalone::CQsJournal::Entries())
        if (entry.device == device && entry.kind == QsStandalone::EJournalKind::LightOn)
            text = entry.text;
    return text;
}

} // namespace QsTest
