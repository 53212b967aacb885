#include "plugins/CameraOptics.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double pi = 3.14159265358979323846;

// Random numbers that are the same on every system; those of the standard library's distributions are not. A counter
// that is mixed (S. Vigna's splitmix64): quick, and good enough for noise.
class CRandom
{
public:
    CRandom(std::uint32_t seed, std::uint64_t number) : m_counter(Mix(Mix(seed) + number)) {}

    double Uniform() { return static_cast<double>(Mix(m_counter += 0x9E3779B97F4A7C15u) >> 11) * 0x1p-53; } // [0, 1)

    // Standard normal, by the polar method, which gives two at a time.
    double Normal()
    {
        if (m_hasSpare)
        {
            m_hasSpare = false;
            return m_spare;
        }
        for (;;)
        {
            const double x = 2.0 * Uniform() - 1.0;
            const double y = 2.0 * Uniform() - 1.0;
            const double square = x * x + y * y;
            if (square >= 1.0 || square == 0.0)
                continue;
            const double factor = std::sqrt(-2.0 * std::log(square) / square);
            m_spare = y * factor;
            m_hasSpare = true;
            return x * factor;
        }
    }

private:
    static std::uint64_t Mix(std::uint64_t z)
    {
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }

    std::uint64_t m_counter;
    double m_spare = 0.0;
    bool m_hasSpare = false;
};

// The library's logarithm of the gamma function writes a global variable.
double LogFactorial(double n)
{
    static const double small[10] = {0.0,
                                     0.0,
                                     0.69314718055994531,
                                     1.79175946922805500,
                                     3.17805383034794562,
                                     4.78749174278204599,
                                     6.57925121201010100,
                                     8.52516136106541430,
                                     10.6046029027452502,
                                     12.8018274800814696};
    if (n < 10.0)
        return small[static_cast<int>(n)];
    const double square = n * n;
    return (n + 0.5) * std::log(n) - n + 0.5 * std::log(2.0 * pi) +
           (1.0 / 12.0 - (1.0 / 360.0 - 1.0 / (1260.0 * square)) / square) / n;
}

// Counts of photons with a mean: small ones by multiplying uniform numbers, others by transformed rejection
// (W. Hoermann, 1993). Neighbouring pixels often have one mean, so its constants are kept.
class CPoisson
{
public:
    double Count(double mean, CRandom& random)
    {
        if (!(mean > 0.0))
            return 0.0;
        if (mean != m_mean)
            Prepare(mean);
        return mean < s_small ? Multiply(random) : Reject(random);
    }

private:
    static constexpr double s_small = 10.0;

    void Prepare(double mean)
    {
        m_mean = mean;
        if (mean < s_small)
        {
            m_limit = std::exp(-mean);
            return;
        }
        m_log = std::log(mean);
        m_b = 0.931 + 2.53 * std::sqrt(mean);
        m_a = -0.059 + 0.02483 * m_b;
        m_inverseAlpha = 1.1239 + 1.1328 / (m_b - 3.4);
        m_accept = 0.9277 - 3.6224 / (m_b - 2.0);
    }

    double Multiply(CRandom& random) const
    {
        double count = 0.0;
        for (double product = random.Uniform(); product > m_limit; product *= random.Uniform())
            ++count;
        return count;
    }

    double Reject(CRandom& random) const
    {
        for (;;)
        {
            const double u = random.Uniform() - 0.5;
            const double v = random.Uniform();
            const double tail = 0.5 - std::abs(u);
            const double count = std::floor((2.0 * m_a / tail + m_b) * u + m_mean + 0.43);
            if (tail >= 0.07 && v <= m_accept)
                return count;
            if (count < 0.0 || (tail < 0.013 && v > tail))
                continue;
            if (std::log(v * m_inverseAlpha / (m_a / (tail * tail) + m_b)) <=
                count * m_log - m_mean - LogFactorial(count))
                return count;
        }
    }

    double m_mean = -1.0;
    double m_limit = 0.0;
    double m_log = 0.0;
    double m_a = 0.0;
    double m_b = 0.0;
    double m_inverseAlpha = 0.0;
    double m_accept = 0.0;
};

// Exact areas of polygons in the pixels of a grid, and where in the pixels they lie.
//
// Every side adds, in each row that it crosses, what lies to its right, as differences from pixel to pixel; the running
// sum of a row is the area. The moments about the middles of the pixels are gathered in the same way; those along the
// rows are 0 in the pixels that lie wholly to the right of a side.
class CCoverage
{
public:
    CCoverage(int width, int height)
        : m_width(width), m_height(height),
          m_steps(static_cast<std::size_t>(width + 1) * static_cast<std::size_t>(height))
    {}

    // A parallelogram; its sides in either sense of rotation.
    void Add(const Eigen::Vector2d& corner, const Eigen::Vector2d& side1, const Eigen::Vector2d& side2)
    {
        const bool turned = side1.x() * side2.y() - side1.y() * side2.x() < 0.0;
        const Eigen::Vector2d& first = turned ? side1 : side2;
        const Eigen::Vector2d& second = turned ? side2 : side1;
        const Eigen::Vector2d corners[4] = {corner, corner + first, corner + first + second, corner + second};
        if (IsOutside(corners))
            return;
        for (int i = 0; i < 4; ++i)
            AddSide(corners[i], corners[(i + 1) % 4]);
    }

    // The areas alone: what pixels gather of sharp light.
    std::vector<float> Area() const
    {
        std::vector<float> area;
        area.reserve(static_cast<std::size_t>(m_width) * static_cast<std::size_t>(m_height));
        ForEachPixel([&area](const SStep& sum) { area.push_back(static_cast<float>(sum.area)); });
        return area;
    }

    // Samples of the light for a blur that comes before the pixels: an area that lies beside the middle of its pixel is
    // moved there by lending from one neighbour to the other, so that centres of mass stay where they are.
    std::vector<float> Samples() const
    {
        std::vector<float> samples(static_cast<std::size_t>(m_width) * static_cast<std::size_t>(m_height), 0.0F);
        int x = 0;
        int y = 0;
        ForEachPixel(
            [&](const SStep& sum)
            {
                float* const pixel = &samples[static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) +
                                              static_cast<std::size_t>(x)];
                *pixel += static_cast<float>(sum.area);
                const auto halfX = static_cast<float>(0.5 * sum.momentX);
                const auto halfY = static_cast<float>(0.5 * sum.momentY);
                if (x > 0)
                    pixel[-1] -= halfX;
                if (x + 1 < m_width)
                    pixel[1] += halfX;
                if (y > 0)
                    pixel[-m_width] -= halfY;
                if (y + 1 < m_height)
                    pixel[m_width] += halfY;
                if (++x == m_width)
                {
                    x = 0;
                    ++y;
                }
            });
        return samples;
    }

private:
    struct SStep
    {
        double area = 0.0;
        double momentX = 0.0; // of this pixel alone
        double momentY = 0.0;
    };

    template <class Use>
    void ForEachPixel(Use use) const
    {
        auto step = m_steps.begin();
        for (int y = 0; y < m_height; ++y, ++step)
        {
            SStep sum;
            for (int x = 0; x < m_width; ++x, ++step)
            {
                sum.area += step->area;
                sum.momentX = step->momentX;
                sum.momentY += step->momentY;
                use(sum);
            }
        }
    }

    bool IsOutside(const Eigen::Vector2d (&corners)[4]) const
    {
        const auto all = [&corners](auto condition) { return std::all_of(corners, corners + 4, condition); };
        return all([](const Eigen::Vector2d& p) { return p.x() <= 0.0; }) ||
               all([](const Eigen::Vector2d& p) { return p.y() <= 0.0; }) ||
               all([this](const Eigen::Vector2d& p) { return p.x() >= m_width; }) ||
               all([this](const Eigen::Vector2d& p) { return p.y() >= m_height; });
    }

    void AddSide(const Eigen::Vector2d& from, const Eigen::Vector2d& to)
    {
        if (from.y() == to.y())
            return;
        const double sign = from.y() < to.y() ? 1.0 : -1.0;
        const Eigen::Vector2d& top = sign > 0.0 ? from : to;
        const Eigen::Vector2d& bottom = sign > 0.0 ? to : from;
        const double slope = (bottom.x() - top.x()) / (bottom.y() - top.y());
        const double end = std::min(bottom.y(), static_cast<double>(m_height));
        for (double y = std::max(top.y(), 0.0); y < end;)
        {
            const double row = std::floor(y);
            const double next = std::min(row + 1.0, end);
            AddInRow(&m_steps[static_cast<std::size_t>(row) * static_cast<std::size_t>(m_width + 1)],
                     {top.x() + (y - top.y()) * slope, y - row - 0.5},
                     {top.x() + (next - top.y()) * slope, next - row - 0.5}, sign);
            y = next;
        }
    }

    // Part of a side inside one row; y from the middle of the row.
    void AddInRow(SStep* row, Eigen::Vector2d from, Eigen::Vector2d to, double sign)
    {
        if (from.x() > to.x())
        {
            std::swap(from, to);
            sign = -sign; // heights are taken from `from` to `to`
        }
        // What lies left of the first pixel counts as if it lay on its edge; what lies right of the last not at all.
        const auto at = [&](double x) -> Eigen::Vector2d {
            return {x, from.y() + (x - from.x()) / (to.x() - from.x()) * (to.y() - from.y())};
        };
        if (from.x() < 0.0)
        {
            const Eigen::Vector2d edge = to.x() <= 0.0 ? to : at(0.0);
            AddRight(row[0], sign * (edge.y() - from.y()), 0.5 * (edge.y() + from.y()));
            if (to.x() <= 0.0)
                return;
            from = edge;
            from.x() = 0.0;
        }
        if (from.x() >= m_width)
            return;
        if (to.x() > m_width)
            to = at(m_width);
        int pixel = static_cast<int>(from.x());
        for (; to.x() > pixel + 1; ++pixel)
        {
            const Eigen::Vector2d edge = at(pixel + 1);
            AddInPixel(row, pixel, from, edge, sign);
            from = edge;
        }
        AddInPixel(row, std::min(pixel, m_width - 1), from, to, sign);
    }

    // A height whose right side is lit from this pixel on.
    static void AddRight(SStep& step, double height, double middle)
    {
        step.area += height;
        step.momentY += height * middle;
    }

    // Part of a side inside one pixel. What is integrated is at most quadratic, for which Simpson's rule is exact.
    static void AddInPixel(SStep* row, int pixel, const Eigen::Vector2d& from, const Eigen::Vector2d& to, double sign)
    {
        const double height = sign * (to.y() - from.y());
        const double x0 = from.x() - pixel;
        const double x1 = to.x() - pixel;
        const double x = 0.5 * (x0 + x1);
        const double y = 0.5 * (from.y() + to.y());
        const auto moment = [](double left) { return 0.5 * left * (1.0 - left); }; // of what lies right of `left`
        const double area = height * (1.0 - x);
        const double momentY = height / 6.0 * (from.y() * (1.0 - x0) + 4.0 * y * (1.0 - x) + to.y() * (1.0 - x1));
        row[pixel].area += area;
        row[pixel].momentX += height / 6.0 * (moment(x0) + 4.0 * moment(x) + moment(x1));
        row[pixel].momentY += momentY;
        row[pixel + 1].area += height - area;
        row[pixel + 1].momentY += height * y - momentY;
    }

    const int m_width;
    const int m_height;
    std::vector<SStep> m_steps;
};

std::vector<float> GaussianKernel(double sigma, int radius)
{
    std::vector<double> weights;
    double sum = 0.0;
    for (int i = -radius; i <= radius; ++i)
    {
        weights.push_back(std::exp(-0.5 * i * i / (sigma * sigma)));
        sum += weights.back();
    }
    std::vector<float> kernel;
    for (const double weight : weights)
        kernel.push_back(static_cast<float>(weight / sum));
    return kernel;
}

// Blurred light within the margins of `padded`: rows, then columns.
std::vector<float> Blur(const std::vector<float>& padded, int width, int height, int margin, double sigma)
{
    const std::vector<float> kernel = GaussianKernel(sigma, margin);
    const std::size_t paddedWidth = static_cast<std::size_t>(width + 2 * margin);
    const std::size_t columns = static_cast<std::size_t>(width);
    const std::size_t paddedHeight = static_cast<std::size_t>(height + 2 * margin);
    std::vector<float> across(columns * paddedHeight, 0.0F);
    for (std::size_t y = 0; y < paddedHeight; ++y)
        for (std::size_t k = 0; k < kernel.size(); ++k)
        {
            const float* from = &padded[y * paddedWidth + k];
            float* to = &across[y * columns];
            for (std::size_t x = 0; x < columns; ++x)
                to[x] += kernel[k] * from[x];
        }
    std::vector<float> blurred(columns * static_cast<std::size_t>(height), 0.0F);
    for (std::size_t y = 0; y < static_cast<std::size_t>(height); ++y)
        for (std::size_t k = 0; k < kernel.size(); ++k)
        {
            const float* from = &across[(y + k) * columns];
            float* to = &blurred[y * columns];
            for (std::size_t x = 0; x < columns; ++x)
                to[x] += kernel[k] * from[x];
        }
    return blurred;
}

// Part of each pixel that the mirrors light.
std::vector<float> LitPart(const std::vector<ChipLight>& lights, const Affine& sensorFromMirrors, const SSensor& sensor)
{
    if (lights.empty())
        return {};
    const int margin = sensor.blurPx > 0.0 ? static_cast<int>(std::ceil(4.0 * sensor.blurPx)) : 0;
    CCoverage coverage(sensor.width + 2 * margin, sensor.height + 2 * margin);
    const Eigen::Vector2d alongRow = sensorFromMirrors.col(0);
    const Eigen::Vector2d alongColumn = sensorFromMirrors.col(1);
    for (const ChipLight& light : lights)
        for (const SQsRLEPicBuf::SRun& run : light->runs)
        {
            const Eigen::Vector3d corner(run.uiFirst - 0.5, run.uiRow - 0.5, 1.0);
            coverage.Add(sensorFromMirrors * corner + Eigen::Vector2d(margin, margin), alongRow * run.uiCount,
                         alongColumn);
        }
    if (margin == 0)
        return coverage.Area();
    return Blur(coverage.Samples(), sensor.width, sensor.height, margin, sensor.blurPx);
}

// A turn by a multiple of 90 degrees.
struct STurn
{
    explicit STurn(double degrees)
    {
        const int quarters = static_cast<int>(std::lround(degrees / 90.0)) % 4;
        static const int cosines[4] = {1, 0, -1, 0};
        c = cosines[quarters];
        s = cosines[(quarters + 3) % 4];
    }

    int c = 1;
    int s = 0;
};

CQsRectBase<int> WholeOrRegion(const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    if (state.rcRegion.Width() == 0 && state.rcRegion.Height() == 0)
        return {0, 0, sensor.cx, sensor.cy};
    return state.rcRegion;
}

CQsSizeBase<int> TurnedSize(const STurn& turn, const CQsSizeBase<int>& sensor)
{
    return turn.c != 0 ? sensor : CQsSizeBase<int>{sensor.cy, sensor.cx};
}

} // namespace

Affine SensorFromMirrors(const SOptics& optics, const SObjectiveOptics& objective, const SSensor& sensor)
{
    const double angle = optics.rotationDeg * pi / 180.0;
    Eigen::Matrix2d rotation;
    rotation << std::cos(angle), -std::sin(angle), std::sin(angle), std::cos(angle);
    Eigen::Matrix2d form;
    form << 1.0, optics.shear, 0.0, optics.aspect;
    const Eigen::Vector2d mirrored(1.0, optics.flip ? -1.0 : 1.0);
    const Eigen::Vector2d centre(sensor.width / 2.0, sensor.height / 2.0);
    Affine affine;
    affine.leftCols<2>() = objective.scale * optics.scale * rotation * form * mirrored.asDiagonal();
    affine.col(2) = objective.scale * (Eigen::Vector2d(optics.dx, optics.dy) - centre) + centre +
                    Eigen::Vector2d(objective.dx, objective.dy);
    return affine;
}

CQsSensorSimulation::CQsSensorSimulation(const SSensor& sensor) : m_sensor(sensor)
{
    AddDust();
}

void CQsSensorSimulation::AddDust()
{
    if (m_sensor.dust == 0)
        return;
    m_passes.assign(static_cast<std::size_t>(m_sensor.width) * static_cast<std::size_t>(m_sensor.height), 1.0F);
    CRandom random(m_sensor.seed, ~std::uint64_t{0}); // of no frame
    for (int spot = 0; spot < m_sensor.dust; ++spot)
    {
        const double x = random.Uniform() * m_sensor.width;
        const double y = random.Uniform() * m_sensor.height;
        const double radius = 1.5 + 2.5 * random.Uniform(); // [px]
        const double passes = 0.2 + 0.4 * random.Uniform(); // in its middle
        const int top = std::max(0, static_cast<int>(y - radius));
        const int bottom = std::min(m_sensor.height - 1, static_cast<int>(y + radius));
        const int left = std::max(0, static_cast<int>(x - radius));
        const int right = std::min(m_sensor.width - 1, static_cast<int>(x + radius));
        for (int row = top; row <= bottom; ++row)
            for (int column = left; column <= right; ++column)
                if (std::hypot(column + 0.5 - x, row + 0.5 - y) < radius)
                    m_passes[static_cast<std::size_t>(row) * static_cast<std::size_t>(m_sensor.width) +
                             static_cast<std::size_t>(column)] *= static_cast<float>(passes);
    }
}

std::vector<std::uint16_t> CQsSensorSimulation::Expose(const std::vector<ChipLight>& lights,
                                                       const Affine& sensorFromMirrors, std::uint64_t frame) const
{
    const std::vector<float> lit = LitPart(lights, sensorFromMirrors, m_sensor);
    std::vector<std::uint16_t> pixels(static_cast<std::size_t>(m_sensor.width) *
                                      static_cast<std::size_t>(m_sensor.height));
    CRandom random(m_sensor.seed, frame);
    CPoisson poisson;
    for (std::size_t i = 0; i < pixels.size(); ++i)
    {
        const double light = lit.empty() ? 0.0 : std::max(0.0F, lit[i]);
        const double passes = m_passes.empty() ? 1.0 : m_passes[i];
        double signal = poisson.Count(passes * (m_sensor.background + m_sensor.photons * light), random);
        if (m_sensor.readNoise > 0.0)
            signal += m_sensor.readNoise * random.Normal();
        pixels[i] = static_cast<std::uint16_t>(std::min(65535.0, std::max(0.0, signal + 0.5)));
    }
    return pixels;
}

CQsRectBase<int> RegionInImage(const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    const STurn turn(state.dRotation);
    const CQsSizeBase<int> whole = TurnedSize(turn, sensor);
    const CQsRectBase<int> region = WholeOrRegion(state, sensor);
    // Corners against the centres, doubled so that they are whole; the inverse turn leads to the image.
    const int left = 2 * region.left - sensor.cx;
    const int top = 2 * region.top - sensor.cy;
    const int right = 2 * region.right - sensor.cx;
    const int bottom = 2 * region.bottom - sensor.cy;
    const int x[2] = {turn.c * left + turn.s * top, turn.c * right + turn.s * bottom};
    const int sign = state.bFlipped ? -1 : 1;
    const int y[2] = {sign * (turn.c * top - turn.s * left), sign * (turn.c * bottom - turn.s * right)};
    return {(std::min(x[0], x[1]) + whole.cx) / 2, (std::min(y[0], y[1]) + whole.cy) / 2,
            (std::max(x[0], x[1]) + whole.cx) / 2, (std::max(y[0], y[1]) + whole.cy) / 2};
}

CQsSizeBase<int> ImageSize(const SQsCameraState& state, const CQsSizeBase<int>& sensor)
{
    const CQsRectBase<int> region = RegionInImage(state, sensor);
    return {region.Width() / state.iBinning, region.Height() / state.iBinning};
}

SQsGrabberImage DeliverImage(const std::vector<std::uint16_t>& pixels, const SQsCameraState& state,
                             const CQsSizeBase<int>& sensor)
{
    const STurn turn(state.dRotation);
    const CQsSizeBase<int> whole = TurnedSize(turn, sensor);
    const CQsRectBase<int> region = RegionInImage(state, sensor);
    const CQsSizeBase<int> size = ImageSize(state, sensor);
    const int sign = state.bFlipped ? -1 : 1;
    const auto at = [&](int x, int y) -> std::uint32_t
    {
        // Centres against the centre of the image, doubled; the turn leads to the sensor.
        const int fromX = 2 * x + 1 - whole.cx;
        const int fromY = sign * (2 * y + 1 - whole.cy);
        const int column = (turn.c * fromX - turn.s * fromY + sensor.cx - 1) / 2;
        const int row = (turn.s * fromX + turn.c * fromY + sensor.cy - 1) / 2;
        return pixels[static_cast<std::size_t>(row) * static_cast<std::size_t>(sensor.cx) +
                      static_cast<std::size_t>(column)];
    };
    SQsGrabberImage image;
    image.uiWidth = static_cast<std::uint32_t>(size.cx);
    image.uiHeight = static_cast<std::uint32_t>(size.cy);
    image.pixels.reserve(std::size_t{image.uiWidth} * image.uiHeight);
    const int binning = state.iBinning;
    const auto binned = static_cast<std::uint32_t>(binning * binning);
    for (int y = 0; y < size.cy; ++y)
        for (int x = 0; x < size.cx; ++x)
        {
            std::uint32_t sum = binned / 2; // rounds the mean
            for (int j = 0; j < binning; ++j)
                for (int i = 0; i < binning; ++i)
                    sum += at(region.left + x * binning + i, region.top + y * binning + j);
            image.pixels.push_back(static_cast<std::uint16_t>(sum / binned));
        }
    return image;
}
