// Regions as people write them, and the pixels that they cover.
#include "stimhost/RoiText.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace Stimhost;
using testing::HasSubstr;

namespace {

SRoi Read(const std::string& text)
{
    SRoi roi;
    std::string error;
    EXPECT_TRUE(ReadRoi(text, roi, error)) << error;
    return roi;
}

std::string Fault(const std::string& text)
{
    SRoi roi;
    roi.text = "as before";
    std::string error;
    EXPECT_FALSE(ReadRoi(text, roi, error)) << text;
    EXPECT_EQ("as before", roi.text) << text;
    EXPECT_EQ(std::string::npos, error.find('\n')) << text;
    return error;
}

// The picture as lines of '#' and '.'.
std::vector<std::string> Drawn(const std::string& text, int width, int height)
{
    SQsRLEPicBuf picture;
    std::string error;
    EXPECT_TRUE(Rasterise(Read(text), width, height, picture, error)) << error;
    EXPECT_EQ(static_cast<std::uint32_t>(width), picture.uiWidth);
    EXPECT_EQ(static_cast<std::uint32_t>(height), picture.uiHeight);
    std::vector<std::string> lines(static_cast<std::size_t>(height), std::string(static_cast<std::size_t>(width), '.'));
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
        for (std::uint32_t i = 0; i < run.uiCount; ++i)
        {
            EXPECT_EQ('.', lines.at(run.uiRow).at(run.uiFirst + i)) << "twice";
            lines.at(run.uiRow).at(run.uiFirst + i) = '#';
        }
    return lines;
}

std::string FaultOfDrawing(const std::string& text, int width, int height)
{
    SQsRLEPicBuf picture;
    picture.uiWidth = 77;
    std::string error;
    EXPECT_FALSE(Rasterise(Read(text), width, height, picture, error)) << text;
    EXPECT_EQ(77u, picture.uiWidth);
    return error;
}

} // namespace

TEST(RoiText, ReadsAnEllipseAndAPolygon)
{
    const SRoi ellipse = Read("ellipse 10,20.5,3,4e0");
    EXPECT_TRUE(ellipse.isEllipse);
    EXPECT_EQ(20.5, ellipse.centre.y);
    EXPECT_EQ(4.0, ellipse.radii.y);
    const SRoi polygon = Read("polygon 0,0  5,-0.5 2,7\n");
    ASSERT_EQ(3u, polygon.corners.size());
    EXPECT_EQ(-0.5, polygon.corners[1].y);
    EXPECT_EQ("polygon 0,0  5,-0.5 2,7", polygon.text);
}

TEST(RoiText, SaysWhatItExpected)
{
    EXPECT_THAT(Fault(""), HasSubstr("expected \"ellipse CX,CY,RX,RY\" or \"polygon X,Y X,Y X,Y ...\""));
    EXPECT_THAT(Fault("square 1,2,3,4"), HasSubstr("found \"square 1,2,3,4\""));
    EXPECT_THAT(Fault("ellipse"), HasSubstr("CX,CY,RX,RY"));
    EXPECT_THAT(Fault("ellipse 1,2,3"), HasSubstr("found \"1,2,3\""));
    EXPECT_THAT(Fault("ellipse 1,2,3,4,5"), HasSubstr("CX,CY,RX,RY"));
    EXPECT_THAT(Fault("ellipse 1,2,0,4"), HasSubstr("radii above 0"));
    EXPECT_THAT(Fault("ellipse 1,2,-3,4"), HasSubstr("radii above 0"));
    EXPECT_THAT(Fault("ellipse 1,2,3,4 5"), HasSubstr("CX,CY,RX,RY"));
    EXPECT_THAT(Fault("ellipse nan,2,3,4"), HasSubstr("CX,CY,RX,RY"));
    EXPECT_THAT(Fault("ellipse 1,2,inf,4"), HasSubstr("CX,CY,RX,RY"));
    EXPECT_THAT(Fault("polygon"), HasSubstr("found 0"));
    EXPECT_THAT(Fault("polygon 1,1 2,2"), HasSubstr("3 to"));
    EXPECT_THAT(Fault("polygon 1,1 2;2 3,3"), HasSubstr("found \"2;2\""));
    EXPECT_THAT(Fault("polygon 1,1 2,2, 3,3"), HasSubstr("found \"2,2,\""));
}

TEST(RoiText, CoversThePixelsWhoseCentresAreInside)
{
    EXPECT_THAT(Drawn("polygon 0.6,0.6 3.4,0.6 3.4,2.4 0.6,2.4", 5, 4),
                testing::ElementsAre(".....", ".###.", ".###.", "....."));
    // By hand: |x - 2| < 2.2 sqrt(1 - (y - 2)^2 / 2.25) with the rows 1, 2, 3.
    EXPECT_THAT(Drawn("ellipse 2,2,2.2,1.5", 5, 5), testing::ElementsAre(".....", ".###.", "#####", ".###.", "....."));
}

TEST(RoiText, SidesThatPolygonsShareBelongToOneOfThem)
{
    EXPECT_THAT(Drawn("polygon 1,1 3,1 3,3 1,3", 5, 5),
                testing::ElementsAre(".....", ".##..", ".##..", ".....", "....."));
    EXPECT_THAT(Drawn("polygon 3,1 4,1 4,3 3,3", 5, 5),
                testing::ElementsAre(".....", "...#.", "...#.", ".....", "....."));
}

TEST(RoiText, LeavesOutWhatAnEvenNumberOfSidesEncloses)
{
    // A square inside a square, drawn as one line that runs round twice in the same sense.
    EXPECT_THAT(
        Drawn("polygon -0.4,-0.4 6.4,-0.4 6.4,6.4 -0.4,6.4 -0.4,-0.4 1.6,1.6 4.4,1.6 4.4,4.4 1.6,4.4 1.6,1.6", 7, 7),
        testing::ElementsAre("#######", "#######", "##...##", "##...##", "##...##", "#######", "#######"));
}

TEST(RoiText, AcceptsAPolygonThatCrossesItself)
{
    // Two triangles, left and right, that meet in the middle.
    const std::vector<std::string> lines = Drawn("polygon 0,0 10,10 10,0 0,10", 11, 11);
    EXPECT_EQ("#........#.", lines[1]);
    EXPECT_EQ("###....###.", lines[3]);
    EXPECT_EQ("##########.", lines[5]);
    EXPECT_EQ("#........#.", lines[9]);
}

TEST(RoiText, AnEllipseHasItsArea)
{
    SQsRLEPicBuf picture;
    std::string error;
    ASSERT_TRUE(Rasterise(Read("ellipse 320.3,240.7,150,90"), 640, 480, picture, error)) << error;
    EXPECT_NEAR(3.14159265358979 * 150.0 * 90.0, static_cast<double>(PixelCount(picture)), 60.0);
}

TEST(RoiText, RefusesWhatReachesBeyondTheImage)
{
    EXPECT_THAT(FaultOfDrawing("ellipse 700,100,10,10", 640, 480),
                HasSubstr("expected a region inside the image of 640 x 480 pixels, found one from 690.0,90.0 to "
                          "710.0,110.0"));
    EXPECT_THAT(FaultOfDrawing("polygon -1,0 5,0 5,5", 10, 10), HasSubstr("inside the image"));
    EXPECT_THAT(FaultOfDrawing("polygon 0,0 1e300,0 5,5", 10, 10), HasSubstr("inside the image"));
    // The whole image is inside.
    EXPECT_EQ("###", Drawn("polygon -0.5,-0.5 2.5,-0.5 2.5,1.5 -0.5,1.5", 3, 2)[1]);
}

TEST(RoiText, RefusesWhatCoversNoPixel)
{
    EXPECT_THAT(FaultOfDrawing("ellipse 5.5,5.5,0.2,0.2", 10, 10), HasSubstr("covers no pixel's centre"));
    EXPECT_THAT(FaultOfDrawing("polygon 1,1.5 5,1.5 8,1.5", 10, 10), HasSubstr("covers no pixel's centre"));
}

TEST(RoiText, OutlineOfAnEllipseLiesOnIt)
{
    const SRoi roi = Read("ellipse 10,20,3,4");
    const std::vector<CPoint> outline = Outline(roi, 16);
    ASSERT_EQ(16u, outline.size());
    for (const CPoint& point : outline)
        EXPECT_NEAR(1.0, std::pow((point.x - 10.0) / 3.0, 2) + std::pow((point.y - 20.0) / 4.0, 2), 1e-12);
}
