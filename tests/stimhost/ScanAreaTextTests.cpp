// Scan areas as people write them.
#include "stimhost/ScanAreaText.h"

#include <gmock/gmock.h>

using namespace Stimhost;
using testing::HasSubstr;

namespace {

std::string Fault(const std::string& text)
{
    SScanArea read;
    read.area.dZoom = 17.0;
    std::string error;
    EXPECT_FALSE(ReadScanArea(text, read, error)) << text;
    EXPECT_EQ(17.0, read.area.dZoom) << text;
    return error;
}

} // namespace

TEST(ScanAreaText, NamedKeysAreReadAndOthersKeepTheirDefaults)
{
    SScanArea read;
    std::string error;
    ASSERT_TRUE(ReadScanArea("zoom=2,angle=-30,x=0.25,reference-zoom=0.8", read, error)) << error;
    EXPECT_EQ(2.0, read.area.dZoom);
    EXPECT_EQ(-30.0, read.area.dAngle);
    EXPECT_EQ(0.25, read.area.dXOffset);
    EXPECT_EQ(0.0, read.area.dYOffset);
    EXPECT_EQ(1.0, read.area.dScanAreaAspect);
    EXPECT_FALSE(read.area.bIsCrop);
    EXPECT_EQ(0.8, read.referenceZoom);
}

TEST(ScanAreaText, AnyKeyOfTheCropSwitchesItOn)
{
    SScanArea read;
    std::string error;
    ASSERT_TRUE(ReadScanArea("crop-y=0.5", read, error)) << error;
    EXPECT_TRUE(read.area.bIsCrop);
    EXPECT_EQ(0.5, read.area.dCropYOffset);
    EXPECT_EQ(0.0, read.referenceZoom);
}

TEST(ScanAreaText, SaysWhatItExpected)
{
    EXPECT_THAT(Fault("zom=2"), HasSubstr("expected one of zoom, angle, x, y"));
    EXPECT_THAT(Fault("zoom"), HasSubstr("expected zoom= with a number above 0, found \"zoom\""));
    EXPECT_THAT(Fault("zoom=0"), HasSubstr("above 0"));
    EXPECT_THAT(Fault("angle=x"), HasSubstr("expected angle= with a number, found \"angle=x\""));
    EXPECT_THAT(Fault("zoom=2,,angle=1"), HasSubstr("found \"\""));
    EXPECT_THAT(Fault("zoom=nan"), HasSubstr("zoom="));
}
