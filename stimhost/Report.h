// What was asked beside what was measured: as a table and as JSON.
#pragma once

#include "stimhost/Stimulation.h"

#include <string>
#include <vector>

namespace QsStandalone {
struct SRig;
}

namespace Stimhost {

struct SPromise
{
    std::string text;
    bool kept = false;
    std::string detail; // what was found
};

struct SReport
{
    std::string rigName;
    std::string rigPath;
    std::vector<SPhase> phases;
    std::vector<SPromise> promises;
    std::vector<std::string> lightOnAtEnd;
};

SReport ReportOf(const QsStandalone::SRig& rig);

std::string Table(const std::vector<SPhase>& phases);
std::string ReportJson(const SReport& report);

// One line that says why a phase did not succeed; empty when it did.
std::string WhyFailed(const SPhase& phase);

} // namespace Stimhost
