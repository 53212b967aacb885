// A second evaluation of the geometry: every conversion as a product of plane transforms with about 31 digits, its
// inverse by the determinant. It shares neither the formulas nor the arithmetic of what it checks.
//
// For finite input without zeros where one divides.
#pragma once

#include "tests/support/DoubleDouble.h"
#include "tests/support/ScanAreas.h"

#include <optional>

namespace QsTest {

struct STrackedPoint
{
    CTracked x;
    CTracked y;
};

// Target <- source of the plane.
struct SPlane
{
    CTracked xx, xy, x0;
    CTracked yx, yy, y0;

    static SPlane Shift(const CTracked& x, const CTracked& y) { return {1.0, 0.0, x, 0.0, 1.0, y}; }
    static SPlane Scale(const CTracked& x, const CTracked& y) { return {x, 0.0, 0.0, 0.0, y, 0.0}; }
    static SPlane Turn(const CTracked& angle); // counter-clockwise where y points up [rad]

    STrackedPoint operator()(const STrackedPoint& p) const
    {
        return {xx * p.x + xy * p.y + x0, yx * p.x + yy * p.y + y0};
    }
    SPlane operator*(const SPlane& right) const; // this after the other one
    SPlane Inverse() const;
    // Each element of a 3x3 matrix agrees; the last row exactly.
    bool Agrees(const Matrix3& got, double tolerance) const;
    // The points agree.
    bool Agrees(const CQsPointBase<double>& from, const CQsPointBase<double>& got, double tolerance) const;
};

// A rectangle by its centre and sides.
struct STrackedRect
{
    STrackedPoint centre;
    CTracked width;
    CTracked height;

    bool Agrees(const CQsRectBase<double>& got, double tolerance) const;
};

CTracked Radians(const CTracked& degrees);

SPlane ImageFromArea(const Area& C, CQsSizeBase<int> size, double zoom0);
SPlane AreaFromFcs(const Area& F, double zoom0);
bool IsSquareMode(AreaMode mode);
STrackedRect RectOfArea(const Area& A, const Area& C, CQsSizeBase<int> size, double zoom0, AreaMode mode);
STrackedRect RectOfCrop(const Area& A, const Area& C, CQsSizeBase<int> size, double zoom0, AreaMode mode);
// image <- the square [-1, 1] that crop offsets of A are told in.
SPlane ImageFromCropOffset(const Area& A, const Area& C, CQsSizeBase<int> size, double zoom0, AreaMode mode);
// image(A) <- image(full field). None where a decision (what counts as no turn, as no scale) is nearer than the
// rounding of doubles.
std::optional<SPlane> AreaTransform(const Area& A, CQsSizeBase<int> size, double zoom0);

struct SChipCase
{
    double fx = 1.0;
    double fy = 1.0;
    CQsRectBase<int> sensor;
    double angle = 0.0; // [rad]
    std::optional<Area> area;
    std::optional<CQsRectBase<int>> imageRect;
    bool bAskFullFieldZoom = false;
    double zoom = 1.0; // that the scanner answers
};

// camera <- image: a turn and a flip about the centre p.
SPlane UnrotatedCamera(const SPlane& rotation, const SPlane& flip, const STrackedPoint& p);
// chip <- image. None where a bound is too near to the middle between two pixels, or AreaTransform has none.
std::optional<SPlane> ChipFromImage(const SChipCase& c);

} // namespace QsTest
