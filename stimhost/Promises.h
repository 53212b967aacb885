// What the demo promises, checked and written down one by one.
#pragma once

#include "stimhost/Report.h"

namespace Stimhost {

// How long a device needs for what it does beside the light itself, as the rig says.
struct SLatency
{
    double beginMs = 0.0; // from the command until light
    double endMs = 0.0;   // from the command until dark
    double jitterMs = 0.0;
};

class CPromises
{
public:
    explicit CPromises(const QsStandalone::SRig& rig) : m_rig(rig) {}

    // Of the device that has this light in the journal.
    SLatency LatencyOf(const std::string& light) const;

    // Prints "ok" or "BROKEN" with the text and what was found.
    void Check(bool kept, const std::string& text, const std::string& found);

    // What holds for every stimulation: started, reported success, left no light on, lit nothing before its start.
    void CheckPhase(const SPhase& phase);
    // One light, as long as asked: at most the device's latencies longer, and inside the times that it reported.
    void CheckSingleLight(const SPhase& phase);
    void CheckAborted(const SPhase& phase);
    void CheckPatterns(const SPhase& phase, double exposureMs);

    // Every device of the beampath lit once, as long as asked and all at the same time, none else did, and a path
    // without a device gave no light.
    void CheckBeampath(const SPhase& phase);
    // What the manager told its host, in this order.
    void CheckSignals(const SPhase& phase, const std::vector<std::string>& expected);

    bool AllKept() const;
    const std::vector<SPromise>& All() const { return m_promises; }

private:
    void CheckLength(const SPhase& phase, const SMeasured& light);

    const QsStandalone::SRig& m_rig;
    std::vector<SPromise> m_promises;
};

std::string StatusText(int status); // "status -9"

} // namespace Stimhost
