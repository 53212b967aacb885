#include "manager/StimulationManager.h"
#include "standalone/DeviceDatabase.h"
#include "stimhost/Commands.h"
#include "stimhost/Report.h"
#include "stimhost/Session.h"
#include "stimhost/Stimulation.h"
#include "stimhost/Text.h"
#include "stimhost/Timeline.h"

namespace Stimhost {

SRequest RequestOf(const SOptions& options, unsigned number)
{
    SRequest request;
    request.title = options.kind + ", " + Number(options.durationMs, 0) + " ms";
    if (options.abortAfterMs)
        request.title += ", aborted after " + Number(*options.abortAfterMs, 0) + " ms";
    if (options.repetitions > 1)
        request.title += ", no. " + std::to_string(number);
    request.kind = options.kind == "continuous" ? EKind::Continuous : EKind::Timed;
    request.durationMs = options.durationMs;
    request.groupMask = options.groupMask;
    request.abortAfterMs = options.abortAfterMs;
    request.graceMs = options.graceMs;
    return request;
}

int Stimulate(const SOptions& options, CSession& session)
{
    if (!options.roi.empty())
        return StimulateRegion(options, session);
    CQsStimulationDeviceManager& manager = *session.Manager();
    if (options.device && QsStandalone::CQsDeviceDatabase::IsOpen())
    {
        Complain(
            "with a device database stimulations go through a beampath; choose one with --oc in place of --device");
        return eExitBadUse;
    }
    if (options.device && !ActivateByName(manager, *options.device))
        return eExitBadUse;
    if (const std::optional<int> code = ApplyOC(options, manager))
        return *code;

    int code = eExitDone;
    SReport report = ReportOf(session.Rig());
    for (unsigned number = 1; number <= options.repetitions && code == eExitDone; ++number)
    {
        report.phases.push_back(RunStimulation(manager, RequestOf(options, number)));
        const SPhase& phase = report.phases.back();
        const std::string why = WhyFailed(phase);
        if (!why.empty())
            Complain(why);
        if (phase.interrupted)
            Complain("interrupted: the stimulation was aborted");
        if (!why.empty() || phase.interrupted)
            code = eExitFailed;
    }
    report.lightOnAtEnd = report.phases.back().leftOn;
    code = PutLightsOut(code); // before the output, which may wait for its reader
    Print(options.json ? ReportJson(report) : Table(report.phases));
    const bool reported = options.report.empty() || WriteOrComplain(options.report, ReportJson(report));
    const bool drawn = options.picture.empty() ||
                       WriteOrComplain(options.picture, TimelineSvg("Stimulation on " + report.rigName, report.phases));
    return (reported && drawn) || code != eExitDone ? code : static_cast<int>(eExitBadUse);
}

} // namespace Stimhost
