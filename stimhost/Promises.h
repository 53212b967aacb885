// What the demo promises, checked and written down one by one.
#pragma once

#include "stimhost/Report.h"

class IQsStimulationDevice;

namespace Stimhost {

class CPromises
{
public:
    // Prints "ok" or "BROKEN" with the text and what was found.
    void Check(bool kept, const std::string& text, const std::string& found);

    // What holds for every stimulation: started, reported success, left no light on, lit nothing before its start.
    void CheckPhase(const SPhase& phase);
    // One light, as long as asked: at most the shutter's latencies longer, and inside the times that the device
    // reported.
    void CheckSingleLight(const SPhase& phase, IQsStimulationDevice& shutter);
    void CheckAborted(const SPhase& phase, IQsStimulationDevice& shutter);
    void CheckPatterns(const SPhase& phase, double exposureMs);

    bool AllKept() const;
    const std::vector<SPromise>& All() const { return m_promises; }

private:
    std::vector<SPromise> m_promises;
};

} // namespace Stimhost
