// Spots and lit regions on images whose light is known.
#include "stimhost/GreyImage.h"

#include "stimhost/RoiText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

using namespace Stimhost;

namespace {

constexpr int s_width = 160;
constexpr int s_height = 120;
constexpr double s_background = 100.0;

using Light = std::function<double(double x, double y)>; // grey values at a point

// A frame of that light with normal noise; a light of null is darkness.
SQsGrabberImage Frame(const Light& light, double noise, unsigned seed)
{
    SQsGrabberImage image;
    image.uiWidth = s_width;
    image.uiHeight = s_height;
    std::mt19937 random(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    for (int y = 0; y < s_height; ++y)
        for (int x = 0; x < s_width; ++x)
            image.pixels.push_back(static_cast<std::uint16_t>(
                std::lround(s_background + (light ? light(x, y) : 0.0) + noise * normal(random))));
    return image;
}

Light Gaussian(double x0, double y0, double sigma, double peak)
{
    return [=](double x, double y)
    { return peak * std::exp(-((x - x0) * (x - x0) + (y - y0) * (y - y0)) / (2.0 * sigma * sigma)); };
}

SLightImage Of(const Light& light, double noise, unsigned seed = 1)
{
    return Difference(Frame(light, noise, seed), Frame(nullptr, noise, seed + 1000));
}

SQsRLEPicBuf Drawn(const std::string& text)
{
    SRoi roi;
    std::string error;
    SQsRLEPicBuf picture;
    EXPECT_TRUE(ReadRoi(text, roi, error)) << error;
    EXPECT_TRUE(Rasterise(roi, s_width, s_height, picture, error)) << error;
    return picture;
}

// Bright inside a rectangle of points.
Light Box(double left, double top, double right, double bottom, double level)
{
    return [=](double x, double y) { return x >= left && x <= right && y >= top && y <= bottom ? level : 0.0; };
}

} // namespace

TEST(FindSpot, FindsTheCentreOfASpotBetweenPixels)
{
    for (const CPoint& centre : {CPoint{60.0, 40.0}, CPoint{60.25, 40.75}, CPoint{31.5, 88.1}})
    {
        const auto spot = FindSpot(Of(Gaussian(centre.x, centre.y, 3.0, 2000.0), 0.0));
        ASSERT_TRUE(spot);
        EXPECT_NEAR(centre.x, spot->position.x, 0.01);
        EXPECT_NEAR(centre.y, spot->position.y, 0.01);
    }
}

TEST(FindSpot, IsGoodToAFewHundredthsOfAPixelUnderNoise)
{
    // By hand: 2 pi 3^2 500 = 28 000 grey values of light; noise of 14 over a window of 9 pixels' radius moves its
    // centre by 14 * 81 * sqrt(pi / 4) / 28 000 = 0.036.
    double squares = 0.0;
    constexpr unsigned frames = 40;
    for (unsigned seed = 1; seed <= frames; ++seed)
    {
        const auto spot = FindSpot(Of(Gaussian(80.3, 60.6, 3.0, 500.0), 10.0, seed));
        ASSERT_TRUE(spot) << seed;
        squares += std::pow(spot->position.x - 80.3, 2) + std::pow(spot->position.y - 60.6, 2);
    }
    EXPECT_LT(std::sqrt(squares / (2.0 * frames)), 0.05);
}

TEST(FindSpot, FindsNothingInNoiseAlone)
{
    for (unsigned seed = 1; seed <= 50; ++seed)
        EXPECT_FALSE(FindSpot(Of(nullptr, 12.0, seed))) << seed;
    EXPECT_FALSE(FindSpot(Of(nullptr, 0.0)));
}

TEST(FindSpot, RefusesASpotThatTheBorderCuts)
{
    EXPECT_FALSE(FindSpot(Of(Gaussian(1.0, 60.0, 3.0, 2000.0), 0.0)));
    EXPECT_FALSE(FindSpot(Of(Gaussian(80.0, s_height - 2.0, 3.0, 2000.0), 0.0)));
    EXPECT_FALSE(FindSpot(Of(Gaussian(-2.0, -2.0, 4.0, 4000.0), 0.0)));
}

TEST(FindSpot, DoesNotMindDustElsewhere)
{
    // Dust takes a part of all light, the background's included, in both frames.
    SQsGrabberImage lit = Frame(Gaussian(50.0, 50.0, 3.0, 2000.0), 5.0, 1);
    SQsGrabberImage dark = Frame(nullptr, 5.0, 2);
    for (SQsGrabberImage* image : {&lit, &dark})
        for (std::size_t y = 80; y < 90; ++y)
            for (std::size_t x = 100; x < 110; ++x)
                image->pixels[y * s_width + x] /= 2;
    const auto spot = FindSpot(Difference(lit, dark));
    ASSERT_TRUE(spot);
    EXPECT_NEAR(50.0, spot->position.x, 0.1);
}

TEST(Difference, OfImagesThatDoNotBelongTogetherIsEmpty)
{
    SQsGrabberImage small = Frame(nullptr, 0.0, 1);
    small.uiHeight -= 1;
    EXPECT_TRUE(Difference(small, Frame(nullptr, 0.0, 1)).values.empty());
    EXPECT_TRUE(Difference(SQsGrabberImage(), SQsGrabberImage()).values.empty());
    EXPECT_FALSE(FindSpot(SLightImage()));
    EXPECT_FALSE(FindLitRegion(SLightImage(), SQsRLEPicBuf()));
}

TEST(NoiseOf, IsTheStandardDeviationWhateverIsLit)
{
    // Of a difference of two frames: the square root of two as large.
    EXPECT_NEAR(8.0 * std::sqrt(2.0), NoiseOf(Of(nullptr, 8.0)), 0.3);
    EXPECT_NEAR(8.0 * std::sqrt(2.0), NoiseOf(Of(Box(10, 10, 150, 110, 900.0), 8.0)), 0.5);
}

TEST(FindLitRegion, OverlapsWhollyWhereTheLightIsWhatWasAsked)
{
    const SQsRLEPicBuf requested =
        Drawn("polygon 29.5,19.5 90.5,19.5 90.5,70.5 29.5,70.5"); // pixels 30 to 90, 20 to 70
    const auto region = FindLitRegion(Of(Box(30, 20, 90, 70, 800.0), 0.0), requested);
    ASSERT_TRUE(region);
    EXPECT_EQ(61u * 51u, region->pixels);
    EXPECT_EQ(61u * 51u, region->requestedPixels);
    EXPECT_DOUBLE_EQ(1.0, region->overlap);
    EXPECT_NEAR(60.0, region->centre.x, 1e-9);
    EXPECT_NEAR(45.0, region->centre.y, 1e-9);
    EXPECT_DOUBLE_EQ(60.0, region->requestedCentre.x);
    EXPECT_DOUBLE_EQ(45.0, region->requestedCentre.y);
}

TEST(FindLitRegion, MeasuresAShiftedLight)
{
    // Shifted by 10 columns: 51 of 61 columns in common, 71 in all.
    const auto region =
        FindLitRegion(Of(Box(40, 20, 100, 70, 800.0), 10.0), Drawn("polygon 29.5,19.5 90.5,19.5 90.5,70.5 29.5,70.5"));
    ASSERT_TRUE(region);
    EXPECT_NEAR(51.0 / 71.0, region->overlap, 1e-3);
    EXPECT_NEAR(10.0, region->centre.x - region->requestedCentre.x, 0.05);
    EXPECT_NEAR(0.0, region->centre.y - region->requestedCentre.y, 0.05);
}

TEST(FindLitRegion, HasNoOverlapWithALightElsewhere)
{
    const auto region = FindLitRegion(Of(Box(110, 80, 140, 110, 800.0), 10.0),
                                      Drawn("polygon 29.5,19.5 90.5,19.5 90.5,70.5 29.5,70.5"));
    ASSERT_TRUE(region);
    EXPECT_EQ(0.0, region->overlap);
}

TEST(FindLitRegion, LeavesSpecksOut)
{
    const Light box = Box(30, 20, 90, 70, 800.0);
    const Light withSpeck = [box](double x, double y) { return x == 140.0 && y == 100.0 ? 900.0 : box(x, y); };
    const auto region = FindLitRegion(Of(withSpeck, 0.0), Drawn("polygon 29.5,19.5 90.5,19.5 90.5,70.5 29.5,70.5"));
    ASSERT_TRUE(region);
    EXPECT_EQ(61u * 51u, region->pixels);
}

TEST(FindLitRegion, DoesNotTakeDustForAHoleButALargeHoleForOne)
{
    const auto lit = [](double holeSide)
    {
        const Light box = Box(30, 20, 90, 70, 800.0);
        return Of([=](double x, double y)
                  { return std::max(std::fabs(x - 40.0), std::fabs(y - 30.0)) < holeSide / 2.0 ? 20.0 : box(x, y); },
                  0.0);
    };
    const SQsRLEPicBuf requested = Drawn("polygon 29.5,19.5 90.5,19.5 90.5,70.5 29.5,70.5");
    const auto dusty = FindLitRegion(lit(5.5), requested); // 25 of 3111 pixels
    ASSERT_TRUE(dusty);
    EXPECT_EQ(61u * 51u, dusty->pixels);
    EXPECT_NEAR(60.0, dusty->centre.x, 1e-9);
    const auto holed = FindLitRegion(lit(19.5), requested); // 19 by 19
    ASSERT_TRUE(holed);
    EXPECT_EQ(61u * 51u - 19u * 19u, holed->pixels);
}

TEST(FindLitRegion, KeepsPartsThatAreApart)
{
    const Light first = Box(20, 20, 50, 50, 800.0);
    const Light second = Box(90, 60, 120, 90, 800.0);
    const auto region = FindLitRegion(Of([=](double x, double y) { return first(x, y) + second(x, y); }, 5.0),
                                      Drawn("polygon 19.5,19.5 50.5,19.5 50.5,50.5 19.5,50.5"));
    ASSERT_TRUE(region);
    EXPECT_NEAR(2.0 * 31.0 * 31.0, region->pixels, 4.0);
    EXPECT_NEAR(0.5, region->overlap, 0.01);
}

TEST(FindLitRegion, SeesNoLightInNoise)
{
    for (unsigned seed = 1; seed <= 30; ++seed)
        EXPECT_FALSE(FindLitRegion(Of(nullptr, 12.0, seed), Drawn("ellipse 80,60,20,20"))) << seed;
}

TEST(GreyLevel, IsTheMedian)
{
    SQsGrabberImage image;
    EXPECT_EQ(0.0, GreyLevel(image));
    image.uiWidth = 3;
    image.uiHeight = 1;
    image.pixels = {900, 7, 9};
    EXPECT_EQ(9.0, GreyLevel(image));
}
