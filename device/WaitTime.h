// Length of the wait of a stimulation phase.
#pragma once

#include <cstdint>

// `dDurationMs` plus 0.5, truncated to whole milliseconds. 0 for a duration that is negative or not a finite number;
// never the value that means "for ever": a lit phase always ends. [any thread]
inline std::uint32_t QsStimulationWaitMs(double dDurationMs)
{
    constexpr double longest = 4294967294.0;
    const double wait = dDurationMs + 0.5;
    if (!(wait > 0.0) || wait - wait != 0.0)
        return 0;
    return wait >= longest ? 0xFFFFFFFEu : static_cast<std::uint32_t>(wait);
}
