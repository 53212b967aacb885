// The matrix from pixels of the full field's image to pixels of a scan area's.
#include "tests/support/ReferenceGeometry.h"

#include <gmock/gmock.h>

#include <limits>

using namespace QsTest;
using Size = CQsSizeBase<int>;

namespace {

const Matrix3 s_identity{1, 0, 0, 0, 1, 0, 0, 0, 1};

Matrix3 TransformTo(const Area& A, Size size = {100, 100}, double zoom0 = 1.0)
{
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(0, AreaHelper::CalcTransformMatrixToArea(&A, size, m.data(), zoom0));
    return m;
}

Matrix3 Shift(double x, double y)
{
    return {1, 0, x, 0, 1, y, 0, 0, 1};
}

} // namespace

TEST(AreaTransform, AgreesWithTheReferenceValues)
{
    for (const Json* v : VectorsOf("CalcTransformMatrixToArea"))
    {
        const Json& input = Member(*v, "input");
        const Area A = ToArea(Member(input, "A"));
        Matrix3 m = UnwrittenMatrix3();
        EXPECT_EQ(Member(Member(*v, "output"), "status").GetInt(),
                  AreaHelper::CalcTransformMatrixToArea(&A, ToSize(Member(input, "size")), m.data(),
                                                        ToDouble(Member(input, "Z0"))));
        EXPECT_THAT(m, AreReference(ToNumbers(Member(Member(*v, "output"), "matrix")), 3))
            << Member(*v, "id").GetString();
    }
}

TEST(AreaTransform, ToTheFullFieldOfASquareImageIsExactlyTheIdentity)
{
    for (const double zoom0 : {1.0, 0.8, 1.25})
        for (const Size size : {Size{1, 1}, Size{100, 100}, Size{512, 512}})
            EXPECT_THAT(TransformTo(Area(), size, zoom0), IsNearMatrix3(s_identity, 0.0));
}

TEST(AreaTransform, FitsTheSquareFieldIntoAnImageThatIsNot)
{
    // By hand: the field is 200 x 200 about (100, 50) and must fit into a height of 100.
    EXPECT_THAT(TransformTo(Area(), {200, 100}), IsNearMatrix3({0.5, 0, 0, 0, 0.5, 25, 0, 0, 1}, 1e-12));
    // 100 x 100 about (50, 100) fits as it is and moves to the corner.
    EXPECT_THAT(TransformTo(Area(), {100, 200}), IsNearMatrix3(Shift(0, -50), 1e-12));
}

TEST(AreaTransform, OfAQuarterTurnKeepsTheCentreAndSwapsTheAxes)
{
    Area A;
    A.dAngle = 90.0;
    const Matrix3 m = TransformTo(A);
    // By hand: (50, 50) stays, (100, 50) goes to (50, 0), (50, 100) to (100, 50).
    EXPECT_THAT(m, IsNearMatrix3({0, 1, 0, -1, 0, 100, 0, 0, 1}, 1e-9));
    // The cosine shows the pi of this interface: half of 3.1415926535898 misses the quarter turn by 3.4915e-15.
    EXPECT_NEAR(-3.4914813388431334e-15, m[0], 1e-20);
    EXPECT_NEAR(-3.4914813388431334e-15, m[4], 1e-20);
}

TEST(AreaTransform, EnlargesAZoomedAreaToTheImage)
{
    Area A;
    A.dZoom = 2.0;
    A.dXOffset = 0.5;
    A.dYOffset = -0.25;
    // By hand: the area is 50 x 50 about (75, 37.5).
    EXPECT_THAT(TransformTo(A), IsNearMatrix3({2, 0, -100, 0, 2, -25, 0, 0, 1}, 1e-12));
    // Its offsets count by the reference zoom, its size does not: about (100, 25).
    EXPECT_THAT(TransformTo(A, {100, 100}, 0.5), IsNearMatrix3({2, 0, -150, 0, 2, 0, 0, 0, 1}, 1e-12));
}

TEST(AreaTransform, FitsAnAreaWithAnAspectByItsLongerSide)
{
    Area A;
    A.dScanAreaAspect = 2.0;
    // 100 x 50 about the centre: no larger, and its corner goes to the image's.
    EXPECT_THAT(TransformTo(A), IsNearMatrix3(Shift(0, -25), 1e-12));
    A.dScanAreaAspect = 0.5;
    // 100 x 200: half as large, then 50 x 100.
    EXPECT_THAT(TransformTo(A), IsNearMatrix3({0.5, 0, 0, 0, 0.5, 25, 0, 0, 1}, 1e-12));
}

TEST(AreaTransform, OfACropKeepsTheSizeOfTheAreaAndMovesItToTheCropsCorner)
{
    Area A;
    A.bIsCrop = true;
    A.dCropZoom = 4.0;
    A.dCropAspect = 2.0;
    A.dCropXOffset = 0.5;
    // By hand: the crop is 25 x 12.5 about (75, 50), its corner at (62.5, 43.75). Neither enlarged nor resized.
    EXPECT_THAT(TransformTo(A), IsNearMatrix3(Shift(-62.5, -43.75), 1e-12));
    A.dZoom = 2.0;
    // The area is 50 x 50, the crop 12.5 x 6.25 about (62.5, 50), its corner (56.25, 46.875); enlarged twice.
    EXPECT_THAT(TransformTo(A), IsNearMatrix3({2, 0, -112.5, 0, 2, -93.75, 0, 0, 1}, 1e-12));
}

TEST(AreaTransform, OfATurnedCropTurnsAboutTheMiddleOfTheMovedArea)
{
    Area A;
    A.dAngle = 90.0;
    A.bIsCrop = true;
    A.dCropZoom = 2.0;
    A.dCropXOffset = 0.5;
    // By hand: the crop's offset turns down to (50, 75), its corner is (25, 50). The area moves there: 100 x 100 about
    // (75, 100). That point goes to (50, 50), and (x, y) from it turns by -90 degrees to (y, -x).
    EXPECT_THAT(TransformTo(A), IsNearMatrix3({0, 1, -50, -1, 0, 125, 0, 0, 1}, 1e-9));
}

TEST(AreaTransform, LeavesOutATurnOfAtMostAMillionthOfARadian)
{
    const double degrees = 180.0 / 3.1415926535898;
    Area A;
    A.dXOffset = 0.2;
    for (const double sign : {1.0, -1.0})
    {
        A.dAngle = sign * 0.9999e-6 * degrees;
        EXPECT_THAT(TransformTo(A), IsNearMatrix3(Shift(-10, 0), 1e-12));
        EXPECT_EQ(0.0, TransformTo(A)[1]);
        A.dAngle = sign * 1.0001e-6 * degrees;
        EXPECT_NEAR(sign * 1.0001e-6, TransformTo(A)[1], 1e-15);
    }
}

TEST(AreaTransform, LeavesOutAScaleWithinAMillionth)
{
    Area A;
    A.dXOffset = 0.2;
    for (const double sign : {1.0, -1.0})
    {
        // The area is 100 / zoom wide and is enlarged by the zoom; its target is the middle of the image.
        A.dZoom = 1.0 + sign * 0.9999e-6;
        EXPECT_THAT(TransformTo(A), IsNearMatrix3(Shift(-10, 0), 1e-9));
        EXPECT_EQ(1.0, TransformTo(A)[0]);
        EXPECT_EQ(1.0, TransformTo(A)[4]);
        A.dZoom = 1.0 + sign * 1.0001e-6;
        EXPECT_NEAR(A.dZoom, TransformTo(A)[0], 1e-12);
        EXPECT_NEAR(A.dZoom, TransformTo(A)[4], 1e-12);
    }
}

TEST(AreaTransform, WithinAMillionthOfTheIdentityIsExactlyTheIdentity)
{
    const double degrees = 180.0 / 3.1415926535898;
    Area A;
    // Offsets are halves of the image: 0.9e-6 pixels along a diagonal of 3 : 4.
    A.dXOffset = 0.6 * 0.9e-6 / 50.0;
    A.dYOffset = -0.8 * 0.9e-6 / 50.0;
    A.dAngle = 0.9e-6 * degrees;
    A.dZoom = 1.0 + 0.9e-6;
    EXPECT_THAT(TransformTo(A), IsNearMatrix3(s_identity, 0.0));

    // The distance counts and not each axis: 1.1e-6 with both axes below 1e-6.
    Area shifted;
    shifted.dXOffset = 0.6 * 1.1e-6 / 50.0;
    shifted.dYOffset = -0.8 * 1.1e-6 / 50.0;
    const Matrix3 m = TransformTo(shifted);
    EXPECT_NEAR(-0.66e-6, m[2], 1e-12);
    EXPECT_NEAR(0.88e-6, m[5], 1e-12);

    // One that does not fit keeps the others from being dropped as a whole.
    Area turned;
    turned.dAngle = 1.1e-6 * degrees;
    EXPECT_NEAR(1.1e-6, TransformTo(turned)[1], 1e-12);
    Area enlarged;
    enlarged.dZoom = 1.0 - 1.1e-6;
    EXPECT_NEAR(1.0 - 1.1e-6, TransformTo(enlarged)[0], 1e-12);
    EXPECT_NE(1.0, TransformTo(enlarged)[4]);
}

TEST(AreaTransform, MeasuresTheDistanceInPixelsWhateverTheImagesSize)
{
    Area A;
    A.dXOffset = 1.5e-6; // 0.75e-6 pixels of a single one, 7.5e-5 pixels of a hundred
    EXPECT_THAT(TransformTo(A, {1, 1}), IsNearMatrix3(s_identity, 0.0));
    EXPECT_NEAR(-7.5e-5, TransformTo(A, {100, 100})[2], 1e-12);
}

TEST(AreaTransform, TakesThePixelOfTheFullFieldToThatOfTheAreaForASquareImage)
{
    const CQsPointBase<double> points[] = {{0.0, 0.0}, {0.3, -0.7}, {-1.0, 0.9}};
    for (Area A : {AreaA1(), AreaA2(), AreaC2(), AreaC3()})
    {
        A.bIsCrop = false;
        A.dScanAreaAspect = 1.0;
        for (const double zoom0 : {1.0, 0.8, 1.25})
        {
            const Matrix3 m = TransformTo(A, {512, 512}, zoom0);
            for (const CQsPointBase<double>& point : points)
            {
                const Area fullField;
                CQsPointBase<double> from;
                CQsPointBase<double> to;
                ASSERT_EQ(0, AreaHelper::ConvertPointAreaToPointImg(point, from, &fullField, {512, 512}, zoom0));
                ASSERT_EQ(0, AreaHelper::ConvertPointAreaToPointImg(point, to, &A, {512, 512}, zoom0));
                EXPECT_NEAR(to.x, m[0] * from.x + m[1] * from.y + m[2], 1e-8);
                EXPECT_NEAR(to.y, m[3] * from.x + m[4] * from.y + m[5], 1e-8);
            }
        }
    }
}

TEST(AreaTransform, DoesNotAskForPointsOfTheArea)
{
    Area A = AreaA1();
    A.Points = {{0.1, 0.2}};
    EXPECT_THAT(TransformTo(A), IsNearMatrix3(TransformTo(AreaA1()), 0.0));
}

TEST(AreaTransform, OfNoAreaOrWithoutAMatrixIsRefusedAndNothingIsWritten)
{
    const Area A;
    Matrix3 m = UnwrittenMatrix3();
    EXPECT_EQ(-4, AreaHelper::CalcTransformMatrixToArea(nullptr, {100, 100}, m.data(), 1.0));
    EXPECT_THAT(m, IsUnwrittenMatrix3());
    EXPECT_EQ(-4, AreaHelper::CalcTransformMatrixToArea(&A, {100, 100}, nullptr, 1.0));
    EXPECT_EQ(-4, AreaHelper::CalcTransformMatrixToArea(nullptr, {100, 100}, nullptr, 1.0));
}

TEST(AreaTransform, IsNotFiniteAndNoErrorWhereSomethingIsZero)
{
    Area A;
    A.dZoom = 0.0;
    EXPECT_FALSE(std::isfinite(TransformTo(A)[2]));
    EXPECT_FALSE(std::isfinite(TransformTo(Area(), {0, 0})[2]));
    EXPECT_FALSE(std::isfinite(TransformTo(Area(), {100, 100}, 0.0)[2]));
}

TEST(AreaTransform, IsWrittenWholeWhateverTheNumbers)
{
    ForEachExtremeArea(
        [](const Area& A, double value, int size)
        {
            for (const double element : TransformTo(A, {size, size}, value))
                EXPECT_NE(s_unwritten, element);
        });
}
