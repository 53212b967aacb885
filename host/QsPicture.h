// The host's picture library.
#pragma once

#include "host/QsHostApi.h"

#include <cstdint>
#include <vector>

// Run-length-coded binary picture: for each row its runs of lit pixels.
struct SQsRLEPicBuf
{
    struct SRun
    {
        std::uint32_t uiRow = 0;
        std::uint32_t uiFirst = 0; // first lit column
        std::uint32_t uiCount = 0; // lit columns
    };

    std::uint32_t uiWidth = 0;  // [px]
    std::uint32_t uiHeight = 0; // [px]
    std::vector<SRun> runs;
};

class QS_HOST_API CQsRLEPicBufAPI
{
public:
    // Deep copy; 0 on success. Source and destination may be the same.
    static int Copy(SQsRLEPicBuf& destination, const SQsRLEPicBuf& source);
};

// Dense linear algebra on plain arrays, row-major.
class QS_HOST_API CQsMKL_API
{
public:
    // Inverse of an order x order matrix; `out` and `in` may be the same. 0 on success. Not 0, and `out` unchanged, for
    // a null array, order 0, a matrix that is singular to working precision or one with an element that is not finite.
    static int InvertMatrix(double* out, const double* in, int order);
};
