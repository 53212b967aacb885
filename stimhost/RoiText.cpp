#include "stimhost/RoiText.h"

#include "stimhost/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <sstream>

namespace Stimhost {

namespace {

constexpr double s_pi = 3.14159265358979323846;
constexpr std::size_t s_mostCorners = 100000;

// Columns where the outline crosses the row's centre line, in ascending order; inside is from the first to the second,
// from the third to the fourth. A side belongs to the rows from its upper end to just before its lower end, so a corner
// counts once where the outline goes on and not at all, or twice, where it turns back.
std::vector<double> Crossings(const SRoi& roi, int row)
{
    std::vector<double> columns;
    if (roi.isEllipse)
    {
        const double v = (row - roi.centre.y) / roi.radii.y;
        if (v * v <= 1.0)
        {
            const double half = roi.radii.x * std::sqrt(1.0 - v * v);
            columns = {roi.centre.x - half, roi.centre.x + half};
        }
        return columns;
    }
    for (std::size_t i = 0; i < roi.corners.size(); ++i)
    {
        const CPoint& a = roi.corners[i];
        const CPoint& b = roi.corners[(i + 1) % roi.corners.size()];
        if ((a.y <= row) != (b.y <= row))
            columns.push_back(a.x + (row - a.y) / (b.y - a.y) * (b.x - a.x));
    }
    std::sort(columns.begin(), columns.end());
    return columns;
}

bool ReadPolygon(std::istream& words, SRoi& roi, std::string& error)
{
    std::string word;
    while (words >> word)
    {
        const std::optional<CPoint> corner = ReadPoint(word);
        if (!corner)
        {
            error = "expected a corner as X,Y, found \"" + word + "\"";
            return false;
        }
        roi.corners.push_back(*corner);
    }
    if (roi.corners.size() >= 3 && roi.corners.size() <= s_mostCorners)
        return true;
    error = "expected a polygon of 3 to " + std::to_string(s_mostCorners) + " corners, found " +
            std::to_string(roi.corners.size());
    return false;
}

bool ReadEllipse(std::istream& words, SRoi& roi, std::string& error)
{
    std::string word;
    std::string more;
    words >> word;
    const std::optional<std::vector<double>> numbers = ReadNumbers(word, 4);
    if (!numbers || (words >> more) || !((*numbers)[2] > 0.0) || !((*numbers)[3] > 0.0))
    {
        error = "expected an ellipse as CX,CY,RX,RY with radii above 0, found \"" + word +
                (more.empty() ? "" : " " + more) + "\"";
        return false;
    }
    roi.isEllipse = true;
    roi.centre = {(*numbers)[0], (*numbers)[1]};
    roi.radii = {(*numbers)[2], (*numbers)[3]};
    return true;
}

} // namespace

std::optional<std::vector<double>> ReadNumbers(const std::string& text, std::size_t count)
{
    std::vector<double> numbers;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (numbers.size() < count)
    {
        double number = 0.0;
        const auto [next, fault] = std::from_chars(at, end, number);
        if (fault != std::errc() || !std::isfinite(number))
            return std::nullopt;
        numbers.push_back(number);
        const bool isLast = numbers.size() == count;
        if (isLast ? next != end : next == end || *next != ',')
            return std::nullopt;
        at = isLast ? next : next + 1;
    }
    return numbers;
}

std::optional<CPoint> ReadPoint(const std::string& text)
{
    const std::optional<std::vector<double>> numbers = ReadNumbers(text, 2);
    if (!numbers)
        return std::nullopt;
    return CPoint{(*numbers)[0], (*numbers)[1]};
}

bool ReadRoi(const std::string& text, SRoi& roi, std::string& error)
{
    SRoi read;
    std::istringstream words(text);
    std::string kind;
    words >> kind;
    bool good = false;
    if (kind == "polygon")
        good = ReadPolygon(words, read, error);
    else if (kind == "ellipse")
        good = ReadEllipse(words, read, error);
    else
        error = "expected \"ellipse CX,CY,RX,RY\" or \"polygon X,Y X,Y X,Y ...\", found \"" + text.substr(0, 60) + "\"";
    if (good)
    {
        read.text = text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
        roi = std::move(read);
    }
    return good;
}

std::vector<CPoint> Outline(const SRoi& roi, unsigned segments)
{
    if (!roi.isEllipse)
        return roi.corners;
    std::vector<CPoint> outline;
    for (unsigned i = 0; i < segments; ++i)
    {
        const double angle = 2.0 * s_pi * i / segments;
        outline.push_back({roi.centre.x + roi.radii.x * std::cos(angle), roi.centre.y + roi.radii.y * std::sin(angle)});
    }
    return outline;
}

bool Rasterise(const SRoi& roi, int width, int height, SQsRLEPicBuf& picture, std::string& error)
{
    const std::string size = std::to_string(width) + " x " + std::to_string(height) + " pixels";
    const CPoint leftTop{roi.centre.x - roi.radii.x, roi.centre.y - roi.radii.y};
    const CPoint rightBottom{roi.centre.x + roi.radii.x, roi.centre.y + roi.radii.y};
    const CQsRectBase<double> bounds = Bounds(roi.isEllipse ? std::vector<CPoint>{leftTop, rightBottom} : roi.corners);
    // A pixel reaches half its width beyond its centre.
    if (bounds.left < -0.5 || bounds.top < -0.5 || bounds.right > width - 0.5 || bounds.bottom > height - 0.5)
    {
        error = "expected a region inside the image of " + size + ", found one from " + Number(bounds.left, 1) + "," +
                Number(bounds.top, 1) + " to " + Number(bounds.right, 1) + "," + Number(bounds.bottom, 1);
        return false;
    }
    SQsRLEPicBuf drawn;
    drawn.uiWidth = static_cast<std::uint32_t>(width);
    drawn.uiHeight = static_cast<std::uint32_t>(height);
    for (int row = 0; row < height; ++row)
    {
        const std::vector<double> columns = Crossings(roi, row);
        for (std::size_t i = 0; i + 1 < columns.size(); i += 2)
        {
            // As for the rows, a side takes the pixels on its left and top and leaves those on its right and bottom, so
            // that polygons which meet have no pixel in common.
            const int first = std::max(0, static_cast<int>(std::ceil(columns[i])));
            const int end = std::min(width, static_cast<int>(std::ceil(columns[i + 1])));
            if (first < end)
                drawn.runs.push_back({static_cast<std::uint32_t>(row), static_cast<std::uint32_t>(first),
                                      static_cast<std::uint32_t>(end - first)});
        }
    }
    if (drawn.runs.empty())
    {
        error = "the region covers no pixel's centre of the image of " + size;
        return false;
    }
    picture = std::move(drawn);
    return true;
}

CQsRectBase<double> Bounds(const std::vector<CPoint>& points)
{
    CQsRectBase<double> bounds{points[0].x, points[0].y, points[0].x, points[0].y};
    for (const CPoint& point : points)
        bounds = {std::min(bounds.left, point.x), std::min(bounds.top, point.y), std::max(bounds.right, point.x),
                  std::max(bounds.bottom, point.y)};
    return bounds;
}

std::uint64_t PixelCount(const SQsRLEPicBuf& picture)
{
    std::uint64_t count = 0;
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
        count += run.uiCount;
    return count;
}

} // namespace Stimhost
