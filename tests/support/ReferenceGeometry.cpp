#include "tests/support/ReferenceGeometry.h"

#include <algorithm>
#include <cmath>

namespace QsTest {
namespace {

// Nearer than this, relative to its scale, a decision in doubles may fall either way.
constexpr double s_undecided = 1e-12;

const CTracked s_half(0.5);
const CTracked s_two(2.0);
const CTracked s_pi(3.1415926535898); // of the interface; full precision differs

bool IsUndecided(const CTracked& a, double threshold)
{
    return std::fabs(std::fabs(a.ToDouble()) - threshold) <= s_undecided * std::fmax(a.Scale(), threshold);
}

// The nearest whole number, halves away from 0; none where doubles could not tell.
std::optional<int> Nearest(const CTracked& value)
{
    const double v = value.ToDouble();
    const double halves = 2.0 * v;
    const double nearestHalf = std::round(halves);
    if (static_cast<long long>(nearestHalf) % 2 != 0 && std::fabs(halves - nearestHalf) <= s_undecided * value.Scale())
        return std::nullopt;
    return static_cast<int>(std::round(v));
}

} // namespace

SPlane SPlane::Turn(const CTracked& angle)
{
    CTracked sine;
    CTracked cosine;
    CTracked::SinCos(angle, sine, cosine);
    return {cosine, -sine, 0.0, sine, cosine, 0.0};
}

SPlane SPlane::operator*(const SPlane& right) const
{
    return {xx * right.xx + xy * right.yx, xx * right.xy + xy * right.yy, xx * right.x0 + xy * right.y0 + x0,
            yx * right.xx + yy * right.yx, yx * right.xy + yy * right.yy, yx * right.x0 + yy * right.y0 + y0};
}

SPlane SPlane::Inverse() const
{
    const CTracked determinant = xx * yy - xy * yx;
    const SPlane linear{yy / determinant, -xy / determinant, 0.0, -yx / determinant, xx / determinant, 0.0};
    return linear * Shift(-x0, -y0);
}

bool SPlane::Agrees(const Matrix3& got, double tolerance) const
{
    return xx.Agrees(got[0], tolerance) && xy.Agrees(got[1], tolerance) && x0.Agrees(got[2], tolerance) &&
           yx.Agrees(got[3], tolerance) && yy.Agrees(got[4], tolerance) && y0.Agrees(got[5], tolerance) &&
           got[6] == 0.0 && got[7] == 0.0 && got[8] == 1.0;
}

bool SPlane::Agrees(const CQsPointBase<double>& from, const CQsPointBase<double>& got, double tolerance) const
{
    const STrackedPoint expected = (*this)({from.x, from.y});
    return expected.x.Agrees(got.x, tolerance) && expected.y.Agrees(got.y, tolerance);
}

bool STrackedRect::Agrees(const CQsRectBase<double>& got, double tolerance) const
{
    const CTracked halfWidth = Abs(width) * s_half;
    const CTracked halfHeight = Abs(height) * s_half;
    return (centre.x - halfWidth).Agrees(got.left, tolerance) && (centre.x + halfWidth).Agrees(got.right, tolerance) &&
           (centre.y - halfHeight).Agrees(got.top, tolerance) && (centre.y + halfHeight).Agrees(got.bottom, tolerance);
}

CTracked Radians(const CTracked& degrees)
{
    return degrees * s_pi / CTracked(180.0);
}

SPlane ImageFromArea(const Area& C, CQsSizeBase<int> size, double zoom0)
{
    const CTracked W(size.cx);
    const CTracked H(size.cy);
    const CTracked fullW = C.bIsCrop ? W * CTracked(C.dCropZoom) : W;
    const CTracked fullH = C.bIsCrop ? H * CTracked(C.dCropZoom) * CTracked(C.dCropAspect) : H;
    const CTracked zoom = CTracked(C.dZoom) / CTracked(zoom0);
    // Full-field units to a square about 0, that square to the uncropped image, and where the crop's corner lies in it.
    const SPlane squareFromArea = SPlane::Scale(zoom, zoom * CTracked(C.dScanAreaAspect)) *
                                  SPlane::Turn(-Radians(C.dAngle)) * SPlane::Shift(-C.dXOffset, -C.dYOffset);
    const SPlane fullFromSquare =
        SPlane::Shift(fullW * s_half, fullH * s_half) * SPlane::Scale(fullW * s_half, fullH * s_half);
    if (!C.bIsCrop)
        return fullFromSquare * squareFromArea;
    const STrackedPoint cropCentre = fullFromSquare({CTracked(C.dCropXOffset), CTracked(C.dCropYOffset)});
    return SPlane::Shift(W * s_half - cropCentre.x, H * s_half - cropCentre.y) * fullFromSquare * squareFromArea;
}

SPlane AreaFromFcs(const Area& F, double zoom0)
{
    const CTracked side = CTracked(zoom0) / CTracked(F.dZoom);
    return SPlane::Shift(F.dXOffset, F.dYOffset) * SPlane::Turn(Radians(F.dAngle)) *
           SPlane::Scale(side, side / CTracked(F.dScanAreaAspect));
}

bool IsSquareMode(AreaMode mode)
{
    return mode == 1 || mode == 5 || mode == 6;
}

STrackedRect RectOfArea(const Area& A, const Area& C, CQsSizeBase<int> size, double zoom0, AreaMode mode)
{
    const CTracked fullW = C.bIsCrop ? CTracked(size.cx) * CTracked(C.dCropZoom) : CTracked(size.cx);
    STrackedRect rect;
    rect.centre = ImageFromArea(C, size, zoom0)({A.dXOffset, A.dYOffset});
    rect.width = Abs(fullW * CTracked(C.dZoom) / CTracked(A.dZoom));
    rect.height = IsSquareMode(mode) ? rect.width : Abs(rect.width / CTracked(A.dScanAreaAspect));
    return rect;
}

SPlane ImageFromCropOffset(const Area& A, const Area& C, CQsSizeBase<int> size, double zoom0, AreaMode mode)
{
    const STrackedRect rect = RectOfArea(A, C, size, zoom0, mode);
    return SPlane::Shift(rect.centre.x, rect.centre.y) *
           SPlane::Turn(Radians(CTracked(A.dAngle) - CTracked(C.dAngle))) *
           SPlane::Scale(rect.width * s_half, rect.height * s_half);
}

STrackedRect RectOfCrop(const Area& A, const Area& C, CQsSizeBase<int> size, double zoom0, AreaMode mode)
{
    STrackedRect rect = RectOfArea(A, C, size, zoom0, mode);
    if (!A.bIsCrop)
        return rect;
    rect.centre = ImageFromCropOffset(A, C, size, zoom0, mode)({A.dCropXOffset, A.dCropYOffset});
    rect.width = Abs(rect.width / CTracked(A.dCropZoom));
    rect.height = Abs(rect.width / CTracked(A.dCropAspect));
    return rect;
}

std::optional<SPlane> AreaTransform(const Area& A, CQsSizeBase<int> size, double zoom0)
{
    constexpr double s_threshold = 1e-6;
    const AreaMode mode = AreaHelper::eScanAreaModeInternal;
    const Area fullField;
    const STrackedRect whole = RectOfArea(A, fullField, size, zoom0, mode);
    const CTracked s = std::min(CTracked(size.cx) / whole.width, CTracked(size.cy) / whole.height);
    STrackedPoint centre = whole.centre;
    if (A.bIsCrop)
    {
        const STrackedRect crop = RectOfCrop(A, fullField, size, zoom0, mode);
        centre.x = crop.centre.x - crop.width * s_half + whole.width * s_half;
        centre.y = crop.centre.y - crop.height * s_half + whole.height * s_half;
    }
    const STrackedPoint target{whole.width * s * s_half, whole.height * s * s_half};
    const CTracked angle = -Radians(A.dAngle);
    const CTracked enlargement = s - CTracked(1.0);
    const double distance = std::hypot((centre.x - target.x).ToDouble(), (centre.y - target.y).ToDouble());
    const double distanceScale = centre.x.Scale() + centre.y.Scale() + target.x.Scale() + target.y.Scale();
    if (IsUndecided(angle, s_threshold) || IsUndecided(enlargement, s_threshold) ||
        std::fabs(distance - s_threshold) <= s_undecided * distanceScale)
        return std::nullopt;
    const bool bTurn = std::fabs(angle.ToDouble()) > s_threshold;
    const bool bScale = std::fabs(enlargement.ToDouble()) > s_threshold;
    if (!bTurn && !bScale && distance <= s_threshold)
        return SPlane::Scale(1.0, 1.0);
    SPlane m = SPlane::Shift(-centre.x, -centre.y);
    if (bTurn)
        m = SPlane::Turn(angle) * m;
    if (bScale)
        m = SPlane::Scale(s, s) * m;
    return SPlane::Shift(target.x, target.y) * m;
}

SPlane UnrotatedCamera(const SPlane& rotation, const SPlane& flip, const STrackedPoint& p)
{
    const STrackedPoint turned = rotation(p);
    return SPlane::Shift(p.x, p.y) * rotation * flip * SPlane::Shift(-Abs(turned.x), -Abs(turned.y));
}

std::optional<SPlane> ChipFromImage(const SChipCase& c)
{
    const int sensorWidth = c.sensor.right - c.sensor.left;
    const int sensorHeight = c.sensor.bottom - c.sensor.top;
    const CQsRectBase<int> r = c.imageRect.value_or(c.sensor);
    const STrackedPoint p{static_cast<double>(sensorWidth / 2), static_cast<double>(sensorHeight / 2)};
    const SPlane imageFromCamera = UnrotatedCamera(SPlane::Turn(c.angle), SPlane::Scale(1.0, 1.0), p).Inverse();
    const STrackedPoint corners[] = {imageFromCamera({CTracked(r.left), CTracked(r.top)}),
                                     imageFromCamera({CTracked(r.right), CTracked(r.top)}),
                                     imageFromCamera({CTracked(r.right), CTracked(r.bottom)})};
    const std::optional<int> left = Nearest(std::min({corners[0].x, corners[1].x, corners[2].x}));
    const std::optional<int> top = Nearest(std::min({corners[0].y, corners[1].y, corners[2].y}));
    if (!left || !top)
        return std::nullopt;

    CTracked w = std::max(sensorWidth, sensorHeight);
    CTracked h = w;
    const bool bArea = c.bAskFullFieldZoom && c.area.has_value();
    if (c.bAskFullFieldZoom)
    {
        w = sensorWidth;
        h = sensorHeight;
    }
    if (bArea)
    {
        if (c.area->bIsCrop)
        {
            w = w * CTracked(c.area->dCropZoom);
            h = h * CTracked(c.area->dCropZoom) * CTracked(c.area->dCropAspect) / CTracked(c.area->dScanAreaAspect);
        }
        // The sides of the area on a square field are as its aspect.
        const CTracked q(c.area->dScanAreaAspect);
        if (q.ToDouble() > 1.0)
            h = h * q;
        else
            w = w * q;
    }
    const CTracked m = std::min(w, h);
    const SPlane chip = SPlane::Shift((CTracked(*left) + s_half) / m, (CTracked(*top) + s_half) / m) *
                        SPlane::Scale(CTracked(c.fx) / m, CTracked(c.fy) / m);
    if (!bArea)
        return chip;
    const std::optional<SPlane> area = AreaTransform(*c.area, {1, 1}, c.zoom);
    if (!area)
        return std::nullopt;
    return area->Inverse() * chip;
}

} // namespace QsTest
