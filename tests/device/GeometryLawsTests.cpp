// Laws of the geometry over random cases: more than a million in all, the same in every run.
//
// A law that compares with the second evaluation asks for agreement to s_exact of the size of what is added up; one
// that compares two results of the code under test takes its scale from that evaluation.
#include "device/ChipTransformations.h"
#include "host/QsPluginManager.h"
#include "tests/support/ReferenceGeometry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

using namespace QsTest;
using Chip = IQsStimulationDevice::SQsTransformationHelper;
using Point = CQsPointBase<double>;
using Rect = CQsRectBase<double>;
using Size = CQsSizeBase<int>;

namespace {

constexpr double s_exact = 1e-12;
constexpr AreaMode s_aspect = AreaHelper::eScanAreaModeInternal;

// A random case of the point and rectangle conversions.
struct SCase
{
    explicit SCase(CRandom& random)
        : A(random.ScanArea()), C(random.ScanArea()), size(random.Size()), zoom0(random.Ratio(0.3, 3.0)),
          mode(random.Mode()), point(random.Point(2.0)), pixel(random.Point(4096.0)), rect(random.Rect()),
          angle(random.Uniform(-7.0, 7.0))
    {}

    Area A;
    Area C;
    Size size;
    double zoom0;
    AreaMode mode;
    Point point; // of an area
    Point pixel; // of an image
    Rect rect;   // of an image
    double angle;
};

std::ostream& operator<<(std::ostream& stream, const SCase& c)
{
    stream.precision(17);
    return stream << "A " << Describe(c.A) << " C " << Describe(c.C) << " size " << c.size.cx << " x " << c.size.cy
                  << " zoom0 " << c.zoom0 << " mode " << static_cast<int>(c.mode) << " point " << c.point.x << " "
                  << c.point.y << " pixel " << c.pixel.x << " " << c.pixel.y << " rect " << c.rect.left << " "
                  << c.rect.top << " " << c.rect.right << " " << c.rect.bottom << " angle " << c.angle;
}

// The law holds for `count` cases; ends at the first one that it does not hold for.
template <class Law>
void ForAll(int count, std::uint64_t seed, Law law)
{
    CRandom random(seed);
    for (int i = 0; i < count; ++i)
    {
        const SCase c(random);
        ASSERT_TRUE(law(c)) << "case " << i << ": " << c;
    }
}

Point ImageOf(const Point& area, const Area& C, const SCase& c)
{
    Point image{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::ConvertPointAreaToPointImg(area, image, &C, c.size, c.zoom0));
    return image;
}

bool IsNear(const STrackedPoint& scale, const Point& expected, const Point& got)
{
    return std::fabs(expected.x - got.x) <= s_exact * scale.x.Scale() &&
           std::fabs(expected.y - got.y) <= s_exact * scale.y.Scale();
}

bool IsNear(double scale, double expected, double got)
{
    return std::fabs(expected - got) <= s_exact * scale;
}

} // namespace

// ------------------------------------------------------------------------------------------------------------- points

TEST(PointLaws, PointsAgreeWithTheSecondEvaluation)
{
    ForAll(150000, 1,
           [](const SCase& c)
           {
               const SPlane imageFromArea = ImageFromArea(c.C, c.size, c.zoom0);
               Point image{s_unwritten, s_unwritten};
               Point area{s_unwritten, s_unwritten};
               return AreaHelper::ConvertPointAreaToPointImg(c.point, image, &c.C, c.size, c.zoom0) == 0 &&
                      imageFromArea.Agrees(c.point, image, s_exact) &&
                      AreaHelper::ConvertPointImgToPointArea(area, c.pixel, &c.C, c.size, c.zoom0) == 0 &&
                      imageFromArea.Inverse().Agrees(c.pixel, area, s_exact);
           });
}

TEST(PointLaws, FcsPointsAgreeWithTheSecondEvaluation)
{
    ForAll(150000, 2,
           [](const SCase& c)
           {
               const SPlane areaFromFcs = AreaFromFcs(c.A, c.zoom0);
               const SPlane imageFromFcs = ImageFromArea(c.C, c.size, c.zoom0) * areaFromFcs;
               Point image{s_unwritten, s_unwritten};
               Point fcs{s_unwritten, s_unwritten};
               Point absolute{s_unwritten, s_unwritten};
               return AreaHelper::ConvertFCSPointAreaToPointImg(c.point, image, &c.C, c.size, &c.A, c.zoom0) == 0 &&
                      imageFromFcs.Agrees(c.point, image, s_exact) &&
                      AreaHelper::ConvertPointImgToFCSPointArea(fcs, c.pixel, &c.C, c.size, &c.A, c.zoom0) == 0 &&
                      imageFromFcs.Inverse().Agrees(c.pixel, fcs, s_exact) &&
                      AreaHelper::ConvertFCSPointAreaToAbsoluteArea(c.point, absolute, &c.A, c.zoom0) == 0 &&
                      // The detour over an image of the full field adds its half to what is rounded.
                      (SPlane::Shift(-1.0, -1.0) * SPlane::Shift(1.0, 1.0) * areaFromFcs)
                          .Agrees(c.point, absolute, s_exact);
           });
}

TEST(PointLaws, PointsComeBackFromTheImage)
{
    ForAll(100000, 3,
           [](const SCase& c)
           {
               const SPlane imageFromArea = ImageFromArea(c.C, c.size, c.zoom0);
               const SPlane imageFromFcs = imageFromArea * AreaFromFcs(c.A, c.zoom0);
               Point image{s_unwritten, s_unwritten};
               Point area{s_unwritten, s_unwritten};
               AreaHelper::ConvertPointAreaToPointImg(c.point, image, &c.C, c.size, c.zoom0);
               AreaHelper::ConvertPointImgToPointArea(area, image, &c.C, c.size, c.zoom0);
               Point fcs{s_unwritten, s_unwritten};
               AreaHelper::ConvertFCSPointAreaToPointImg(c.point, image, &c.C, c.size, &c.A, c.zoom0);
               AreaHelper::ConvertPointImgToFCSPointArea(fcs, image, &c.C, c.size, &c.A, c.zoom0);
               const STrackedPoint start{c.point.x, c.point.y};
               return IsNear(imageFromArea.Inverse()(imageFromArea(start)), c.point, area) &&
                      IsNear(imageFromFcs.Inverse()(imageFromFcs(start)), c.point, fcs);
           });
}

TEST(PointLaws, AnFcsPointLiesInTheImageWhereItsAreaPointLies)
{
    ForAll(100000, 4,
           [](const SCase& c)
           {
               Point absolute{s_unwritten, s_unwritten};
               Point direct{s_unwritten, s_unwritten};
               AreaHelper::ConvertFCSPointAreaToAbsoluteArea(c.point, absolute, &c.A, c.zoom0);
               AreaHelper::ConvertFCSPointAreaToPointImg(c.point, direct, &c.C, c.size, &c.A, c.zoom0);
               const SPlane detour = ImageFromArea(c.C, c.size, c.zoom0) * SPlane::Shift(-1.0, -1.0) *
                                     SPlane::Shift(1.0, 1.0) * AreaFromFcs(c.A, c.zoom0);
               return IsNear(detour({c.point.x, c.point.y}), direct, ImageOf(absolute, c.C, c));
           });
}

TEST(PointLaws, TurningAndShiftingFieldAndAreaTogetherLeavesTheImage)
{
    ForAll(100000, 5,
           [](const SCase& c)
           {
               Area moved = c.C;
               Point centre{c.C.dXOffset, c.C.dYOffset};
               Point point = c.point;
               centre.Rotate(0.0, 0.0, c.angle);
               point.Rotate(0.0, 0.0, c.angle);
               moved.dXOffset = centre.x + c.A.dXOffset;
               moved.dYOffset = centre.y + c.A.dYOffset;
               moved.dAngle += c.angle * 180.0 / 3.1415926535898;
               point.x += c.A.dXOffset;
               point.y += c.A.dYOffset;
               const SPlane imageFromArea = ImageFromArea(moved, c.size, c.zoom0);
               const STrackedPoint scale = imageFromArea({point.x, point.y});
               return IsNear(scale, ImageOf(c.point, c.C, c), ImageOf(point, moved, c));
           });
}

// --------------------------------------------------------------------------------------------------------- rectangles

TEST(RectangleLaws, RectanglesAgreeWithTheSecondEvaluation)
{
    ForAll(120000, 11,
           [](const SCase& c)
           {
               Rect rect{s_unwritten, s_unwritten, s_unwritten, s_unwritten};
               Rect crop = rect;
               double angle = s_unwritten;
               double cropAngle = s_unwritten;
               const CTracked turn = Radians(CTracked(c.A.dAngle) - CTracked(c.C.dAngle));
               return AreaHelper::ConvertScanAreaToRect(&c.A, rect, angle, &c.C, c.size, c.zoom0, c.mode) == 0 &&
                      RectOfArea(c.A, c.C, c.size, c.zoom0, c.mode).Agrees(rect, s_exact) &&
                      turn.Agrees(angle, s_exact) &&
                      AreaHelper::ConvertCropAreaToRect(&c.A, crop, cropAngle, &c.C, c.size, c.zoom0, c.mode) == 0 &&
                      RectOfCrop(c.A, c.C, c.size, c.zoom0, c.mode).Agrees(crop, s_exact) &&
                      turn.Agrees(cropAngle, s_exact);
           });
}

TEST(RectangleLaws, AreasOfRectanglesAgreeWithTheSecondEvaluation)
{
    ForAll(80000, 12,
           [](const SCase& c)
           {
               Area A = c.A;
               if (AreaHelper::ConvertRectToScanArea(&A, c.rect, c.angle, &c.C, c.size, c.zoom0, c.mode) != 0)
                   return false;
               const CTracked width = CTracked(c.rect.right) - CTracked(c.rect.left);
               const CTracked height = CTracked(c.rect.bottom) - CTracked(c.rect.top);
               const CTracked fullW = CTracked(c.size.cx) * CTracked(c.C.bIsCrop ? c.C.dCropZoom : 1.0);
               const STrackedPoint centre{(CTracked(c.rect.left) + CTracked(c.rect.right)) / CTracked(2.0),
                                          (CTracked(c.rect.top) + CTracked(c.rect.bottom)) / CTracked(2.0)};
               const STrackedPoint offset = ImageFromArea(c.C, c.size, c.zoom0).Inverse()(centre);
               Area rest = A; // nothing but the five numbers was written
               rest.dZoom = c.A.dZoom;
               rest.dAngle = c.A.dAngle;
               rest.dXOffset = c.A.dXOffset;
               rest.dYOffset = c.A.dYOffset;
               rest.dScanAreaAspect = c.A.dScanAreaAspect;
               return (fullW * CTracked(c.C.dZoom) / width).Agrees(A.dZoom, s_exact) &&
                      (CTracked(c.angle) * CTracked(180.0) / CTracked(3.1415926535898) + CTracked(c.C.dAngle))
                          .Agrees(A.dAngle, s_exact) &&
                      offset.x.Agrees(A.dXOffset, s_exact) && offset.y.Agrees(A.dYOffset, s_exact) &&
                      (IsSquareMode(c.mode) ? CTracked(1.0) : width / height).Agrees(A.dScanAreaAspect, s_exact) &&
                      Numbers(rest) == Numbers(c.A);
           });
}

TEST(RectangleLaws, CropsOfRectanglesAgreeWithTheSecondEvaluationWhateverAngleIsTold)
{
    ForAll(80000, 13,
           [](const SCase& c)
           {
               Area A = c.A;
               Area other = c.A;
               AreaHelper::ConvertRectToCropArea(&other, c.rect, 0.0, &c.C, c.size, c.zoom0, c.mode);
               if (AreaHelper::ConvertRectToCropArea(&A, c.rect, c.angle, &c.C, c.size, c.zoom0, c.mode) != 0 ||
                   Numbers(A) != Numbers(other))
                   return false;
               const STrackedRect whole = RectOfArea(c.A, c.C, c.size, c.zoom0, c.mode);
               const CTracked width = CTracked(c.rect.right) - CTracked(c.rect.left);
               const CTracked height = CTracked(c.rect.bottom) - CTracked(c.rect.top);
               const STrackedPoint centre{(CTracked(c.rect.left) + CTracked(c.rect.right)) / CTracked(2.0),
                                          (CTracked(c.rect.top) + CTracked(c.rect.bottom)) / CTracked(2.0)};
               // Sides of the whole area are differences of its edges.
               const CTracked wholeWidth = (whole.centre.x + whole.width) - whole.centre.x;
               const CTracked wholeHeight = (whole.centre.y + whole.height) - whole.centre.y;
               const SPlane imageFromOffset = SPlane::Shift(whole.centre.x, whole.centre.y) *
                                              SPlane::Turn(Radians(CTracked(c.A.dAngle) - CTracked(c.C.dAngle))) *
                                              SPlane::Scale(wholeWidth / CTracked(2.0), wholeHeight / CTracked(2.0));
               const STrackedPoint offset = imageFromOffset.Inverse()(centre);
               Area rest = A; // nothing but the crop was written
               rest.bIsCrop = c.A.bIsCrop;
               rest.dCropZoom = c.A.dCropZoom;
               rest.dCropAspect = c.A.dCropAspect;
               rest.dCropXOffset = c.A.dCropXOffset;
               rest.dCropYOffset = c.A.dCropYOffset;
               return A.bIsCrop && (wholeWidth / width).Agrees(A.dCropZoom, s_exact) &&
                      (width / height).Agrees(A.dCropAspect, s_exact) && offset.x.Agrees(A.dCropXOffset, s_exact) &&
                      offset.y.Agrees(A.dCropYOffset, s_exact) && Numbers(rest) == Numbers(c.A);
           });
}

TEST(RectangleLaws, RectanglesComeBackFromTheirAreas)
{
    ForAll(
        80000, 14,
        [](const SCase& c)
        {
            Area A;
            Rect back{s_unwritten, s_unwritten, s_unwritten, s_unwritten};
            double angle = s_unwritten;
            AreaHelper::ConvertRectToScanArea(&A, c.rect, c.angle, &c.C, c.size, c.zoom0, s_aspect);
            AreaHelper::ConvertScanAreaToRect(&A, back, angle, &c.C, c.size, c.zoom0, s_aspect);
            const SPlane imageFromArea = ImageFromArea(c.C, c.size, c.zoom0);
            const STrackedPoint scale = imageFromArea(imageFromArea.Inverse()({c.rect.Center().x, c.rect.Center().y}));
            const double x = scale.x.Scale() + std::fabs(c.rect.left) + c.rect.Width();
            const double y = scale.y.Scale() + std::fabs(c.rect.top) + c.rect.Height();
            // The sides are differences of edges: their rounding is that of the edges, and the height passes through
            // the aspect.
            const double h = y + (std::fabs(c.rect.left) + std::fabs(c.rect.right)) * c.rect.Height() / c.rect.Width();
            return IsNear(x, c.rect.left, back.left) && IsNear(x, c.rect.right, back.right) &&
                   IsNear(h, c.rect.top, back.top) && IsNear(h, c.rect.bottom, back.bottom) &&
                   IsNear(10.0 + std::fabs(c.C.dAngle), c.angle, angle);
        });
}

TEST(RectangleLaws, RectanglesComeBackFromTheirCrops)
{
    ForAll(80000, 15,
           [](const SCase& c)
           {
               Area A = c.A;
               Rect back{s_unwritten, s_unwritten, s_unwritten, s_unwritten};
               double angle = s_unwritten;
               AreaHelper::ConvertRectToCropArea(&A, c.rect, c.angle, &c.C, c.size, c.zoom0, c.mode);
               AreaHelper::ConvertCropAreaToRect(&A, back, angle, &c.C, c.size, c.zoom0, c.mode);
               const STrackedRect whole = RectOfArea(c.A, c.C, c.size, c.zoom0, c.mode);
               const double scale = whole.centre.x.Scale() + whole.centre.y.Scale() + whole.width.Scale() +
                                    whole.height.Scale() + std::fabs(c.rect.left) + std::fabs(c.rect.top) +
                                    c.rect.Width() + c.rect.Height();
               // Rounding of the whole area's sides counts in parts of them, and so does that of the rectangle's.
               const double sides = scale * (1.0 + scale / whole.width.ToDouble() + scale / whole.height.ToDouble()) *
                                    (1.0 + c.rect.Height() / c.rect.Width());
               return IsNear(sides, c.rect.left, back.left) && IsNear(sides, c.rect.top, back.top) &&
                      IsNear(sides, c.rect.right, back.right) && IsNear(sides, c.rect.bottom, back.bottom);
           });
}

TEST(RectangleLaws, ARectanglesCentreIsWhereItsAreasCentreIsInTheImageInEveryMode)
{
    ForAll(60000, 16,
           [](const SCase& c)
           {
               Rect rect{s_unwritten, s_unwritten, s_unwritten, s_unwritten};
               double angle = s_unwritten;
               AreaHelper::ConvertScanAreaToRect(&c.A, rect, angle, &c.C, c.size, c.zoom0, c.mode);
               const Point centre = ImageOf({c.A.dXOffset, c.A.dYOffset}, c.C, c);
               const STrackedRect expected = RectOfArea(c.A, c.C, c.size, c.zoom0, c.mode);
               return IsNear(expected.centre.x.Scale() + expected.width.Scale(), centre.x, rect.Center().x) &&
                      IsNear(expected.centre.y.Scale() + expected.height.Scale(), centre.y, rect.Center().y);
           });
}

TEST(RectangleLaws, TheCropFactorComparesTheSidesAtAnyReferenceZoom)
{
    ForAll(60000, 17,
           [](const SCase& c)
           {
               CQsSizeBase<double> factor{s_unwritten, s_unwritten};
               if (AreaHelper::CalcCropFactor(&c.A, factor, c.zoom0) != 0)
                   return false;
               if (!c.A.bIsCrop)
                   return factor.cx == 1.0 && factor.cy == 1.0;
               // Sides are differences of edges about a centre.
               const STrackedRect whole = RectOfArea(c.A, Area(), {1, 1}, c.zoom0, s_aspect);
               const STrackedRect crop = RectOfCrop(c.A, Area(), {1, 1}, c.zoom0, s_aspect);
               const CTracked x =
                   ((whole.centre.x + whole.width) - whole.centre.x) / ((crop.centre.x + crop.width) - crop.centre.x);
               const CTracked y =
                   ((whole.centre.y + whole.height) - whole.centre.y) / ((crop.centre.y + crop.height) - crop.centre.y);
               return x.Agrees(factor.cx, s_exact) && y.Agrees(factor.cy, s_exact) &&
                      IsNear(x.Scale(), c.A.dCropZoom, factor.cx) &&
                      IsNear(y.Scale(), c.A.dCropZoom * c.A.dCropAspect / c.A.dScanAreaAspect, factor.cy);
           });
}

// ----------------------------------------------------------------------------------------------------------- matrices

TEST(AreaTransformLaws, TheMatrixAgreesWithTheSecondEvaluation)
{
    int undecided = 0;
    ForAll(120000, 21,
           [&undecided](const SCase& c)
           {
               Area A = c.A;
               Size size = c.size;
               // Every fourth area is next to the full field, where parts of the matrix are left out.
               if (c.size.cx % 4 == 0)
               {
                   size.cy = size.cx;
                   A.dAngle *= 1e-7;
                   A.dZoom = 1.0 + 1e-8 * (A.dZoom - 10.0) * (A.dZoom - 10.0);
                   A.dScanAreaAspect = 1.0;
                   A.dXOffset *= 1e-9;
                   A.dYOffset *= 1e-9;
                   A.bIsCrop = false;
               }
               const std::optional<SPlane> expected = AreaTransform(A, size, c.zoom0);
               Matrix3 m = UnwrittenMatrix3();
               const int status = AreaHelper::CalcTransformMatrixToArea(&A, size, m.data(), c.zoom0);
               undecided += expected ? 0 : 1;
               return status == 0 && (!expected || expected->Agrees(m, s_exact));
           });
    EXPECT_LT(undecided, 1000) << "cases that doubles cannot decide";
}

TEST(UnrotatedCameraLaws, TheMappingAgreesWithTheSecondEvaluation)
{
    ForAll(60000, 22,
           [](const SCase& c)
           {
               // Any matrices, not turns and flips alone; what is negative, too.
               const Matrix3 A{c.point.x, c.point.y, c.pixel.x, c.A.dXOffset, c.A.dYOffset, c.pixel.y, 0, 0, 1};
               const Matrix3 B{c.C.dXOffset, c.C.dYOffset, c.angle, c.A.dCropXOffset, c.A.dCropYOffset, 1, 0, 0, 1};
               const double p[] = {c.rect.left, c.rect.top, 1.0};
               const auto plane = [](const Matrix3& m) { return SPlane{m[0], m[1], m[2], m[3], m[4], m[5]}; };
               Matrix3 m = UnwrittenMatrix3();
               return Chip::GetMappingToUnrotatedCamera(A.data(), B.data(), p, m.data()) == 0 &&
                      UnrotatedCamera(plane(A), plane(B), {p[0], p[1]}).Agrees(m, s_exact);
           });
}

namespace {

// Answers the question for the zoom of the full field while it lives.
class CScanner final : public IQsDMApiPluginNotification
{
public:
    CScanner()
    {
        DMApi::AppRntm_RegisterConsumer(this);
        DMApi::AppRntm_RegisterEvent(this, L"ConfocalV4Event_GetFullFOVSDKZoom");
    }
    ~CScanner() { DMApi::AppRntm_UnregisterConsumer(this); }
    CScanner(const CScanner&) = delete;
    CScanner& operator=(const CScanner&) = delete;

    unsigned AppRntm_HandleEvent(const wchar_t*, void* context) override
    {
        *static_cast<double*>(context) = zoom;
        return 0;
    }

    double zoom = 1.0;
};

SChipCase ChipCase(CRandom& random)
{
    SChipCase c;
    c.fx = random.Ratio(0.25, 16.0);
    c.fy = random.Ratio(0.25, 16.0);
    const int left = random.Integer(-100, 100);
    const int top = random.Integer(-100, 100);
    const Size sensor = random.Size();
    c.sensor = {left, top, left + sensor.cx, top + sensor.cy};
    c.angle = random.OneIn(4) ? random.Integer(-4, 4) * 1.57079632679489661923 : random.Uniform(-7.0, 7.0);
    if (!random.OneIn(4))
        c.area = random.ScanArea();
    if (random.OneIn(2))
    {
        const int x = random.Integer(-4096, 4096);
        const int y = random.Integer(-4096, 4096);
        c.imageRect = CQsRectBase<int>{x, y, x + random.Integer(0, 4096), y + random.Integer(0, 4096)};
    }
    c.bAskFullFieldZoom = random.OneIn(2);
    c.zoom = random.Ratio(0.3, 3.0);
    return c;
}

} // namespace

TEST(ChipLaws, TheMatrixAgreesWithTheSecondEvaluationAndItsInverseUndoesIt)
{
    CRandom random(23);
    CScanner scanner;
    int undecided = 0;
    constexpr int s_cases = 120000;
    for (int i = 0; i < s_cases; ++i)
    {
        const SChipCase c = ChipCase(random);
        const std::optional<SPlane> expected = ChipFromImage(c);
        if (!expected)
        {
            ++undecided;
            continue;
        }
        SQsGrabberFormatDesc format;
        format.fx = c.fx;
        format.fy = c.fy;
        format.rcSensor = c.sensor;
        scanner.zoom = c.zoom;
        const Area* const area = c.area ? &*c.area : nullptr;
        const CQsRectBase<int>* const imageRect = c.imageRect ? &*c.imageRect : nullptr;
        Matrix3 chip = UnwrittenMatrix3();
        Matrix3 image = UnwrittenMatrix3();
        ASSERT_EQ(0, Chip::CalcTransformImgToChip(format, c.angle, area, imageRect, c.bAskFullFieldZoom, chip.data()));
        ASSERT_EQ(0, Chip::CalcTransformChipToImg(format, c.angle, area, imageRect, c.bAskFullFieldZoom, image.data()));
        ASSERT_TRUE(expected->Agrees(chip, s_exact) && expected->Inverse().Agrees(image, s_exact))
            << "case " << i << ": fx " << c.fx << " fy " << c.fy << " sensor " << c.sensor.left << " " << c.sensor.top
            << " " << c.sensor.right << " " << c.sensor.bottom << " angle " << c.angle << " area "
            << (area != nullptr ? Describe(*area) : "none") << " asks " << c.bAskFullFieldZoom << " zoom " << c.zoom;
    }
    EXPECT_LT(undecided, s_cases / 100) << "cases that doubles cannot decide";
}
