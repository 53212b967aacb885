// What the demos share: the account, the promises, the report.
#pragma once

#include "stimhost/Options.h"
#include "stimhost/Promises.h"
#include "stimhost/Session.h"
#include "stimhost/Signals.h"
#include "stimhost/Text.h"

#include <string>
#include <vector>

namespace Stimhost {

class CDemoRun
{
public:
    CDemoRun(CSession& session, const SOptions& options);

    CQsStimulationDeviceManager& Manager() { return m_manager; }
    const QsStandalone::SRig& Rig() const { return m_session.Rig(); }
    const SOptions& Options() const { return m_options; }
    CPromises& Promises() { return m_promises; }

    void Heading(const std::string& text) { Say("\n" + text + "\n"); }
    void Skipped(const std::string& text) { Say("\nskipped: " + text + "\n"); }

    // Runs a stimulation under a heading of its title. The phase is the report's, valid until the next one.
    SPhase& Run(const SRequest& request);
    // The same, and checks what holds for every stimulation that succeeds.
    SPhase& Stimulate(const SRequest& request);

    // For the report and the tables at the end.
    void Keep(SCalibrationFigures figures) { m_report.calibrations.push_back(std::move(figures)); }
    void Keep(SLanding landing) { m_report.landings.push_back(std::move(landing)); }

    std::vector<SSignal> TakeSignals() { return m_signals.Take(); } // since the last time

    std::string ResultFile(const std::string& name) const; // path in the folder for the results
    // No light is on; table, report and picture. The exit code.
    int Finish();

private:
    CSession& m_session;
    const SOptions& m_options;
    CQsStimulationDeviceManager& m_manager;
    SReport m_report;
    CPromises m_promises;
    CSignalListener m_signals;
};

SRequest DemoRequest(const std::string& title, EKind kind, double durationMs, std::optional<double> abortAfterMs = {});

// The devices one by one, without a device database.
void DemonstrateDevices(CDemoRun& run);
// False, with one line, where the next one would save among, or clear, calibrations that are not the demo's.
bool MayDemonstrateOptics(CSession& session, const SOptions& options, std::string& error);
// A calibration against a camera, and where the light lands with it.
void DemonstrateOptics(CDemoRun& run);
// The beampaths of a device database.
void DemonstrateBeampaths(CDemoRun& run);

} // namespace Stimhost
