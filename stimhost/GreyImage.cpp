#include "stimhost/GreyImage.h"

#include <algorithm>
#include <cmath>

namespace Stimhost {

namespace {

// The light must stand out of the noise by that much: of a million pixels of noise one in a thousand images has one.
constexpr double s_outstanding = 6.0;
constexpr double s_leastNoise = 0.5;
constexpr int s_margin = 2; // pixels around what is clearly lit that still belong to it

// A flag for each pixel of an image.
class CMask
{
public:
    CMask(int width, int height)
        : m_width(width), m_height(height),
          m_flags(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), false)
    {}

    int Width() const { return m_width; }
    int Height() const { return m_height; }
    bool Has(int x, int y) const { return m_flags[Index(x, y)]; }
    bool HasInside(int x, int y) const { return x >= 0 && y >= 0 && x < m_width && y < m_height && Has(x, y); }
    void Set(int x, int y) { m_flags[Index(x, y)] = true; }

    std::size_t Count() const { return static_cast<std::size_t>(std::count(m_flags.begin(), m_flags.end(), true)); }

    // Calls function(x, y) for every pixel that is set.
    template <class Function>
    void ForEach(Function function) const
    {
        for (int y = 0; y < m_height; ++y)
            for (int x = 0; x < m_width; ++x)
                if (Has(x, y))
                    function(x, y);
    }

private:
    std::size_t Index(int x, int y) const
    {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) + static_cast<std::size_t>(x);
    }

    int m_width;
    int m_height;
    std::vector<bool> m_flags;
};

struct SPixel
{
    int x;
    int y;
};

CMask Above(const SLightImage& image, double level)
{
    CMask mask(image.width, image.height);
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            if (image.At(x, y) > level)
                mask.Set(x, y);
    return mask;
}

// The pixels of the mask that hang together with the first one, diagonally too; marks them in `seen`.
std::vector<SPixel> Patch(const CMask& mask, SPixel first, CMask& seen)
{
    std::vector<SPixel> patch = {first};
    seen.Set(first.x, first.y);
    for (std::size_t i = 0; i < patch.size(); ++i)
        for (int y = patch[i].y - 1; y <= patch[i].y + 1; ++y)
            for (int x = patch[i].x - 1; x <= patch[i].x + 1; ++x)
                if (mask.HasInside(x, y) && !seen.Has(x, y))
                {
                    seen.Set(x, y);
                    patch.push_back({x, y});
                }
    return patch;
}

CMask MaskOf(const std::vector<SPixel>& pixels, int width, int height)
{
    CMask mask(width, height);
    for (const SPixel& pixel : pixels)
        mask.Set(pixel.x, pixel.y);
    return mask;
}

CMask Grown(const CMask& mask, int margin)
{
    CMask grown(mask.Width(), mask.Height());
    mask.ForEach(
        [&](int centreX, int centreY)
        {
            for (int y = std::max(0, centreY - margin); y <= std::min(mask.Height() - 1, centreY + margin); ++y)
                for (int x = std::max(0, centreX - margin); x <= std::min(mask.Width() - 1, centreX + margin); ++x)
                    grown.Set(x, y);
        });
    return grown;
}

// Centre of the weights inside the mask.
template <class Weight>
CPoint Centre(const CMask& mask, Weight weightAt)
{
    double sum = 0.0;
    CPoint moment;
    mask.ForEach(
        [&](int x, int y)
        {
            const double weight = weightAt(x, y);
            sum += weight;
            moment.x += weight * x;
            moment.y += weight * y;
        });
    return {moment.x / sum, moment.y / sum};
}

CMask Inverted(const CMask& mask)
{
    CMask inverted(mask.Width(), mask.Height());
    for (int y = 0; y < mask.Height(); ++y)
        for (int x = 0; x < mask.Width(); ++x)
            if (!mask.Has(x, y))
                inverted.Set(x, y);
    return inverted;
}

// What is left when a border of that width is taken off; the image's own border is none.
CMask Shrunk(const CMask& mask, int margin)
{
    const CMask taken = Grown(Inverted(mask), margin);
    CMask shrunk(mask.Width(), mask.Height());
    mask.ForEach(
        [&](int x, int y)
        {
            if (!taken.Has(x, y))
                shrunk.Set(x, y);
        });
    return shrunk;
}

// Without the patches that are smaller than the hundredth part of `whole` pixels; of the largest patch when that is 0.
CMask WithoutSpecks(const CMask& mask, std::size_t whole)
{
    CMask seen(mask.Width(), mask.Height());
    std::vector<std::vector<SPixel>> patches;
    std::size_t largest = whole;
    mask.ForEach(
        [&](int x, int y)
        {
            if (seen.Has(x, y))
                return;
            patches.push_back(Patch(mask, {x, y}, seen));
            if (whole == 0)
                largest = std::max(largest, patches.back().size());
        });
    CMask kept(mask.Width(), mask.Height());
    for (const std::vector<SPixel>& patch : patches)
        if (100 * patch.size() >= largest)
            for (const SPixel& pixel : patch)
                kept.Set(pixel.x, pixel.y);
    return kept;
}

// Without specks that are lit, and without those inside that are dark.
CMask Cleaned(const CMask& mask)
{
    const CMask lit = WithoutSpecks(mask, 0);
    return Inverted(WithoutSpecks(Inverted(lit), lit.Count()));
}

CMask MaskOf(const SQsRLEPicBuf& picture)
{
    CMask mask(static_cast<int>(picture.uiWidth), static_cast<int>(picture.uiHeight));
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
        for (std::uint32_t i = 0; i < run.uiCount; ++i)
            mask.Set(static_cast<int>(run.uiFirst + i), static_cast<int>(run.uiRow));
    return mask;
}

SQsRLEPicBuf PictureOf(const CMask& mask)
{
    SQsRLEPicBuf picture;
    picture.uiWidth = static_cast<std::uint32_t>(mask.Width());
    picture.uiHeight = static_cast<std::uint32_t>(mask.Height());
    mask.ForEach(
        [&](int x, int y)
        {
            const auto row = static_cast<std::uint32_t>(y);
            const auto column = static_cast<std::uint32_t>(x);
            if (!picture.runs.empty() && picture.runs.back().uiRow == row &&
                picture.runs.back().uiFirst + picture.runs.back().uiCount == column)
                ++picture.runs.back().uiCount;
            else
                picture.runs.push_back({row, column, 1});
        });
    return picture;
}

// How bright the lit part is: the middle of what stands out of the noise. None when nothing does.
std::optional<double> Plateau(const SLightImage& light, double noise)
{
    const double brightest = *std::max_element(light.values.begin(), light.values.end());
    if (brightest < s_outstanding * noise)
        return std::nullopt;
    const double least = std::max(s_outstanding * noise, brightest / 4.0);
    std::vector<float> bright;
    for (const float value : light.values)
        if (value >= least)
            bright.push_back(value);
    const auto middle = bright.begin() + static_cast<std::ptrdiff_t>(bright.size() / 2);
    std::nth_element(bright.begin(), middle, bright.end());
    return *middle;
}

} // namespace

SLightImage Difference(const SQsGrabberImage& lit, const SQsGrabberImage& dark)
{
    SLightImage light;
    const std::size_t count = std::size_t{lit.uiWidth} * lit.uiHeight;
    if (lit.uiWidth != dark.uiWidth || lit.uiHeight != dark.uiHeight || count == 0 || lit.pixels.size() != count ||
        dark.pixels.size() != count)
        return light;
    light.width = static_cast<int>(lit.uiWidth);
    light.height = static_cast<int>(lit.uiHeight);
    light.values.resize(count);
    for (std::size_t i = 0; i < count; ++i)
        light.values[i] = static_cast<float>(static_cast<int>(lit.pixels[i]) - static_cast<int>(dark.pixels[i]));
    return light;
}

double GreyLevel(const SQsGrabberImage& image)
{
    std::vector<std::uint16_t> values = image.pixels;
    if (values.empty())
        return 0.0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

SLightImage Smoothed(const SLightImage& image)
{
    SLightImage smooth = image;
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
        {
            float sum = 0.0f;
            float count = 0.0f;
            for (int v = std::max(0, y - 1); v <= std::min(image.height - 1, y + 1); ++v)
                for (int u = std::max(0, x - 1); u <= std::min(image.width - 1, x + 1); ++u)
                {
                    sum += image.At(u, v);
                    count += 1.0f;
                }
            smooth.values[static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width) +
                          static_cast<std::size_t>(x)] = sum / count;
        }
    return smooth;
}

double NoiseOf(const SLightImage& image)
{
    std::vector<float> differences;
    differences.reserve(image.values.size());
    for (int y = 0; y < image.height; ++y)
        for (int x = 1; x < image.width; ++x)
            differences.push_back(std::fabs(image.At(x, y) - image.At(x - 1, y)));
    if (differences.empty())
        return s_leastNoise;
    const auto middle = differences.begin() + static_cast<std::ptrdiff_t>(differences.size() / 2);
    std::nth_element(differences.begin(), middle, differences.end());
    constexpr double medianOfNormal = 0.6745; // of the absolute value, in standard deviations
    return std::max(s_leastNoise, *middle / (medianOfNormal * std::sqrt(2.0)));
}

std::optional<SSpot> FindSpot(const SLightImage& light)
{
    if (light.values.empty())
        return std::nullopt;
    const SLightImage smooth = Smoothed(light);
    const double noise = NoiseOf(light) / 3.0; // of the mean of nine
    const auto peak = std::max_element(smooth.values.begin(), smooth.values.end());
    if (*peak < s_outstanding * noise)
        return std::nullopt;
    const auto place = static_cast<int>(peak - smooth.values.begin());
    CMask seen(light.width, light.height);
    const CMask bright = Above(smooth, std::max(s_outstanding / 2.0 * noise, *peak / 20.0));
    const std::vector<SPixel> patch = Patch(bright, {place % light.width, place / light.width}, seen);
    for (const SPixel& pixel : patch)
        if (pixel.x < s_margin || pixel.y < s_margin || pixel.x >= light.width - s_margin ||
            pixel.y >= light.height - s_margin)
            return std::nullopt;
    const CMask spot = Grown(MaskOf(patch, light.width, light.height), s_margin);
    return SSpot{Centre(spot, [&](int x, int y) { return static_cast<double>(light.At(x, y)); }), *peak, noise};
}

std::optional<SLitRegion> FindLitRegion(const SLightImage& light, const SQsRLEPicBuf& requested)
{
    if (light.values.empty())
        return std::nullopt;
    // Smoothing rounds the corners of small regions, so it is left out where the light is clear enough without.
    const double noise = NoiseOf(light);
    const SLightImage smooth = Smoothed(light);
    const std::optional<double> plateau = Plateau(smooth, noise / 3.0);
    if (!plateau)
        return std::nullopt;
    constexpr double clear = 20.0;
    const CMask lit = Cleaned(Above(*plateau > clear * noise ? light : smooth, *plateau / 2.0));
    const CMask wanted = MaskOf(requested);

    SLitRegion region;
    region.picture = PictureOf(lit);
    std::uint32_t both = 0;
    std::uint32_t any = 0;
    for (int y = 0; y < light.height; ++y)
        for (int x = 0; x < light.width; ++x)
        {
            const bool isLit = lit.Has(x, y);
            const bool isWanted = wanted.HasInside(x, y);
            region.pixels += isLit ? 1 : 0;
            region.requestedPixels += isWanted ? 1 : 0;
            both += isLit && isWanted ? 1 : 0;
            any += isLit || isWanted ? 1 : 0;
            if (isWanted)
            {
                region.requestedCentre.x += x;
                region.requestedCentre.y += y;
            }
        }
    if (region.pixels == 0 || region.requestedPixels == 0)
        return std::nullopt;
    region.requestedCentre.x /= region.requestedPixels;
    region.requestedCentre.y /= region.requestedPixels;
    region.overlap = static_cast<double>(both) / any;
    // The border tells how much of each of its pixels is lit. Inside, what is darker has dust on it and is lit all the
    // same.
    const CMask inside = Shrunk(lit, s_margin);
    region.centre = Centre(Grown(lit, s_margin), [&](int x, int y)
                           { return inside.Has(x, y) ? *plateau : std::min<double>(light.At(x, y), *plateau); });
    return region;
}

} // namespace Stimhost
