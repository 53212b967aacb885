// The demo: one run through everything, on whatever devices the rig has, with every promise checked.

#include "manager/StimulationManager.h"
#include "platform/ThreadSafety.h"
#include "standalone/HostControl.h"
#include "standalone/Script.h"
#include "stimhost/Commands.h"
#include "stimhost/Interruption.h"
#include "stimhost/Promises.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"
#include "stimhost/Timeline.h"

#include <QTemporaryDir>

#include <algorithm>
#include <filesystem>
#include <memory>

namespace Stimhost {

namespace {

constexpr wchar_t s_confocalName[] = L"CQsStimulationDeviceV4New";

// Registry and images of the run; it removes itself.
std::unique_ptr<QTemporaryDir> s_temporary;

CQsMutex s_codesLock;
std::vector<unsigned> s_codes QS_GUARDED_BY(s_codesLock);

void KeepCode(unsigned code)
{
    const CQsScopedLock<CQsMutex> hold(s_codesLock);
    s_codes.push_back(code);
}

std::vector<unsigned> TakeCodes()
{
    const CQsScopedLock<CQsMutex> hold(s_codesLock);
    std::vector<unsigned> codes;
    codes.swap(s_codes);
    return codes;
}

std::string CodesText(const std::vector<unsigned>& codes)
{
    std::string text = "change codes";
    for (const unsigned code : codes)
        text += " " + std::to_string(code);
    return codes.empty() ? "no change code" : text;
}

std::string StatusText(int status)
{
    return "status " + std::to_string(status);
}

class CDemo
{
public:
    explicit CDemo(CSession& session) : m_manager(*session.Manager()), m_report(ReportOf(session.Rig())) {}

    void Run();
    int Finish(const SOptions& options);

private:
    using Device = IQsStimulationDevice*;

    void Found();
    void ActivateByName();
    void ActivateRecent();
    void ActivateConfocal();
    void ShutterStimulations();
    void Patterns();
    void RefusedStart();
    void Script();

    void FindDevices();
    void CheckActive(const std::string& expected, const std::string& text, int status);
    void Heading(const std::string& text) { Say("\n" + text + "\n"); }
    SPhase& Stimulate(const std::string& title, EKind kind, double durationMs, std::optional<double> abortAfterMs = {},
                      std::function<void()> whileRunning = nullptr);

    CQsStimulationDeviceManager& m_manager;
    SReport m_report;
    CPromises m_promises;
    std::string m_shutterName; // first of its kind among the devices; empty when the rig has none
    std::string m_patternName;
    std::string m_extendedName;
    Device m_shutter = nullptr;
    Device m_pattern = nullptr;
    Device m_extended = nullptr;
};

void CDemo::FindDevices()
{
    CQsStimulationDeviceManager::SQsInfo info;
    for (unsigned i = 0; m_manager.GetDeviceInfo(i, info) == QS_OK; ++i)
    {
        const Device device = m_manager.GetDevice(info.sName.c_str());
        if (device == nullptr)
            continue;
        const std::string name = ToUtf8(info.sName);
        if (m_shutter == nullptr && device->GetStimulationDeviceType() == IQsStimulationDevice::eStimDevShutter)
        {
            m_shutter = device;
            m_shutterName = name;
        }
        if (m_pattern == nullptr && device->StimulationModeGet() == IQsStimulationDevice::s_modeRepeatedPatterns)
        {
            m_pattern = device;
            m_patternName = name;
        }
        IQsInterface* extended = CQsRTTI::Query(device, "IQsStimulationDeviceEx");
        if (extended != nullptr && m_extended == nullptr)
        {
            m_extended = device;
            m_extendedName = ToUtf8(info.sDisplayName);
        }
        CQsRTTI::Release(extended);
    }
}

void CDemo::Found()
{
    Heading("What was found");
    Say(ListText(m_manager));
    bool loaded = false;
    for (const QsStandalone::SKnownClass& known : QsStandalone::KnownClasses())
        loaded = loaded || (known.className == "CQsShutterStimulationDevice" && known.moduleLoaded);
    m_promises.Check(loaded, "the stimulation module was found by its records and loaded",
                     loaded ? "it is" : "it is not");
    m_promises.Check(m_manager.GetDeviceCount() > 0, "the rig has devices", std::to_string(m_manager.GetDeviceCount()));
    FindDevices();
}

void CDemo::CheckActive(const std::string& expected, const std::string& text, int status)
{
    const std::vector<unsigned> codes = TakeCodes();
    CQsStimulationDeviceManager::SQsInfo active;
    m_manager.GetActive(active);
    const std::string name = ToUtf8(active.sName);
    const bool toldOnce = std::count(codes.begin(), codes.end(), CQsStimulationDeviceManager::eChangeActiveDevice) == 1;
    m_promises.Check(status == QS_OK && name == expected && active.bActive && toldOnce, text,
                     name + ", " + StatusText(status) + ", " + CodesText(codes));
}

void CDemo::ActivateByName()
{
    Heading("Activating by name");
    TakeCodes();
    for (const std::string& name : {m_shutterName, m_patternName, m_shutterName})
    {
        CQsStimulationDeviceManager::SQsInfo active;
        m_manager.GetActive(active);
        if (name.empty() || ToUtf8(active.sName) == name)
            continue; // activating it again would change nothing
        CheckActive(name, name + " becomes active and is announced once",
                    m_manager.SetActive(FromUtf8(name).c_str(), false));
    }
    const std::string unknown = "no such device";
    const int status = m_manager.SetActive(FromUtf8(unknown).c_str(), false);
    const std::vector<unsigned> codes = TakeCodes();
    m_promises.Check(status == QS_ERR_FAIL && codes.empty(), "an unknown name is refused and changes nothing",
                     StatusText(status) + ", " + CodesText(codes));
}

void CDemo::ActivateRecent()
{
    if (m_shutterName.empty() || m_patternName.empty())
        return Say("\nskipped: activating by recency needs two devices\n");
    Heading("Activating by recency");
    CheckActive(m_patternName, "the device used before the present one becomes active", m_manager.SetActiveMru(1));
    CheckActive(m_shutterName, "the order of use is as before, so the first is the latest chosen by name",
                m_manager.SetActiveMru(0));
}

void CDemo::ActivateConfocal()
{
    if (m_manager.GetV4Device() == nullptr)
        return Say("\nskipped: the rig has no point scanner\n");
    Heading("The point scanner and the way back");
    CheckActive(ToUtf8(s_confocalName), "the point scanner's device becomes active", m_manager.SetActiveV4(true));
    m_promises.Check(m_manager.IsV4Active(), "it says so", m_manager.IsV4Active() ? "active" : "not active");
    const int status = m_manager.SetActiveV4(false);
    if (!m_shutterName.empty())
        CheckActive(m_shutterName, "switching it off falls back to the device used before", status);
}

SPhase& CDemo::Stimulate(const std::string& title, EKind kind, double durationMs, std::optional<double> abortAfterMs,
                         std::function<void()> whileRunning)
{
    Heading(title);
    SRequest request;
    request.title = title;
    request.kind = kind;
    request.durationMs = durationMs;
    request.abortAfterMs = abortAfterMs;
    request.whileRunning = std::move(whileRunning);
    m_report.phases.push_back(RunStimulation(m_manager, request));
    SPhase& phase = m_report.phases.back();
    m_promises.CheckPhase(phase);
    return phase;
}

void CDemo::ShutterStimulations()
{
    if (m_shutter == nullptr)
        return Say("\nskipped: the rig has no shutter\n");
    m_promises.CheckSingleLight(Stimulate("Timed, 300 ms", EKind::Timed, 300.0), *m_shutter);
    m_promises.CheckSingleLight(Stimulate("Continuous, 200 ms", EKind::Continuous, 200.0), *m_shutter);
    m_promises.CheckAborted(Stimulate("Timed, 1000 ms, aborted after 40 ms", EKind::Timed, 1000.0, 40.0), *m_shutter);
}

void CDemo::Patterns()
{
    if (m_pattern == nullptr)
        return Say("\nskipped: the rig has no device that fires patterns\n");
    m_manager.SetActive(FromUtf8(m_patternName).c_str(), false);
    const double exposureMs = m_pattern->GetStimulationExposureTimeCombined(0);
    m_promises.CheckPatterns(Stimulate("Patterns of " + Number(exposureMs, 0) + " ms, for 200 ms", EKind::Timed, 200.0),
                             exposureMs);
}

void CDemo::RefusedStart()
{
    if (m_shutter == nullptr)
        return;
    m_manager.SetActive(FromUtf8(m_shutterName).c_str(), false);
    int second = 1;
    const SPhase& phase = Stimulate("Timed, 150 ms, second start refused", EKind::Timed, 150.0, {},
                                    [&] {
                                        second = m_manager.StimulateTimedWithActiveAsync(
                                            IQsStimulationDevice::SQsStimulationType(), nullptr, nullptr);
                                    });
    m_promises.Check(second == QS_ERR_FAIL, "the second start is refused", StatusText(second));
    m_promises.CheckSingleLight(phase, *m_shutter);
}

// A portable bitmap: a bright disc on 64 x 64 pixels.
std::string DiscImage()
{
    std::string image = "P1\n64 64\n";
    for (int y = 0; y < 64; ++y)
    {
        for (int x = 0; x < 64; ++x)
            image += (x - 32) * (x - 32) + (y - 32) * (y - 32) < 400 ? '0' : '1';
        image += '\n';
    }
    return image;
}

void CDemo::Script()
{
    constexpr char procedure[] = "Stg_StimDev_AddPatternFromImage";
    if (m_extended == nullptr)
        return Say("\nskipped: the rig has no device that takes patterns from a script\n");
    Heading("A script adds a pattern from an image");
    std::string error;
    const std::string image = s_temporary->filePath("disc.pbm").toStdString();
    const unsigned before = m_extended->StimulationAreaGetCount();
    int result = QS_ERR_FAIL;
    const bool called = WriteWholeFile(image, DiscImage(), error) &&
                        QsStandalone::CQsScriptHost::Call(procedure, m_extendedName,
                                                          {{"StimDev_ImageFilePath", image},
                                                           {"StimDev_PatternName", "disc"},
                                                           {"StimDev_Load1To1", "1"},
                                                           {"StimDev_OverwriteExisting", "0"}},
                                                          result, error);
    m_promises.Check(called && result == QS_OK, "the procedure reaches " + m_extendedName + " and succeeds",
                     called ? StatusText(result) : error);
    const unsigned after = m_extended->StimulationAreaGetCount();
    m_promises.Check(after == before + 1, "the device has one pattern more",
                     std::to_string(before) + " before, " + std::to_string(after) + " after");
}

void CDemo::Run()
{
    m_manager.AddCallbackForChange(&KeepCode);
    void (CDemo::*const steps[])() = {&CDemo::Found,
                                      &CDemo::ActivateByName,
                                      &CDemo::ActivateRecent,
                                      &CDemo::ActivateConfocal,
                                      &CDemo::ShutterStimulations,
                                      &CDemo::Patterns,
                                      &CDemo::RefusedStart,
                                      &CDemo::Script};
    for (const auto step : steps)
        if (!WasInterrupted())
            (this->*step)();
    m_manager.RemoveCallbackForChange(&KeepCode);
}

int CDemo::Finish(const SOptions& options)
{
    Heading("At the end");
    m_promises.Check(!WasInterrupted(), "the demo ran to its end", WasInterrupted() ? "interrupted" : "it did");
    m_report.lightOnAtEnd = LeaveNoLight();
    m_promises.Check(m_report.lightOnAtEnd.empty(), "no light is on",
                     m_report.lightOnAtEnd.empty() ? "all dark" : m_report.lightOnAtEnd.front() + " was on");
    m_report.promises = m_promises.All();

    Heading("Requested against measured");
    Say(Table(m_report.phases));
    const std::string report = options.out + "/report.json";
    const std::string timeline = options.out + "/timeline.svg";
    std::string error;
    if (!WriteWholeFile(report, ReportJson(m_report), error) ||
        !WriteWholeFile(timeline, TimelineSvg("Stimulations on " + m_report.rigName, m_report.phases), error))
    {
        Complain(error);
        return m_promises.AllKept() ? eExitBadUse : eExitFailed;
    }
    const auto broken = std::count_if(m_report.promises.begin(), m_report.promises.end(),
                                      [](const SPromise& promise) { return !promise.kept; });
    if (options.json)
        Print(ReportJson(m_report));
    Say("\n" + std::to_string(m_report.promises.size()) + " promises, " + std::to_string(broken) + " broken; " +
        report + ", " + timeline + "\n");
    return broken == 0 ? eExitDone : eExitFailed;
}

} // namespace

bool PrepareDemo(const SOptions& options, std::string& error)
{
    std::error_code failure;
    std::filesystem::create_directories(options.out, failure);
    if (!std::filesystem::is_directory(options.out))
    {
        error = options.out + ": expected a folder for the results: " + failure.message();
        return false;
    }
    s_temporary = std::make_unique<QTemporaryDir>();
    if (!s_temporary->isValid())
    {
        error = "no temporary folder: " + s_temporary->errorString().toStdString();
        return false;
    }
    if (options.registryFolder.empty())
        UseRegistryFolder(s_temporary->filePath("registry").toStdString()); // never the user's own
    return true;
}

int Demo(const SOptions& options, CSession& session)
{
    if (options.json)
        KeepSilent();
    CDemo demo(session);
    demo.Run();
    const int code = demo.Finish(options);
    s_temporary.reset();
    return code;
}

} // namespace Stimhost
