// A calibration measured, saved and found again, and where the light lands with it: for every way that the camera may
// be mounted, for another objective, and with a calibration that is no good.

#include "stimhost/DemoRun.h"

#include "manager/StimulationManager.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "standalone/Journal.h"
#include "stimhost/CalibrationMeasurement.h"
#include "stimhost/ChildProcess.h"
#include "stimhost/Commands.h"
#include "stimhost/Interruption.h"
#include "stimhost/Overlay.h"
#include "stimhost/SavedCalibrations.h"
#include "stimhost/Stimulation.h"
#include "stimhost/Temporary.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

namespace Stimhost {

namespace {

using QsStandalone::CQsDiagnosticLog;
using QsStandalone::CQsJournal;

constexpr unsigned s_columns = 7;
constexpr unsigned s_rows = 5;
constexpr double s_mostErrorPx = 0.5; // half a camera pixel
// Of the smallest region below, binned and cropped, a border of half a pixel all round is a twentieth.
constexpr double s_leastOverlap = 0.95;
constexpr double s_mostRmsPx = 0.25;

struct SCameraSetting
{
    const char* title;
    double rotation;
    bool flipped;
    int binning;
    bool cropped;
};

constexpr SCameraSetting s_upright = {"upright", 0.0, false, 1, false};

rapidjson::Document ParseOrNull(const std::string& text)
{
    rapidjson::Document document;
    document.Parse<rapidjson::kParseFullPrecisionFlag | rapidjson::kParseCommentsFlag>(text.c_str());
    if (document.HasParseError())
        document.SetNull();
    return document;
}

std::string TextOf(const rapidjson::Value& object, const char* key)
{
    return object.IsObject() && object.HasMember(key) && object[key].IsString() ? object[key].GetString() : "";
}

int NumberOf(const rapidjson::Value& object, const char* key)
{
    return object.IsObject() && object.HasMember(key) && object[key].IsInt() ? object[key].GetInt() : -1;
}

std::string ElementsText(const CMatrix3& matrix)
{
    std::string text;
    for (const double element : matrix)
        text += (text.empty() ? "" : " ") + Exact(element);
    return text;
}

bool HasLight(std::size_t firstEntry)
{
    const auto entries = CQsJournal::EntriesFrom(firstEntry);
    return std::any_of(entries.begin(), entries.end(),
                       [](const QsStandalone::SJournalEntry& entry)
                       { return entry.kind == QsStandalone::EJournalKind::LightOn; });
}

class COpticsDemo
{
public:
    explicit COpticsDemo(CDemoRun& run) : m_run(run), m_promises(run.Promises()) {}

    void Run();

private:
    bool Find();
    void WithoutCalibration();
    void Calibrate();
    void RefuseDegenerate();
    void Restart();
    void CameraStates();
    void CalibrateTurned();
    void Objectives();
    void WatchedRotation();
    void Singular();
    void Clear();

    void SetCamera(const SCameraSetting& setting);
    void SetObjective(const CQsStringW& objective);
    SMeasurement Measure(const std::string& title, unsigned columns, unsigned rows);
    bool MeasureAndSave(const std::string& title);
    SRoi Region();
    SLanding Light(const std::string& title);
    void CheckLands(const std::string& title);
    void CheckRefused(const std::string& title, bool follow);
    SChildOutcome RunChild(std::vector<std::string> arguments, const std::string& rig, const std::string& settings);

    CDemoRun& m_run;
    CPromises& m_promises;
    CCalibratedDevice m_device;
    SQsDMApiHardware m_hardware; // the rig's
    unsigned m_pictures = 0;
};

bool COpticsDemo::Find()
{
    m_run.Heading("What was found");
    std::string error;
    const bool found = CCalibratedDevice::Find(m_run.Manager(), {}, m_device, error);
    m_promises.Check(found, "the rig has a device with a calibration and a camera that watches it",
                     found ? m_device.Name() + ", " + m_device.CameraName() : error);
    if (!found)
        return false;
    m_hardware = DMApi::Hardware_Get();
    const int status = m_run.Manager().SetActive(FromUtf8(m_device.Name()).c_str(), false);
    m_promises.Check(status == QS_OK, "the device becomes active", StatusText(status));
    return status == QS_OK;
}

void COpticsDemo::SetCamera(const SCameraSetting& setting)
{
    SQsGrabberFormatDesc format;
    m_device.Camera().GetFormat(format);
    const CQsRectBase<int>& sensor = format.rcSensor;
    SQsCameraState state;
    state.dRotation = setting.rotation;
    state.bFlipped = setting.flipped;
    state.iBinning = setting.binning;
    if (setting.cropped) // off the centre, so that a part that is taken for another shows
        state.rcRegion = {sensor.left + sensor.Width() / 5, sensor.top + sensor.Height() / 10,
                          sensor.left + sensor.Width() * 7 / 8, sensor.top + sensor.Height() * 3 / 4};
    const int status = m_device.Camera().SetState(state);
    if (status != QS_OK)
        m_promises.Check(false, std::string("the camera can be ") + setting.title, StatusText(status));
}

void COpticsDemo::SetObjective(const CQsStringW& objective)
{
    SQsDMApiHardware hardware = m_hardware;
    hardware.sObjective = objective;
    QsStandalone::SetHardware(hardware);
}

SMeasurement COpticsDemo::Measure(const std::string& title, unsigned columns, unsigned rows)
{
    SMeasurement measurement = MeasureCalibration(m_device, columns, rows);
    Say(MeasurementText(m_device, measurement));
    m_run.Keep(FiguresOf(title, measurement, m_device.Camera().GetState()));
    return measurement;
}

bool COpticsDemo::MeasureAndSave(const std::string& title)
{
    const SMeasurement measurement = Measure(title, s_columns, s_rows);
    std::string error = measurement.refusal;
    const bool adopted = error.empty() && AdoptMeasurement(m_device, measurement, true, error);
    const SAffineFit& fit = measurement.fit;
    m_promises.Check(adopted && fit.rms <= s_mostRmsPx,
                     "it is measured to " + Number(s_mostRmsPx, 2) + " camera px and saved",
                     adopted ? Number(fit.rms, 3) + " px, " + std::to_string(fit.inlierCount) + " of " +
                                   std::to_string(measurement.projected) + " spots"
                             : error);
    m_promises.Check(m_device.State() == eCalibrationStateIdentical, "it fits the hardware of now",
                     "state " + StateText(m_device.State()));
    return adopted && WriteOrComplain(m_run.ResultFile("calibration-" + std::to_string(++m_pictures) + ".svg"),
                                      CalibrationSvg("Calibration, " + title, measurement));
}

// An arrow off the image's centre: no turn, no mirror image and no shift makes it into itself.
SRoi COpticsDemo::Region()
{
    constexpr CPoint corners[] = {{0.28, 0.22}, {0.60, 0.30}, {0.50, 0.52}, {0.42, 0.44}, {0.33, 0.62}};
    SView view;
    SRoi roi;
    std::string error;
    std::string text = "polygon";
    m_device.View(view, error);
    for (const CPoint& corner : corners)
        text += " " + Number(corner.x * view.Width(), 1) + "," + Number(corner.y * view.Height(), 1);
    ReadRoi(text, roi, error);
    return roi;
}

// Lights the region of now and keeps what the camera saw of it.
SLanding COpticsDemo::Light(const std::string& title)
{
    const SRoi roi = Region();
    std::string error;
    CLandingProbe probe;
    if (probe.Prepare(m_device, roi, true, error))
    {
        SRequest request = DemoRequest(title, EKind::Continuous, 300.0);
        request.whileRunning = [&probe] { probe.Look(); };
        m_run.Stimulate(request);
    }
    else
        m_run.Heading(title);
    SLanding landing = probe.Take();
    landing.title = title;
    if (!error.empty())
        landing.refusal = error;
    WriteOrComplain(m_run.ResultFile("region-" + std::to_string(++m_pictures) + ".svg"),
                    LandingSvg("Region, " + title, roi, landing));
    m_run.Keep(landing);
    return landing;
}

void COpticsDemo::CheckLands(const std::string& title)
{
    const SLanding landing = Light(title);
    const bool claims = landing.state == eCalibrationStateIdentical;
    const std::string found = !landing.refusal.empty() ? landing.refusal
                              : !landing.light
                                  ? "the camera saw no light"
                                  : Number(landing.errorPx, 3) + " camera px off, overlap " +
                                        Number(landing.light->overlap, 3) + ", state " + StateName(landing.state);
    m_promises.Check(claims && landing.light && landing.errorPx <= s_mostErrorPx,
                     "the calibration fits, and the light lands within half a camera pixel", found);
    m_promises.Check(landing.light && landing.light->overlap >= s_leastOverlap,
                     "it overlaps the requested region by " + Number(s_leastOverlap, 2) + " at least", found);
}

void COpticsDemo::CheckRefused(const std::string& title, bool follow)
{
    const std::size_t before = CQsJournal::Count();
    std::string error;
    CLandingProbe probe;
    const bool prepared = probe.Prepare(m_device, Region(), follow, error);
    // Also who stimulates all the same lights nothing.
    SRequest request = DemoRequest(title, EKind::Continuous, 50.0);
    const SPhase phase = RunStimulation(m_run.Manager(), request);
    SLanding landing = probe.Take();
    landing.title = title;
    m_promises.Check(!prepared && !phase.Succeeded(), title + ": the region and the stimulation are refused",
                     landing.refusal.empty() ? error : landing.refusal);
    m_promises.Check(!HasLight(before), title + ": no light was on", HasLight(before) ? "it was" : "none");
    m_run.Keep(landing);
}

void COpticsDemo::WithoutCalibration()
{
    m_run.Heading("Before there is a calibration");
    CheckRefused("without a calibration", true);
}

void COpticsDemo::Calibrate()
{
    m_run.Heading("Calibrating");
    MeasureAndSave("upright");
}

void COpticsDemo::RefuseDegenerate()
{
    m_run.Heading("A calibration that must be refused: spots on a line");
    std::vector<double> before;
    std::vector<double> after;
    m_device.Calibration().GetCalibrationCamToDMD(before);
    const SMeasurement measurement = Measure("spots on a line", s_columns, 1);
    m_device.Calibration().GetCalibrationCamToDMD(after);
    m_promises.Check(!measurement.refusal.empty(), "it is refused with a reason",
                     measurement.refusal.empty() ? "accepted" : measurement.refusal);
    m_promises.Check(before == after && m_device.State() == eCalibrationStateIdentical,
                     "the calibration of before is still in use", "state " + StateText(m_device.State()));
}

SChildOutcome COpticsDemo::RunChild(std::vector<std::string> arguments, const std::string& rig,
                                    const std::string& settings)
{
    const SOptions& options = m_run.Options();
    arguments.insert(arguments.end(),
                     {"--rig", rig, "--settings", settings, "--registry", options.registryFolder, "--json"});
    for (const std::string& folder : options.moduleFolders)
        arguments.insert(arguments.end(), {"--modules", folder});
    return RunSelf(arguments);
}

void COpticsDemo::Restart()
{
    m_run.Heading("A new process finds it again");
    const std::string key = ToUtf8(m_device.Calibration().GetConfigurationStringCurrent());
    const SChildOutcome find = RunChild({"calibration", "find"}, m_run.Rig().path, m_run.Options().settingsFolder);
    const rapidjson::Document found = ParseOrNull(find.out);
    m_promises.Check(find.exitCode == eExitDone && TextOf(found, "foundKey") == key &&
                         NumberOf(found, "state") == eCalibrationStateIdentical,
                     "it is found under the hardware's text and fits",
                     find.exitCode == eExitDone ? TextOf(found, "foundKey") + ", state " + TextOf(found, "stateName")
                                                : "exit code " + std::to_string(find.exitCode) + ", " + find.err);

    const SChildOutcome show = RunChild({"calibration", "show"}, m_run.Rig().path, m_run.Options().settingsFolder);
    const rapidjson::Document shown = ParseOrNull(show.out);
    std::vector<double> ours;
    std::vector<double> theirs;
    m_device.Calibration().GetCalibrationCamToDMD(ours);
    if (shown.IsObject() && shown.HasMember("dmdFromCamera") && shown["dmdFromCamera"].IsArray())
        for (const auto& element : shown["dmdFromCamera"].GetArray())
            theirs.push_back(element.IsNumber() ? element.GetDouble() : s_noTime);
    m_promises.Check(ours == theirs, "its matrix is the same, bit for bit",
                     std::to_string(theirs.size()) + " elements" + (ours == theirs ? "" : ", not the same"));
}

void COpticsDemo::CameraStates()
{
    constexpr SCameraSetting settings[] = {
        s_upright,
        {"turned by 90 degrees", 90.0, false, 1, false},
        {"turned by 180 degrees", 180.0, false, 1, false},
        {"turned by 270 degrees", 270.0, false, 1, false},
        {"flipped", 0.0, true, 1, false},
        {"turned by 90 degrees, flipped", 90.0, true, 1, false},
        {"binned by 2", 0.0, false, 2, false},
        {"cropped", 0.0, false, 1, true},
        {"flipped, cropped", 0.0, true, 1, true},
        {"turned by 270 degrees, binned by 2", 270.0, false, 2, false},
        {"turned by 90 degrees, flipped, binned by 2, cropped", 90.0, true, 2, true}};
    for (const SCameraSetting& setting : settings)
    {
        if (WasInterrupted())
            return;
        SetCamera(setting);
        CheckLands(std::string("camera ") + setting.title);
    }
    SetCamera(s_upright);
}

void COpticsDemo::CalibrateTurned()
{
    m_run.Heading("Calibrating through a camera that is turned and flipped");
    SetCamera({"turned by 90 degrees, flipped", 90.0, true, 1, false});
    MeasureAndSave("turned by 90 degrees, flipped");
    SetCamera(s_upright);
    CheckLands("camera upright, calibrated while turned and flipped");
}

void COpticsDemo::Objectives()
{
    m_run.Heading("Another objective");
    const std::string before = m_device.AdoptedKey();
    CQsStringW objective = m_hardware.sObjective + CQsStringW(L" (another)");
    // One that the camera's optics know, where the rig names one.
    for (const QsStandalone::SRigCamera& camera : m_run.Rig().cameras)
    {
        const rapidjson::Document settings = ParseOrNull(camera.settings);
        if (settings.IsObject() && settings.HasMember("objectives") && settings["objectives"].IsObject())
            for (const auto& known : settings["objectives"].GetObject())
                if (FromUtf8(known.name.GetString()) != m_hardware.sObjective)
                    objective = FromUtf8(known.name.GetString());
    }
    SetObjective(objective);
    m_device.FollowHardware();
    m_promises.Check(m_device.State() == eCalibrationStateChanged, "the state says that the microscope has changed",
                     "state " + StateText(m_device.State()));
    m_promises.Check(m_device.AdoptedKey() == before, "the calibration of the other objective is in use instead",
                     m_device.AdoptedKey());
    const SLanding landing = Light("objective " + ToUtf8(objective) + ", not calibrated");
    Say("  without a calibration of its own: " +
        (landing.light ? Number(landing.errorPx, 1) + " camera px off" : std::string("no light seen")) + "\n");
    MeasureAndSave("objective " + ToUtf8(objective));
    CheckLands("objective " + ToUtf8(objective) + ", calibrated");
    QsStandalone::SetHardware(m_hardware);
    CheckLands("objective " + ToUtf8(m_hardware.sObjective) + ", again");
    m_promises.Check(m_device.AdoptedKey() == before, "its own calibration is in use again", m_device.AdoptedKey());
}

// The rig of the demo with a device that watches the camera's rotation; empty when it cannot be made.
std::string RigThatWatchesRotation(const QsStandalone::SRig& rig, const std::string& name)
{
    std::ifstream file(std::filesystem::u8path(rig.path), std::ios::binary);
    rapidjson::Document document =
        ParseOrNull(std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
    if (!document.IsObject() || !document.HasMember("devices"))
        return {};
    auto& allocator = document.GetAllocator();
    for (auto& device : document["devices"].GetArray())
    {
        if (TextOf(device, "name") != name && TextOf(device, "class") != name)
            continue;
        if (!device.HasMember("settings"))
            device.AddMember("settings", rapidjson::Value(rapidjson::kObjectType), allocator);
        rapidjson::Value watches(rapidjson::kArrayType);
        for (const char* part : {"objective", "camera", "cameraRotation"})
            watches.PushBack(rapidjson::StringRef(part), allocator);
        device["settings"].RemoveMember("watches");
        device["settings"].AddMember("watches", watches, allocator);
    }
    // Folders of the file are relative to it.
    document.RemoveMember("moduleFolders");
    rapidjson::Value folders(rapidjson::kArrayType);
    for (const std::string& folder : rig.moduleFolders)
        folders.PushBack(rapidjson::Value(folder.c_str(), allocator), allocator);
    document.AddMember("moduleFolders", folders, allocator);
    document.RemoveMember("translations");
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    document.Accept(writer);
    std::string error;
    const std::string path = TemporaryPath("rotation.json", error);
    return WriteWholeFile(path, text.GetString(), error) ? path : std::string();
}

void COpticsDemo::WatchedRotation()
{
    m_run.Heading("A device that watches the camera's rotation instead of correcting for it alone");
    const std::string rig = RigThatWatchesRotation(m_run.Rig(), m_device.Name());
    // Among the demo's own there are some that know of no rotation, and would be taken.
    std::string error;
    const std::string settings = TemporaryPath("rotation-settings", error);
    const SChildOutcome calibrated = RunChild({"calibrate", "--grid", "5x4", "--save"}, rig, settings);
    m_promises.Check(calibrated.exitCode == eExitDone, "it is calibrated with the camera upright",
                     calibrated.exitCode == eExitDone ? "saved" : calibrated.err);
    const std::string key = TextOf(ParseOrNull(calibrated.out), "configuration");
    const SChildOutcome why = RunChild({"calibration", "why", "--camera-rotation", "90"}, rig, settings);
    const rapidjson::Document answer = ParseOrNull(why.out);
    std::string found = "state " + std::to_string(NumberOf(answer, "state")) + " " + TextOf(answer, "stateName");
    bool named = false;
    if (answer.IsObject() && answer.HasMember("calibrations") && answer["calibrations"].IsArray())
        for (const auto& calibration : answer["calibrations"].GetArray())
            if (!key.empty() && TextOf(calibration, "key") == key)
                for (const auto& reason : calibration["reasons"].GetArray())
                {
                    named = named || std::string(reason.GetString()).compare(0, 9, "rotation:") == 0;
                    found += std::string("; ") + reason.GetString();
                }
    m_promises.Check(why.exitCode == eExitDone && NumberOf(answer, "state") == eCalibrationStateInvalid && named,
                     "with the camera turned the state is 1, and the rotation is named", found);
}

void COpticsDemo::Singular()
{
    m_run.Heading("Calibrations that are no good");
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const struct
    {
        const char* title;
        std::vector<double> matrix;
    } inputs[] = {{"a singular calibration", {1.0, 2.0, 0.0, 2.0, 4.0, 0.0, 0.0, 0.0, 1.0}},
                  {"a calibration that is not a number", {nan, 0.0, 0.0, 0.0, nan, 0.0, 0.0, 0.0, 1.0}}};
    for (const auto& input : inputs)
    {
        const QsStandalone::ELogLevel level = CQsDiagnosticLog::GetLevel();
        CQsDiagnosticLog::SetLevel(QsStandalone::ELogLevel::Detailed);
        CQsDiagnosticLog::ToMemory(true);
        m_device.Calibration().SetCalibrationCamToDMD(input.matrix);
        bool said = false;
        for (const QsStandalone::SLogLine& line : CQsDiagnosticLog::MemoryLines())
            said = said || ToUtf8(line.text).find("Very bad calibration.") != std::string::npos;
        CQsDiagnosticLog::ToMemory(false);
        CQsDiagnosticLog::SetLevel(level);
        m_promises.Check(said, std::string(input.title) + ": the log says \"Very bad calibration.\"",
                         said ? "it does" : "it does not");
        SView view;
        std::string error;
        const bool viewed = m_device.View(view, error);
        const std::optional<CMatrix3> matrix = m_device.ChipFromImage(view, nullptr);
        m_promises.Check(viewed && !matrix, std::string(input.title) + ": it maps nothing",
                         !viewed  ? error
                         : matrix ? "a matrix is given out: " + ElementsText(*matrix)
                                  : "no matrix is given out");
        CheckRefused(input.title, false);
    }
    m_device.FollowHardware();
    CheckLands("after the saved calibration was loaded again");
}

void COpticsDemo::Clear()
{
    m_run.Heading("Forgetting everything that is saved");
    m_device.Calibration().ClearAllCalibrationMatrices();
    std::vector<SSavedCalibration> saved;
    std::string error;
    const bool read = ReadSavedCalibrations(m_device, saved, error);
    m_promises.Check(read && saved.empty() && m_device.AdoptedKey().empty(), "nothing is saved, nothing is in use",
                     read ? std::to_string(saved.size()) + " saved, state " + StateText(m_device.State()) : error);
    CheckRefused("after everything was forgotten", true);
}

void COpticsDemo::Run()
{
    if (!Find())
        return;
    void (COpticsDemo::*const steps[])() = {&COpticsDemo::WithoutCalibration, &COpticsDemo::Calibrate,
                                            &COpticsDemo::RefuseDegenerate,   &COpticsDemo::Restart,
                                            &COpticsDemo::CameraStates,       &COpticsDemo::CalibrateTurned,
                                            &COpticsDemo::Objectives,         &COpticsDemo::WatchedRotation,
                                            &COpticsDemo::Singular,           &COpticsDemo::Clear};
    for (const auto step : steps)
        if (!WasInterrupted())
            (this->*step)();
}

} // namespace

bool MayDemonstrateOptics(CSession& session, const SOptions& options, std::string& error)
{
    namespace fs = std::filesystem;
    CCalibratedDevice device;
    if (!CCalibratedDevice::Find(*session.Manager(), {}, device, error))
        return true; // the demo's first promise
    const std::string file = CalibrationFile(device);
    std::error_code failure;
    const fs::path folder = fs::weakly_canonical(fs::u8path(options.settingsFolder), failure);
    const fs::path inside = fs::weakly_canonical(fs::u8path(file), failure).lexically_relative(folder);
    std::vector<SSavedCalibration> saved;
    if (failure || inside.empty() || *inside.begin() == "..")
        error = file +
                ": the demo saves and clears calibrations, expected a \"calibrationFile\" of the rig in the folder "
                "of settings, found one beside it";
    else if (ReadSavedCalibrations(device, saved, error) && !saved.empty())
        error = file + ": the demo saves and clears calibrations, expected none of " + device.Name() +
                " in it, found " + std::to_string(saved.size());
    return error.empty();
}

void DemonstrateOptics(CDemoRun& run)
{
    COpticsDemo(run).Run();
}

} // namespace Stimhost
