// Inverses of small dense matrices.
#include "host/QsMath.h"
#include "host/QsPicture.h"
#include "host/QsSystem.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>

namespace {

// Below this reciprocal condition an inverse has no digit left.
constexpr double singularCondition = 1e-15;

// The usual case without scaling or pivoting: the adjugate over the determinant. The six products that make up the
// determinant are summed with and without their signs; as long as little cancels in it the inverse is as good as the
// elements are, whatever the rows and columns are scaled with. False, and nothing written, where the careful way is
// needed. An element that is not finite spoils the determinant, since each takes part in it.
bool InvertBenign3(double* out, const double* m)
{
    const double p00 = m[4] * m[8], n00 = m[5] * m[7];
    const double p10 = m[5] * m[6], n10 = m[3] * m[8];
    const double p20 = m[3] * m[7], n20 = m[4] * m[6];
    const std::array<double, 3> first = {m[0], m[1], m[2]};
    const double determinant = first[0] * (p00 - n00) + first[1] * (p10 - n10) + first[2] * (p20 - n20);
    const double magnitude = std::fabs(first[0]) * (std::fabs(p00) + std::fabs(n00)) +
                             std::fabs(first[1]) * (std::fabs(p10) + std::fabs(n10)) +
                             std::fabs(first[2]) * (std::fabs(p20) + std::fabs(n20));
    constexpr double mostCancelled = 0.01;
    constexpr double least = 1e-100, greatest = 1e100; // no product on the way leaves the range of normal numbers
    if (!(std::fabs(determinant) > mostCancelled * magnitude && magnitude > least && magnitude < greatest))
        return false;
    for (int i = 0; i < 9; ++i)
        if (!(std::fabs(m[i]) < greatest) || (m[i] != 0.0 && std::fabs(m[i]) < least))
            return false;
    const std::array<double, 9> adjugate = {p00 - n00, m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                                            p10 - n10, m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                                            p20 - n20, m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
    for (std::size_t i = 0; i < adjugate.size(); ++i)
        out[i] = adjugate[i] / determinant;
    return true;
}

double NormOf(const std::vector<double>& elements, std::size_t order) // the greatest sum of a column
{
    double norm = 0.0;
    for (std::size_t column = 0; column < order; ++column)
    {
        double sum = 0.0;
        for (std::size_t row = 0; row < order; ++row)
            sum += std::fabs(elements[row * order + column]);
        norm = std::max(norm, sum);
    }
    return norm;
}

// Binary exponent that brings the greatest of `count` elements, `step` apart, between 1 and 2. False for zeros alone.
bool ExponentOf(const double* elements, std::size_t count, std::size_t step, int& exponent)
{
    double greatest = 0.0;
    for (std::size_t i = 0; i < count; ++i)
        greatest = std::max(greatest, std::fabs(elements[i * step]));
    if (greatest == 0.0)
        return false;
    exponent = std::ilogb(greatest);
    return true;
}

// Elimination with partial pivoting of the matrix beside the unit matrix. False when a column has no pivot left.
bool Eliminate(std::vector<double>& left, std::vector<double>& right, std::size_t order)
{
    for (std::size_t column = 0; column < order; ++column)
    {
        std::size_t pivot = column;
        for (std::size_t row = column + 1; row < order; ++row)
            if (std::fabs(left[row * order + column]) > std::fabs(left[pivot * order + column]))
                pivot = row;
        if (!(std::fabs(left[pivot * order + column]) > 0.0))
            return false;
        for (auto* const side : {&left, &right})
            if (pivot != column)
                std::swap_ranges(side->begin() + static_cast<std::ptrdiff_t>(pivot * order),
                                 side->begin() + static_cast<std::ptrdiff_t>((pivot + 1) * order),
                                 side->begin() + static_cast<std::ptrdiff_t>(column * order));
        for (std::size_t row = 0; row < order; ++row)
        {
            if (row == column)
                continue;
            const double factor = left[row * order + column] / left[column * order + column];
            if (factor == 0.0)
                continue;
            for (std::size_t i = column; i < order; ++i)
                left[row * order + i] -= factor * left[column * order + i];
            left[row * order + column] = 0.0;
            for (std::size_t i = 0; i < order; ++i)
                right[row * order + i] -= factor * right[column * order + i];
        }
    }
    for (std::size_t row = 0; row < order; ++row)
        for (std::size_t i = 0; i < order; ++i)
            right[row * order + i] /= left[row * order + row];
    return true;
}

// With rows and columns brought to one size first, by powers of two, which round nothing: whether a matrix is singular
// must not depend on the units of its rows and columns.
bool InvertCarefully(double* out, const double* in, std::size_t order)
{
    const std::size_t count = order * order;
    if (!std::all_of(in, in + count, [](double element) { return std::isfinite(element); }))
        return false;
    std::vector<double> scaled(in, in + count);
    std::vector<int> rows(order), columns(order);
    for (std::size_t row = 0; row < order; ++row)
    {
        if (!ExponentOf(&scaled[row * order], order, 1, rows[row]))
            return false;
        for (std::size_t i = 0; i < order; ++i)
            scaled[row * order + i] = std::scalbn(scaled[row * order + i], -rows[row]);
    }
    for (std::size_t column = 0; column < order; ++column)
    {
        if (!ExponentOf(&scaled[column], order, order, columns[column]))
            return false;
        for (std::size_t i = 0; i < order; ++i)
            scaled[i * order + column] = std::scalbn(scaled[i * order + column], -columns[column]);
    }
    const double norm = NormOf(scaled, order);
    std::vector<double> inverse(count, 0.0);
    for (std::size_t i = 0; i < order; ++i)
        inverse[i * order + i] = 1.0;
    if (!Eliminate(scaled, inverse, order) || !(norm * NormOf(inverse, order) < 1.0 / singularCondition))
        return false;
    for (std::size_t row = 0; row < order; ++row)
        for (std::size_t column = 0; column < order; ++column)
        {
            double& element = inverse[row * order + column];
            element = std::scalbn(element, -columns[row] - rows[column]);
            if (!std::isfinite(element))
                return false;
        }
    std::copy(inverse.begin(), inverse.end(), out);
    return true;
}

bool Invert(double* out, const double* in, std::size_t order)
{
    return (order == 3 && InvertBenign3(out, in)) || InvertCarefully(out, in, order);
}

} // namespace

CQsMatrix::CQsMatrix(std::size_t rows, std::size_t columns)
    : m_rows(rows), m_columns(columns), m_elements(rows * columns, 0.0)
{}

bool CQsMatrix::Inv()
{
    return m_rows == m_columns && m_rows > 0 && Invert(m_elements.data(), m_elements.data(), m_rows);
}

int CQsMKL_API::InvertMatrix(double* out, const double* in, int order)
{
    try
    {
        return out != nullptr && in != nullptr && order > 0 && Invert(out, in, static_cast<std::size_t>(order))
                   ? QS_OK
                   : QS_ERR_FAIL;
    }
    catch (const std::exception&) // no memory
    {
        return QS_ERR_FAIL;
    }
}
