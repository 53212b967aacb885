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
