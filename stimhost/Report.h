// What was asked beside what was measured: as a table and as JSON.
#pragma once

#include "stimhost/Landing.h"
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

// A calibration that was measured.
struct SCalibrationFigures
{
    std::string title;
    std::string camera;  // its image in words
    std::string refusal; // empty: it was good
    unsigned projected = 0;
    unsigned found = 0;
    unsigned inliers = 0;
    double rmsPx = s_noTime;     // [camera px]
    double largestPx = s_noTime; // [camera px]
    double condition = s_noTime;
};

struct SReport
{
    std::string rigName;
    std::string rigPath;
    std::vector<SPhase> phases;
    std::vector<SCalibrationFigures> calibrations;
    std::vector<SLanding> landings; // of the phases that lit a region
    std::vector<SPromise> promises;
    std::vector<std::string> lightOnAtEnd;
};

SReport ReportOf(const QsStandalone::SRig& rig);

std::string Table(const std::vector<SPhase>& phases);
// What is to be said of a phase beside its lanes: skews, what the manager told its host and when, messages of the log.
std::vector<std::string> Notes(const SPhase& phase);
// A row for each: spots, residuals, condition.
std::string CalibrationTable(const std::vector<SCalibrationFigures>& calibrations);
// A row for each camera state: calibration state, centre's error, overlap.
std::string LandingTable(const std::vector<SLanding>& landings);
std::string ReportJson(const SReport& report);

// One line that says why a phase did not succeed; empty when it did.
std::string WhyFailed(const SPhase& phase);

} // namespace Stimhost
