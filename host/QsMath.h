// The host's math library: small dense matrices.
#pragma once

#include "host/QsHostApi.h"

#include <cstddef>
#include <vector>

// Matrix of doubles, row-major. A value. [any thread]
class QS_HOST_API CQsMatrix
{
public:
    CQsMatrix(std::size_t rows, std::size_t columns); // all 0

    std::size_t GetRows() const { return m_rows; }
    std::size_t GetColumns() const { return m_columns; }
    double& operator()(std::size_t row, std::size_t column) { return m_elements[row * m_columns + column]; }
    double operator()(std::size_t row, std::size_t column) const { return m_elements[row * m_columns + column]; }

    // Replaces the matrix by its inverse. False, and the matrix unchanged, when it is not square, singular to working
    // precision, or has an element that is not finite.
    bool Inv();

private:
    std::size_t m_rows;
    std::size_t m_columns;
    std::vector<double> m_elements;
};
