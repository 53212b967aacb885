// What a micromirror device maps image points by: scan areas, cameras that change or fail meanwhile, and numbers that
// no microscope has.
#include "OpticsTest.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryFolder.h"

#include <array>
#include <cmath>
#include <limits>
#include <optional>

using namespace QsTest;
using testing::Each;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

using ScanArea = IQsStimulationDevice::SQsScanAreaDesc;
using Matrix = std::array<double, 9>;

const char* const name = "CQsSimMicromirrorDevice";
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();
constexpr double pi = 3.14159265358979323846;

// Mirrors <- sensor, counted from its corner: askew, so that no axis stands for another one.
constexpr SAffine mirrorsFromSensor{1.3, 0.2, 17.0, -0.15, 1.4, 31.0};

Matrix Unwritten()
{
    Matrix matrix;
    matrix.fill(unwritten);
    return matrix;
}

void ExpectSameMapping(const SAffine& expected, const Matrix& m, const std::string& text)
{
    for (const SPoint& point : {SPoint{0.0, 0.0}, SPoint{31.5, 7.25}, SPoint{-3.0, 40.0}})
    {
        const SPoint mirror = SAffine{m[0], m[1], m[2], m[3], m[4], m[5]}(point);
        EXPECT_NEAR(expected(point).x, mirror.x, 1e-6) << text;
        EXPECT_NEAR(expected(point).y, mirror.y, 1e-6) << text;
    }
}

SAffine Product(const SAffine& p, const SAffine& q) // first q, then p
{
    const SPoint origin = p(q({0.0, 0.0}));
    const SPoint alongX = p(q({1.0, 0.0}));
    const SPoint alongY = p(q({0.0, 1.0}));
    return {alongX.x - origin.x, alongY.x - origin.x, origin.x, alongX.y - origin.y, alongY.y - origin.y, origin.y};
}

SAffine SensorFromImage(const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    const SPoint origin = QsTest::SensorFromImage({0.0, 0.0}, state, sensor);
    const SPoint alongX = QsTest::SensorFromImage({1.0, 0.0}, state, sensor);
    const SPoint alongY = QsTest::SensorFromImage({0.0, 1.0}, state, sensor);
    return {alongX.x - origin.x, alongY.x - origin.x, origin.x, alongX.y - origin.y, alongY.y - origin.y, origin.y};
}

// Of a camera that passes everything on to a simulated one; what it does beside is the test's.
class CTestCamera final : public IQsGrabberCamera, public CQsClass
{
public:
    explicit CTestCamera(IQsGrabberCamera& real) : m_real(real) {}

    std::function<int()> beforeFlip; // what is not 0 is answered
    std::function<void()> afterFlip;
    unsigned formatsLeft = 1000000; // so often it tells its format, and then no more
    unsigned flipsAsked = 0;

    const CQsClassInfo* GetClass() const override { return nullptr; }
    IQsInterface* QueryInterface(const char*) override { return nullptr; }
    CQsStringW GetName() const override { return L"Test camera"; }
    SQsCameraState GetState() const override { return m_real.GetState(); }
    int SetState(const SQsCameraState& state) override { return m_real.SetState(state); }
    int GetFormat(SQsGrabberFormatDesc& format) override { return m_real.GetFormat(format); }
    int GetFormatValue(SQsGrabberFormatValue& value) override
    {
        if (formatsLeft == 0)
            return -9;
        --formatsLeft;
        return m_real.GetFormatValue(value);
    }
    int GetFlipReference(double& a, double& b, double& c, double& d) override
    {
        ++flipsAsked;
        int status = beforeFlip ? beforeFlip() : 0;
        if (status == 0)
            status = m_real.GetFlipReference(a, b, c, d);
        if (afterFlip)
            afterFlip();
        return status;
    }
    int Grab(SQsGrabberImage& image) override { return m_real.Grab(image); }

private:
    IQsGrabberCamera& m_real;
};

// A calibrated device that sees its camera through a CTestCamera.
class MicromirrorMapping : public testing::Test
{
protected:
    MicromirrorMapping()
        : real(MakeCamera(R"({"width": 640, "height": 480})")), calibration(mirrors.calibrated->GetCalibration())
    {
        QsStandalone::SetSettingsFolder(folder.Path());
        camera = new (__FILE__, __LINE__) CTestCamera(*real);
        EXPECT_TRUE(QsStandalone::AddCamera(camera));
        calibration.SetCalibrationCamToDMD(mirrorsFromSensor.Matrix());
    }
    ~MicromirrorMapping() override
    {
        QsStandalone::RemoveCameras(); // and with its last reference the test camera
    }

    // Of a format and region that the caller has from before.
    int ImageToChip(Matrix& matrix, const ScanArea* scanArea = nullptr)
    {
        SQsGrabberFormatDesc format;
        EXPECT_EQ(0, real->GetFormat(format));
        return mirrors.calibrated->GetImageToChip(format, scanArea, {}, matrix.data());
    }
    void ExpectRefused(const char* reason, const ScanArea* scanArea = nullptr)
    {
        Matrix matrix = Unwritten();
        const CLogCapture log;
        EXPECT_EQ(-9, ImageToChip(matrix, scanArea)) << reason;
        EXPECT_THAT(matrix, Each(unwritten)) << reason;
        ASSERT_THAT(log.Of(L"SimulatedDevices"), SizeIs(1)) << reason;
        EXPECT_THAT(CQsStringW(log.Of(L"SimulatedDevices")[0]).ToUtf8(), HasSubstr(reason));
    }
    // Neither upload nor begin accept the areas, with one line for each, and nothing is lit.
    void ExpectDark(const char* reason)
    {
        const CLogCapture log;
        QsStandalone::CQsJournal::Clear();
        EXPECT_EQ(-9, mirrors.device->StimulationAreaUpload()) << reason;
        EXPECT_FALSE(mirrors.device->StimulationAreaIsUpToDate()) << reason;
        EXPECT_EQ(-9, mirrors.device->StimulationBegin(Request(1))) << reason;
        EXPECT_EQ(0, mirrors.device->StimulationEnd(nullptr, nullptr, 0));
        EXPECT_FALSE(HasLit(name)) << reason;
        unsigned told = 0;
        for (const std::wstring& line : log.Of(L"SimulatedDevices"))
            told += CQsStringW(line).ToUtf8().find(reason) != std::string::npos ? 1u : 0u;
        EXPECT_EQ(2u, told) << reason;
    }

    static constexpr CQsSizeBase<int> sensor = {640, 480};
    const CTemporaryFolder folder;
    const CameraPtr real;
    const SMicromirror mirrors{R"({"camera": "Test camera"})"};
    CQsStimulationDeviceCalibration& calibration;
    CTestCamera* camera = nullptr; // the grabber manager's
};

} // namespace

// Not taken for a camera that is not flipped.
TEST_F(MicromirrorMapping, RefusesWhenTheCameraDoesNotTellItsFlipOrFormat)
{
    ASSERT_EQ(0, real->SetState({0.0, true, 1, {}}));
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {300, 200, 340, 240})));
    Matrix matrix = Unwritten();
    ASSERT_EQ(0, ImageToChip(matrix));
    ASSERT_EQ(0, mirrors.device->StimulationAreaUpload());

    camera->beforeFlip = [] { return -9; };
    ExpectRefused("the camera is not there or does not answer");
    ExpectDark("the camera is not there or does not answer");
    camera->beforeFlip = {};
    for (const unsigned told : {0u, 1u}) // at once, and after the camera has been found there
    {
        camera->formatsLeft = told;
        ExpectRefused("the camera is not there or does not answer");
        EXPECT_EQ(0u, camera->formatsLeft);
    }
    ExpectDark("the camera is not there or does not answer");
    camera->formatsLeft = 1000000;
    EXPECT_EQ(0, ImageToChip(matrix));
    EXPECT_EQ(0, mirrors.device->StimulationAreaUpload());
}

TEST_F(MicromirrorMapping, IsOfOneStateOfACameraThatIsTurnedAndFlippedMeanwhile)
{
    const SQsCameraState before = {90.0, false, 1, {}};
    const SQsCameraState after = {180.0, true, 1, {}};
    // Changed once, before or after the flip is told: the camera is read again.
    for (const bool changesFirst : {false, true})
    {
        ASSERT_EQ(0, real->SetState(before));
        const auto change = [this, &after] { return real->SetState(after); };
        if (changesFirst)
            camera->beforeFlip = change;
        else
            camera->afterFlip = change;
        Matrix matrix = Unwritten();
        ASSERT_EQ(0, ImageToChip(matrix));
        EXPECT_GT(camera->flipsAsked, 1u);
        ExpectSameMapping(Product(mirrorsFromSensor, SensorFromImage(after, sensor)), matrix, Text(after));
        camera->beforeFlip = {};
        camera->afterFlip = {};
    }
    // Changed whenever it is asked: no answer is of one state.
    camera->afterFlip = [this]
    {
        SQsCameraState state = real->GetState();
        state.dRotation = std::fmod(state.dRotation + 90.0, 360.0);
        real->SetState(state);
    };
    ExpectRefused("the camera is not there or does not answer");
    // Flipped and back again: its flip was told in another state than everything else.
    camera->beforeFlip = [this, &before]
    {
        SQsCameraState flipped = before;
        flipped.bFlipped = true;
        return real->SetState(flipped);
    };
    camera->afterFlip = [this, &before] { real->SetState(before); };
    ASSERT_EQ(0, real->SetState(before));
    ExpectRefused("the camera is not there or does not answer");
}

TEST_F(MicromirrorMapping, RefusesAMeasuredMatrixOfAnotherSize)
{
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {300, 200, 340, 240})));
    ASSERT_EQ(0, mirrors.device->StimulationAreaUpload());
    for (const std::size_t size : {4u, 0u, 12u})
    {
        calibration.SetCalibrationCamToDMD(std::vector<double>(size, 1.5));
        ExpectRefused("there is no calibration");
        ExpectDark("there is no calibration");
    }
}

TEST_F(MicromirrorMapping, RefusesScanAreasThatNoScannerSweeps)
{
    const ScanArea good = []
    {
        ScanArea area;
        area.dZoom = 2.0;
        return area;
    }();
    Matrix matrix = Unwritten();
    ASSERT_EQ(0, ImageToChip(matrix, &good));
    for (double ScanArea::*const number :
         {&ScanArea::dZoom, &ScanArea::dAngle, &ScanArea::dXOffset, &ScanArea::dYOffset, &ScanArea::dScanAreaAspect,
          &ScanArea::dCropZoom, &ScanArea::dCropAspect, &ScanArea::dCropXOffset, &ScanArea::dCropYOffset})
        for (const double value : {notANumber, infinite, -infinite, 1e300})
        {
            ScanArea area = good;
            area.bIsCrop = true;
            area.*number = value;
            ExpectRefused("no scanner sweeps such a scan area", &area);
        }
    for (double ScanArea::*const number :
         {&ScanArea::dZoom, &ScanArea::dScanAreaAspect, &ScanArea::dCropZoom, &ScanArea::dCropAspect})
        for (const double value : {0.0, -1.0})
        {
            ScanArea area = good;
            area.bIsCrop = true;
            area.*number = value;
            ExpectRefused("no scanner sweeps such a scan area", &area);
        }
    // Numbers of a crop that is none say nothing.
    ScanArea uncropped = good;
    uncropped.dCropZoom = 0.0;
    uncropped.dCropXOffset = notANumber;
    Matrix same = Unwritten();
    ASSERT_EQ(0, ImageToChip(same, &uncropped));
    EXPECT_EQ(matrix, same);
    // So little of the field that the pixels have no size.
    ScanArea tiny = good;
    tiny.dZoom = 1e-300;
    ExpectRefused("the mapping is singular, not finite or not affine", &tiny);
}

// The place at which such a row meets the region is further away than a whole number reaches.
TEST_F(MicromirrorMapping, EndsForAMappingWithANearlyVanishingElement)
{
    for (const double nearlyNothing : {1e-17, -1e-17, 1e-300})
    {
        // Image <- mirror (x, y) is about (nearlyNothing x + y, x): all mirrors of a column lie on one row of the
        // image.
        calibration.SetCalibrationCamToDMD({0.0, 1.0, 0.0, 1.0, -nearlyNothing, 0.0, 0.0, 0.0, 1.0});
        ASSERT_EQ(0, SetArea(*mirrors.device, *camera, Rectangle(sensor, {639, 479, 640, 480})));
        SQsRLEPicBuf lit;
        ASSERT_EQ(0, mirrors.calibrated->GetChipPicture(lit));
        // The pixel's centre, 639.5 and 479.5 from the corner; mirrors 479 and 639 are half a pixel beside its edge.
        ASSERT_EQ(1u, lit.runs.size());
        EXPECT_NEAR(639.5, lit.runs[0].uiRow, 0.5);
        EXPECT_NEAR(479.5, lit.runs[0].uiFirst, 0.5);
        EXPECT_EQ(1u, lit.runs[0].uiCount);
        // Far away, and of a chip that lies beside it.
        calibration.SetCalibrationCamToDMD({0.0, 1.0, 1e9, 1.0, -nearlyNothing, -1e9, 0.0, 0.0, 1.0});
        ExpectDark("the areas lie beside the chip");
    }
}

TEST_F(MicromirrorMapping, RefusesAPictureThatIsLargerThanAnyImage)
{
    SQsRLEPicBuf picture = Mirrors(60000, 60000, {{0, 0, 1}, {300, 300, 40}, {59999, 59999, 1}});
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, picture));
    ExpectDark("the picture is larger than any image");
    // The largest one is not: its lit pixels are few.
    picture = Mirrors(16384, 16384, {{300, 300, 40}, {301, 300, 40}});
    ASSERT_EQ(0, SetArea(*mirrors.device, *camera, picture));
    EXPECT_EQ(0, mirrors.device->StimulationAreaUpload());
}

TEST_F(MicromirrorMapping, RefusesSensorsAndRegionsAtTheEndsOfWholeNumbers)
{
    constexpr int least = std::numeric_limits<int>::min();
    constexpr int most = std::numeric_limits<int>::max();
    const CQsRectBase<int> extremes[] = {
        {least, least, most, most}, {0, 0, most, most},   {least, 0, least + 640, 480}, {most - 640, 0, most, 480},
        {most, most, 0, 0},         {0, least, 640, 480}, {least, least, 0, 0},         {most, least, least, most}};
    SQsGrabberFormatDesc good;
    ASSERT_EQ(0, real->GetFormat(good));
    for (const SQsCameraState& state :
         {SQsCameraState{}, SQsCameraState{0.0, true, 1, {}}, SQsCameraState{90.0, true, 1, {}}})
    {
        ASSERT_EQ(0, real->SetState(state));
        for (const CQsRectBase<int>& extreme : extremes)
        {
            Matrix matrix = Unwritten();
            SQsGrabberFormatDesc wrong = good;
            wrong.rcSensor = extreme;
            EXPECT_EQ(-9, mirrors.calibrated->GetImageToChip(wrong, nullptr, {}, matrix.data())) << Text(state);
            EXPECT_EQ(-9, mirrors.calibrated->GetImageToChip(good, nullptr, extreme, matrix.data())) << Text(state);
            EXPECT_THAT(matrix, Each(unwritten)) << Text(state);
        }
    }
}

namespace {

struct SScannedImage
{
    const char* text;
    ScanArea area;
};

std::vector<SScannedImage> ScannedImages()
{
    ScanArea zoom;
    zoom.dZoom = 2.0;
    zoom.dXOffset = 0.25;
    ScanArea turned = zoom;
    turned.dAngle = 30.0;
    turned.dYOffset = -0.125;
    ScanArea crop;
    crop.bIsCrop = true;
    crop.dCropZoom = 1.6;
    crop.dCropXOffset = 0.2;
    crop.dCropYOffset = -0.3;
    ScanArea aspect;
    aspect.dScanAreaAspect = 1.25;
    ScanArea all = turned;
    all.dScanAreaAspect = 1.25;
    all.bIsCrop = true;
    all.dCropZoom = 1.6;
    all.dCropAspect = 0.8;
    all.dCropXOffset = 0.2;
    all.dCropYOffset = -0.3;
    return {{"the full field", {}}, {"zoom", zoom},     {"zoom and angle", turned},
            {"crop", crop},         {"aspect", aspect}, {"zoom, angle, crop and aspect", all}};
}

// The full field's image <- the image that was acquired with a scan area, both of the same size and counted from the
// corner of the first pixel. In the field from -1 to 1 of the image: a crop shows a part of its area, around the
// offset; an area shows a part of the field, turned about its middle, which lies at the offset and, in the image, the
// further out the less the full field's zoom is.
SAffine FullFieldFromScanned(const ScanArea& area, double fullFieldZoom, const CQsSizeBase<int>& size)
{
    const SAffine fieldFromImage{2.0 / size.cx, 0.0, -1.0, 0.0, 2.0 / size.cy, -1.0};
    SAffine areaFromCrop;
    if (area.bIsCrop)
        areaFromCrop = {1.0 / area.dCropZoom, 0.0, area.dCropXOffset, 0.0, 1.0 / (area.dCropZoom * area.dCropAspect),
                        area.dCropYOffset};
    const SAffine shrunk{1.0 / area.dZoom, 0.0, 0.0, 0.0, 1.0 / (area.dZoom * area.dScanAreaAspect), 0.0};
    const double c = std::cos(area.dAngle * pi / 180.0);
    const double s = std::sin(area.dAngle * pi / 180.0);
    const SAffine placed{c, -s, area.dXOffset / fullFieldZoom, s, c, area.dYOffset / fullFieldZoom};
    return Product(fieldFromImage.Inverse(), Product(placed, Product(shrunk, Product(areaFromCrop, fieldFromImage))));
}

// A camera's state, and the zoom that a scanner answers for its full field; without one nobody answers.
using Microscope = std::tuple<SQsCameraState, std::optional<double>>;

class ScannedImageMapping : public testing::TestWithParam<Microscope>
{};

std::vector<SQsCameraState> SomeCameraStates()
{
    const CQsRectBase<int> part = {37, 21, 421, 405};
    const CQsRectBase<int> other = {100, 60, 500, 420};
    return {{0.0, false, 1, {}},     {0.0, true, 1, part},   {0.0, false, 4, other},   {90.0, false, 1, {}},
            {90.0, true, 2, {}},     {90.0, false, 2, part}, {180.0, false, 8, {}},    {180.0, true, 1, other},
            {180.0, false, 1, part}, {270.0, true, 1, {}},   {270.0, false, 2, other}, {270.0, true, 4, part}};
}

} // namespace

// Frames: image point, the centre of a pixel -> the whole image, turned and flipped as the camera delivers it, from its
// corner -> the same of the full field -> sensor -> mirrors. The scan area says where the delivered image lies in the
// image that the camera would deliver of the full field.
TEST_P(ScannedImageMapping, LeadsThroughTheFullFieldToTheMirrors)
{
    const auto& [state, fullFieldZoom] = GetParam();
    CCameras cameras;
    IQsGrabberCamera* const camera =
        fullFieldZoom ? cameras.Add(CQsStringW::Format(
                                        L"{\"name\": \"eye\", \"fullFieldZoom\": %g, \"width\": 640, \"height\": 480}",
                                        *fullFieldZoom)
                                        .ToUtf8(),
                                    "CQsSimConfocalCamera")
                      : cameras.Add(R"({"name": "eye", "width": 640, "height": 480})");
    const CQsSizeBase<int> sensor = {640, 480};
    const bool quarterTurn = std::fmod(state.dRotation, 180.0) != 0.0;
    const CQsSizeBase<int> whole = quarterTurn ? CQsSizeBase<int>{480, 640} : sensor;
    ASSERT_EQ(0, camera->SetState(state));
    const SMicromirror mirrors(R"({"camera": "eye"})");
    mirrors.calibrated->GetCalibration().SetCalibrationCamToDMD(mirrorsFromSensor.Matrix());
    SQsGrabberFormatDesc format;
    SQsGrabberFormatValue value;
    ASSERT_EQ(0, camera->GetFormat(format));
    ASSERT_EQ(0, camera->GetFormatValue(value));

    // Of the unbinned image of all of the sensor, from its corner and not from the centre of its first pixel.
    const SQsCameraState unbinned = {state.dRotation, state.bFlipped, 1, {}};
    const SAffine fromCorner{1.0, 0.0, -0.5, 0.0, 1.0, -0.5};
    const SAffine sensorFromWhole = Product(SensorFromImage(unbinned, sensor), fromCorner);
    const SAffine wholeFromImage = Product(sensorFromWhole.Inverse(), SensorFromImage(state, sensor));
    for (const SScannedImage& scanned : ScannedImages())
    {
        const SAffine placed = FullFieldFromScanned(scanned.area, fullFieldZoom.value_or(1.0), whole);
        Matrix matrix = Unwritten();
        ASSERT_EQ(0, mirrors.calibrated->GetImageToChip(format, &scanned.area, value.rcRegion, matrix.data()));
        ExpectSameMapping(Product(mirrorsFromSensor, Product(sensorFromWhole, Product(placed, wholeFromImage))), matrix,
                          scanned.text);
    }
}

INSTANTIATE_TEST_SUITE_P(CamerasAndScanners, ScannedImageMapping,
                         testing::Combine(testing::ValuesIn(SomeCameraStates()),
                                          testing::Values(std::optional<double>(), std::optional<double>(0.8),
                                                          std::optional<double>(0.5))),
                         [](const testing::TestParamInfo<Microscope>& parameters)
                         { return "Number" + std::to_string(parameters.index); });
