// Points between the scanner's field, images and other scan areas.
#include "tests/support/ReferenceGeometry.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>

using namespace QsTest;
using Point = CQsPointBase<double>;
using Size = CQsSizeBase<int>;

namespace {

const double s_infinity = std::numeric_limits<double>::infinity();

const Json& Input(const Json& vector, const char* name)
{
    return Member(Member(vector, "input"), name);
}

Point ImageOf(const Point& area, const Area& C, Size size = {100, 100}, double zoom0 = 1.0)
{
    Point image{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::ConvertPointAreaToPointImg(area, image, &C, size, zoom0));
    return image;
}

Point AreaOf(const Point& image, const Area& C, Size size = {100, 100}, double zoom0 = 1.0)
{
    Point area{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::ConvertPointImgToPointArea(area, image, &C, size, zoom0));
    return area;
}

Point ImageOfFcs(const Point& fcs, const Area& C, const Area& F, Size size = {100, 100}, double zoom0 = 1.0)
{
    Point image{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::ConvertFCSPointAreaToPointImg(fcs, image, &C, size, &F, zoom0));
    return image;
}

Point FcsOf(const Point& image, const Area& C, const Area& F, Size size = {100, 100}, double zoom0 = 1.0)
{
    Point fcs{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::ConvertPointImgToFCSPointArea(fcs, image, &C, size, &F, zoom0));
    return fcs;
}

Point AbsoluteOf(const Point& fcs, const Area& F, double zoom0 = 1.0)
{
    Point area{s_unwritten, s_unwritten};
    EXPECT_EQ(0, AreaHelper::ConvertFCSPointAreaToAbsoluteArea(fcs, area, &F, zoom0));
    return area;
}

// Every conversion of a point, with C for the image's area and F for the other one where there is one.
using Conversion = std::function<int(const Point& in, Point& out, const Area* C, const Area* F, Size, double zoom0)>;
struct SConversion
{
    const char* name;
    bool bHasC;
    bool bHasF;
    Conversion convert;
};

const std::vector<SConversion>& Conversions()
{
    static const std::vector<SConversion> conversions = {
        {"image <- area", true, false,
         [](const Point& in, Point& out, const Area* C, const Area*, Size size, double z)
         { return AreaHelper::ConvertPointAreaToPointImg(in, out, C, size, z); }},
        {"area <- image", true, false,
         [](const Point& in, Point& out, const Area* C, const Area*, Size size, double z)
         { return AreaHelper::ConvertPointImgToPointArea(out, in, C, size, z); }},
        {"image <- FCS", true, true,
         [](const Point& in, Point& out, const Area* C, const Area* F, Size size, double z)
         { return AreaHelper::ConvertFCSPointAreaToPointImg(in, out, C, size, F, z); }},
        {"FCS <- image", true, true,
         [](const Point& in, Point& out, const Area* C, const Area* F, Size size, double z)
         { return AreaHelper::ConvertPointImgToFCSPointArea(out, in, C, size, F, z); }},
        {"area <- FCS", false, true, [](const Point& in, Point& out, const Area*, const Area* F, Size, double z) {
             return AreaHelper::ConvertFCSPointAreaToAbsoluteArea(in, out, F, z);
         }}};
    return conversions;
}

} // namespace

// ----------------------------------------------------------------------------------------------------- reference
// values

TEST(ScanAreaPoints, AgreeWithTheReferenceValues)
{
    for (const Json* v : VectorsOf("ConvertPointAreaToPointImg"))
        EXPECT_THAT(Numbers(ImageOf(ToPoint(Input(*v, "p")), ToArea(Input(*v, "C")), ToSize(Input(*v, "size")),
                                    ToDouble(Input(*v, "Z0")))),
                    AreReference(ToNumbers(Member(*v, "output"))))
            << Member(*v, "id").GetString();
    for (const Json* v : VectorsOf("ConvertPointImgToPointArea"))
        EXPECT_THAT(Numbers(AreaOf(ToPoint(Input(*v, "p")), ToArea(Input(*v, "C")), ToSize(Input(*v, "size")),
                                   ToDouble(Input(*v, "Z0")))),
                    AreReference(ToNumbers(Member(*v, "output"))))
            << Member(*v, "id").GetString();
    for (const Json* v : VectorsOf("ConvertPointImgToFCSPointArea"))
        EXPECT_THAT(Numbers(FcsOf(ToPoint(Input(*v, "p")), ToArea(Input(*v, "C")), ToArea(Input(*v, "F")),
                                  ToSize(Input(*v, "size")), ToDouble(Input(*v, "Z0")))),
                    AreReference(ToNumbers(Member(*v, "output"))))
            << Member(*v, "id").GetString();
    for (const Json* v : VectorsOf("ConvertFCSPointAreaToAbsoluteArea"))
        EXPECT_THAT(Numbers(AbsoluteOf(ToPoint(Input(*v, "p")), ToArea(Input(*v, "F")), ToDouble(Input(*v, "Z0")))),
                    AreReference(ToNumbers(Member(*v, "output"))))
            << Member(*v, "id").GetString();
}

// ------------------------------------------------------------------------------------------------------- area and
// image

TEST(ScanAreaPoints, TheFullFieldSpansTheImage)
{
    const Area fullField;
    EXPECT_THAT(Numbers(ImageOf({0.0, 0.0}, fullField)), AreNear({50.0, 50.0}, 0.0));
    EXPECT_THAT(Numbers(ImageOf({1.0, 1.0}, fullField)), AreNear({100.0, 100.0}, 0.0));
    EXPECT_THAT(Numbers(ImageOf({-1.0, -1.0}, fullField)), AreNear({0.0, 0.0}, 0.0));
    // Each axis has its own scale.
    EXPECT_THAT(Numbers(ImageOf({1.0, -0.5}, fullField, {200, 100})), AreNear({200.0, 25.0}, 0.0));
    EXPECT_THAT(Numbers(AreaOf({200.0, 25.0}, fullField, {200, 100})), AreNear({1.0, -0.5}, 0.0));
}

TEST(ScanAreaPoints, ZoomCountsAgainstTheReferenceZoom)
{
    Area C;
    C.dZoom = 2.0;
    EXPECT_THAT(Numbers(ImageOf({0.5, 0.25}, C)), AreNear({100.0, 75.0}, 1e-12));
    // Four times the reference: an eighth of the field is half of the half image.
    EXPECT_THAT(Numbers(ImageOf({0.125, -0.125}, C, {100, 100}, 0.5)), AreNear({75.0, 25.0}, 1e-12));
    EXPECT_THAT(Numbers(AreaOf({75.0, 25.0}, C, {100, 100}, 0.5)), AreNear({0.125, -0.125}, 1e-15));
}

TEST(ScanAreaPoints, TheAspectStretchesTheVerticalAxisOnly)
{
    Area C;
    C.dScanAreaAspect = 2.0;
    EXPECT_THAT(Numbers(ImageOf({0.5, 0.25}, C)), AreNear({75.0, 75.0}, 1e-12));
    EXPECT_THAT(Numbers(AreaOf({75.0, 75.0}, C)), AreNear({0.5, 0.25}, 1e-15));
}

TEST(ScanAreaPoints, AreTurnedBackAboutTheAreasCentre)
{
    Area C;
    C.dAngle = 90.0;
    C.dXOffset = 0.25;
    C.dYOffset = -0.5;
    // By hand: (0.5, 0) from the centre, turned by -90 degrees, is (0, -0.5): a quarter of the image above its centre.
    EXPECT_THAT(Numbers(ImageOf({0.75, -0.5}, C)), AreNear({50.0, 25.0}, 1e-12));
    // (0, 0.5) turned by -90 degrees is (0.5, 0).
    EXPECT_THAT(Numbers(ImageOf({0.25, 0.0}, C)), AreNear({75.0, 50.0}, 1e-12));
    EXPECT_THAT(Numbers(AreaOf({75.0, 50.0}, C)), AreNear({0.25, 0.0}, 1e-14));
}

TEST(ScanAreaPoints, AreTurnedBeforeTheyAreStretched)
{
    Area C;
    C.dAngle = 90.0;
    C.dScanAreaAspect = 2.0;
    // (0.25, 0) becomes (0, -0.25), and then the aspect doubles it: 25 pixels up. Stretched first it would be 12.5.
    EXPECT_THAT(Numbers(ImageOf({0.25, 0.0}, C)), AreNear({50.0, 25.0}, 1e-12));
    EXPECT_THAT(Numbers(ImageOf({0.0, 0.25}, C)), AreNear({62.5, 50.0}, 1e-12));
}

TEST(ScanAreaPoints, OfACroppedImageCountFromTheCropsCorner)
{
    Area C;
    C.bIsCrop = true;
    C.dCropZoom = 2.0;
    C.dCropAspect = 1.5;
    C.dCropXOffset = 0.25;
    C.dCropYOffset = -0.4;
    // By hand: uncropped 200 x 300; the crop's corner is at (25 + 50, -60 + 100) = (75, 40), the field's centre at
    // (100, 150).
    EXPECT_THAT(Numbers(ImageOf({0.0, 0.0}, C)), AreNear({25.0, 110.0}, 1e-12));
    EXPECT_THAT(Numbers(ImageOf({1.0, 1.0}, C)), AreNear({125.0, 260.0}, 1e-12));
    EXPECT_THAT(Numbers(AreaOf({25.0, 110.0}, C)), AreNear({0.0, 0.0}, 1e-14));
    // The crop's own centre lies in the middle of the image: offset (0.25, -0.4) of the field.
    EXPECT_THAT(Numbers(ImageOf({0.25, -0.4}, C)), AreNear({50.0, 50.0}, 1e-12));
}

TEST(ScanAreaPoints, OfAnUncroppedImageTakeNoNoteOfCropValuesThatAreSet)
{
    Area C = AreaC1();
    C.bIsCrop = false;
    Area plain = C;
    plain.dCropXOffset = plain.dCropYOffset = 0.0;
    plain.dCropZoom = plain.dCropAspect = 1.0;
    EXPECT_EQ(Numbers(ImageOf({0.3, 0.2}, plain)), Numbers(ImageOf({0.3, 0.2}, C)));
    EXPECT_EQ(Numbers(AreaOf({30.0, 20.0}, plain)), Numbers(AreaOf({30.0, 20.0}, C)));
}

// ------------------------------------------------------------------------------------------------------------------
// FCS

TEST(FcsPoints, SpanTheAreaThatTheyAreRelativeTo)
{
    Area F;
    F.dZoom = 2.0;
    F.dXOffset = 0.25;
    F.dYOffset = -0.5;
    EXPECT_THAT(Numbers(AbsoluteOf({0.0, 0.0}, F)), AreNear({0.25, -0.5}, 1e-15));
    EXPECT_THAT(Numbers(AbsoluteOf({1.0, 1.0}, F)), AreNear({0.75, 0.0}, 1e-15));
    // Against the reference zoom: the area is a quarter of the field wide on either side.
    EXPECT_THAT(Numbers(AbsoluteOf({1.0, -1.0}, F, 0.5)), AreNear({0.5, -0.75}, 1e-15));
    // The aspect makes it lower.
    F.dScanAreaAspect = 2.0;
    EXPECT_THAT(Numbers(AbsoluteOf({1.0, 1.0}, F)), AreNear({0.75, -0.25}, 1e-15));
}

TEST(FcsPoints, TurnWithTheirAreaAfterTheyWereScaled)
{
    Area F;
    F.dAngle = 90.0;
    F.dScanAreaAspect = 2.0;
    F.dXOffset = 0.1;
    // By hand: (0, 1) is scaled to (0, 0.5) and then turned by +90 degrees to (-0.5, 0).
    EXPECT_THAT(Numbers(AbsoluteOf({0.0, 1.0}, F)), AreNear({-0.4, 0.0}, 1e-14));
    EXPECT_THAT(Numbers(AbsoluteOf({1.0, 0.0}, F)), AreNear({0.1, 1.0}, 1e-14));
}

TEST(FcsPoints, InAnImageLieWhereTheirAreaPointsLie)
{
    const Area F = AreaA1();
    for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
    {
        const Point fcs{0.4, -0.7};
        EXPECT_THAT(Numbers(ImageOfFcs(fcs, C, F, {640, 480}, 0.8)),
                    AreNear(Numbers(ImageOf(AbsoluteOf(fcs, F, 0.8), C, {640, 480}, 0.8)), 1e-9));
    }
}

TEST(FcsPoints, TakeNoNoteOfTheCropOfTheirArea)
{
    const Area F = AreaA1();
    Area uncropped = F;
    uncropped.bIsCrop = false;
    EXPECT_EQ(Numbers(AbsoluteOf({0.4, -0.7}, uncropped)), Numbers(AbsoluteOf({0.4, -0.7}, F)));
    EXPECT_EQ(Numbers(FcsOf({10.0, 20.0}, AreaC1(), uncropped)), Numbers(FcsOf({10.0, 20.0}, AreaC1(), F)));
}

TEST(FcsPoints, OfTheImagesOwnAreaSpanTheUncroppedImage)
{
    Area C = AreaC2();
    EXPECT_THAT(Numbers(ImageOfFcs({-1.0, 1.0}, C, C, {640, 480}, 0.8)), AreNear({0.0, 480.0}, 1e-10));
    EXPECT_THAT(Numbers(FcsOf({640.0, 0.0}, C, C, {640, 480}, 0.8)), AreNear({1.0, -1.0}, 1e-12));
}

// ---------------------------------------------------------------------------------------------------------- round
// trips

TEST(ScanAreaPoints, ComeBackFromTheImage)
{
    for (const Area& C : {AreaC1(), AreaC2(), AreaC3()})
        for (const Size size : {Size{512, 512}, Size{640, 480}, Size{480, 640}})
            for (const double zoom0 : {1.0, 0.8, 1.25})
                for (const Point p : {Point{0.0, 0.0}, Point{1.0, 1.0}, Point{-0.35, 0.6}, Point{0.123, -0.456}})
                {
                    EXPECT_THAT(Numbers(AreaOf(ImageOf(p, C, size, zoom0), C, size, zoom0)), AreNear(Numbers(p), 1e-9));
                    for (const Area& F : {AreaA1(), AreaA2(), AreaC1()})
                        EXPECT_THAT(Numbers(FcsOf(ImageOfFcs(p, C, F, size, zoom0), C, F, size, zoom0)),
                                    AreNear(Numbers(p), 1e-9));
                }
}

// ---------------------------------------------------------------------------------------- what the caller may hand
// over

TEST(ScanAreaPoints, MayBeConvertedInPlace)
{
    const Area C = AreaC1();
    const Area F = AreaA2();
    for (const SConversion& conversion : Conversions())
    {
        const Point start{0.3, -0.6};
        Point apart{s_unwritten, s_unwritten};
        ASSERT_EQ(0, conversion.convert(start, apart, &C, &F, {640, 480}, 0.8));
        Point inPlace = start;
        ASSERT_EQ(0, conversion.convert(inPlace, inPlace, &C, &F, {640, 480}, 0.8));
        EXPECT_EQ(Numbers(apart), Numbers(inPlace)) << conversion.name;
        EXPECT_NE(Numbers(start), Numbers(inPlace)) << conversion.name;
    }
}

TEST(ScanAreaPoints, OfTheAreasOwnListMayBeConvertedInPlace)
{
    for (const SConversion& conversion : Conversions())
    {
        Area C = AreaC1();
        Area F = AreaA2();
        C.Points = F.Points = {{0.3, -0.6}};
        Point apart{s_unwritten, s_unwritten};
        ASSERT_EQ(0, conversion.convert({0.3, -0.6}, apart, &C, &F, {640, 480}, 0.8));
        Point& own = conversion.bHasC ? C.Points[0] : F.Points[0];
        ASSERT_EQ(0, conversion.convert(own, own, &C, &F, {640, 480}, 0.8));
        EXPECT_EQ(Numbers(apart), Numbers(own)) << conversion.name;
    }
}

TEST(ScanAreaPoints, AreConvertedWhateverListOfPointsTheAreasCarry)
{
    Area C = AreaC1();
    Area F = AreaA2();
    for (const SConversion& conversion : Conversions())
    {
        Point without{s_unwritten, s_unwritten};
        C.Points.clear();
        F.Points.clear();
        ASSERT_EQ(0, conversion.convert({0.3, -0.6}, without, &C, &F, {640, 480}, 0.8));
        C.Points = F.Points = {{0.1, 0.2}, {0.3, 0.4}};
        Point with{s_unwritten, s_unwritten};
        EXPECT_EQ(0, conversion.convert({0.3, -0.6}, with, &C, &F, {640, 480}, 0.8)) << conversion.name;
        EXPECT_EQ(Numbers(without), Numbers(with)) << conversion.name;
    }
}

TEST(ScanAreaPoints, OfNoAreaAreRefusedAndNothingIsWritten)
{
    const Area area;
    for (const SConversion& conversion : Conversions())
    {
        Point out{s_unwritten, s_unwritten};
        if (conversion.bHasC)
        {
            EXPECT_EQ(-4, conversion.convert({0.3, -0.6}, out, nullptr, &area, {640, 480}, 1.0)) << conversion.name;
        }
        if (conversion.bHasF)
        {
            EXPECT_EQ(-4, conversion.convert({0.3, -0.6}, out, &area, nullptr, {640, 480}, 1.0)) << conversion.name;
        }
        EXPECT_EQ(-4, conversion.convert({0.3, -0.6}, out, nullptr, nullptr, {640, 480}, 1.0)) << conversion.name;
        EXPECT_THAT(Numbers(out), AreNear({s_unwritten, s_unwritten}, 0.0)) << conversion.name;
    }
}

// --------------------------------------------------------------------------------------------------------- nothing
// traps

TEST(ScanAreaPoints, ADivisionByZeroGivesInfinitiesAndNoError)
{
    Area C;
    // The reference zoom divides on the way to the image, the zoom and the aspect on the way back.
    EXPECT_THAT(Numbers(ImageOf({0.5, -0.5}, C, {100, 100}, 0.0)), AreNear({s_infinity, -s_infinity}, 0.0));
    C.dZoom = 0.0;
    EXPECT_THAT(Numbers(ImageOf({0.5, -0.5}, C)), AreNear({50.0, 50.0}, 0.0));
    EXPECT_THAT(Numbers(AreaOf({75.0, 25.0}, Area(), {100, 100}, 1.0)), AreNear({0.5, -0.5}, 0.0));
    const Point noZoom = AreaOf({75.0, 25.0}, C);
    EXPECT_FALSE(std::isfinite(noZoom.x));
    EXPECT_FALSE(std::isfinite(noZoom.y));
    C = Area();
    C.dScanAreaAspect = 0.0;
    const Point noAspect = AreaOf({75.0, 25.0}, C);
    EXPECT_FALSE(std::isfinite(noAspect.y));
    const Point noSize = AreaOf({75.0, 25.0}, Area(), {0, 0});
    EXPECT_FALSE(std::isfinite(noSize.x));
    EXPECT_FALSE(std::isfinite(noSize.y));
}

TEST(FcsPoints, ADivisionByZeroGivesInfinitiesAndNoError)
{
    for (const auto spoil : {0, 1, 2})
    {
        Area F;
        double zoom0 = 1.0;
        if (spoil == 0)
            F.dZoom = 0.0;
        else if (spoil == 1)
            zoom0 = 0.0;
        else
            F.dScanAreaAspect = 0.0;
        const Point absolute = AbsoluteOf({0.5, 0.25}, F, zoom0);
        EXPECT_FALSE(std::isfinite(absolute.y)) << spoil;
        const Point image = ImageOfFcs({0.5, 0.25}, Area(), F, {100, 100}, zoom0);
        EXPECT_FALSE(std::isfinite(image.y)) << spoil;
    }
    const Point noSize = FcsOf({50.0, 30.0}, Area(), Area(), {0, 0});
    EXPECT_FALSE(std::isfinite(noSize.x));
    EXPECT_FALSE(std::isfinite(noSize.y));
    EXPECT_THAT(Numbers(FcsOf({50.0, 30.0}, Area(), Area())),
                AreNear({0.0, -0.4}, 1e-15)); // the same, but for the size
}

TEST(ScanAreaPoints, AreConvertedWithoutATrapWhateverTheNumbers)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double values[] = {0.0, nan, s_infinity, -s_infinity, 1e308, -1e308, 5e-324};
    for (const double value : values)
        for (const int size : {0, 1, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
            for (const SConversion& conversion : Conversions())
            {
                Area C;
                C.dZoom = C.dAngle = C.dXOffset = C.dScanAreaAspect = value;
                C.bIsCrop = true;
                C.dCropZoom = C.dCropAspect = C.dCropXOffset = value;
                Point out{s_unwritten, s_unwritten};
                EXPECT_EQ(0, conversion.convert({value, value}, out, &C, &C, {size, size}, value));
                EXPECT_NE(s_unwritten, out.x);
            }
}
