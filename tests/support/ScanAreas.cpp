#include "tests/support/ScanAreas.h"

#include <sstream>
#include <stdexcept>

namespace QsTest {
namespace {

const Json& Element(const Json& value, rapidjson::SizeType index, rapidjson::SizeType count)
{
    if (!value.IsArray() || value.Size() != count)
        throw std::runtime_error("a reference value is no list of " + std::to_string(count) + " numbers");
    return value[index];
}

int ToInt(const Json& value)
{
    if (!value.IsInt())
        throw std::runtime_error("a reference value is no whole number");
    return value.GetInt();
}

Area AreaOf(const char* id, const char* member)
{
    return ToArea(Member(Member(Vector(id), "input"), member));
}

} // namespace

Area ToArea(const Json& value)
{
    Area area;
    area.dZoom = ToDouble(Member(value, "dZoom"));
    area.dAngle = ToDouble(Member(value, "dAngle"));
    area.dXOffset = ToDouble(Member(value, "dXOffset"));
    area.dYOffset = ToDouble(Member(value, "dYOffset"));
    area.dScanAreaAspect = ToDouble(Member(value, "dScanAreaAspect"));
    if (!Member(value, "bIsCrop").IsBool() || !Member(value, "Points").IsArray())
        throw std::runtime_error("a reference value is no scan area");
    area.bIsCrop = value["bIsCrop"].GetBool();
    area.dCropXOffset = ToDouble(Member(value, "dCropXOffset"));
    area.dCropYOffset = ToDouble(Member(value, "dCropYOffset"));
    area.dCropZoom = ToDouble(Member(value, "dCropZoom"));
    area.dCropAspect = ToDouble(Member(value, "dCropAspect"));
    for (const Json& point : value["Points"].GetArray())
        area.Points.push_back(ToPoint(point));
    return area;
}

CQsPointBase<double> ToPoint(const Json& value)
{
    return {ToDouble(Element(value, 0, 2)), ToDouble(Element(value, 1, 2))};
}

CQsSizeBase<int> ToSize(const Json& value)
{
    return {ToInt(Element(value, 0, 2)), ToInt(Element(value, 1, 2))};
}

CQsRectBase<double> ToRect(const Json& value)
{
    return {ToDouble(Element(value, 0, 4)), ToDouble(Element(value, 1, 4)), ToDouble(Element(value, 2, 4)),
            ToDouble(Element(value, 3, 4))};
}

std::vector<double> ToNumbers(const Json& value)
{
    if (!value.IsArray())
        throw std::runtime_error("a reference value is no list");
    std::vector<double> numbers;
    for (const Json& number : value.GetArray())
        numbers.push_back(ToDouble(number));
    return numbers;
}

AreaMode ToMode(const Json& value)
{
    return static_cast<AreaMode>(ToInt(value));
}

Area AreaC1()
{
    return AreaOf("area-003", "C");
}

Area AreaC2()
{
    return AreaOf("area-015", "C");
}

Area AreaC3()
{
    return AreaOf("area-025", "C");
}

Area AreaA1()
{
    return AreaOf("area-061", "A");
}

Area AreaA2()
{
    return AreaOf("area-079", "A");
}

Area AreaA3()
{
    return AreaOf("area-129", "A");
}

Area AreaA4()
{
    return AreaOf("area-135", "A");
}

std::vector<double> Numbers(const Area& area)
{
    std::vector<double> numbers{area.dZoom,
                                area.dAngle,
                                area.dXOffset,
                                area.dYOffset,
                                area.dScanAreaAspect,
                                area.bIsCrop ? 1.0 : 0.0,
                                area.dCropXOffset,
                                area.dCropYOffset,
                                area.dCropZoom,
                                area.dCropAspect,
                                static_cast<double>(area.uiTag)};
    for (const CQsPointBase<double>& point : area.Points)
    {
        numbers.push_back(point.x);
        numbers.push_back(point.y);
    }
    return numbers;
}

double CRandom::Degrees()
{
    return OneIn(8) ? 90.0 * Integer(-4, 4) : Uniform(-400.0, 400.0);
}

CQsSizeBase<int> CRandom::Size()
{
    const int width = Integer(1, 4096);
    return {width, OneIn(4) ? width : Integer(1, 4096)};
}

CQsRectBase<double> CRandom::Rect()
{
    const CQsPointBase<double> corner = Point(4096.0);
    return {corner.x, corner.y, corner.x + Ratio(0.01, 4096.0), corner.y + Ratio(0.01, 4096.0)};
}

Area CRandom::ScanArea()
{
    Area area;
    area.dZoom = Ratio(0.1, 20.0);
    area.dAngle = Degrees();
    area.dXOffset = Uniform(-1.0, 1.0);
    area.dYOffset = Uniform(-1.0, 1.0);
    area.dScanAreaAspect = OneIn(4) ? 1.0 : Ratio(0.2, 5.0);
    area.bIsCrop = OneIn(2);
    area.dCropXOffset = Uniform(-1.0, 1.0);
    area.dCropYOffset = Uniform(-1.0, 1.0);
    area.dCropZoom = Ratio(0.2, 8.0);
    area.dCropAspect = OneIn(4) ? 1.0 : Ratio(0.2, 5.0);
    return area;
}

std::string Describe(const Area& area)
{
    std::ostringstream text;
    text.precision(17);
    text << "{zoom " << area.dZoom << " angle " << area.dAngle << " offset " << area.dXOffset << " " << area.dYOffset
         << " aspect " << area.dScanAreaAspect;
    if (area.bIsCrop)
        text << " crop zoom " << area.dCropZoom << " aspect " << area.dCropAspect << " offset " << area.dCropXOffset
             << " " << area.dCropYOffset;
    text << "}";
    return text.str();
}

} // namespace QsTest
