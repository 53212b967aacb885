// A region of interest as people write it: "ellipse CX,CY,RX,RY" or "polygon X,Y X,Y X,Y ...".
//
// Numbers are image pixels: the point (x, y) is the centre of the pixel of column x and row y.
#pragma once

#include "host/QsPicture.h"
#include "stimhost/Matrix3.h"

#include <optional>
#include <string>
#include <vector>

namespace Stimhost {

struct SRoi
{
    std::string text;       // as it was given
    bool isEllipse = false; // else a polygon
    CPoint centre;          // of the ellipse, and its half axes
    CPoint radii;
    std::vector<CPoint> corners; // of the polygon; it may cross itself: what an even number of sides encloses is out
};

// A list of exactly `count` finite numbers with commas between them; none else.
std::optional<std::vector<double>> ReadNumbers(const std::string& text, std::size_t count);
// "X,Y"
std::optional<CPoint> ReadPoint(const std::string& text);

// False, with one line that says what was expected.
bool ReadRoi(const std::string& text, SRoi& roi, std::string& error);

CQsRectBase<double> Bounds(const std::vector<CPoint>& points); // of one at least

// The outline as a closed polygon; an ellipse has `segments` corners.
std::vector<CPoint> Outline(const SRoi& roi, unsigned segments = 128);

// The pixels whose centres are inside; those on the left and the top side count as inside. False, with one line, when
// the region reaches beyond the image or covers no pixel's centre.
bool Rasterise(const SRoi& roi, int width, int height, SQsRLEPicBuf& picture, std::string& error);

std::uint64_t PixelCount(const SQsRLEPicBuf& picture);

} // namespace Stimhost
