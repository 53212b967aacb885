#include "device/StimulationDevice.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <map>

namespace {

constexpr std::size_t s_bytesOfPoint = 16;

// Index of an item name of the form prefix, decimal index, `axis`, spelled as saving spells it; -1 for any other name.
int PointIndex(const CQsStringW& name, wchar_t axis)
{
    constexpr std::size_t prefix = 6; // "dPoint"
    if (name.GetLength() <= prefix)
        return -1;
    const int index = QS_wtoi(name.c_str() + prefix);
    return index >= 0 && name == CQsStringW::Format(L"dPoint%d%c", index, axis) ? index : -1;
}

void PutLittleEndian(double value, unsigned char* bytes)
{
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    for (unsigned i = 0; i < sizeof(bits); ++i)
        bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
}

double GetLittleEndian(const unsigned char* bytes)
{
    std::uint64_t bits = 0;
    for (unsigned i = 0; i < sizeof(bits); ++i)
        bits |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
    double value = 0.0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}

// The points of the block "Points", or none when it has less than `count` points.
std::vector<CQsPointBase<double>> ReadPoints(const CQsLiteVariantR& r, std::size_t count)
{
    // The buffer grows only as far as the store fills it, so that a damaged count cannot ask for memory.
    constexpr std::size_t firstRead = 4096;
    std::vector<unsigned char> block;
    while (block.size() < count * s_bytesOfPoint)
    {
        block.resize(std::min(count * s_bytesOfPoint, std::max(firstRead, block.size() * 2)));
        if (r.GetBinary(L"Points", block.data(), block.size()) < block.size())
            return {};
    }

    std::vector<CQsPointBase<double>> points(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        points[i].x = GetLittleEndian(&block[i * s_bytesOfPoint]);
        points[i].y = GetLittleEndian(&block[i * s_bytesOfPoint + s_bytesOfPoint / 2]);
    }
    return points;
}

} // namespace

int IQsStimulationDevice::SQsScanAreaDesc::SaveToVariant(CQsVariant& v) const
{
    const bool bTypeChange = v.EnableTypeChange(true);
    v.ClearList();
    v.Append(CQsVariant(dZoom, L"dZoom"));
    v.Append(CQsVariant(dAngle, L"dAngle"));
    v.Append(CQsVariant(dXOffset, L"dXOffset"));
    v.Append(CQsVariant(dYOffset, L"dYOffset"));
    v.Append(CQsVariant(dScanAreaAspect, L"dScanAreaAspect"));
    v.Append(CQsVariant(bIsCrop, L"bIsCrop"));
    v.Append(CQsVariant(dCropZoom, L"dCropZoom"));
    v.Append(CQsVariant(dCropXOffset, L"dCropXOffset"));
    v.Append(CQsVariant(dCropYOffset, L"dCropYOffset"));
    v.Append(CQsVariant(dCropAspect, L"dCropAspect"));
    // This spelling stands in every saved file.
    v.Append(CQsVariant(static_cast<std::uint32_t>(Points.size()), L"uiPointCoint"));
    for (std::size_t i = 0; i < Points.size(); ++i)
    {
        const int index = static_cast<int>(i);
        v.Append(CQsVariant(Points[i].x, CQsStringW::Format(L"dPoint%dx", index).c_str()));
        v.Append(CQsVariant(Points[i].y, CQsStringW::Format(L"dPoint%dy", index).c_str()));
    }
    v.EnableTypeChange(bTypeChange);
    return QS_OK;
}

int IQsStimulationDevice::SQsScanAreaDesc::LoadFromVariant(const CQsVariant& v)
{
    if (v.FindItem(L"dZoom") == nullptr || v.FindItem(L"dCropAspect") == nullptr)
        return QS_ERR_FAIL;

    dZoom = v[L"dZoom"].ToDouble();
    dAngle = v[L"dAngle"].ToDouble();
    dXOffset = v[L"dXOffset"].ToDouble();
    dYOffset = v[L"dYOffset"].ToDouble();
    dScanAreaAspect = v[L"dScanAreaAspect"].ToDouble();
    bIsCrop = v[L"bIsCrop"].ToBool();
    dCropZoom = v[L"dCropZoom"].ToDouble();
    dCropXOffset = v[L"dCropXOffset"].ToDouble();
    dCropYOffset = v[L"dCropYOffset"].ToDouble();
    dCropAspect = v[L"dCropAspect"].ToDouble();

    Points.clear();
    const std::uint32_t count = v[L"uiPointCoint"].ToUnsigned();
    if (count == 0)
        return QS_OK;

    // The items that are there are walked, not the indices below the count: a damaged count of four thousand million
    // must not hang the load, and points beyond a gap must not be lost.
    std::map<int, double> xs;
    std::map<int, double> ys;
    for (std::size_t i = 0; i < v.GetCount(); ++i)
    {
        const CQsVariant& item = v.GetItem(i);
        const int x = PointIndex(item.GetName(), L'x');
        const int y = x >= 0 ? -1 : PointIndex(item.GetName(), L'y');
        // Of items of one name the first counts.
        if (x >= 0)
            xs.emplace(x, item.ToDouble());
        else if (y >= 0)
            ys.emplace(y, item.ToDouble());
    }
    for (const auto& x : xs)
    {
        const auto y = ys.find(x.first);
        if (static_cast<std::uint32_t>(x.first) < count && y != ys.end())
            Points.push_back({x.second, y->second});
    }
    return QS_OK;
}

int IQsStimulationDevice::SQsScanAreaDesc::SaveToLiteVariant(CQsLiteVariantW& w) const
{
    w.SetDouble(L"dZoom", dZoom);
    w.SetDouble(L"dAngle", dAngle);
    w.SetDouble(L"dXOffset", dXOffset);
    w.SetDouble(L"dYOffset", dYOffset);
    w.SetDouble(L"dScanAreaAspect", dScanAreaAspect);
    w.SetBool(L"bIsCrop", bIsCrop);
    w.SetDouble(L"dCropZoom", dCropZoom);
    w.SetDouble(L"dCropXOffset", dCropXOffset);
    w.SetDouble(L"dCropYOffset", dCropYOffset);
    w.SetDouble(L"dCropAspect", dCropAspect);
    w.SetUnsigned(L"uiPointCoint", static_cast<std::uint32_t>(Points.size()));
    if (Points.empty())
        return QS_OK;

    std::vector<unsigned char> block(Points.size() * s_bytesOfPoint);
    for (std::size_t i = 0; i < Points.size(); ++i)
    {
        PutLittleEndian(Points[i].x, &block[i * s_bytesOfPoint]);
        PutLittleEndian(Points[i].y, &block[i * s_bytesOfPoint + s_bytesOfPoint / 2]);
    }
    w.SetBinary(L"Points", block.data(), block.size());
    return QS_OK;
}

int IQsStimulationDevice::SQsScanAreaDesc::LoadFromLiteVariant(CQsLiteVariantR& r)
{
    dZoom = r.GetDouble(L"dZoom", dZoom);
    dAngle = r.GetDouble(L"dAngle", dAngle);
    dXOffset = r.GetDouble(L"dXOffset", dXOffset);
    dYOffset = r.GetDouble(L"dYOffset", dYOffset);
    dScanAreaAspect = r.GetDouble(L"dScanAreaAspect", dScanAreaAspect);
    bIsCrop = r.GetBool(L"bIsCrop", bIsCrop);
    dCropZoom = r.GetDouble(L"dCropZoom", dCropZoom);
    dCropXOffset = r.GetDouble(L"dCropXOffset", dCropXOffset);
    dCropYOffset = r.GetDouble(L"dCropYOffset", dCropYOffset);
    dCropAspect = r.GetDouble(L"dCropAspect", dCropAspect);

    Points.clear();
    const qs_int32 count = r.GetInt(L"uiPointCoint", 0);
    if (count <= 0)
        return QS_OK;
    try
    {
        Points = ReadPoints(r, static_cast<std::size_t>(count));
    }
    catch (const std::exception&)
    {
        // No memory for that many points: none are kept, as for a block that is too short.
    }
    return QS_OK;
}
