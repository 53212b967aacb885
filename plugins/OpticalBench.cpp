#include "plugins/OpticalBench.h"

#include "platform/ThreadSafety.h"

#include <map>

namespace {

struct SBench
{
    struct SSource
    {
        CQsStringW camera;
        ChipLight light;
    };

    CQsMutex lock;
    std::map<const void*, SSource> sources QS_GUARDED_BY(lock);
};

// Never destroyed: devices go dark until the process ends.
SBench& Bench()
{
    static SBench& bench = *new SBench;
    return bench;
}

} // namespace

void CQsOpticalBench::Light(const void* source, const CQsStringW& camera, ChipLight light)
{
    SBench& bench = Bench();
    const CQsScopedLock<CQsMutex> guard(bench.lock);
    if (light)
        bench.sources[source] = {camera, std::move(light)};
    else
        bench.sources.erase(source);
}

std::vector<ChipLight> CQsOpticalBench::Seen(const CQsStringW& camera)
{
    SBench& bench = Bench();
    const CQsScopedLock<CQsMutex> guard(bench.lock);
    std::vector<ChipLight> seen;
    for (const auto& source : bench.sources)
        if (source.second.camera == camera)
            seen.push_back(source.second.light);
    return seen;
}
