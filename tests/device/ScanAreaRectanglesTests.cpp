// Rectangles of scan areas and of crops in images, and back.
#include "tests/support/ReferenceGeometry.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>

using namespace QsTest;
using Point = CQsPointBase<double>;
using Rect = CQsRectBase<double>;
using Size = CQsSizeBase<int>;

namespace {

constexpr AreaMode s_aspect = AreaHelper::eScanAreaModeInternal;
constexpr AreaMode s_square = AreaHelper::eScanAreaModeSquare;
constexpr double s_pi = 3.1415926535898; // as the interface has it

const Json& Input(const Json& vector, const char* name)
{
    return Member(Member(vector, "input"), name);
}

const Json& Output(const Json& vector, const char* name)
{
    return Member(Member(vector, "output"), name);
}

Rect Unwritten()
{
    return {s_unwritten, s_unwritten, s_unwritten, s_unwritten};
}

struct SRect
{
    Rect rect = Unwritten();
    double angle = s_unwritten;
};

SRect RectOf(const Area& A, const Area& C, Size size = {100, 100}, double zoom0 = 1.0, AreaMode mode = s_aspect)
{
    SRect out;
    EXPECT_EQ(0, AreaHelper::ConvertScanAreaToRect(&A, out.rect, out.angle, &C, size, zoom0, mode));
    return out;
}

SRect CropRectOf(const Area& A, const Area& C, Size size = {100, 100}, double zoom0 = 1.0, AreaMode mode = s_aspect)
{
    SRect out;
    EXPECT_EQ(0, AreaHelper::ConvertCropAreaToRect(&A, out.rect, out.angle, &C, size, zoom0, mode));
    return out;
}

// An area none of whose numbers is one that a conversion writes.
Area UnwrittenArea()
{
    Area area;
    area.dZoom = area.dAngle = area.dXOffset = area.dYOffset = area.dScanAreaAspect = s_unwritten;
    area.dCropXOffset = area.dCropYOffset = area.dCropZoom = area.dCropAspect = s_unwritten;
    area.Points = {{1.0, 2.0}};
    area.uiTag = 99;
    return area;
}

Area AreaOfRect(const Rect& rect, double angle, const Area& C, Size size = {100, 100}, double zoom0 = 1.0,
                AreaMode mode = s_aspect)
{
    Area A = UnwrittenArea();
    EXPECT_EQ(0, AreaHelper::ConvertRectToScanArea(&A, rect, angle, &C, size, zoom0, mode));
    return A;
}

const Size s_sizes[] = {{512, 512}, {640, 480}, {480, 640}};
const double s_zooms[] = {1.0, 0.8, 1.25};

} // namespace

// ----------------------------------------------------------------------------------------------------- reference
// values

TEST(ScanAreaRectangles, AgreeWithTheReferenceValues)
{
    for (const char* function : {"ConvertScanAreaToRect", "ConvertCropAreaToRect"})
        for (const Json* v : VectorsOf(function))
        {
            const auto convert = std::string(function) == "ConvertScanAreaToRect" ? &RectOf : &CropRectOf;
            const SRect got = convert(ToArea(Input(*v, "A")), ToArea(Input(*v, "C")), ToSize(Input(*v, "size")),
                                      ToDouble(Input(*v, "Z0")), ToMode(Input(*v, "mode")));
            EXPECT_THAT(Numbers(got.rect), AreReference(ToNumbers(Output(*v, "rect")))) << Member(*v, "id").GetString();
            EXPECT_THAT(std::vector<double>{got.angle}, AreReference({ToDouble(Output(*v, "angle"))}))
                << Member(*v, "id").GetString();
        }
}

TEST(ScanAreaRectangles, GiveTheAreasOfTheReferenceValues)
{
    for (const Json* v : VectorsOf("ConvertRectToScanArea"))
    {
        const Area C = ToArea(Input(*v, "C"));
        Area A = UnwrittenArea();
        const int status = AreaHelper::ConvertRectToScanArea(
            &A, ToRect(Input(*v, "rect")), ToDouble(Input(*v, "angle")), &C, ToSize(Input(*v, "size")),
            ToDouble(Input(*v, "Z0")), ToMode(Input(*v, "mode")));
        EXPECT_EQ(Output(*v, "status").GetInt(), status) << Member(*v, "id").GetString();
        Area expected = UnwrittenArea();
        if (status == 0)
        {
            expected.dZoom = ToDouble(Output(*v, "dZoom"));
            expected.dAngle = ToDouble(Output(*v, "dAngle"));
            expected.dXOffset = ToDouble(Output(*v, "dXOffset"));
            expected.dYOffset = ToDouble(Output(*v, "dYOffset"));
            expected.dScanAreaAspect = ToDouble(Output(*v, "dScanAreaAspect"));
        }
        EXPECT_THAT(Numbers(A), AreReference(Numbers(expected))) << Member(*v, "id").GetString();
    }
}

TEST(CropRectangles, GiveTheCropsOfTheReferenceValues)
{
    for (const Json* v : VectorsOf("ConvertRectToCropArea"))
    {
        const Area C = ToArea(Input(*v, "C"));
        Area A = ToArea(Input(*v, "A"));
        Area expected = A;
        EXPECT_EQ(Output(*v, "status").GetInt(),
                  AreaHelper::ConvertRectToCropArea(&A, ToRect(Input(*v, "rect")), ToDouble(Input(*v, "angle")), &C,
                                                    ToSize(Input(*v, "size")), ToDouble(Input(*v, "Z0")),
                                                    ToMode(Input(*v, "mode"))));
        expected.bIsCrop = true;
        expected.dCropZoom = ToDouble(Output(*v, "dCropZoom"));
        expected.dCropAspect = ToDouble(Output(*v, "dCropAspect"));
        expected.dCropXOffset = ToDouble(Output(*v, "dCropXOffset"));
        expected.dCropYOffset = ToDouble(Output(*v, "dCropYOffset"));
        EXPECT_THAT(Numbers(A), AreReference(Numbers(expected))) << Member(*v, "id").GetString();
    }
}

TEST(CropFactor, AgreesWithTheReferenceValues)
{
    for (const Json* v : VectorsOf("CalcCropFactor"))
    {
        const Area A = ToArea(Input(*v, "A"));
        CQsSizeBase<double> factor{s_unwritten, s_unwritten};
        EXPECT_EQ(Output(*v, "status").GetInt(), AreaHelper::CalcCropFactor(&A, factor, ToDouble(Input(*v, "Z0"))));
        EXPECT_THAT(Numbers(factor), AreReference(ToNumbers(Output(*v, "factor")))) << Member(*v, "id").GetString();
    }
}

// ------------------------------------------------------------------------------------------------------- image <- area

TEST(ScanAreaRectangles, TheImagesOwnAreaIsTheWholeImage)
{
    for (Area C : {Area(), AreaC2(), AreaC3()})
    {
        C.bIsCrop = false;
        C.dScanAreaAspect = 1.0;
        const SRect got = RectOf(C, C, {512, 512}, 0.8);
        EXPECT_THAT(Numbers(got.rect), AreNear({0.0, 0.0, 512.0, 512.0}, 1e-10));
        EXPECT_EQ(0.0, got.angle);
    }
}

TEST(ScanAreaRectangles, TakeTheirHeightFromTheWidthBecauseTheFieldIsSquare)
{
    EXPECT_THAT(Numbers(RectOf(Area(), Area(), {200, 100}).rect), AreNear({0.0, -50.0, 200.0, 150.0}, 0.0));
    EXPECT_THAT(Numbers(RectOf(Area(), Area(), {100, 200}).rect), AreNear({0.0, 50.0, 100.0, 150.0}, 0.0));
    // In the image of a crop the width is that of the uncropped image, and its height counts as little.
    Area C;
    C.bIsCrop = true;
    C.dCropZoom = 2.0;
    C.dCropAspect = 3.0;
    EXPECT_THAT(Numbers(RectOf(Area(), C, {100, 50}).rect), AreNear({-50.0, -75.0, 150.0, 125.0}, 1e-12));
}

TEST(ScanAreaRectangles, AreAsLargeAsTheZoomsCompareAndDoNotAskTheReferenceZoom)
{
    Area A;
    Area C;
    A.dZoom = 4.0;
    C.dZoom = 2.0;
    for (const double zoom0 : {1.0, 0.5, 3.0})
        EXPECT_THAT(Numbers(RectOf(A, C, {100, 100}, zoom0).rect), AreNear({25.0, 25.0, 75.0, 75.0}, 1e-12)) << zoom0;
    // The centre does: an offset of 0.2 is 0.2 * 50 * 2 / 0.5 pixels.
    A.dXOffset = 0.2;
    A.dYOffset = -0.1;
    EXPECT_THAT(Numbers(RectOf(A, C, {100, 100}, 0.5).rect), AreNear({65.0, 5.0, 115.0, 55.0}, 1e-12));
}

TEST(ScanAreaRectangles, AreAsHighAsTheAspectSaysUnlessTheModeIsSquare)
{
    Area A;
    A.dScanAreaAspect = 2.0;
    for (const int mode : {0, 2, 3, 4, 7, 8, -1, 100})
        EXPECT_THAT(Numbers(RectOf(A, Area(), {100, 100}, 1.0, static_cast<AreaMode>(mode)).rect),
                    AreNear({0.0, 25.0, 100.0, 75.0}, 0.0))
            << mode;
    for (const int mode : {1, 5, 6})
        EXPECT_THAT(Numbers(RectOf(A, Area(), {100, 100}, 1.0, static_cast<AreaMode>(mode)).rect),
                    AreNear({0.0, 0.0, 100.0, 100.0}, 0.0))
            << mode;
}

TEST(ScanAreaRectangles, HaveTheirCentreWhereTheAreasCentreIsInTheImageWhateverTheMode)
{
    for (const Area& A : {AreaA1(), AreaA2(), AreaC1()})
        for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
            for (const int mode : {1, 5, 6, 7, 2})
            {
                Point centre{s_unwritten, s_unwritten};
                ASSERT_EQ(
                    0, AreaHelper::ConvertPointAreaToPointImg({A.dXOffset, A.dYOffset}, centre, &C, {640, 480}, 0.8));
                const Rect rect = RectOf(A, C, {640, 480}, 0.8, static_cast<AreaMode>(mode)).rect;
                EXPECT_THAT(Numbers(rect.Center()), AreNear(Numbers(centre), 1e-9)) << mode;
            }
}

TEST(ScanAreaRectangles, TellTheAngleBetweenTheAreasInRadians)
{
    Area A;
    Area C;
    A.dAngle = 200.0;
    C.dAngle = 20.0;
    // Half a turn in this interface's pi, which is 7e-15 off.
    EXPECT_NEAR(s_pi, RectOf(A, C).angle, 1e-15);
    EXPECT_NEAR(-s_pi, RectOf(C, A).angle, 1e-15);
    A.dAngle = 725.0;
    C.dAngle = 5.0;
    EXPECT_NEAR(4.0 * s_pi, RectOf(A, C).angle, 4e-15) << "not brought back to one turn";
}

TEST(ScanAreaRectangles, OfANegativeZoomStillHaveTheirLeftBeforeTheirRight)
{
    Area A;
    A.dZoom = -2.0;
    EXPECT_THAT(Numbers(RectOf(A, Area()).rect), AreNear({25.0, 25.0, 75.0, 75.0}, 0.0));
    A.dScanAreaAspect = -2.0;
    EXPECT_THAT(Numbers(RectOf(A, Area()).rect), AreNear({25.0, 37.5, 75.0, 62.5}, 0.0));
    A.bIsCrop = true;
    A.dCropZoom = -2.0;
    A.dCropAspect = 0.5;
    EXPECT_THAT(Numbers(CropRectOf(A, Area()).rect), AreNear({37.5, 25.0, 62.5, 75.0}, 1e-12));
}

// ------------------------------------------------------------------------------------------------------- area <- image

TEST(ScanAreaRectangles, GiveBackTheAreaThatTheyShow)
{
    for (const Area& A : {AreaA1(), AreaA2(), AreaA3(), AreaA4(), AreaC3()})
        for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
            for (const Size size : s_sizes)
                for (const double zoom0 : s_zooms)
                {
                    const SRect shown = RectOf(A, C, size, zoom0);
                    const Area back = AreaOfRect(shown.rect, shown.angle, C, size, zoom0);
                    Area expected = UnwrittenArea();
                    expected.dZoom = A.dZoom;
                    expected.dAngle = A.dAngle;
                    expected.dXOffset = A.dXOffset;
                    expected.dYOffset = A.dYOffset;
                    expected.dScanAreaAspect = A.dScanAreaAspect;
                    EXPECT_THAT(Numbers(back), AreNear(Numbers(expected), 1e-9));
                }
}

TEST(ScanAreaRectangles, DrawnOnTheImageComeBackFromTheirArea)
{
    const Rect drawn{100.0, 40.0, 260.0, 140.0};
    for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
        for (const Size size : s_sizes)
            for (const double zoom0 : s_zooms)
            {
                const Area A = AreaOfRect(drawn, 0.35, C, size, zoom0);
                const SRect back = RectOf(A, C, size, zoom0);
                EXPECT_THAT(Numbers(back.rect), AreNear(Numbers(drawn), 1e-9));
                EXPECT_NEAR(0.35, back.angle, 1e-12);
            }
}

TEST(ScanAreaRectangles, GiveASquareAreaInASquareMode)
{
    const Rect drawn{10.0, 20.0, 50.0, 30.0};
    for (const int mode : {1, 5, 6})
        EXPECT_EQ(1.0, AreaOfRect(drawn, 0.0, Area(), {100, 100}, 1.0, static_cast<AreaMode>(mode)).dScanAreaAspect);
    for (const int mode : {0, 2, 3, 4, 7, 8, -1})
        EXPECT_EQ(4.0, AreaOfRect(drawn, 0.0, Area(), {100, 100}, 1.0, static_cast<AreaMode>(mode)).dScanAreaAspect);
    // The mode changes nothing else.
    Area square = AreaOfRect(drawn, 0.2, AreaC1(), {100, 100}, 0.8, s_square);
    square.dScanAreaAspect = 4.0;
    EXPECT_EQ(Numbers(AreaOfRect(drawn, 0.2, AreaC1(), {100, 100}, 0.8)), Numbers(square));
}

TEST(ScanAreaRectangles, GiveTheAngleInDegreesOnTopOfTheImages)
{
    Area C;
    C.dAngle = 20.0;
    // Half of this interface's turn is 180 degrees, to the last bit but one.
    EXPECT_NEAR(200.0, AreaOfRect({0.0, 0.0, 10.0, 10.0}, s_pi, C).dAngle, 1e-13);
    EXPECT_NEAR(-160.0, AreaOfRect({0.0, 0.0, 10.0, 10.0}, -s_pi, C).dAngle, 1e-13);
}

TEST(ScanAreaRectangles, CannotBecomeAreasWhereTheImageIsOneOfPoints)
{
    Area C = AreaC1();
    C.Points = {{0.1, 0.2}};
    Area A = UnwrittenArea();
    EXPECT_EQ(-9, AreaHelper::ConvertRectToScanArea(&A, {0.0, 0.0, 10.0, 10.0}, 0.1, &C, {100, 100}, 1.0, s_aspect));
    EXPECT_EQ(Numbers(UnwrittenArea()), Numbers(A));
    // Points of the area that is written to are fine, and stay.
    C.Points.clear();
    A.Points = {{0.1, 0.2}};
    EXPECT_EQ(0, AreaHelper::ConvertRectToScanArea(&A, {0.0, 0.0, 10.0, 10.0}, 0.1, &C, {100, 100}, 1.0, s_aspect));
    EXPECT_EQ(1u, A.Points.size());
    EXPECT_EQ(99u, A.uiTag);
    EXPECT_FALSE(A.bIsCrop);
    EXPECT_EQ(s_unwritten, A.dCropZoom);
}

TEST(ScanAreaRectangles, MayReplaceTheAreaOfTheirOwnImage)
{
    for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
    {
        const Rect drawn{100.0, 40.0, 260.0, 140.0};
        const Area apart = AreaOfRect(drawn, 0.35, C, {640, 480}, 0.8);
        Area own = C;
        ASSERT_EQ(0, AreaHelper::ConvertRectToScanArea(&own, drawn, 0.35, &own, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(apart.dZoom, own.dZoom);
        EXPECT_EQ(apart.dAngle, own.dAngle);
        EXPECT_EQ(apart.dXOffset, own.dXOffset);
        EXPECT_EQ(apart.dYOffset, own.dYOffset);
        EXPECT_EQ(apart.dScanAreaAspect, own.dScanAreaAspect);
        EXPECT_EQ(C.dCropZoom, own.dCropZoom);
    }
}

TEST(ScanAreaRectangles, MayBeTakenWithTheAngleWrittenIntoAnAreaOfTheCall)
{
    const auto conversions = {&AreaHelper::ConvertScanAreaToRect, &AreaHelper::ConvertCropAreaToRect};
    for (const auto convert : conversions)
    {
        SRect apart;
        Area A = AreaA1();
        Area C = AreaC1();
        ASSERT_EQ(0, convert(&A, apart.rect, apart.angle, &C, {640, 480}, 0.8, s_aspect));
        Rect rect = Unwritten();
        ASSERT_EQ(0, convert(&A, rect, A.dAngle, &C, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(Numbers(apart.rect), Numbers(rect));
        EXPECT_EQ(apart.angle, A.dAngle);
        A = AreaA1();
        rect = Unwritten();
        ASSERT_EQ(0, convert(&A, rect, C.dAngle, &C, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(Numbers(apart.rect), Numbers(rect));
        EXPECT_EQ(apart.angle, C.dAngle);
        // Any other number of an area, and one side of the rectangle: the angle is written last or first, but whole.
        C = AreaC1();
        rect = Unwritten();
        ASSERT_EQ(0, convert(&A, rect, C.dZoom, &C, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(Numbers(apart.rect), Numbers(rect));
        A = AreaA1();
        C = AreaC1();
        rect = Unwritten();
        ASSERT_EQ(0, convert(&A, rect, A.dCropXOffset, &C, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(Numbers(apart.rect), Numbers(rect));
    }
}

// ----------------------------------------------------------------------------------------------------------------
// crops

TEST(CropRectangles, OfAnUncroppedAreaAreTheWholeArea)
{
    for (const AreaMode mode : {s_aspect, s_square})
    {
        const SRect whole = RectOf(AreaA2(), AreaC1(), {640, 480}, 0.8, mode);
        const SRect crop = CropRectOf(AreaA2(), AreaC1(), {640, 480}, 0.8, mode);
        EXPECT_EQ(Numbers(whole.rect), Numbers(crop.rect));
        EXPECT_EQ(whole.angle, crop.angle);
    }
}

TEST(CropRectangles, LieInTheirAreaByPartsOfItsHalves)
{
    Area A;
    A.bIsCrop = true;
    A.dCropZoom = 2.0;
    A.dCropXOffset = 0.5;
    A.dCropYOffset = -0.25;
    EXPECT_THAT(Numbers(CropRectOf(A, Area()).rect), AreNear({50.0, 12.5, 100.0, 62.5}, 1e-12));
}

TEST(CropRectangles, TakeTheirHeightFromTheirWidth)
{
    Area A;
    A.bIsCrop = true;
    A.dCropZoom = 2.0;
    A.dCropAspect = 2.5;
    A.dScanAreaAspect = 2.0;
    // 50 pixels wide, 20 high; half of the area's height of 50 would be 25, and with its aspect 10.
    EXPECT_THAT(Numbers(CropRectOf(A, Area()).rect), AreNear({25.0, 40.0, 75.0, 60.0}, 1e-12));
    EXPECT_THAT(Numbers(CropRectOf(A, Area(), {100, 100}, 1.0, s_square).rect),
                AreNear({25.0, 40.0, 75.0, 60.0}, 1e-12));
}

TEST(CropRectangles, MoveAlongTheSidesOfATurnedArea)
{
    Area A;
    A.dAngle = 90.0;
    A.bIsCrop = true;
    A.dCropZoom = 2.0;
    A.dCropXOffset = 0.5;
    // By hand: 25 pixels along the area's own x axis, which the turn by +90 degrees makes the image's y axis.
    const SRect got = CropRectOf(A, Area());
    EXPECT_THAT(Numbers(got.rect), AreNear({25.0, 50.0, 75.0, 100.0}, 1e-12));
    EXPECT_NEAR(s_pi / 2.0, got.angle, 1e-15);
    // The offset down is told in halves of the height, which the mode chooses.
    A.dScanAreaAspect = 2.0;
    A.dCropXOffset = 0.0;
    A.dCropYOffset = 0.4;
    EXPECT_THAT(Numbers(CropRectOf(A, Area()).rect.Center()), AreNear({40.0, 50.0}, 1e-12));
    EXPECT_THAT(Numbers(CropRectOf(A, Area(), {100, 100}, 1.0, s_square).rect.Center()), AreNear({30.0, 50.0}, 1e-12));
}

TEST(CropRectangles, GiveBackTheCropThatTheyShow)
{
    for (const Area& A : {AreaA1(), AreaA3(), AreaC1(), AreaC3()})
        for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
            for (const Size size : s_sizes)
                for (const double zoom0 : s_zooms)
                    for (const AreaMode mode : {s_aspect, s_square})
                    {
                        const SRect shown = CropRectOf(A, C, size, zoom0, mode);
                        Area back = A;
                        back.bIsCrop = false;
                        back.dCropZoom = back.dCropAspect = back.dCropXOffset = back.dCropYOffset = s_unwritten;
                        ASSERT_EQ(0, AreaHelper::ConvertRectToCropArea(&back, shown.rect, shown.angle, &C, size, zoom0,
                                                                       mode));
                        EXPECT_THAT(Numbers(back), AreNear(Numbers(A), 1e-9));
                    }
}

TEST(CropRectangles, DrawnOnTheImageComeBackFromTheirCrop)
{
    const Rect drawn{100.0, 40.0, 260.0, 140.0};
    for (const Area& start : {AreaA1(), AreaA2()})
        for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
        {
            Area A = start;
            ASSERT_EQ(0, AreaHelper::ConvertRectToCropArea(&A, drawn, 0.0, &C, {640, 480}, 0.8, s_aspect));
            EXPECT_TRUE(A.bIsCrop);
            EXPECT_THAT(Numbers(CropRectOf(A, C, {640, 480}, 0.8).rect), AreNear(Numbers(drawn), 1e-9));
        }
}

TEST(CropRectangles, TurnAsTheirAreaDoesWhateverAngleTheCallerTells)
{
    const Rect drawn{100.0, 40.0, 260.0, 140.0};
    const Area C = AreaC1();
    Area expected = AreaA1();
    ASSERT_EQ(0, AreaHelper::ConvertRectToCropArea(&expected, drawn, 0.0, &C, {640, 480}, 0.8, s_aspect));
    for (const double angle : {0.35, -2.0, 100.0, std::numeric_limits<double>::quiet_NaN()})
    {
        Area A = AreaA1();
        ASSERT_EQ(0, AreaHelper::ConvertRectToCropArea(&A, drawn, angle, &C, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(Numbers(expected), Numbers(A)) << angle;
    }
}

TEST(CropRectangles, MayCropTheAreaOfTheirOwnImage)
{
    for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
    {
        const Rect drawn{100.0, 40.0, 260.0, 140.0};
        Area apart = C;
        ASSERT_EQ(0, AreaHelper::ConvertRectToCropArea(&apart, drawn, 0.0, &C, {640, 480}, 0.8, s_aspect));
        Area own = C;
        ASSERT_EQ(0, AreaHelper::ConvertRectToCropArea(&own, drawn, 0.0, &own, {640, 480}, 0.8, s_aspect));
        EXPECT_EQ(Numbers(apart), Numbers(own));
    }
}

TEST(CropRectangles, AreCutWhateverListOfPointsTheAreasCarry)
{
    Area C = AreaC1();
    Area A = AreaA1();
    const SRect without = CropRectOf(A, C);
    C.Points = {{0.1, 0.2}};
    A.Points = {{0.3, 0.4}};
    EXPECT_EQ(Numbers(without.rect), Numbers(CropRectOf(A, C).rect));
    EXPECT_EQ(Numbers(RectOf(AreaA1(), AreaC1()).rect), Numbers(RectOf(A, C).rect));
    EXPECT_EQ(0, AreaHelper::ConvertRectToCropArea(&A, {0.0, 0.0, 10.0, 10.0}, 0.0, &C, {100, 100}, 1.0, s_aspect));
    EXPECT_EQ(1u, A.Points.size());
}

// ---------------------------------------------------------------------------------------------------------- crop
// factor

TEST(CropFactor, OfAnUncroppedAreaIsOne)
{
    Area A = AreaA1();
    A.bIsCrop = false;
    CQsSizeBase<double> factor{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::CalcCropFactor(&A, factor, 0.8));
    EXPECT_THAT(Numbers(factor), AreNear({1.0, 1.0}, 0.0));
}

TEST(CropFactor, ComparesTheSidesOfTheAreaWithThoseOfItsCropAtAnyReferenceZoom)
{
    for (const Area& A : {AreaA1(), AreaA3(), AreaC1(), AreaC3()})
        for (const double zoom0 : {1.0, 0.8, 1.25, 7.0})
        {
            CQsSizeBase<double> factor{s_unwritten, s_unwritten};
            ASSERT_EQ(0, AreaHelper::CalcCropFactor(&A, factor, zoom0));
            EXPECT_THAT(Numbers(factor),
                        AreNear({A.dCropZoom, A.dCropZoom * A.dCropAspect / A.dScanAreaAspect}, 1e-12));
        }
}

TEST(CropFactor, OfAnImpossibleCropIsNotFiniteAndNoError)
{
    Area A;
    A.bIsCrop = true;
    A.dCropAspect = 0.0; // infinitely high: no part of the area's height
    CQsSizeBase<double> factor{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::CalcCropFactor(&A, factor, 1.0));
    EXPECT_EQ(1.0, factor.cx);
    EXPECT_FALSE(factor.cy > 0.0);
    A.dZoom = 0.0;
    EXPECT_EQ(0, AreaHelper::CalcCropFactor(&A, factor, 1.0));
    EXPECT_FALSE(std::isfinite(factor.cx));
}

// ---------------------------------------------------------------------------------------- what the caller may hand
// over

TEST(ScanAreaRectangles, OfNoAreaAreRefusedAndNothingIsWritten)
{
    const Area area = AreaC1();
    for (const auto& nulls : {std::pair(false, true), std::pair(true, false), std::pair(false, false)})
    {
        const Area* const A = nulls.first ? &area : nullptr;
        const Area* const C = nulls.second ? &area : nullptr;
        SRect out;
        EXPECT_EQ(-4, AreaHelper::ConvertScanAreaToRect(A, out.rect, out.angle, C, {100, 100}, 1.0, s_aspect));
        EXPECT_THAT(Numbers(out.rect), AreNear(Numbers(Unwritten()), 0.0));
        EXPECT_EQ(s_unwritten, out.angle);

        Area written = UnwrittenArea();
        EXPECT_EQ(-4, AreaHelper::ConvertRectToScanArea(nulls.first ? &written : nullptr, {0.0, 0.0, 10.0, 10.0}, 0.0,
                                                        C, {100, 100}, 1.0, s_aspect));
        EXPECT_EQ(-4, AreaHelper::ConvertRectToCropArea(nulls.first ? &written : nullptr, {0.0, 0.0, 10.0, 10.0}, 0.0,
                                                        C, {100, 100}, 1.0, s_aspect));
        EXPECT_EQ(Numbers(UnwrittenArea()), Numbers(written));
    }
    CQsSizeBase<double> factor{s_unwritten, s_unwritten};
    EXPECT_EQ(-4, AreaHelper::CalcCropFactor(nullptr, factor, 1.0));
    EXPECT_THAT(Numbers(factor), AreNear({s_unwritten, s_unwritten}, 0.0));
}

TEST(CropRectangles, OfNoAreaAreRefusedAndNothingIsWritten)
{
    const Area cropped = AreaA1();
    const Area uncropped = AreaA2();
    SRect out;
    EXPECT_EQ(-4, AreaHelper::ConvertCropAreaToRect(nullptr, out.rect, out.angle, &cropped, {100, 100}, 1.0, s_aspect));
    // Without a crop the answer is that of the whole area, with one it is that the whole area cannot be converted.
    EXPECT_EQ(-4,
              AreaHelper::ConvertCropAreaToRect(&uncropped, out.rect, out.angle, nullptr, {100, 100}, 1.0, s_aspect));
    EXPECT_EQ(-9, AreaHelper::ConvertCropAreaToRect(&cropped, out.rect, out.angle, nullptr, {100, 100}, 1.0, s_aspect));
    EXPECT_THAT(Numbers(out.rect), AreNear(Numbers(Unwritten()), 0.0));
    EXPECT_EQ(s_unwritten, out.angle);
}

// --------------------------------------------------------------------------------------------------------- nothing
// traps

TEST(ScanAreaRectangles, ADivisionByZeroGivesNoFiniteRectangleAndNoError)
{
    Area nothing;
    nothing.dZoom = 0.0;
    EXPECT_FALSE(std::isfinite(RectOf(nothing, Area()).rect.left)); // infinitely wide
    EXPECT_FALSE(std::isfinite(RectOf(nothing, Area()).rect.right));
    EXPECT_FALSE(std::isfinite(RectOf(Area(), Area(), {100, 100}, 0.0).rect.left)); // its centre is nowhere
    Area low;
    low.dScanAreaAspect = 0.0;
    EXPECT_FALSE(std::isfinite(RectOf(low, Area()).rect.top));
    EXPECT_EQ(0.0, RectOf(low, Area()).rect.left);

    EXPECT_FALSE(std::isfinite(AreaOfRect({10.0, 10.0, 10.0, 20.0}, 0.0, Area()).dZoom)); // no width
    EXPECT_FALSE(std::isfinite(AreaOfRect({10.0, 10.0, 20.0, 10.0}, 0.0, Area()).dScanAreaAspect));
    EXPECT_FALSE(std::isfinite(AreaOfRect({10.0, 10.0, 20.0, 20.0}, 0.0, Area(), {0, 0}).dXOffset));
    EXPECT_FALSE(std::isfinite(AreaOfRect({10.0, 10.0, 20.0, 20.0}, 0.0, nothing).dXOffset));

    Area A;
    EXPECT_EQ(0, AreaHelper::ConvertRectToCropArea(&A, {10.0, 10.0, 10.0, 20.0}, 0.0, &A, {100, 100}, 1.0, s_aspect));
    EXPECT_TRUE(A.bIsCrop);
    EXPECT_FALSE(std::isfinite(A.dCropZoom));
    EXPECT_EQ(0.0, A.dCropAspect);
}

TEST(ScanAreaRectangles, AreConvertedWithoutATrapWhateverTheNumbers)
{
    ForEachExtremeArea(
        [](const Area& A, double value, int size)
        {
            EXPECT_NE(s_unwritten, RectOf(A, A, {size, size}, value).rect.left);
            EXPECT_NE(s_unwritten, CropRectOf(A, A, {size, size}, value).rect.left);
            EXPECT_NE(s_unwritten, AreaOfRect({value, value, value, value}, value, A, {size, size}, value).dZoom);
            Area crop = UnwrittenArea();
            EXPECT_EQ(0, AreaHelper::ConvertRectToCropArea(&crop, {value, value, value, value}, value, &A, {size, size},
                                                           value, s_aspect));
            EXPECT_TRUE(crop.bIsCrop);
        });
}
