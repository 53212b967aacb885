// The demo: one run through everything, on whatever devices the rig has, with every promise checked.

#include "stimhost/DemoRun.h"

#include "manager/StimulationManager.h"
#include "standalone/DeviceDatabase.h"
#include "stimhost/Commands.h"
#include "stimhost/Interruption.h"
#include "stimhost/Stimulation.h"
#include "stimhost/Temporary.h"
#include "stimhost/Timeline.h"

#include <algorithm>
#include <filesystem>

namespace Stimhost {

CDemoRun::CDemoRun(CSession& session, const SOptions& options)
    : m_session(session), m_options(options), m_manager(*session.Manager()), m_report(ReportOf(session.Rig())),
      m_promises(session.Rig()), m_signals(m_manager)
{}

SPhase& CDemoRun::Run(const SRequest& request)
{
    Heading(request.title);
    m_report.phases.push_back(RunStimulation(m_manager, request));
    return m_report.phases.back();
}

SPhase& CDemoRun::Stimulate(const SRequest& request)
{
    SPhase& phase = Run(request);
    m_promises.CheckPhase(phase);
    return phase;
}

std::string CDemoRun::ResultFile(const std::string& name) const
{
    namespace fs = std::filesystem;
    return (fs::u8path(m_options.out) / fs::u8path(name)).generic_u8string();
}

int CDemoRun::Finish()
{
    Heading("At the end");
    m_promises.Check(!WasInterrupted(), "the demo ran to its end", WasInterrupted() ? "interrupted" : "it did");
    m_report.lightOnAtEnd = LeaveNoLight();
    m_promises.Check(m_report.lightOnAtEnd.empty(), "no light is on",
                     m_report.lightOnAtEnd.empty() ? "all dark" : m_report.lightOnAtEnd.front() + " was on");
    m_report.promises = m_promises.All();

    Heading("Requested against measured");
    Say(Table(m_report.phases));
    if (!m_report.calibrations.empty())
        Say("\n" + CalibrationTable(m_report.calibrations));
    if (!m_report.landings.empty())
        Say("\n" + LandingTable(m_report.landings));
    const std::string report = ResultFile("report.json");
    const std::string timeline = ResultFile("timeline.svg");
    std::string error;
    if (!WriteWholeFile(report, ReportJson(m_report), error) ||
        !WriteWholeFile(timeline, TimelineSvg("Stimulations on " + m_report.rigName, m_report.phases), error))
    {
        Complain(error);
        return m_promises.AllKept() ? eExitBadUse : eExitFailed;
    }
    const auto broken = std::count_if(m_report.promises.begin(), m_report.promises.end(),
                                      [](const SPromise& promise) { return !promise.kept; });
    if (m_options.json)
        Print(ReportJson(m_report));
    Say("\n" + std::to_string(m_report.promises.size()) + " promises, " + std::to_string(broken) + " broken; " +
        report + ", " + timeline + "\n");
    return broken == 0 ? eExitDone : eExitFailed;
}

SRequest DemoRequest(const std::string& title, EKind kind, double durationMs, std::optional<double> abortAfterMs)
{
    SRequest request;
    request.title = title;
    request.kind = kind;
    request.durationMs = durationMs;
    request.abortAfterMs = abortAfterMs;
    return request;
}

bool PrepareDemo(SOptions& options, std::string& error)
{
    std::error_code failure;
    const std::filesystem::path out = std::filesystem::u8path(options.out);
    std::filesystem::create_directories(out, failure);
    if (std::error_code ignored; !std::filesystem::is_directory(out, ignored))
    {
        error = options.out + ": expected a folder for the results: " + failure.message();
        return false;
    }
    for (const auto& [folder, name] :
         {std::pair(&options.registryFolder, "registry"), std::pair(&options.settingsFolder, "settings")})
        if (folder->empty() && (*folder = TemporaryPath(name, error)).empty())
            return false;
    return true;
}

int Demo(const SOptions& options, CSession& session)
{
    if (options.json)
        KeepSilent();
    const bool hasBeampaths = QsStandalone::CQsDeviceDatabase::IsOpen();
    const bool hasOptics = !hasBeampaths && !session.Rig().cameras.empty();
    std::string error;
    if (hasOptics && !MayDemonstrateOptics(session, options, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    CDemoRun run(session, options);
    if (hasBeampaths)
        DemonstrateBeampaths(run);
    else if (hasOptics)
        DemonstrateOptics(run);
    else
        DemonstrateDevices(run);
    return run.Finish();
}

} // namespace Stimhost
