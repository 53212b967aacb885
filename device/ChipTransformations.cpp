#include "device/ChipTransformations.h"

#include "device/ScanAreaGeometry.h"
#include "host/QsMath.h"
#include "host/QsPluginManager.h"

#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

using Desc = IQsStimulationDevice::SQsScanAreaDesc;
using Helper = IQsStimulationDevice::SQsScanAreaHelper;
using Transformation = IQsStimulationDevice::SQsTransformationHelper;

namespace {

// out = a * b; out is neither of them.
void Multiply(const double* a, const double* b, double* out)
{
    cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, 3, 3, 3, 1.0, a, 3, b, 3, 0.0, out, 3);
}

// out = matrix * column; out is not the column.
void Apply(const double* matrix, const double* column, double* out)
{
    cblas_dgemv(CblasRowMajor, CblasNoTrans, 3, 3, 1.0, matrix, 3, column, 1, 0.0, out, 1);
}

// m = a * m
void MultiplyLeft(const double* a, double* m)
{
    double right[9];
    std::memcpy(right, m, sizeof right);
    Multiply(a, right, m);
}

// In 64 bits: a host may hand in a rectangle that spans more than an int.
std::int64_t WidthOf(const CQsRectBase<int>& rect)
{
    return std::int64_t{rect.right} - rect.left;
}

std::int64_t HeightOf(const CQsRectBase<int>& rect)
{
    return std::int64_t{rect.bottom} - rect.top;
}

// Half away from zero; NaN gives 0 and what no int holds the nearest one.
int Round(double value)
{
    const double rounded = std::trunc(value > 0.0 ? value + 0.5 : value - 0.5);
    if (std::isnan(rounded))
        return 0;
    return static_cast<int>(
        std::clamp(rounded, double{std::numeric_limits<int>::min()}, double{std::numeric_limits<int>::max()}));
}

// Bounds, in the turned image, of a rectangle of the sensor.
CQsRectBase<int> BoundsInImage(const CQsRectBase<int>& rect, const CQsRectBase<int>& sensor, double angle)
{
    const double rotation[9] = {
        std::cos(angle), -std::sin(angle), 0.0, std::sin(angle), std::cos(angle), 0.0, 0.0, 0.0, 1.0};
    const double flip[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    // Halves of the sensor, also for a part of it, and whole ones: the image turns about a pixel.
    const double centre[3] = {static_cast<double>(WidthOf(sensor) / 2), static_cast<double>(HeightOf(sensor) / 2), 1.0};
    double toCamera[9];
    Transformation::GetMappingToUnrotatedCamera(rotation, flip, centre, toCamera);
    double toImage[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    CQsMKL_API::InvertMatrix(toImage, toCamera, 3);

    // Three corners: the bounds of right angles follow from them, and saved areas of other angles were placed with
    // them.
    const double corners[3][3] = {{static_cast<double>(rect.left), static_cast<double>(rect.top), 1.0},
                                  {static_cast<double>(rect.right), static_cast<double>(rect.top), 1.0},
                                  {static_cast<double>(rect.right), static_cast<double>(rect.bottom), 1.0}};
    double mapped[3][3];
    for (int i = 0; i < 3; ++i)
        Apply(toImage, corners[i], mapped[i]);
    const auto [minX, maxX] = std::minmax({mapped[0][0], mapped[1][0], mapped[2][0]});
    const auto [minY, maxY] = std::minmax({mapped[0][1], mapped[1][1], mapped[2][1]});
    return {Round(minX), Round(minY), Round(maxX), Round(maxY)};
}

// Size of the field that the image stands for, in sensor pixels: with a scan area the sensor's as if it saw all of it.
CQsSizeBase<double> ReferenceSize(const CQsRectBase<int>& sensor, const Desc* scanArea, bool askFullFovZoom, double z)
{
    const auto width = static_cast<double>(WidthOf(sensor));
    const auto height = static_cast<double>(HeightOf(sensor));
    if (!askFullFovZoom)
        return {std::max(width, height), std::max(width, height)};
    CQsSizeBase<double> size{width, height};
    if (scanArea == nullptr)
        return size;
    CQsSizeBase<double> factor;
    if (Helper::CalcCropFactor(scanArea, factor, z) == QS_OK)
        size = {size.cx * factor.cx, size.cy * factor.cy};
    const Desc fullField;
    CQsRectBase<double> rect;
    double angle = 0.0;
    if (Helper::ConvertScanAreaToRect(scanArea, rect, angle, &fullField, {1, 1}, z, Helper::eScanAreaModeInternal) ==
        QS_OK)
    {
        const double q = rect.Width() / rect.Height();
        if (q > 1.0)
            size.cy *= q;
        else
            size.cx *= q;
    }
    return size;
}

// Takes the scan area's place in the full field out again: out = inverse(area matrix) * out.
void PlaceInFullField(const Desc& scanArea, double z, double* out)
{
    double toArea[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    Helper::CalcTransformMatrixToArea(&scanArea, {1, 1}, toArea, z);
    CQsMatrix inverse(3, 3);
    for (std::size_t i = 0; i < 9; ++i)
        inverse(i / 3, i % 3) = toArea[i];
    inverse.Inv();
    for (std::size_t i = 0; i < 9; ++i)
        toArea[i] = inverse(i / 3, i % 3);
    MultiplyLeft(toArea, out);
}

} // namespace

int Transformation::CalcTransformImgToChip(const SQsGrabberFormatDesc& format, double angle, const Desc* scanArea,
                                           const CQsRectBase<int>* imageRect, bool askFullFovZoom, double* out)
{
    if (out == nullptr)
        return QS_OK;
    double z = 1.0; // where no confocal scanner answers
    if (askFullFovZoom)
        CQsPluginManager::AppRntm_HandleEvent(L"ConfocalV4Event_GetFullFOVSDKZoom", 0, 0, &z);

    const CQsRectBase<int>& sensor = format.rcSensor;
    const CQsRectBase<int> bounds = BoundsInImage(imageRect != nullptr ? *imageRect : sensor, sensor, angle);
    double result[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double move[9] = {1.0, 0.0, (bounds.left + 0.5) / format.fx, 0.0, 1.0, (bounds.top + 0.5) / format.fy, 0.0,
                            0.0, 1.0};
    MultiplyLeft(move, result);
    const CQsSizeBase<double> size = ReferenceSize(sensor, scanArea, askFullFovZoom, z);
    const double m = std::min(size.cx, size.cy);
    const double scale[9] = {format.fx / m, 0.0, 0.0, 0.0, format.fy / m, 0.0, 0.0, 0.0, 1.0};
    MultiplyLeft(scale, result);
    if (askFullFovZoom && scanArea != nullptr)
        PlaceInFullField(*scanArea, z, result);
    std::memcpy(out, result, sizeof result);
    return QS_OK;
}

int Transformation::CalcTransformChipToImg(const SQsGrabberFormatDesc& format, double angle, const Desc* scanArea,
                                           const CQsRectBase<int>* imageRect, bool askFullFovZoom, double* out)
{
    const int status = CalcTransformImgToChip(format, angle, scanArea, imageRect, askFullFovZoom, out);
    if (status != QS_OK || out == nullptr)
        return status;
    CQsMatrix inverse(3, 3);
    for (std::size_t i = 0; i < 9; ++i)
        inverse(i / 3, i % 3) = out[i];
    inverse.Inv();
    for (std::size_t i = 0; i < 9; ++i)
        out[i] = inverse(i / 3, i % 3);
    return QS_OK;
}

int Transformation::GetMappingToUnrotatedCamera(const double* A, const double* B, const double* p, double* out)
{
    double y[3];
    Apply(A, p, y);
    const double y0 = std::abs(y[0]);
    const double y1 = std::abs(y[1]);
    double T[9] = {1.0, 0.0, -y0, 0.0, 1.0, -y1, 0.0, 0.0, 1.0};
    double flipped[9];
    double turned[9];
    Multiply(B, T, flipped);
    Multiply(A, flipped, turned);
    // Up to rounding p[0] and p[1]. In this order all the same: mappings of saved calibrations were made with its
    // rounding, and those of now must equal them bit for bit.
    T[2] = (p[0] - y0) - T[2];
    T[5] = (p[1] - y1) - T[5];
    Multiply(T, turned, out);
    return QS_OK;
}

bool Transformation::IsConfocal(CQsGenericProviderGrabber* grabber)
{
    if (grabber == nullptr)
        return false;
    const unsigned count = grabber->SecGrabber_GetCount();
    for (unsigned i = 0; i < count; ++i)
    {
        IQsGenericProvider* const provider = grabber->SecGrabber_GetProvider_Low(i);
        if (provider == nullptr)
            continue;
        SQsGrabberCameraDesc01 description = {};
        provider->CameraGet_WRP(description);
        if ((description.uiFlags & SQsGrabberCameraDesc01::s_confocal) != 0)
            return true;
    }
    return false;
}
