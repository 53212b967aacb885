// Camera chip and image, the mapping to the unrotated camera, and confocal scanners.
#include "device/ChipTransformations.h"
#include "host/QsPluginManager.h"
#include "tests/support/HostCalls.h"
#include "tests/support/Interposition.h"
#include "tests/support/ReferenceGeometry.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <stdexcept>

using namespace QsTest;
using Chip = IQsStimulationDevice::SQsTransformationHelper;
using IntRect = CQsRectBase<int>;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

const Matrix3 s_identity{1, 0, 0, 0, 1, 0, 0, 0, 1};
constexpr double s_pi = 3.14159265358979323846;
const wchar_t* const s_event = L"ConfocalV4Event_GetFullFOVSDKZoom";

SQsGrabberFormatDesc Format(const IntRect& sensor, double fx = 1.0, double fy = 1.0)
{
    SQsGrabberFormatDesc format;
    format.fx = fx;
    format.fy = fy;
    format.rcSensor = sensor;
    return format;
}

Matrix3 ChipFrom(const SQsGrabberFormatDesc& format, double angle = 0.0, const Area* area = nullptr,
                 const IntRect* imageRect = nullptr, bool bAsk = false)
{
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, Chip::CalcTransformImgToChip(format, angle, area, imageRect, bAsk, m.data()));
    return m;
}

Matrix3 ImageFrom(const SQsGrabberFormatDesc& format, double angle = 0.0, const Area* area = nullptr,
                  const IntRect* imageRect = nullptr, bool bAsk = false)
{
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, Chip::CalcTransformChipToImg(format, angle, area, imageRect, bAsk, m.data()));
    return m;
}

Matrix3 Product(const Matrix3& a, const Matrix3& b)
{
    Matrix3 product{};
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 3; ++column)
            for (std::size_t i = 0; i < 3; ++i)
                product[3 * row + column] += a[3 * row + i] * b[3 * i + column];
    return product;
}

// A confocal scanner's plug-in: answers the event while it lives.
class CScanner final : public IQsDMApiPluginNotification
{
public:
    explicit CScanner(std::function<void(double&)> answer) : m_answer(std::move(answer))
    {
        DMApi::AppRntm_RegisterConsumer(this);
        DMApi::AppRntm_RegisterEvent(this, s_event);
    }
    explicit CScanner(double zoom) : CScanner([zoom](double& asked) { asked = zoom; }) {}
    ~CScanner() { DMApi::AppRntm_UnregisterConsumer(this); }
    CScanner(const CScanner&) = delete;
    CScanner& operator=(const CScanner&) = delete;

    unsigned AppRntm_HandleEvent(const wchar_t* eventName, void* context) override
    {
        heard.emplace_back(eventName);
        before.push_back(*static_cast<double*>(context));
        m_answer(*static_cast<double*>(context));
        return 0;
    }

    std::vector<std::wstring> heard;
    std::vector<double> before; // the zooms as they were handed over

private:
    std::function<void(double&)> m_answer;
};

// Bounds that a matrix was made with, where nothing but the chip's scale was applied.
CQsPointBase<double> LeftTop(const Matrix3& m, double referenceSize)
{
    return {m[2] * referenceSize - 0.5, m[5] * referenceSize - 0.5};
}

struct SVectorCase
{
    std::string id;
    SQsGrabberFormatDesc format;
    double angle = 0.0;
    std::optional<Area> area;
    std::optional<IntRect> imageRect;
    bool bAsk = false;
    double zoom = 1.0;
    Matrix3 matrix;
    Matrix3 inverse;

    const Area* pArea() const { return area ? &*area : nullptr; }
    const IntRect* pImageRect() const { return imageRect ? &*imageRect : nullptr; }
};

IntRect ToIntRect(const Json& value)
{
    const CQsRectBase<double> r = ToRect(value);
    return {static_cast<int>(r.left), static_cast<int>(r.top), static_cast<int>(r.right), static_cast<int>(r.bottom)};
}

Matrix3 ToMatrix3(const Json& value)
{
    const std::vector<double> numbers = ToNumbers(value);
    Matrix3 m = UnwrittenMatrix3();
    if (numbers.size() != m.size())
        throw std::runtime_error("a reference value is no matrix");
    std::copy(numbers.begin(), numbers.end(), m.begin());
    return m;
}

std::vector<SVectorCase> VectorCases()
{
    std::vector<SVectorCase> cases;
    for (const Json* v : VectorsOf("CalcTransformImgToChip"))
    {
        const Json& input = Member(*v, "input");
        SVectorCase c;
        c.id = Member(*v, "id").GetString();
        c.format =
            Format(ToIntRect(Member(input, "sensor")), ToDouble(Member(input, "fx")), ToDouble(Member(input, "fy")));
        c.angle = ToDouble(Member(input, "angle"));
        if (!Member(input, "scanArea").IsNull())
            c.area = ToArea(Member(input, "scanArea"));
        if (!Member(input, "imageRect").IsNull())
            c.imageRect = ToIntRect(Member(input, "imageRect"));
        c.bAsk = Member(input, "askFullFovZoom").GetBool();
        c.zoom = ToDouble(Member(input, "z"));
        c.matrix = ToMatrix3(Member(Member(*v, "output"), "matrix"));
        c.inverse = ToMatrix3(Member(Member(*v, "output"), "inverse"));
        cases.push_back(std::move(c));
    }
    return cases;
}

// The host inverts as another one might: everything is NaN.
bool s_bHostInvertsToNaN = false;

class ChipTransformations : public testing::Test
{
protected:
    void SetUp() override { CHostCalls::Reset(); }
    void TearDown() override { s_bHostInvertsToNaN = false; }
};

} // namespace

QS_IN_PLACE_OF(Invert, int, CQsMKL_API::InvertMatrix, (double* out, const double* in, int order))
{
    if (!s_bHostInvertsToNaN)
        return QS_REAL(Invert)(out, in, order);
    std::fill_n(out, order * order, std::numeric_limits<double>::quiet_NaN());
    return 0;
}

// ------------------------------------------------------------------------------------- mapping to the unrotated camera

TEST(UnrotatedCamera, AgreesWithTheReferenceValues)
{
    for (const Json* v : VectorsOf("GetMappingToUnrotatedCamera"))
    {
        const Json& input = Member(*v, "input");
        const Matrix3 A = ToMatrix3(Member(input, "A"));
        const Matrix3 B = ToMatrix3(Member(input, "B"));
        const std::vector<double> p = ToNumbers(Member(input, "p"));
        ASSERT_EQ(3u, p.size());
        Matrix3 m = UnwrittenMatrix3();
        EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(A.data(), B.data(), p.data(), m.data()));
        EXPECT_THAT(m, IsReferenceMatrix3(ToMatrix3(Member(*v, "output")))) << Member(*v, "id").GetString();
    }
}

TEST(UnrotatedCamera, IsTheCameraItselfWithoutTurnAndFlip)
{
    for (const auto& centre : {std::pair(0.0, 0.0), std::pair(1024.0, 768.0), std::pair(0.5, 1e6)})
    {
        const double p[] = {centre.first, centre.second, 1.0};
        Matrix3 m = UnwrittenMatrix3();
        EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(s_identity.data(), s_identity.data(), p, m.data()));
        EXPECT_THAT(m, IsNearMatrix3(s_identity, 0.0));
    }
}

TEST(UnrotatedCamera, OfAQuarterTurnTakesTheTurnedCentreToTheCentre)
{
    const Matrix3 turn{0, -1, 0, 1, 0, 0, 0, 0, 1};
    const double p[] = {1024.0, 768.0, 1.0};
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(turn.data(), s_identity.data(), p, m.data()));
    // By hand: the image is 1536 x 2048 about (768, 1024). (768, 1024) goes to (1024, 768), (0, 0) to (2048, 0).
    EXPECT_THAT(m, IsNearMatrix3({0, -1, 2048, 1, 0, 0, 0, 0, 1}, 0.0));
}

TEST(UnrotatedCamera, FlipsAboutTheCentreBeforeItTurns)
{
    const Matrix3 turn{0, -1, 0, 1, 0, 0, 0, 0, 1};
    const Matrix3 flip{1, 0, 0, 0, -1, 0, 0, 0, 1};
    const double p[] = {100.0, 50.0, 1.0};
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(turn.data(), flip.data(), p, m.data()));
    // By hand: the image's centre is (50, 100). (60, 100) is (10, 0) from it, unflipped by the flip of y, and turns to
    // (0, 10): (100, 60). (50, 110) is (0, 10), flips to (0, -10), turns to (10, 0): (110, 50).
    EXPECT_THAT(m, IsNearMatrix3({0, 1, 0, 1, 0, 0, 0, 0, 1}, 0.0));
    EXPECT_EQ(100.0, m[1] * 100.0 + m[2]);
}

TEST(UnrotatedCamera, TakesTheSizeOfTheTurnedCentreAlsoWhereItIsNegative)
{
    const double p[] = {-3.0, 4.0, 1.0};
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(s_identity.data(), s_identity.data(), p, m.data()));
    EXPECT_THAT(m, IsNearMatrix3({1, 0, -6, 0, 1, 0, 0, 0, 1}, 0.0));
}

TEST(UnrotatedCamera, TurnsTheCentreWithTheWholeMatrix)
{
    // The third column counts too, by the third value of the centre.
    const Matrix3 shift{1, 0, 5, 0, 1, 7, 0, 0, 1};
    Matrix3 m = UnwrittenMatrix3();
    const double p[] = {3.0, 4.0, 1.0};
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(shift.data(), s_identity.data(), p, m.data()));
    // By hand: the turned centre is (8, 11); (-8, -11), then (5, 7), then (3, 4) cancel.
    EXPECT_THAT(m, IsNearMatrix3(s_identity, 0.0));
    const double twice[] = {3.0, 4.0, 2.0};
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(shift.data(), s_identity.data(), twice, m.data()));
    EXPECT_THAT(m, IsNearMatrix3({1, 0, -5, 0, 1, -7, 0, 0, 1}, 0.0));
}

TEST(UnrotatedCamera, RoundsTheCentreThroughTheTurnedOne)
{
    // (p - y) + y, in that order: where the turned centre y is so large that p is lost beside it, so is the shift. The
    // flip of zeros leaves nothing else in the third column. Doubles about 1e17 are multiples of 16.
    const Matrix3 stretch{1e17, 0, 0, 0, 5e15, 0, 0, 0, 1};
    const Matrix3 nothing{0, 0, 0, 0, 0, 0, 0, 0, 1};
    const double p[] = {1.0, 20.0, 1.0};
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(stretch.data(), nothing.data(), p, m.data()));
    EXPECT_EQ(0.0, m[2]);  // 1 - 1e17 = -1e17
    EXPECT_EQ(16.0, m[5]); // 20 - 1e17 = -(1e17 - 16)
}

TEST(UnrotatedCamera, MayBeWrittenOverWhatItIsMadeOf)
{
    const Matrix3 turn{0.6, -0.8, 0, 0.8, 0.6, 0, 0, 0, 1};
    const Matrix3 flip{1, 0, 0, 0, -1, 0, 0, 0, 1};
    const double p[] = {100.0, 50.0, 1.0};
    Matrix3 apart = UnwrittenMatrix3();
    ASSERT_EQ(0, Chip::GetMappingToUnrotatedCamera(turn.data(), flip.data(), p, apart.data()));
    Matrix3 m = turn;
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(m.data(), flip.data(), p, m.data()));
    EXPECT_EQ(apart, m);
    m = flip;
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(turn.data(), m.data(), p, m.data()));
    EXPECT_EQ(apart, m);
    m = {100.0, 50.0, 1.0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, Chip::GetMappingToUnrotatedCamera(turn.data(), flip.data(), m.data(), m.data()));
    EXPECT_EQ(apart, m);
}

// ------------------------------------------------------------------------------------------------------- chip <- image

TEST_F(ChipTransformations, AgreeWithTheReferenceValues)
{
    for (const SVectorCase& c : VectorCases())
    {
        const CScanner scanner(c.zoom);
        EXPECT_THAT(ChipFrom(c.format, c.angle, c.pArea(), c.pImageRect(), c.bAsk), IsReferenceMatrix3(c.matrix))
            << c.id;
        EXPECT_THAT(ImageFrom(c.format, c.angle, c.pArea(), c.pImageRect(), c.bAsk), IsReferenceMatrix3(c.inverse))
            << c.id;
    }
}

TEST_F(ChipTransformations, AreEachOthersInverse)
{
    for (const SVectorCase& c : VectorCases())
    {
        const CScanner scanner(c.zoom);
        const Matrix3 chip = ChipFrom(c.format, c.angle, c.pArea(), c.pImageRect(), c.bAsk);
        const Matrix3 image = ImageFrom(c.format, c.angle, c.pArea(), c.pImageRect(), c.bAsk);
        EXPECT_THAT(Product(chip, image), IsNearMatrix3(s_identity, 1e-9)) << c.id;
        EXPECT_THAT(Product(image, chip), IsNearMatrix3(s_identity, 1e-9)) << c.id;
    }
}

TEST_F(ChipTransformations, OfASquareSensorSpanOneFromTheMiddleOfItsFirstPixel)
{
    EXPECT_THAT(ChipFrom(Format({0, 0, 512, 512}, 512.0, 512.0)),
                IsNearMatrix3({1, 0, 0.5 / 512, 0, 1, 0.5 / 512, 0, 0, 1}, 1e-15));
    EXPECT_THAT(ChipFrom(Format({16, 32, 528, 544}, 512.0, 512.0)),
                IsNearMatrix3({1, 0, 16.5 / 512, 0, 1, 32.5 / 512, 0, 0, 1}, 1e-15));
}

TEST_F(ChipTransformations, DivideByTheLongerSideOfTheSensor)
{
    // By hand; a binned image pixel is fx by fy pixels of the sensor.
    EXPECT_THAT(ChipFrom(Format({0, 0, 200, 100}, 2.0, 4.0)),
                IsNearMatrix3({0.01, 0, 0.0025, 0, 0.02, 0.0025, 0, 0, 1}, 1e-15));
    EXPECT_THAT(ChipFrom(Format({0, 0, 100, 200}, 2.0, 4.0)),
                IsNearMatrix3({0.01, 0, 0.0025, 0, 0.02, 0.0025, 0, 0, 1}, 1e-15));
    EXPECT_THAT(ImageFrom(Format({0, 0, 200, 100}, 2.0, 4.0)),
                IsNearMatrix3({100, 0, -0.25, 0, 50, -0.125, 0, 0, 1}, 1e-12));
}

TEST_F(ChipTransformations, StartAtTheImagesPartOfTheSensor)
{
    const IntRect part{30, 40, 60, 50};
    const SQsGrabberFormatDesc format = Format({10, 20, 210, 120});
    // The reference size stays that of the sensor.
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(format, 0.0, nullptr, &part), 200.0)), AreNear({30.0, 40.0}, 1e-12));
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(format), 200.0)), AreNear({10.0, 20.0}, 1e-12));
    EXPECT_EQ(1.0 / 200.0, ChipFrom(format, 0.0, nullptr, &part)[0]);
}

TEST_F(ChipTransformations, TurnAboutTheSensorsCentreInWholePixels)
{
    const SQsGrabberFormatDesc odd = Format({0, 0, 2047, 1535});
    // By hand: the halves are 1023 and 767, so that a half turn takes 2047 to -1 and 1535 to -1.
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(odd, s_pi), 2047.0)), AreNear({-1.0, -1.0}, 1e-9));
    // Also where a part of the sensor is given: 100 goes to 1946, 50 to 1484. About the part's own centre it were 0.
    const IntRect part{0, 0, 100, 50};
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(odd, s_pi, nullptr, &part), 2047.0)), AreNear({1946.0, 1484.0}, 1e-9));
}

TEST_F(ChipTransformations, TurnTheImageIntoTheFrameOfTheTurnedSensor)
{
    // By hand: the turned sensor is 100 wide and 200 high. Its pixel (x, y) lies in the sensor at
    // (100, 50) + turn by +90 of ((x, y) - (50, 100)), so the sensor's (sx, sy) lies in it at (sy, 200 - sx).
    const SQsGrabberFormatDesc format = Format({0, 0, 200, 100});
    const IntRect part{30, 10, 60, 25};
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(format, s_pi / 2.0, nullptr, &part), 200.0)), AreNear({10.0, 140.0}, 1e-9));
    // By -90 degrees at (100 - sy, sx).
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(format, -s_pi / 2.0, nullptr, &part), 200.0)), AreNear({75.0, 30.0}, 1e-9));
}

TEST_F(ChipTransformations, BoundTheImageByThreeOfItsCorners)
{
    // The left bottom corner is not asked. By hand, at -30 degrees: the left top one lies at (768, -1024) in the turned
    // sensor, the left bottom one, furthest left, at (0, 306.2).
    const SQsGrabberFormatDesc format = Format({0, 0, 2048, 1536});
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(format, -s_pi / 6.0), 2048.0)), AreNear({768.0, -1024.0}, 1e-9));

    // Without a centre (a sensor of one pixel has half of it at 0) corners turn about the origin. By hand, at the turn
    // with cosine 0.6 and sine 0.8, (x, y) goes to (0.6 x + 0.8 y, 0.6 y - 0.8 x).
    const double angle = std::acos(0.6);
    const SQsGrabberFormatDesc one = Format({0, 0, 1, 1});
    const struct
    {
        IntRect rect;
        double left;
        double top;
    } cases[] = {
        {{0, 0, 10, 20}, 0, -8},     // (0, 0), (6, -8), (22, 4); left bottom (16, 12)
        {{0, 0, 10, -20}, -10, -20}, // (0, 0), (6, -8), (-10, -20); left bottom (-16, -12) reaches further left
        {{0, 0, -10, 20}, -6, 0},    // (0, 0), (-6, 8), (10, 20); left bottom (16, 12)
        {{0, 0, -10, -20}, -22, -4}, // (0, 0), (-6, 8), (-22, -4); left bottom (-16, -12) reaches further up
    };
    for (const auto& c : cases)
        EXPECT_THAT(Numbers(LeftTop(ChipFrom(one, angle, nullptr, &c.rect), 1.0)), AreNear({c.left, c.top}, 1e-9));
}

TEST_F(ChipTransformations, RoundTheBoundsToTheNearestPixelAlsoBelowZero)
{
    const double angle = std::acos(0.6);
    const SQsGrabberFormatDesc one = Format({0, 0, 1, 1});
    const struct
    {
        int x;
        int y;
        double left;
        double top;
    } cases[] = {
        {1, -3, -2, -3}, // (-1.8, -2.6)
        {3, 1, 3, -2},   // (2.6, -1.8)
        {-2, 1, 0, 2},   // (-0.4, 2.2)
        {1, 1, 1, 0},    // (1.4, -0.2)
        {-1, -1, -1, 0}, // (-1.4, 0.2)
        {0, 0, 0, 0},
    };
    for (const auto& c : cases)
    {
        const IntRect point{c.x, c.y, c.x, c.y};
        EXPECT_THAT(Numbers(LeftTop(ChipFrom(one, angle, nullptr, &point), 1.0)), AreNear({c.left, c.top}, 1e-12))
            << c.x << ", " << c.y;
    }
}

TEST_F(ChipTransformations, KeepBoundsWithinWholeNumbers)
{
    // Turned by 45 degrees the corners lie up to 3e9 pixels away.
    const int low = std::numeric_limits<int>::min();
    const int high = std::numeric_limits<int>::max();
    const IntRect all{low, low, high, high};
    const SQsGrabberFormatDesc one = Format({0, 0, 1, 1});
    // By hand: (low, low) goes to (1.4 low, 0) at +45 degrees, and to (0, 1.4 low) at -45.
    EXPECT_EQ(static_cast<double>(low), LeftTop(ChipFrom(one, s_pi / 4.0, nullptr, &all), 1.0).x);
    EXPECT_EQ(static_cast<double>(low), LeftTop(ChipFrom(one, -s_pi / 4.0, nullptr, &all), 1.0).y);
    // All three corners beyond the other end.
    const IntRect farAway{high, high, high, high};
    EXPECT_EQ(static_cast<double>(high), LeftTop(ChipFrom(one, s_pi / 4.0, nullptr, &farAway), 1.0).x);
}

TEST_F(ChipTransformations, TakeABoundThatIsNoNumberForZero)
{
    s_bHostInvertsToNaN = true;
    EXPECT_THAT(Numbers(LeftTop(ChipFrom(Format({10, 20, 210, 120})), 200.0)), AreNear({0.0, 0.0}, 1e-12));
}

TEST_F(ChipTransformations, OfAnglesThatAreNoNumbersAreWrittenWithoutATrap)
{
    const Area A = AreaA1();
    for (const double angle :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(), 1e300})
        for (const bool bAsk : {false, true})
        {
            for (const double element : ChipFrom(Format({0, 0, 200, 100}), angle, &A, nullptr, bAsk))
                EXPECT_NE(s_unwritten, element);
            for (const double element : ImageFrom(Format({0, 0, 200, 100}), angle, &A, nullptr, bAsk))
                EXPECT_NE(s_unwritten, element);
        }
}

TEST_F(ChipTransformations, OfAnEmptySensorOrNoScaleAreNotFiniteAndNoError)
{
    EXPECT_FALSE(std::isfinite(ChipFrom(Format({0, 0, 0, 0}))[2]));
    EXPECT_FALSE(std::isfinite(ChipFrom(Format({0, 0, 200, 100}, 0.0, 1.0))[2]));
    EXPECT_FALSE(std::isfinite(ChipFrom(Format({0, 0, 200, 100}, 1.0, 0.0))[5]));
    for (const SQsGrabberFormatDesc& format :
         {Format({0, 0, 0, 0}), Format({0, 0, 200, 100}, 0.0, 0.0), Format({0, 0, 200, 100}, std::nan(""), 1.0)})
        for (const double element : ImageFrom(format))
            EXPECT_NE(s_unwritten, element);
}

// -------------------------------------------------------------------------------------------- zoom of the full field

TEST_F(ChipTransformations, AskTheScannerOnceForTheZoomOfItsFullField)
{
    const Area A;
    CScanner scanner(0.8);
    for (const auto calculate : {&Chip::CalcTransformImgToChip, &Chip::CalcTransformChipToImg})
    {
        CHostCalls::Reset();
        scanner.heard.clear();
        scanner.before.clear();
        Matrix3 m = UnwrittenMatrix3();
        EXPECT_EQ(0, calculate(Format({0, 0, 200, 100}), 0.0, &A, nullptr, true, m.data()));
        EXPECT_THAT(scanner.heard, ElementsAre(s_event));
        EXPECT_THAT(scanner.before, ElementsAre(1.0)); // what stays when nobody answers
        const std::vector<SBroadcast> broadcasts = CHostCalls::Broadcasts();
        ASSERT_EQ(1u, broadcasts.size());
        EXPECT_EQ(s_event, broadcasts[0].name);
        EXPECT_EQ(0, broadcasts[0].argument1);
        EXPECT_EQ(0, broadcasts[0].argument2);
    }
}

TEST_F(ChipTransformations, DoNotAskWhenTheyNeedNotOrHaveNowhereToWriteTo)
{
    const Area A;
    CScanner scanner(0.8);
    const SQsGrabberFormatDesc format = Format({0, 0, 200, 100});
    EXPECT_EQ(0, Chip::CalcTransformImgToChip(format, 0.0, &A, nullptr, true, nullptr));
    EXPECT_EQ(0, Chip::CalcTransformChipToImg(format, 0.0, &A, nullptr, true, nullptr));
    EXPECT_EQ(0, Chip::CalcTransformImgToChip(format, 0.0, nullptr, nullptr, false, nullptr));
    ChipFrom(format, 0.0, &A);
    ImageFrom(format, 0.0, &A);
    EXPECT_THAT(scanner.heard, IsEmpty());
    EXPECT_THAT(CHostCalls::Broadcasts(), IsEmpty());
    // Without an area the zoom has no use, and is still asked for.
    ChipFrom(format, 0.0, nullptr, nullptr, true);
    EXPECT_THAT(scanner.heard, ElementsAre(s_event));
}

TEST_F(ChipTransformations, TakeTheZoomThatTheScannerAnswers)
{
    Area A;
    A.dXOffset = 0.2;
    const SQsGrabberFormatDesc format = Format({0, 0, 100, 100}, 100.0, 100.0);
    // By hand: at the zoom z the area's centre lies 0.1 / z of the field to the right.
    EXPECT_THAT(ChipFrom(format, 0.0, &A, nullptr, true),
                IsNearMatrix3({1, 0, 0.005 + 0.1, 0, 1, 0.005, 0, 0, 1}, 1e-12)); // nobody answers: 1
    const CScanner scanner(0.8);
    EXPECT_THAT(ChipFrom(format, 0.0, &A, nullptr, true),
                IsNearMatrix3({1, 0, 0.005 + 0.125, 0, 1, 0.005, 0, 0, 1}, 1e-12));
    EXPECT_THAT(ImageFrom(format, 0.0, &A, nullptr, true), IsNearMatrix3({1, 0, -0.13, 0, 1, -0.005, 0, 0, 1}, 1e-12));
}

TEST_F(ChipTransformations, GoOnWithAScannerThatFails)
{
    Area A;
    A.dXOffset = 0.2;
    const SQsGrabberFormatDesc format = Format({0, 0, 100, 100}, 100.0, 100.0);
    const Matrix3 unanswered = ChipFrom(format, 0.0, &A, nullptr, true);
    CScanner failing([](double&) { throw std::runtime_error("no scanner"); });
    EXPECT_THAT(ChipFrom(format, 0.0, &A, nullptr, true), IsNearMatrix3(unanswered, 0.0));
    EXPECT_EQ(1u, failing.heard.size());
    // One that answers is heard beside it.
    const CScanner answering(0.8);
    EXPECT_THAT(ChipFrom(format, 0.0, &A, nullptr, true), Not(IsNearMatrix3(unanswered, 1e-6)));
}

TEST_F(ChipTransformations, OfAScannerThatAnswersNonsenseAreWrittenWithoutATrap)
{
    const Area A = AreaA1();
    for (const double zoom : {0.0, std::nan(""), std::numeric_limits<double>::infinity(), -1.0, 5e-324})
    {
        const CScanner scanner(zoom);
        for (const double element : ChipFrom(Format({0, 0, 200, 100}), 0.3, &A, nullptr, true))
            EXPECT_NE(s_unwritten, element);
        for (const double element : ImageFrom(Format({0, 0, 200, 100}), 0.3, &A, nullptr, true))
            EXPECT_NE(s_unwritten, element);
    }
}

TEST_F(ChipTransformations, LookAtTheScanAreaOnlyWhenTheyAskForTheFullField)
{
    const Area A = AreaA1();
    const IntRect part{30, 40, 60, 50};
    const SQsGrabberFormatDesc format = Format({0, 0, 200, 100}, 1.5, 2.25);
    const CScanner scanner(0.8);
    EXPECT_THAT(ChipFrom(format, 0.3, &A, &part), IsNearMatrix3(ChipFrom(format, 0.3, nullptr, &part), 0.0));
    EXPECT_THAT(ChipFrom(format, 0.3, &A, &part, true),
                Not(IsNearMatrix3(ChipFrom(format, 0.3, nullptr, &part, true), 1e-6)));
}

TEST_F(ChipTransformations, OfTheFullFieldDivideByTheShorterSideOfTheSensor)
{
    EXPECT_EQ(1.0 / 200.0, ChipFrom(Format({0, 0, 200, 100}))[0]);
    EXPECT_EQ(1.0 / 100.0, ChipFrom(Format({0, 0, 200, 100}), 0.0, nullptr, nullptr, true)[0]);
    EXPECT_EQ(1.0 / 100.0, ChipFrom(Format({0, 0, 100, 200}), 0.0, nullptr, nullptr, true)[0]);
}

TEST_F(ChipTransformations, OfAWideAreaDivideByTheHeightThatItsAspectGives)
{
    Area A;
    A.dScanAreaAspect = 1.6;
    // By hand: 200 x 100 becomes 200 x 160. The area's transform moves up by (1 - 0.625) / 2 and is undone.
    EXPECT_THAT(ChipFrom(Format({0, 0, 200, 100}), 0.0, &A, nullptr, true),
                IsNearMatrix3({1 / 160.0, 0, 0.5 / 160, 0, 1 / 160.0, 0.5 / 160 + 0.1875, 0, 0, 1}, 1e-12));
}

TEST_F(ChipTransformations, OfANarrowAreaDivideByTheWidthThatItsAspectGives)
{
    Area A;
    A.dScanAreaAspect = 0.5;
    // By hand: 200 x 150 becomes 100 x 150. The area, 1 x 2 about (0.5, 0.5), was made half as large and moved by
    // 0.25 down: (x, y) to (0.5 x, 0.5 y + 0.25).
    EXPECT_THAT(ChipFrom(Format({0, 0, 200, 150}), 0.0, &A, nullptr, true),
                IsNearMatrix3({0.02, 0, 0.01, 0, 0.02, 0.01 - 0.5, 0, 0, 1}, 1e-12));
}

TEST_F(ChipTransformations, OfACropDivideByTheSizeOfTheUncroppedImage)
{
    Area A;
    A.bIsCrop = true;
    A.dCropZoom = 2.0;
    // By hand: the sensor of 100 x 80 stands for 200 x 160; the transform of a centred crop moves by (-0.25, -0.25).
    EXPECT_THAT(ChipFrom(Format({0, 0, 100, 80}), 0.0, &A, nullptr, true),
                IsNearMatrix3({1 / 160.0, 0, 0.5 / 160 + 0.25, 0, 1 / 160.0, 0.5 / 160 + 0.25, 0, 0, 1}, 1e-12));
    // A lower crop stands for a higher image: 100 x 80 for 200 x 320, the crop's corner at (0.25, 0.375).
    A.dCropAspect = 2.0;
    EXPECT_THAT(ChipFrom(Format({0, 0, 100, 80}), 0.0, &A, nullptr, true),
                IsNearMatrix3({1 / 200.0, 0, 0.5 / 200 + 0.25, 0, 1 / 200.0, 0.5 / 200 + 0.375, 0, 0, 1}, 1e-12));
}

// -------------------------------------------------------------------------------------------------- confocal scanners

namespace {

struct SProvider final : IQsGenericProvider
{
    explicit SProvider(std::uint8_t cameraFlags = 0, std::size_t length = 0) : flags(cameraFlags), text(length, L'x') {}

    CQsStringW GetCameraName() override { return (L"n" + text).c_str(); }
    CQsStringW GetCameraDescription() override { return (L"d" + text).c_str(); }
    CQsStringW GetSerialNumber() override { return (L"s" + text).c_str(); }
    CQsStringW GetFirmware() override { return (L"f" + text).c_str(); }
    std::uint8_t GetCameraFlags() override { return flags; }

    std::uint8_t flags;
    std::wstring text;
};

bool IsConfocal(std::initializer_list<IQsGenericProvider*> providers)
{
    CQsGenericProviderGrabber grabber;
    for (IQsGenericProvider* const provider : providers)
        grabber.AddProvider(provider);
    return Chip::IsConfocal(&grabber);
}

} // namespace

TEST(Confocal, IsNoGrabberAndNoneWithoutProviders)
{
    EXPECT_FALSE(Chip::IsConfocal(nullptr));
    EXPECT_FALSE(IsConfocal({}));
    EXPECT_FALSE(IsConfocal({nullptr}));
}

TEST(Confocal, IsAGrabberWithAConfocalProviderAtAnyPlace)
{
    SProvider plain;
    SProvider confocal(0x40);
    EXPECT_FALSE(IsConfocal({&plain}));
    EXPECT_TRUE(IsConfocal({&confocal}));
    EXPECT_TRUE(IsConfocal({nullptr, &plain, &confocal}));
    EXPECT_TRUE(IsConfocal({&confocal, &plain}));
    EXPECT_FALSE(IsConfocal({&plain, nullptr, &plain}));
}

TEST(Confocal, IsToldByOneBitOfTheFlags)
{
    SProvider all(0xFF);
    SProvider allOthers(0xBF);
    EXPECT_TRUE(IsConfocal({&all}));
    EXPECT_FALSE(IsConfocal({&allOthers}));
}

TEST(Confocal, IsToldByTheGrabbersOwnCount)
{
    // A grabber that counts more providers than it has, and one that counts fewer.
    struct SGrabber final : CQsGenericProviderGrabber
    {
        explicit SGrabber(unsigned reported) : count(reported) {}
        unsigned SecGrabber_GetCount() const override { return count; }
        unsigned count;
    };
    SProvider confocal(0x40);
    SGrabber more(5);
    EXPECT_FALSE(Chip::IsConfocal(&more));
    more.AddProvider(&confocal);
    EXPECT_TRUE(Chip::IsConfocal(&more));
    SGrabber fewer(0);
    fewer.AddProvider(&confocal);
    EXPECT_FALSE(Chip::IsConfocal(&fewer));
}

TEST(Confocal, IsToldWhateverTheLengthOfTheTexts)
{
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{62}, std::size_t{63}, std::size_t{127}, std::size_t{128}, std::size_t{100000}})
    {
        SProvider plain(0xBF, length);
        SProvider confocal(0x40, length);
        EXPECT_FALSE(IsConfocal({&plain})) << length;
        EXPECT_TRUE(IsConfocal({&plain, &confocal})) << length;
    }
}

TEST(Confocal, IsNoProviderThatFails)
{
    struct SFailing final : IQsGenericProvider
    {
        CQsStringW GetCameraName() override { throw std::runtime_error("no camera"); }
        CQsStringW GetCameraDescription() override { return {}; }
        CQsStringW GetSerialNumber() override { return {}; }
        CQsStringW GetFirmware() override { return {}; }
        std::uint8_t GetCameraFlags() override { return 0x40; }
    };
    SFailing failing;
    SProvider confocal(0x40);
    EXPECT_FALSE(IsConfocal({&failing}));
    EXPECT_TRUE(IsConfocal({&failing, &confocal}));
}
