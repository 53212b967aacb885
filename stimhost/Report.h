// What was asked beside what was measured: as a table and as JSON.
#pragma once

#include "stimhost/Phase.h"

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
// What is to be said of a phase beside its lanes: skews, what the manager told its host and when, messages of the log.
std::vector<std::string> Notes(const SPhase& phase);
std::string ReportJson(const SReport& report);

// One line that says why a phase did not succeed; empty when it did.
std::string WhyFailed(const SPhase& phase);

} // namespace Stimhost
