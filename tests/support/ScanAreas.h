// Scan areas of tests: those of the reference values, and random ones.
#pragma once

#include "device/ScanAreaGeometry.h"
#include "tests/support/Numbers.h"
#include "tests/support/Vectors.h"

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <utility>

namespace QsTest {

using Area = IQsStimulationDevice::SQsScanAreaDesc;
using AreaHelper = IQsStimulationDevice::SQsScanAreaHelper;
using AreaMode = AreaHelper::EScanAreaMode;

// Readers of reference values; they throw where a value has another form.
Area ToArea(const Json& value);
CQsPointBase<double> ToPoint(const Json& value);
CQsSizeBase<int> ToSize(const Json& value);
CQsRectBase<double> ToRect(const Json& value);
std::vector<double> ToNumbers(const Json& value);
AreaMode ToMode(const Json& value);

// The areas that the reference values were computed with.
Area AreaC1(); // everything set
Area AreaC2(); // without a crop
Area AreaC3(); // zoomed out, upside down
Area AreaA1(); // everything set, an aspect above 1
Area AreaA2(); // without a crop, an aspect below 1
Area AreaA3(); // the middle quarter of the full field as a crop
Area AreaA4(); // turned by less than what counts

// Every number of an area, its points and its tag, so that two areas can be compared; the crop switch reads 0 or 1.
std::vector<double> Numbers(const Area& area);

// Cases that are the same on every system. The distributions of the standard library are not.
class CRandom
{
public:
    explicit CRandom(std::uint64_t seed) : m_engine(seed) {}

    double Uniform(double low, double high)
    {
        return low + (high - low) * (static_cast<double>(m_engine() >> 11) * 0x1p-53);
    }
    double Ratio(double low, double high) { return std::exp(Uniform(std::log(low), std::log(high))); }
    int Integer(int low, int high) // both ends included
    {
        return low + static_cast<int>(m_engine() % static_cast<std::uint64_t>(high - low + 1));
    }
    bool OneIn(int count) { return Integer(1, count) == 1; }

    double Degrees(); // a quarter turn now and then
    CQsPointBase<double> Point(double limit) { return {Uniform(-limit, limit), Uniform(-limit, limit)}; }
    CQsSizeBase<int> Size();
    AreaMode Mode() { return static_cast<AreaMode>(Integer(-1, 9)); }
    CQsRectBase<double> Rect(); // of an image; at least a hundredth of a pixel wide and high
    Area ScanArea();            // with a crop in every second one

private:
    std::mt19937_64 m_engine;
};

// Calls `visit(area, value, size)` with areas whose numbers, the crop's too, are all one that no scanner has (0, NaN,
// the infinities, the ends of what a double holds), each beside sizes of 0, 1, -1 and the ends of an int.
template <class Visit>
void ForEachExtremeArea(Visit visit)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    for (const double value : {0.0, nan, infinity, -infinity, 1e308, -1e308, 5e-324})
        for (const int size : {0, 1, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
        {
            Area area;
            area.dZoom = area.dAngle = area.dXOffset = area.dScanAreaAspect = value;
            area.bIsCrop = true;
            area.dCropZoom = area.dCropAspect = area.dCropXOffset = value;
            visit(area, value, size);
        }
}

// The numbers of a case, for the message of a failure.
std::string Describe(const Area& area);

} // namespace QsTest
