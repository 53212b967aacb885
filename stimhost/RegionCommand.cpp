// `stimulate --roi`: lights a region that is drawn on the camera's image, and measures on that image where it landed.

#include "manager/StimulationManager.h"
#include "standalone/DeviceDatabase.h"
#include "stimhost/Commands.h"
#include "stimhost/Overlay.h"
#include "stimhost/Report.h"
#include "stimhost/Session.h"
#include "stimhost/Stimulation.h"
#include "stimhost/Text.h"

namespace Stimhost {

namespace {

// Measures each repetition; the code of the first that failed.
int LightRegion(const SOptions& options, CQsStimulationDeviceManager& manager, const CCalibratedDevice& device,
                const SRoi& roi, SReport& report)
{
    for (unsigned number = 1; number <= options.repetitions; ++number)
    {
        std::string error;
        CLandingProbe probe;
        SRequest request = RequestOf(options, number);
        const bool prepared = probe.Prepare(device, roi, number == 1, error);
        if (!error.empty())
        {
            Complain(error);
            return eExitBadUse;
        }
        if (prepared)
        {
            if (number == 1 && probe.State() != eCalibrationStateIdentical)
                Complain("the light may land elsewhere: calibration state " + StateText(probe.State()));
            request.whileRunning = [&probe] { probe.Look(); };
            report.phases.push_back(RunStimulation(manager, request));
        }
        report.landings.push_back(probe.Take());
        SLanding& landing = report.landings.back();
        landing.title = request.title;
        std::string why = landing.refusal;
        if (prepared && why.empty())
            why = WhyFailed(report.phases.back());
        if (prepared && why.empty() && !landing.light && !report.phases.back().WasAborted())
            why = request.title + ": the camera " + device.CameraName() + " saw no light";
        if (!why.empty())
            Complain(why);
        const bool interrupted = prepared && report.phases.back().interrupted;
        if (interrupted)
            Complain("interrupted: the stimulation was aborted");
        if (!why.empty() || interrupted)
            return eExitFailed;
    }
    return eExitDone;
}

} // namespace

int StimulateRegion(const SOptions& options, CSession& session)
{
    CQsStimulationDeviceManager& manager = *session.Manager();
    std::string error;
    SRoi roi;
    if (!ReadRoi(options.roi, roi, error))
    {
        Complain("--roi: " + error);
        return eExitBadUse;
    }
    if (QsStandalone::CQsDeviceDatabase::IsOpen())
    {
        Complain("--roi: expected a rig without a device database: a region is lit by one device, not by a beampath");
        return eExitBadUse;
    }
    CCalibratedDevice device;
    if (!CCalibratedDevice::Find(manager, options.device, device, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    if (!ActivateByName(manager, device.Name()))
        return eExitBadUse;

    SReport report = ReportOf(session.Rig());
    int code = LightRegion(options, manager, device, roi, report);
    if (code == eExitBadUse)
        return code;
    if (!report.phases.empty())
        report.lightOnAtEnd = report.phases.back().leftOn;
    code = PutLightsOut(code); // before the output, which may wait for its reader
    Print(options.json ? ReportJson(report) : Table(report.phases) + LandingTable(report.landings));
    const bool reported = options.report.empty() || WriteOrComplain(options.report, ReportJson(report));
    const bool drawn =
        options.picture.empty() ||
        WriteOrComplain(options.picture, LandingSvg("Region on " + report.rigName, roi, report.landings.back()));
    return (reported && drawn) || code != eExitDone ? code : static_cast<int>(eExitBadUse);
}

} // namespace Stimhost
