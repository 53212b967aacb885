#include "plugins/PatternImage.h"

#include <gmock/gmock.h>

#include <string>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

SPatternImage Parsed(const std::string& bytes)
{
    SPatternImage image;
    std::string error;
    EXPECT_TRUE(ParsePatternImage(bytes, image, error)) << error;
    return image;
}

std::string Refusal(const std::string& bytes)
{
    SPatternImage image;
    image.width = 77;
    std::string error;
    EXPECT_FALSE(ParsePatternImage(bytes, image, error));
    EXPECT_EQ(77u, image.width);
    return error;
}

} // namespace

TEST(PatternImage, ReadsPlainGraymapsWithComments)
{
    const SPatternImage image = Parsed("P2 # grey\n# size\n3 2\n10\n0 5 10\n10 0 1\n");
    EXPECT_EQ(3u, image.width);
    EXPECT_EQ(2u, image.height);
    // Of 10: 5 is 127.5, rounded up; 1 is 25.5, rounded up.
    EXPECT_THAT(image.pixels, ElementsAre(0, 128, 255, 255, 0, 26));
}

TEST(PatternImage, ReadsPlainBitmapsWhoseOnesAreBlack)
{
    EXPECT_THAT(Parsed("P1\n3 2\n101\n0 1 0").pixels, ElementsAre(0, 255, 0, 255, 0, 255));
}

TEST(PatternImage, ReadsRawBitmapsRowByRow)
{
    // Rows of 10 pixels take two bytes; the last six bits are padding.
    const SPatternImage image = Parsed(std::string("P4\n10 2\n") + "\x80\x7F" + "\xFF\x80");
    ASSERT_EQ(20u, image.pixels.size());
    EXPECT_EQ(0, image.pixels[0]);
    for (std::size_t x = 1; x < 9; ++x)
        EXPECT_EQ(255, image.pixels[x]) << x;
    EXPECT_EQ(0, image.pixels[9]);
    for (std::size_t x = 10; x < 19; ++x)
        EXPECT_EQ(0, image.pixels[x]) << x;
    EXPECT_EQ(255, image.pixels[19]);
}

TEST(PatternImage, ReadsRawGraymapsOfOneAndOfTwoBytes)
{
    EXPECT_THAT(Parsed(std::string("P5 2 1 255\n") + "\x10\xF0").pixels, ElementsAre(0x10, 0xF0));
    EXPECT_THAT(Parsed(std::string("P5 2 1 65535\n") + std::string("\xFF\xFF\x00\x00", 4)).pixels, ElementsAre(255, 0));
}

TEST(PatternImage, RefusesWhatIsNoSuchImage)
{
    for (const std::string& bytes : {std::string(), std::string("P"), std::string("P3 1 1 255 0 0 0"),
                                     std::string("P7\n"), std::string("\x89PNG\r\n"), std::string("P52 2 255 ab")})
        EXPECT_THAT(Refusal(bytes), HasSubstr("expected a portable bitmap or graymap")) << bytes;
}

TEST(PatternImage, RefusesDamagedHeaders)
{
    for (const char* bytes : {"P5", "P5\n", "P5 4", "P5 0 4 255 ", "P5 4 0 255 ", "P2 2 2 0 1 1 1 1", "P5 2 2 70000 ",
                              "P5 -1 2 255 ", "P5 99999999999999999999 1 255 "})
        EXPECT_THAT(Refusal(bytes), HasSubstr("expected")) << bytes;
    EXPECT_THAT(Refusal("P5 2 2 255"), HasSubstr("found none"));
}

TEST(PatternImage, RefusesImagesThatAreTooLarge)
{
    EXPECT_THAT(Refusal("P5 8193 1 255\n"), HasSubstr("at most 8192 x 8192"));
    EXPECT_THAT(Refusal("P1 1 999999999\n"), HasSubstr("at most 8192 x 8192"));
}

TEST(PatternImage, RefusesEveryTruncation)
{
    const std::string images[] = {"P1 3 2\n101010", "P2 3 2 9\n1 2 3 4 5 6", "P4 10 2\n\x80\x7F\xFF\x80",
                                  "P5 3 2 255\nabcdef"};
    for (const std::string& whole : images)
    {
        Parsed(whole);
        for (std::size_t length = 0; length < whole.size(); ++length)
            EXPECT_NE("", Refusal(whole.substr(0, length))) << whole << " cut to " << length;
    }
}

TEST(PatternImage, RefusesPixelsBeyondWhite)
{
    EXPECT_NE("", Refusal("P2 2 1 9\n3 10\n"));
    EXPECT_NE("", Refusal(std::string("P5 2 1 9\n") + "\x03\x0A"));
    EXPECT_NE("", Refusal("P1 2 1\n12"));
}

TEST(PatternImage, ScalesToTheChipByNearestNeighbour)
{
    const SPatternImage image = Parsed("P2 2 2 255\n10 20 30 40");
    SPatternImage placed;
    ASSERT_TRUE(PlacePatternImage(image, 4, 2, false, placed));
    EXPECT_EQ(4u, placed.width);
    EXPECT_EQ(2u, placed.height);
    EXPECT_THAT(placed.pixels, ElementsAre(10, 10, 20, 20, 30, 30, 40, 40));
    ASSERT_TRUE(PlacePatternImage(image, 1, 1, false, placed));
    EXPECT_THAT(placed.pixels, ElementsAre(10));
}

TEST(PatternImage, StandsOneToOneInTheCornerAndMustFit)
{
    const SPatternImage image = Parsed("P2 2 2 255\n10 20 30 40");
    SPatternImage placed;
    ASSERT_TRUE(PlacePatternImage(image, 3, 2, true, placed));
    EXPECT_THAT(placed.pixels, ElementsAre(10, 20, 0, 30, 40, 0));
    EXPECT_FALSE(PlacePatternImage(image, 1, 2, true, placed));
    EXPECT_FALSE(PlacePatternImage(image, 2, 1, true, placed));
    EXPECT_THAT(placed.pixels, ElementsAre(10, 20, 0, 30, 40, 0));
}

TEST(PatternImage, ReportsAFileThatIsNotThere)
{
    SPatternImage image;
    std::string error;
    EXPECT_FALSE(ReadPatternImage("/nowhere/pattern.pgm", image, error));
    EXPECT_EQ("expected an image file, found none", error);
}
