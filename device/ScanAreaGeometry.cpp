#include "device/ScanAreaGeometry.h"

#include "device/Angles.h"

#include <algorithm>
#include <cmath>

using Desc = IQsStimulationDevice::SQsScanAreaDesc;
using Helper = IQsStimulationDevice::SQsScanAreaHelper;
using Point = CQsPointBase<double>;
using Rect = CQsRectBase<double>;

namespace {

constexpr int statusNullArgument = -4;

double Radians(double degrees)
{
    return degrees * s_qsPi / 180.0;
}

// The uncropped image in pixels of the cropped one, and where the cropped image lies in it.
struct SImageFrame
{
    double w;
    double h;
    double sx = 0.0;
    double sy = 0.0;

    SImageFrame(const Desc& C, CQsSizeBase<int> size) : w(size.cx), h(size.cy)
    {
        if (!C.bIsCrop)
            return;
        w = size.cx * C.dCropZoom;
        h = size.cy * C.dCropZoom * C.dCropAspect;
        sx = w * 0.5 * C.dCropXOffset + (w - size.cx) * 0.5;
        sy = h * 0.5 * C.dCropYOffset + (h - size.cy) * 0.5;
    }
};

Point ImageFromArea(const Desc& C, CQsSizeBase<int> size, double dZ0, Point area)
{
    const SImageFrame frame(C, size);
    Point p{area.x - C.dXOffset, area.y - C.dYOffset};
    p.Rotate(0.0, 0.0, -Radians(C.dAngle));
    const double k = C.dZoom / dZ0;
    return {p.x * 0.5 * frame.w * k + frame.w * 0.5 - frame.sx,
            k * C.dScanAreaAspect * (p.y * 0.5 * frame.h) + frame.h * 0.5 - frame.sy};
}

Point AreaFromImage(const Desc& C, CQsSizeBase<int> size, double dZ0, Point image)
{
    const SImageFrame frame(C, size);
    const double k = C.dZoom / dZ0;
    Point p{2.0 * (image.x + frame.sx - frame.w / 2.0) / frame.w / k,
            2.0 * (image.y + frame.sy - frame.h / 2.0) / frame.h / (k * C.dScanAreaAspect)};
    p.Rotate(0.0, 0.0, Radians(C.dAngle));
    return {p.x + C.dXOffset, p.y + C.dYOffset};
}

// Sides of scan area F are -1 and +1 of its points; zoomed in, they cover less of the field.
Point AreaFromFCS(const Desc& F, double dZ0, Point fcs)
{
    const double kF = F.dZoom / dZ0;
    Point p{fcs.x + F.dXOffset, fcs.y + F.dYOffset};
    p.x = (p.x - F.dXOffset) / kF + F.dXOffset;
    p.y = (p.y - F.dYOffset) / (kF * F.dScanAreaAspect) + F.dYOffset;
    p.Rotate(F.dXOffset, F.dYOffset, Radians(F.dAngle));
    return p;
}

Point FCSFromArea(const Desc& F, double dZ0, Point area)
{
    area.Rotate(F.dXOffset, F.dYOffset, -Radians(F.dAngle));
    const double kF = F.dZoom / dZ0;
    const Point p{(area.x - F.dXOffset) * kF + F.dXOffset, (area.y - F.dYOffset) * kF * F.dScanAreaAspect + F.dYOffset};
    return {p.x - F.dXOffset, p.y - F.dYOffset};
}

bool UsesAspect(Helper::EScanAreaMode mode)
{
    return mode != Helper::eScanAreaModeSquare && mode != Helper::eScanAreaModeSquare5 &&
           mode != Helper::eScanAreaModeSquare6;
}

Rect RectAround(Point centre, double halfWidth, double halfHeight)
{
    return {
        std::min(centre.x - halfWidth, centre.x + halfWidth), std::min(centre.y - halfHeight, centre.y + halfHeight),
        std::max(centre.x - halfWidth, centre.x + halfWidth), std::max(centre.y - halfHeight, centre.y + halfHeight)};
}

} // namespace

int Helper::ConvertPointAreaToPointImg(const Point& areaPoint, Point& imagePoint, const Desc* C, CQsSizeBase<int> size,
                                       double dZ0)
{
    if (C == nullptr)
        return statusNullArgument;
    imagePoint = ImageFromArea(*C, size, dZ0, areaPoint);
    return QS_OK;
}

int Helper::ConvertPointImgToPointArea(Point& areaPoint, const Point& imagePoint, const Desc* C, CQsSizeBase<int> size,
                                       double dZ0)
{
    if (C == nullptr)
        return statusNullArgument;
    areaPoint = AreaFromImage(*C, size, dZ0, imagePoint);
    return QS_OK;
}

int Helper::ConvertFCSPointAreaToPointImg(const Point& fcsPoint, Point& imagePoint, const Desc* C,
                                          CQsSizeBase<int> size, const Desc* F, double dZ0)
{
    if (C == nullptr || F == nullptr)
        return statusNullArgument;
    imagePoint = ImageFromArea(*C, size, dZ0, AreaFromFCS(*F, dZ0, fcsPoint));
    return QS_OK;
}

int Helper::ConvertPointImgToFCSPointArea(Point& fcsPoint, const Point& imagePoint, const Desc* C,
                                          CQsSizeBase<int> size, const Desc* F, double dZ0)
{
    if (C == nullptr || F == nullptr)
        return statusNullArgument;
    fcsPoint = FCSFromArea(*F, dZ0, AreaFromImage(*C, size, dZ0, imagePoint));
    return QS_OK;
}

int Helper::ConvertFCSPointAreaToAbsoluteArea(const Point& fcsPoint, Point& areaPoint, const Desc* F, double dZ0)
{
    if (F == nullptr)
        return statusNullArgument;
    // By way of an image of one pixel, as point stimulation does: the rounding is the same.
    const Desc fullField;
    Point image;
    ConvertFCSPointAreaToPointImg(fcsPoint, image, &fullField, {1, 1}, F, dZ0);
    ConvertPointImgToPointArea(areaPoint, image, &fullField, {1, 1}, dZ0);
    return QS_OK;
}

int Helper::ConvertScanAreaToRect(const Desc* A, Rect& rect, double& angle, const Desc* C, CQsSizeBase<int> size,
                                  double dZ0, EScanAreaMode mode)
{
    if (A == nullptr || C == nullptr)
        return statusNullArgument;
    // The mode changes the half height alone; the centre always lies where C's aspect puts it.
    const Point centre = ImageFromArea(*C, size, dZ0, {A->dXOffset, A->dYOffset});
    const double fullWidth = C->dZoom / A->dZoom * SImageFrame(*C, size).w;
    // From the width, not from the image's height: the scanner's field is square whatever part of it the image shows.
    const double halfHeight = UsesAspect(mode) ? fullWidth / A->dScanAreaAspect * 0.5 : fullWidth * 0.5;
    const double turned = Radians(A->dAngle - C->dAngle);
    rect = RectAround(centre, fullWidth * 0.5, halfHeight);
    angle = turned;
    return QS_OK;
}

int Helper::ConvertRectToScanArea(Desc* A, Rect rect, double angle, const Desc* C, CQsSizeBase<int> size, double dZ0,
                                  EScanAreaMode mode)
{
    if (A == nullptr || C == nullptr)
        return statusNullArgument;
    if (!C->Points.empty())
        return QS_ERR_FAIL;
    const Point offset = AreaFromImage(*C, size, dZ0, rect.Center());
    const double zoom = SImageFrame(*C, size).w / rect.Width() * C->dZoom;
    const double areaAngle = angle * 180.0 / s_qsPi + C->dAngle;
    // Only now: A may be C.
    A->dAngle = areaAngle;
    A->dXOffset = offset.x;
    A->dYOffset = offset.y;
    A->dZoom = zoom;
    A->dScanAreaAspect = UsesAspect(mode) ? rect.Width() / rect.Height() : 1.0;
    return QS_OK;
}

int Helper::ConvertCropAreaToRect(const Desc* A, Rect& rect, double& angle, const Desc* C, CQsSizeBase<int> size,
                                  double dZ0, EScanAreaMode mode)
{
    if (A == nullptr)
        return statusNullArgument;
    if (!A->bIsCrop)
        return ConvertScanAreaToRect(A, rect, angle, C, size, dZ0, mode);
    Rect area;
    double turned = 0.0;
    if (ConvertScanAreaToRect(A, area, turned, C, size, dZ0, mode) != QS_OK)
        return QS_ERR_FAIL;
    Point d{area.Width() * 0.5 * A->dCropXOffset, area.Height() * 0.5 * A->dCropYOffset};
    d.Rotate(0.0, 0.0, turned);
    const double halfWidth = area.Width() * 0.5 / A->dCropZoom;
    const double halfHeight = halfWidth / A->dCropAspect; // from the width, as above
    rect = RectAround({area.Center().x + d.x, area.Center().y + d.y}, halfWidth, halfHeight);
    angle = turned;
    return QS_OK;
}

int Helper::ConvertRectToCropArea(Desc* A, Rect rect, double /*angle*/, const Desc* C, CQsSizeBase<int> size,
                                  double dZ0, EScanAreaMode mode)
{
    if (A == nullptr || C == nullptr)
        return statusNullArgument;
    // The crop is turned as its area is, so the angle between A and C counts and the caller's is not asked: callers
    // pass that of the rectangle as it is drawn.
    Rect area;
    double turned = 0.0;
    ConvertScanAreaToRect(A, area, turned, C, size, dZ0, mode);
    const Point centre = area.Center();
    Point p = rect.Center();
    p.Rotate(centre.x, centre.y, -turned);
    A->bIsCrop = true;
    A->dCropZoom = area.Width() / rect.Width();
    A->dCropAspect = rect.Width() / rect.Height();
    A->dCropXOffset = (p.x - centre.x) / (area.Width() * 0.5);
    A->dCropYOffset = (p.y - centre.y) / (area.Height() * 0.5);
    return QS_OK;
}

int Helper::CalcCropFactor(const Desc* A, CQsSizeBase<double>& factor, double dZ0)
{
    if (A == nullptr)
        return statusNullArgument;
    factor = {1.0, 1.0};
    if (!A->bIsCrop)
        return QS_OK;
    const Desc fullField;
    Rect crop;
    Rect scan;
    double angle = 0.0;
    if (ConvertCropAreaToRect(A, crop, angle, &fullField, {1, 1}, dZ0, eScanAreaModeInternal) != QS_OK ||
        ConvertScanAreaToRect(A, scan, angle, &fullField, {1, 1}, dZ0, eScanAreaModeInternal) != QS_OK)
        return QS_ERR_FAIL;
    factor = {scan.Width() / crop.Width(), scan.Height() / crop.Height()};
    return QS_OK;
}

int Helper::CalcTransformMatrixToArea(const Desc* A, const CQsSizeBase<int>& size, double* matrix, double dZ0)
{
    if (A == nullptr || matrix == nullptr)
        return statusNullArgument;
    const Desc fullField;
    Rect R;
    double angle = 0.0;
    if (ConvertScanAreaToRect(A, R, angle, &fullField, size, dZ0, eScanAreaModeInternal) != QS_OK)
        return QS_ERR_FAIL;
    const double rw = R.Width();
    const double rh = R.Height();
    // Of the uncropped area: a crop is shown at the area's own scale, it is not blown up to the image.
    const double s = std::min(size.cx / rw, size.cy / rh);
    if (A->bIsCrop)
    {
        Rect crop;
        if (ConvertCropAreaToRect(A, crop, angle, &fullField, size, dZ0, eScanAreaModeInternal) == QS_OK)
            R = {crop.left, crop.top, crop.left + rw, crop.top + rh}; // moved, not resized
    }

    constexpr double nearlyNothing = 1e-6; // radians, ratio and pixels alike
    const double x = -angle;
    const Point centre = R.Center();
    const Point target{rw * s * 0.5, rh * s * 0.5};
    if (std::abs(x) <= nearlyNothing && std::abs(s - 1.0) <= nearlyNothing &&
        std::hypot(centre.x - target.x, centre.y - target.y) <= nearlyNothing)
    {
        constexpr double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        std::copy(identity, identity + 9, matrix);
        return QS_OK;
    }

    const double c = std::abs(x) > nearlyNothing ? std::cos(x) : 1.0;
    const double sn = std::abs(x) > nearlyNothing ? std::sin(x) : 0.0;
    const double k = std::abs(s - 1.0) > nearlyNothing ? s : 1.0;
    // translation(target) * scaling(k) * rotation(x) * translation(-centre)
    const double result[9] = {k * c,  -(k * sn), k * (sn * centre.y - c * centre.x) + target.x,
                              k * sn, k * c,     k * (-sn * centre.x - c * centre.y) + target.y,
                              0.0,    0.0,       1.0};
    std::copy(result, result + 9, matrix);
    return QS_OK;
}
