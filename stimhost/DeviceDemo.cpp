// The devices one by one: found, activated, and stimulated with.

#include "stimhost/DemoRun.h"

#include "manager/StimulationManager.h"
#include "standalone/HostControl.h"
#include "standalone/Script.h"
#include "stimhost/Commands.h"
#include "stimhost/Interruption.h"
#include "stimhost/Temporary.h"

#include <algorithm>

namespace Stimhost {

namespace {

constexpr wchar_t s_confocalName[] = L"CQsStimulationDeviceV4New";

class CDeviceDemo
{
public:
    explicit CDeviceDemo(CDemoRun& run) : m_run(run), m_manager(run.Manager()) {}

    void Run();

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

    CDemoRun& m_run;
    CQsStimulationDeviceManager& m_manager;
    std::string m_shutterName; // first of its kind among the devices; empty when the rig has none
    std::string m_patternName;
    std::string m_extendedName;
    Device m_shutter = nullptr;
    Device m_pattern = nullptr;
    Device m_extended = nullptr;
};

void CDeviceDemo::FindDevices()
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

void CDeviceDemo::Found()
{
    m_run.Heading("What was found");
    Say(ListText(m_manager));
    bool loaded = false;
    for (const QsStandalone::SKnownClass& known : QsStandalone::KnownClasses())
        loaded = loaded || (known.className == "CQsShutterStimulationDevice" && known.moduleLoaded);
    m_run.Promises().Check(loaded, "the stimulation module was found by its records and loaded",
                           loaded ? "it is" : "it is not");
    m_run.Promises().Check(m_manager.GetDeviceCount() > 0, "the rig has devices",
                           std::to_string(m_manager.GetDeviceCount()));
    FindDevices();
}

void CDeviceDemo::CheckActive(const std::string& expected, const std::string& text, int status)
{
    const std::vector<SSignal> codes = m_run.TakeSignals();
    CQsStimulationDeviceManager::SQsInfo active;
    m_manager.GetActive(active);
    const std::string name = ToUtf8(active.sName);
    const bool toldOnce =
        std::count_if(codes.begin(), codes.end(),
                      [](const SSignal& signal) {
                          return !signal.command && signal.value == CQsStimulationDeviceManager::eChangeActiveDevice;
                      }) == 1;
    m_run.Promises().Check(status == QS_OK && name == expected && active.bActive && toldOnce, text,
                           name + ", " + StatusText(status) + ", told " + SignalsText(codes));
}

void CDeviceDemo::ActivateByName()
{
    m_run.Heading("Activating by name");
    m_run.TakeSignals();
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
    const std::vector<SSignal> codes = m_run.TakeSignals();
    m_run.Promises().Check(status == QS_ERR_FAIL && codes.empty(), "an unknown name is refused and changes nothing",
                           StatusText(status) + ", told " + SignalsText(codes));
}

void CDeviceDemo::ActivateRecent()
{
    if (m_shutterName.empty() || m_patternName.empty())
        return m_run.Skipped("activating by recency needs two devices");
    m_run.Heading("Activating by recency");
    CheckActive(m_patternName, "the device used before the present one becomes active", m_manager.SetActiveMru(1));
    CheckActive(m_shutterName, "the order of use is as before, so the first is the latest chosen by name",
                m_manager.SetActiveMru(0));
}

void CDeviceDemo::ActivateConfocal()
{
    if (m_manager.GetV4Device() == nullptr)
        return m_run.Skipped("the rig has no point scanner");
    m_run.Heading("The point scanner and the way back");
    CheckActive(ToUtf8(s_confocalName), "the point scanner's device becomes active", m_manager.SetActiveV4(true));
    m_run.Promises().Check(m_manager.IsV4Active(), "it says so", m_manager.IsV4Active() ? "active" : "not active");
    const int status = m_manager.SetActiveV4(false);
    if (!m_shutterName.empty())
        CheckActive(m_shutterName, "switching it off falls back to the device used before", status);
}

void CDeviceDemo::ShutterStimulations()
{
    if (m_shutter == nullptr)
        return m_run.Skipped("the rig has no shutter");
    CPromises& promises = m_run.Promises();
    promises.CheckSingleLight(m_run.Stimulate(DemoRequest("Timed, 300 ms", EKind::Timed, 300.0)));
    promises.CheckSingleLight(m_run.Stimulate(DemoRequest("Continuous, 200 ms", EKind::Continuous, 200.0)));
    promises.CheckAborted(
        m_run.Stimulate(DemoRequest("Timed, 1000 ms, aborted after 40 ms", EKind::Timed, 1000.0, 40.0)));
}

void CDeviceDemo::Patterns()
{
    if (m_pattern == nullptr)
        return m_run.Skipped("the rig has no device that fires patterns");
    m_manager.SetActive(FromUtf8(m_patternName).c_str(), false);
    const double exposureMs = m_pattern->GetStimulationExposureTimeCombined(0);
    m_run.Promises().CheckPatterns(
        m_run.Stimulate(DemoRequest("Patterns of " + Number(exposureMs, 0) + " ms, for 200 ms", EKind::Timed, 200.0)),
        exposureMs);
}

void CDeviceDemo::RefusedStart()
{
    if (m_shutter == nullptr)
        return;
    m_manager.SetActive(FromUtf8(m_shutterName).c_str(), false);
    int second = 1;
    SRequest request = DemoRequest("Timed, 150 ms, second start refused", EKind::Timed, 150.0);
    request.whileRunning = [&]
    { second = m_manager.StimulateTimedWithActiveAsync(IQsStimulationDevice::SQsStimulationType(), nullptr, nullptr); };
    const SPhase& phase = m_run.Stimulate(request);
    m_run.Promises().Check(second == QS_ERR_FAIL, "the second start is refused", StatusText(second));
    m_run.Promises().CheckSingleLight(phase);
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

void CDeviceDemo::Script()
{
    constexpr char procedure[] = "Stg_StimDev_AddPatternFromImage";
    if (m_extended == nullptr)
        return m_run.Skipped("the rig has no device that takes patterns from a script");
    m_run.Heading("A script adds a pattern from an image");
    std::string error;
    const std::string image = TemporaryPath("disc.pbm", error);
    const unsigned before = m_extended->StimulationAreaGetCount();
    int result = QS_ERR_FAIL;
    const bool called = WriteWholeFile(image, DiscImage(), error) &&
                        QsStandalone::CQsScriptHost::Call(procedure, m_extendedName,
                                                          {{"StimDev_ImageFilePath", image},
                                                           {"StimDev_PatternName", "disc"},
                                                           {"StimDev_Load1To1", "1"},
                                                           {"StimDev_OverwriteExisting", "0"}},
                                                          result, error);
    m_run.Promises().Check(called && result == QS_OK, "the procedure reaches " + m_extendedName + " and succeeds",
                           called ? StatusText(result) : error);
    const unsigned after = m_extended->StimulationAreaGetCount();
    m_run.Promises().Check(after == before + 1, "the device has one pattern more",
                           std::to_string(before) + " before, " + std::to_string(after) + " after");
}

void CDeviceDemo::Run()
{
    void (CDeviceDemo::*const steps[])() = {&CDeviceDemo::Found,
                                            &CDeviceDemo::ActivateByName,
                                            &CDeviceDemo::ActivateRecent,
                                            &CDeviceDemo::ActivateConfocal,
                                            &CDeviceDemo::ShutterStimulations,
                                            &CDeviceDemo::Patterns,
                                            &CDeviceDemo::RefusedStart,
                                            &CDeviceDemo::Script};
    for (const auto step : steps)
        if (!WasInterrupted())
            (this->*step)();
}

} // namespace

void DemonstrateDevices(CDemoRun& run)
{
    CDeviceDemo(run).Run();
}

} // namespace Stimhost
