// What two frames of a camera differ by: the light that came on between them.
#pragma once

#include "host/QsGrabber.h"
#include "host/QsPicture.h"
#include "stimhost/Matrix3.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Stimhost {

// Signed grey values, row by row. The point (x, y) is the centre of the pixel of column x and row y.
struct SLightImage
{
    int width = 0;
    int height = 0;
    std::vector<float> values;

    float At(int x, int y) const
    {
        return values[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
    }
};

// Lit less dark. Empty when the two differ in size or one has no pixels.
SLightImage Difference(const SQsGrabberImage& lit, const SQsGrabberImage& dark);
// The median grey value; 0 without pixels.
double GreyLevel(const SQsGrabberImage& image);
// Mean over 3 x 3 pixels, over those that exist at the border.
SLightImage Smoothed(const SLightImage& image);
// Standard deviation of the noise, from the median difference of neighbours, so that neither lit patches nor dust
// count; never below half a grey value, which is what a camera without noise rounds to.
double NoiseOf(const SLightImage& image);

struct SSpot
{
    CPoint position;     // [image px]
    double signal = 0.0; // above the dark frame, at its brightest [grey values]
    double noise = 0.0;  // [grey values]
};

// The brightest spot that stands out of the noise: its centre of light. None when there is none, or it is cut by the
// image's border, where the centre would be wrong.
std::optional<SSpot> FindSpot(const SLightImage& light);

// A lit region beside the requested one.
struct SLitRegion
{
    SQsRLEPicBuf picture;     // where more than half of the light is
    std::uint32_t pixels = 0; // of the picture
    double overlap = 0.0;     // of requested and lit: intersection by union
    CPoint centre;            // of the light [image px]
    CPoint requestedCentre;   // [image px]
    std::uint32_t requestedPixels = 0;
};

// Finds the light of an image. `requested` has the image's size and at least one pixel. None when nothing stands out of
// the noise. Specks of less than a hundredth of the largest lit patch do not count, nor do holes, which dust leaves, of
// less than a hundredth of all that is lit.
std::optional<SLitRegion> FindLitRegion(const SLightImage& light, const SQsRLEPicBuf& requested);

} // namespace Stimhost
