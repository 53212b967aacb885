// 3x3 matrices for points, row-major, for columns (x, y, 1).
#pragma once

#include "host/QsPicture.h"
#include "host/QsSystem.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <vector>

namespace Stimhost {

using CPoint = CQsPointBase<double>;
using CMatrix3 = std::array<double, 9>;

constexpr CMatrix3 s_identity3 = {1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};

inline CPoint Mapped(const CMatrix3& m, const CPoint& p)
{
    const double w = m[6] * p.x + m[7] * p.y + m[8];
    return {(m[0] * p.x + m[1] * p.y + m[2]) / w, (m[3] * p.x + m[4] * p.y + m[5]) / w};
}

inline CMatrix3 Product(const CMatrix3& a, const CMatrix3& b)
{
    CMatrix3 product{};
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 3; ++column)
            for (std::size_t k = 0; k < 3; ++k)
                product[3 * row + column] += a[3 * row + k] * b[3 * k + column];
    return product;
}

inline double Distance(const CPoint& a, const CPoint& b)
{
    return std::hypot(a.x - b.x, a.y - b.y);
}

// None when there is no inverse to working precision.
inline std::optional<CMatrix3> Inverse(const CMatrix3& m)
{
    CMatrix3 inverse = s_identity3;
    if (CQsMKL_API::InvertMatrix(inverse.data(), m.data(), 3) != 0)
        return std::nullopt;
    return inverse;
}

inline std::vector<double> Elements(const CMatrix3& m)
{
    return {m.begin(), m.end()};
}

// None for a vector of another length.
inline std::optional<CMatrix3> FromElements(const std::vector<double>& elements)
{
    CMatrix3 m{};
    if (elements.size() != m.size())
        return std::nullopt;
    std::copy(elements.begin(), elements.end(), m.begin());
    return m;
}

} // namespace Stimhost
