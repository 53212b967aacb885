// The beampaths of a device database: every device of a light path stimulates together.

#include "stimhost/DemoRun.h"

#include "beampath/StimulationDeviceAggregator.h"
#include "host/QsDevice.h"
#include "host/QsMetaFormats.h"
#include "manager/StimulationManager.h"
#include "platform/Process.h"
#include "standalone/DatabaseContent.h"
#include "stimhost/Beampaths.h"
#include "stimhost/Commands.h"
#include "stimhost/Database.h"
#include "stimhost/Interruption.h"
#include "stimhost/Temporary.h"

#include <QProcess>
#include <QProcessEnvironment>

#include <rapidjson/document.h>

#include <algorithm>
#include <cmath>

namespace Stimhost {

namespace {

using QsStandalone::CQsDeviceDatabase;

constexpr double s_slowPhaseMs = 30.0;
// How long a beampath waits for such a phase: twice the duration, and at least this.
constexpr double s_shortestWaitMs = 100.0;

// The configuration's name; the module looks at the beampath's alone.
std::string OCOf(const SBeampath& beampath)
{
    return beampath.name + ":Demo";
}

class CBeampathDemo
{
public:
    explicit CBeampathDemo(CDemoRun& run) : m_run(run), m_manager(run.Manager()), m_promises(run.Promises()) {}

    void Run();

private:
    void Found();
    void SetOC();
    void MergedPhase();
    void Continuous();
    void Abort();
    void Patterns();
    void SlowDevice();
    void OtherHWConfig();
    void Groups();

    // Reads all beampaths; a failure is a broken promise.
    std::vector<SBeampath> ReadBeampaths();
    bool Choose(const SBeampath& beampath);
    bool IsSlow(const SSubbeampath& path) const;
    // What the host is told from begin to end of a stimulation with several sub-beampaths.
    static std::vector<std::string> SignalsOf(const SPhase& phase);
    void CheckGroupsOfNewProcess(const std::array<qs_int32, 3>& expected);

    CDemoRun& m_run;
    CQsStimulationDeviceManager& m_manager;
    CPromises& m_promises;
    const SBeampath* m_merged = nullptr;   // several devices, none of them slow; null when there is none
    const SBeampath* m_patterns = nullptr; // one sub-beampath, whose device fires patterns
    const SBeampath* m_slow = nullptr;     // several sub-beampaths, one of them with a slow device
    std::vector<SBeampath> m_beampaths;
};

std::vector<SBeampath> CBeampathDemo::ReadBeampaths()
{
    std::vector<SBeampath> beampaths;
    std::string error;
    if (!Beampaths(m_manager, beampaths, error))
        m_promises.Check(false, "the database answers", error);
    return beampaths;
}

// Slower than the beampath waits in a short phase.
bool CBeampathDemo::IsSlow(const SSubbeampath& path) const
{
    const SLatency latency = m_promises.LatencyOf(path.light);
    return latency.beginMs - latency.jitterMs + s_slowPhaseMs > s_shortestWaitMs;
}

void CBeampathDemo::Found()
{
    m_run.Heading("What was found");
    Say(ListText(m_manager));
    m_beampaths = ReadBeampaths();
    Say(BeampathsText(m_beampaths));
    m_promises.Check(!m_beampaths.empty(), "the setup has stimulation beampaths", std::to_string(m_beampaths.size()));
    const auto on =
        std::count_if(m_beampaths.begin(), m_beampaths.end(), [](const SBeampath& beampath) { return beampath.on; });
    m_promises.Check(m_manager.GetStimulationBeampathCount() == static_cast<unsigned>(on),
                     "the manager has those that are on", std::to_string(m_manager.GetStimulationBeampathCount()));
    for (const SBeampath& beampath : m_beampaths)
    {
        CQsStimulationDeviceAggregator* const device = BeampathDevice(m_manager, beampath.id);
        if (device == nullptr)
            continue;
        const std::vector<SSubbeampath>& paths = beampath.subbeampaths;
        const auto devices =
            std::count_if(paths.begin(), paths.end(), [](const SSubbeampath& path) { return !path.device.empty(); });
        const bool slow =
            std::any_of(paths.begin(), paths.end(), [this](const SSubbeampath& path) { return IsSlow(path); });
        const bool patterns = device->StimulationModeGet() == IQsStimulationDevice::s_modeRepeatedPatterns;
        if (paths.size() > 1 && slow)
            m_slow = m_slow != nullptr ? m_slow : &beampath;
        else if (devices > 1 && !patterns && (m_merged == nullptr || paths.size() > m_merged->subbeampaths.size()))
            m_merged = &beampath;
        else if (paths.size() == 1 && patterns)
            m_patterns = m_patterns != nullptr ? m_patterns : &beampath;
    }
}

bool CBeampathDemo::Choose(const SBeampath& beampath)
{
    std::string error;
    bool badInput = false;
    const bool chosen = Stimhost::SetOC(m_manager, OCOf(beampath), error, badInput);
    m_promises.Check(chosen && m_manager.GetActiveStimulationBeampathId() == beampath.id,
                     beampath.name + " is the active beampath", chosen ? "it is" : error);
    return chosen;
}

void CBeampathDemo::SetOC()
{
    if (m_merged == nullptr)
        return m_run.Skipped("setting the optical configuration needs a beampath of several devices");
    m_run.Heading("Setting the stimulation optical configuration");
    m_manager.SetStimulationOC(CQsStringW()); // whatever was restored
    m_run.TakeSignals();
    Choose(*m_merged);
    std::vector<SSignal> told = m_run.TakeSignals();
    m_promises.Check(SignalsText(told) == "64, 32, 2", "the host is told 64, 32, 2", SignalsText(told));
    Choose(*m_merged);
    told = m_run.TakeSignals();
    m_promises.Check(told.empty(), "the same again tells nothing", SignalsText(told));
    const int status = m_manager.SetStimulationOC(L"no such beampath:Demo");
    m_promises.Check(status == QS_ERR_FAIL && m_manager.GetActiveStimulationBeampathId() == -1,
                     "an unknown beampath is refused, and none is active",
                     StatusText(status) + ", id " + std::to_string(m_manager.GetActiveStimulationBeampathId()));
}

std::vector<std::string> CBeampathDemo::SignalsOf(const SPhase& phase)
{
    const bool continuous = phase.request.kind == EKind::Continuous;
    std::vector<std::string> told = {"8", "OC 1", "OC 2", "OC 1"};
    if (!continuous)
        told.push_back("OC 16");
    // Each path without a device tells of its end.
    for (const SPath& path : phase.paths)
        if (!path.HasDevice())
            told.push_back("OC 16");
    if (continuous)
        told.push_back("OC 16");
    told.push_back("16");
    return told;
}

void CBeampathDemo::MergedPhase()
{
    if (m_merged == nullptr || !Choose(*m_merged))
        return;
    const SPhase& phase = m_run.Stimulate(DemoRequest(m_merged->name + ", timed, 300 ms", EKind::Timed, 300.0));
    m_promises.CheckBeampath(phase);
    m_promises.CheckSignals(phase, SignalsOf(phase));
}

void CBeampathDemo::Continuous()
{
    if (m_merged == nullptr || !Choose(*m_merged))
        return;
    const SPhase& phase =
        m_run.Stimulate(DemoRequest(m_merged->name + ", continuous, 200 ms", EKind::Continuous, 200.0));
    m_promises.CheckBeampath(phase);
    m_promises.CheckSignals(phase, SignalsOf(phase));
}

void CBeampathDemo::Abort()
{
    if (m_merged == nullptr || !Choose(*m_merged))
        return;
    const SPhase& phase = m_run.Stimulate(
        DemoRequest(m_merged->name + ", timed, 1000 ms, aborted after 60 ms", EKind::Timed, 1000.0, 60.0));
    m_promises.CheckAborted(phase);
    m_promises.Check(phase.abortStatus == QS_OK, "the manager's abort reaches the beampath",
                     StatusText(phase.abortStatus));
    const bool stayed = std::all_of(phase.lights.begin(), phase.lights.end(),
                                    [&](const SMeasured& light)
                                    { return light.pulses.size() == 1 && light.BeginMs() <= phase.abortCalledMs; });
    m_promises.Check(stayed, "no light comes on after the abort call", stayed ? "none" : "one did");
}

// The manager asks a device in the mode of patterns for kind 3, which sub-beampaths do not take.
void CBeampathDemo::Patterns()
{
    if (m_patterns == nullptr)
        return m_run.Skipped("patterns through a beampath need one of a single device that fires them");
    CQsStimulationDeviceAggregator* const device = BeampathDevice(m_manager, m_patterns->id);
    if (device == nullptr || !Choose(*m_patterns))
        return;
    // Without an area the manager would call no device at all.
    device->StimulationAreaSet({CQsRoiObject(4, 0)}, SQsRLEPicBuf(), nullptr, SQsGrabberFormatDesc(),
                               CQsRectBase<int>());
    const SPhase& phase = m_run.Run(DemoRequest(m_patterns->name + ", shot by shot, 200 ms", EKind::Timed, 200.0));
    m_promises.Check(phase.finished && phase.status == QS_ERR_FAIL,
                     "patterns through a beampath of one sub-beampath report status -9", StatusText(phase.status));
    m_promises.Check(phase.RefusedPatterns(), "the log says that the sub-beampath does not take the kind",
                     phase.messages.empty() ? "nothing logged" : phase.messages.front().text);
    m_promises.Check(phase.lights.empty(), "nothing is fired", std::to_string(phase.lights.size()) + " devices lit");
    m_promises.CheckSignals(phase, {"8", "OC 1", "OC 2", "16"});
}

void CBeampathDemo::SlowDevice()
{
    if (m_slow == nullptr)
        return m_run.Skipped("the rig has no beampath with a slow device");
    if (!Choose(*m_slow))
        return;
    const SPhase& phase = m_run.Run(
        DemoRequest(m_slow->name + ", timed, " + Number(s_slowPhaseMs, 0) + " ms, with a device that is too slow",
                    EKind::Timed, s_slowPhaseMs));
    m_promises.Check(phase.finished && phase.status == QS_OK, "the late device is no failure",
                     StatusText(phase.status));
    const bool logged = std::any_of(phase.messages.begin(), phase.messages.end(),
                                    [](const SMessage& message)
                                    { return message.text.find("Timeout while waiting") != std::string::npos; });
    m_promises.Check(logged, "the time-out is logged", logged ? "it is" : "it is not");
    std::vector<std::string> slow;
    for (const SPath& path : phase.paths)
        if (IsSlow(path))
            slow.push_back(path.device);
    const std::vector<std::string> late = phase.LateDevices();
    m_promises.Check(late == slow, "the report says who was late", late.empty() ? "nobody" : late.front());
    for (const SPath& path : phase.paths)
    {
        const SMeasured* const light = phase.LightOf(path.light);
        if (path.HasDevice())
            m_promises.Check(light != nullptr && !std::isnan(light->EndMs()),
                             path.device + " has lit and is dark when the stimulation ends",
                             light != nullptr ? "dark at " + Number(light->EndMs(), 1) + " ms" : "no light");
    }
    m_promises.Check(phase.leftOn.empty(), "no light is on afterwards",
                     phase.leftOn.empty() ? "all dark" : phase.leftOn.front() + " is on");
}

void CBeampathDemo::OtherHWConfig()
{
    const qs_int32 present = DeviceDBApi::GetCurrentHWConfigID();
    QsStandalone::SDatabaseContent content;
    std::string error;
    qs_int32 other = 0;
    if (DatabaseContent(content, error))
        for (const auto& config : content.hwConfigs)
            if (config.setup == DeviceDBApi::GetCurrentSetupID() && config.id != present && other == 0)
                other = config.id;
    if (other == 0)
        return m_run.Skipped("the setup has no other hardware configuration");

    m_run.Heading("Switching to hardware configuration " + std::to_string(other));
    m_run.TakeSignals();
    const bool switched = CQsDeviceDatabase::SetCurrentHWConfig(other, error);
    m_promises.Check(switched, "the database has it", switched ? "it does" : error);
    m_manager.SetStimulationBeampathsDirty(); // as the host does when it switches
    const std::vector<SBeampath> after = ReadBeampaths();
    const std::vector<SSignal> told = m_run.TakeSignals();
    m_promises.Check(SignalsText(told) == "4", "the host is told 4, the beampaths were rebuilt", SignalsText(told));
    const SBeampath* gone = nullptr;
    const SBeampath* appeared = nullptr;
    for (const SBeampath& before : m_beampaths)
        for (const SBeampath& now : after)
            if (before.id == now.id && before.on != now.on)
                (now.on ? appeared : gone) = &now;
    m_promises.Check(gone != nullptr && BeampathDevice(m_manager, gone->id) == nullptr,
                     "a beampath is gone, and its device with it", gone != nullptr ? gone->name : "none is");
    m_promises.Check(appeared != nullptr && BeampathDevice(m_manager, appeared->id) != nullptr,
                     "another has appeared, with a device", appeared != nullptr ? appeared->name : "none has");
    if (gone != nullptr && Choose(*gone))
    {
        const SPhase& refused = m_run.Run(DemoRequest(gone->name + ", which is gone, 50 ms", EKind::Timed, 50.0));
        m_promises.Check(refused.startStatus != QS_OK && refused.lights.empty(), "nothing is stimulated through it",
                         refused.refusal);
    }
    if (appeared != nullptr && Choose(*appeared))
    {
        const SPhase& phase =
            m_run.Stimulate(DemoRequest(appeared->name + ", which has appeared, 150 ms", EKind::Timed, 150.0));
        m_promises.CheckBeampath(phase);
    }
    const bool back = CQsDeviceDatabase::SetCurrentHWConfig(present, error);
    m_manager.SetStimulationBeampathsDirty();
    if (gone != nullptr)
        m_promises.Check(back && BeampathDevice(m_manager, gone->id) != nullptr,
                         gone->name + " is there again in hardware configuration " + std::to_string(present),
                         back ? "with a device" : error);
}

void CBeampathDemo::Groups()
{
    if (m_merged == nullptr || !Choose(*m_merged))
        return;
    m_run.Heading("Saving which sub-beampath serves which stimulation group");
    CQsStimulationDeviceAggregator* const device = BeampathDevice(m_manager, m_merged->id);
    if (device == nullptr)
        return m_promises.Check(false, m_merged->name + " has a device again", "it has none");
    const std::array<qs_int32, 3> before = device->GetStimulationGroupAssignments();
    const std::string storedBefore = StoredOC();
    // Not the order of their making: the first group to the last sub-beampath and so on.
    std::array<qs_int32, 3> groups = before;
    const std::vector<qs_int32> ids = device->GetStimulationSubbeampathIds();
    for (unsigned group = 0; group < groups.size(); ++group)
    {
        groups[group] = ids[ids.size() - 1 - group % ids.size()];
        const int status = device->SetStimulationGroupAssignment(group, groups[group]);
        m_promises.Check(status == QS_OK,
                         "group " + std::to_string(group) + " is assigned to " + std::to_string(groups[group]),
                         StatusText(status));
    }
    const int status = device->SaveStimulationGroupDeviceAssignments();
    m_promises.Check(status == QS_OK, "the assignments are saved", StatusText(status));
    std::string error;
    const bool stored = StoreOC(OCOf(*m_merged), error);
    m_promises.Check(stored, "the optical configuration is stored", stored ? StoredOC() : error);
    CheckGroupsOfNewProcess(groups);

    // The database may be one that others work with.
    for (unsigned group = 0; group < before.size(); ++group)
        device->SetStimulationGroupAssignment(group, before[group]);
    device->SaveStimulationGroupDeviceAssignments();
    StoreOC(storedBefore, error);
}

void CBeampathDemo::CheckGroupsOfNewProcess(const std::array<qs_int32, 3>& expected)
{
    constexpr int longestMs = 60000;
    std::string error;
    const SOptions& options = m_run.Options();
    const std::string database =
        options.database.empty() ? QsStandalone::DeviceDatabaseText(CQsDeviceDatabase::Setup()) : options.database;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QS_DATABASE"), QString::fromStdString(database)); // it may hold a password
    QStringList arguments;
    for (const std::string& text :
         {std::string("--rig"), m_run.Rig().path, std::string("--registry"), TemporaryPath("other registry", error),
          std::string("--setup"), std::to_string(DeviceDBApi::GetCurrentSetupID()), std::string("--hw-config"),
          std::to_string(DeviceDBApi::GetCurrentHWConfigID()), std::string("--user"),
          std::to_string(DeviceDBApi::GetCurrentUserID()), std::string("groups"), std::string("show"),
          std::string("--json")})
        arguments << QString::fromStdString(text);
    for (const std::string& folder : options.moduleFolders)
        arguments << QStringLiteral("--modules") << QString::fromStdString(folder);
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QString::fromStdString(QsPlatform::ProgramFile()), arguments);
    const bool ended = process.waitForStarted() && process.waitForFinished(longestMs);
    if (!ended)
        process.kill();
    const std::string printed = process.readAllStandardOutput().toStdString();
    m_promises.Check(ended && process.exitCode() == eExitDone, "a new process reads the database",
                     ended ? "exit code " + std::to_string(process.exitCode()) : "it did not end");

    rapidjson::Document json;
    json.Parse(printed.c_str());
    std::string found;
    bool same = !json.HasParseError() && json.IsObject() && json.HasMember("groups") && json["groups"].IsArray() &&
                json["groups"].Size() == expected.size();
    for (unsigned group = 0; same && group < expected.size(); ++group)
        found += (group > 0 ? ", " : "") + std::to_string(json["groups"][group]["subbeampath"].GetInt());
    for (unsigned group = 0; same && group < expected.size(); ++group)
        same = json["groups"][group]["subbeampath"].GetInt() == expected[group];
    m_promises.Check(same, "it finds the groups of the active beampath as they were saved",
                     found.empty() ? "no groups" : found);
}

void CBeampathDemo::Run()
{
    void (CBeampathDemo::*const steps[])() = {
        &CBeampathDemo::Found,      &CBeampathDemo::SetOC,         &CBeampathDemo::MergedPhase,
        &CBeampathDemo::Continuous, &CBeampathDemo::Abort,         &CBeampathDemo::Patterns,
        &CBeampathDemo::SlowDevice, &CBeampathDemo::OtherHWConfig, &CBeampathDemo::Groups};
    for (const auto step : steps)
        if (!WasInterrupted())
            (this->*step)();
}

} // namespace

void DemonstrateBeampaths(CDemoRun& run)
{
    CBeampathDemo(run).Run();
}

} // namespace Stimhost
