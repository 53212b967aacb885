#include "plugins/ChipMapping.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr std::uint32_t largestSide = 16384; // [px] of an image

// Lit pixels of a picture for random access, within the rectangle that encloses them.
class CLitPixels
{
public:
    explicit CLitPixels(const SQsRLEPicBuf& picture)
    {
        bool any = false;
        for (const SQsRLEPicBuf::SRun& run : picture.runs)
        {
            const std::int64_t first = run.uiFirst;
            const std::int64_t end = End(picture, run);
            if (run.uiRow >= picture.uiHeight || first >= end)
                continue;
            left = any ? std::min(left, first) : first;
            right = any ? std::max(right, end) : end;
            top = any ? std::min<std::int64_t>(top, run.uiRow) : run.uiRow;
            bottom = any ? std::max<std::int64_t>(bottom, run.uiRow + std::int64_t{1}) : run.uiRow + std::int64_t{1};
            any = true;
        }
        m_lit.assign(static_cast<std::size_t>((right - left) * (bottom - top)), 0);
        for (const SQsRLEPicBuf::SRun& run : picture.runs)
            if (run.uiRow < picture.uiHeight && run.uiFirst < End(picture, run))
                std::fill_n(m_lit.begin() + (run.uiRow - top) * (right - left) + (run.uiFirst - left),
                            End(picture, run) - run.uiFirst, std::uint8_t{1});
    }

    bool IsLit(std::int64_t x, std::int64_t y) const
    {
        return x >= left && x < right && y >= top && y < bottom &&
               m_lit[static_cast<std::size_t>((y - top) * (right - left) + x - left)] != 0;
    }

    // [px]; right and bottom are the first pixels behind
    std::int64_t left = 0;
    std::int64_t right = 0;
    std::int64_t top = 0;
    std::int64_t bottom = 0;

private:
    static std::int64_t End(const SQsRLEPicBuf& picture, const SQsRLEPicBuf::SRun& run)
    {
        return std::min<std::int64_t>(picture.uiWidth, std::int64_t{run.uiFirst} + run.uiCount);
    }

    std::vector<std::uint8_t> m_lit;
};

// (0, 0, 1) but for the rounding of the products and inverses behind it.
bool IsLastRow(const double* row)
{
    constexpr double rounding = 1e-9;
    return std::abs(row[0]) <= rounding && std::abs(row[1]) <= rounding && std::abs(row[2] - 1.0) <= rounding;
}

// Narrows [first, last] to the places i at which slope * i + offset can lie in [low, high].
void Narrow(double slope, double offset, double low, double high, double& first, double& last)
{
    if (slope == 0.0)
    {
        if (offset < low || offset > high)
            last = first - 1.0;
        return;
    }
    const double a = (low - offset) / slope;
    const double b = (high - offset) / slope;
    first = std::max(first, std::min(a, b));
    last = std::min(last, std::max(a, b));
}

} // namespace

CQsMirrors::CQsMirrors(const CQsSizeBase<int>& chip)
    : m_width(chip.cx), m_height(chip.cy), m_on(static_cast<std::size_t>(m_width * m_height), 0)
{}

bool CQsMirrors::Fits(const SQsRLEPicBuf& picture) const
{
    return picture.uiWidth == m_width && picture.uiHeight == m_height &&
           std::all_of(picture.runs.begin(), picture.runs.end(),
                       [this](const SQsRLEPicBuf::SRun& run)
                       { return run.uiRow < m_height && std::int64_t{run.uiFirst} + run.uiCount <= m_width; });
}

void CQsMirrors::AddAll()
{
    std::fill(m_on.begin(), m_on.end(), std::uint8_t{1});
}

void CQsMirrors::AddChipPicture(const SQsRLEPicBuf& picture)
{
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
    {
        const std::int64_t end = std::min(m_width, std::int64_t{run.uiFirst} + run.uiCount);
        if (run.uiRow < m_height && run.uiFirst < end)
            std::fill_n(m_on.begin() + run.uiRow * m_width + run.uiFirst, end - run.uiFirst, std::uint8_t{1});
    }
}

bool CQsMirrors::AddImagePicture(const SQsRLEPicBuf& picture, const double* imageToChip)
{
    double m[9]; // image <- DMD
    if (!InvertAffine(imageToChip, m))
        return false;
    // Of a picture that is larger than any image only the runs are there; it is not unfolded.
    if (std::max(picture.uiWidth, picture.uiHeight) > largestSide)
        return false;
    const CLitPixels lit(picture);
    // Pixel x reaches from x - 0.5 to x + 0.5; a little more is searched than can be lit.
    const double left = static_cast<double>(lit.left) - 1.0;
    const double right = static_cast<double>(lit.right);
    const double top = static_cast<double>(lit.top) - 1.0;
    const double bottom = static_cast<double>(lit.bottom);
    for (std::int64_t j = 0; j < m_height && lit.left < lit.right; ++j)
    {
        const double rowX = m[1] * static_cast<double>(j) + m[2];
        const double rowY = m[4] * static_cast<double>(j) + m[5];
        double first = 0.0;
        double last = static_cast<double>(m_width - 1);
        Narrow(m[0], rowX, left, right, first, last);
        Narrow(m[3], rowY, top, bottom, first, last);
        if (!(first <= last)) // also where they are too far away for a whole number
            continue;
        const auto end = static_cast<std::int64_t>(std::floor(last));
        for (auto i = static_cast<std::int64_t>(std::ceil(first)); i <= end; ++i)
        {
            const double x = m[0] * static_cast<double>(i) + rowX;
            const double y = m[3] * static_cast<double>(i) + rowY;
            if (lit.IsLit(static_cast<std::int64_t>(std::floor(x + 0.5)),
                          static_cast<std::int64_t>(std::floor(y + 0.5))))
                m_on[static_cast<std::size_t>(j * m_width + i)] = 1;
        }
    }
    return true;
}

SQsRLEPicBuf CQsMirrors::Picture() const
{
    SQsRLEPicBuf picture;
    picture.uiWidth = static_cast<std::uint32_t>(m_width);
    picture.uiHeight = static_cast<std::uint32_t>(m_height);
    for (std::uint32_t y = 0; y < picture.uiHeight; ++y)
    {
        const auto begin = m_on.begin() + y * m_width;
        const auto end = begin + m_width;
        for (auto on = std::find(begin, end, 1); on != end;)
        {
            const auto off = std::find(on, end, 0);
            picture.runs.push_back({y, static_cast<std::uint32_t>(on - begin), static_cast<std::uint32_t>(off - on)});
            on = std::find(off, end, 1);
        }
    }
    return picture;
}

std::uint64_t CountLit(const SQsRLEPicBuf& picture)
{
    std::uint64_t count = 0;
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
        count += run.uiCount;
    return count;
}

bool InvertAffine(const double* matrix, double* inverse)
{
    const double a = matrix[0];
    const double b = matrix[1];
    const double c = matrix[3];
    const double d = matrix[4];
    const double determinant = a * d - b * c;
    const double size = a * a + b * b + c * c + d * d;
    // A chip is not wider than some ten thousand mirrors: beyond this ratio it would lie on a line of the image.
    constexpr double flattest = 1e-9;
    if (!std::isfinite(matrix[2]) || !std::isfinite(matrix[5]) || !std::isfinite(size) ||
        !(std::abs(determinant) > flattest * size) || !IsLastRow(matrix + 6))
        return false;
    const double result[9] = {d / determinant,
                              -b / determinant,
                              (b * matrix[5] - d * matrix[2]) / determinant,
                              -c / determinant,
                              a / determinant,
                              (c * matrix[2] - a * matrix[5]) / determinant,
                              0.0,
                              0.0,
                              1.0};
    if (!std::all_of(result, result + 9, [](double element) { return std::isfinite(element); }))
        return false;
    std::copy(result, result + 9, inverse);
    return true;
}
