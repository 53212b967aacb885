#include "stimhost/SavedCalibrations.h"

#include "host/QsDMApi.h"
#include "stimhost/Text.h"

#include <filesystem>
#include <functional>

namespace Stimhost {

namespace {

using CConfiguration = CQsStimulationDeviceConfiguration;
using Watched = std::set<EQsWatchedDeviceType>;

void ReadMatrices(CQsLiteVariantR& file, SSavedCalibration& saved)
{
    for (std::size_t i = 0; i < 6 && file.EnterEntry(i); ++i)
    {
        saved.cameraFromDmd[i] = file.GetDouble(L"m_pdCalibrationMatrixDMDToCam", 0.0);
        saved.dmdFromCamera[i] = file.GetDouble(L"m_pdCalibrationMatrixCamToDMD", 0.0);
        file.LeaveLevel();
    }
}

Watched WatchedBy(const CCalibratedDevice& device)
{
    std::vector<EQsWatchedDeviceType> types;
    if (IQsStimulationDeviceCalibration* const owner = device.Owner())
        owner->GetWatchedDeviceTypes(types);
    return {types.begin(), types.end()};
}

CQsStringW WithoutNone(const CQsStringW& text)
{
    return text == QS_GetTranslation(L"<none>", __FILE__) ? CQsStringW() : text;
}

// What a key brings back of the hardware that it was saved for. Microscope, lights and multilasers stay in it as text.
CConfiguration SnapshotOf(const SQsConfigItem& item)
{
    CConfiguration snapshot;
    snapshot.AddCamera(WithoutNone(item.sCamera));
    double number = 0.0;
    if (QS_StringToDouble(item.sRotation.c_str(), number))
        snapshot.SetCameraRotation(number);
    for (const SQsConfigItem::SFilterChanger& filter : item.vecFilterChangers)
        snapshot.AddFilterChanger(filter.sKey, filter.sName, QS_wtoi(filter.sPosition.c_str()));
    if (QS_StringToDouble(item.sZoom.c_str(), number))
        snapshot.AddManualZoom(number);
    snapshot.AddObjective(WithoutNone(item.sObjective));
    snapshot.AddConnectionPort(item.iORBAPort);
    snapshot.SetORBAConnected(item.bORBAPort);
    return snapshot;
}

// The comparison of two snapshots as it goes when only those parts are watched, the illuminator aside.
EQsCalibrationState CompareParts(CConfiguration now, CConfiguration then, const Watched& parts)
{
    for (CConfiguration* const snapshot : {&now, &then})
    {
        snapshot->SetWatchedDeviceTypes(parts);
        snapshot->SetORBAConnected(false);
        snapshot->AddConnectionPort(0);
    }
    return now.CompareSuggestState(then);
}

// The same for the illuminator alone.
EQsCalibrationState CompareIlluminators(CConfiguration now, const CConfiguration& then)
{
    now.SetWatchedDeviceTypes({});
    return now.CompareSuggestState(then);
}

std::string Quoted(const CQsStringW& text)
{
    return "\"" + ToUtf8(text) + "\"";
}

std::string Filters(const SQsDMApiHardware& hardware)
{
    std::string text;
    for (const SQsDMApiHardware::SFilterChanger& filter : hardware.filterChangers)
        text += (text.empty() ? "" : ", ") + ToUtf8(filter.sKey) + "=" + ToUtf8(filter.sName) + ":" +
                std::to_string(filter.iPosition);
    return text.empty() ? "none" : text;
}

std::string Filters(const SQsConfigItem& item)
{
    std::string text;
    for (const SQsConfigItem::SFilterChanger& filter : item.vecFilterChangers)
        text += (text.empty() ? "" : ", ") + ToUtf8(filter.sKey) + "=" + ToUtf8(filter.sName) + ":" +
                ToUtf8(filter.sPosition);
    return text.empty() ? "none" : text;
}

std::string Port(bool connected, std::int32_t port)
{
    return connected ? "connected at port " + std::to_string(port) : "not connected";
}

// Lights and multilasers are watched as one; which of the two it is shows when each is compared by itself.
void AddLightsAndMultilasers(const SQsDMApiHardware& hardware, const CConfiguration& then,
                             std::vector<std::string>& reasons)
{
    CConfiguration lights;
    lights.SetValid(true);
    for (const CQsStringW& light : hardware.lights)
        lights.AddLight(light);
    CConfiguration multilasers;
    multilasers.SetValid(true);
    for (const SQsDMApiHardware::SMultilaser& unit : hardware.multilasers)
        multilasers.AddMultilaser(unit.sName, unit.uiNumber);
    const char* const kept = ": a saved calibration does not bring them back, and now there are some";
    if (CompareParts(lights, then, {eWatchedLights}) != eCalibrationStateIdentical)
        reasons.push_back(std::string("lights") + kept);
    if (CompareParts(multilasers, then, {eWatchedLights}) != eCalibrationStateIdentical)
        reasons.push_back(std::string("multilasers") + kept);
}

} // namespace

bool ReadSavedCalibrations(const CCalibratedDevice& device, std::vector<SSavedCalibration>& saved, std::string& error)
{
    constexpr qs_int32 noSuchFile = -13;
    saved.clear();
    IQsStimulationDeviceCalibration* const owner = device.Owner();
    if (owner == nullptr)
    {
        error = device.Name() + " does not say where it saves calibrations";
        return false;
    }
    CQsLiteVariantR file;
    const qs_int32 status = file.LoadFromFile(owner->GetCalibrationFileName().c_str(), true, false);
    if (status == noSuchFile)
        return true;
    if (status != QS_OK)
    {
        error = CalibrationFile(device) + ": expected a settings file, found one that cannot be read (see --verbose)";
        return false;
    }
    for (const CQsStringW& level : {owner->GetCalibrationSectionName(), owner->GetCalibrationDeviceName(),
                                    CQsStringW(L"Definition"), CQsStringW(L"Calibration")})
        if (!file.EnterLevel(level.c_str()))
            return true;
    for (std::size_t i = 0; i < file.GetEntryCount(); ++i)
    {
        SSavedCalibration calibration;
        calibration.key = file.GetEntryName(i);
        if (!file.EnterEntry(i)) // what a clear leaves is a value
            continue;
        ReadMatrices(file, calibration);
        file.LeaveLevel();
        device.Calibration().ParseConfig(calibration.key, calibration.item);
        saved.push_back(std::move(calibration));
    }
    return true;
}

EQsCalibrationState StateWith(const CCalibratedDevice& device, const SSavedCalibration& saved)
{
    return device.HardwareOfNow().CompareSuggestState(SnapshotOf(saved.item));
}

std::vector<std::string> WhyNot(const CCalibratedDevice& device, const SSavedCalibration& saved)
{
    std::vector<std::string> reasons;
    const CConfiguration now = device.HardwareOfNow();
    const CConfiguration then = SnapshotOf(saved.item);
    const SQsDMApiHardware hardware = DMApi::Hardware_Get();
    const Watched watched = WatchedBy(device);
    const auto differs = [&](EQsWatchedDeviceType part)
    { return watched.count(part) != 0 && CompareParts(now, then, {part}) != eCalibrationStateIdentical; };
    const auto add = [&](const char* part, const std::string& before, const std::string& after)
    { reasons.push_back(std::string(part) + ": saved with " + before + ", now " + after); };

    if (!now.IsValid())
        reasons.emplace_back("the hardware of now is not known");
    else
    {
        if (differs(eWatchedCamera))
            add("camera", Quoted(WithoutNone(saved.item.sCamera)), Quoted(now.GetCamera()));
        if (differs(eWatchedObjective))
            add("objective", Quoted(WithoutNone(saved.item.sObjective)), Quoted(hardware.sObjective));
        if (differs(eWatchedMicroscope))
            reasons.push_back("microscope: a saved calibration does not bring it back, and now it is " +
                              Quoted(hardware.sMicroscope));
        if (differs(eWatchedFilterChangers))
            add("filters", Filters(saved.item), Filters(hardware));
        if (differs(eWatchedLights))
            AddLightsAndMultilasers(hardware, then, reasons);
        if (differs(eWatchedManualZoom))
            add("zoom", ToUtf8(saved.item.sZoom), Number(now.GetManualZoom(), 2) + "x");
        if (CompareIlluminators(now, then) == eCalibrationStateChanged)
            add("illuminator", Port(saved.item.bORBAPort, saved.item.iORBAPort),
                Port(hardware.bIlluminatorConnected, hardware.iIlluminatorPort));
        if (differs(eWatchedCameraRotation))
        {
            const bool known = CompareParts(now, then, {eWatchedCameraRotation}) != eCalibrationStateRotationUnknown;
            add("rotation", ToUtf8(saved.item.sRotation) + (known ? " deg" : ""),
                known ? Number(now.GetCameraRotation(), 2) + " deg" : "one of the two is not known");
        }
    }
    return reasons;
}

std::string FaultOfSaved(const CCalibratedDevice& device)
{
    std::vector<SSavedCalibration> ignored;
    std::string error;
    ReadSavedCalibrations(device, ignored, error);
    return error;
}

std::vector<std::string> ReadsBackOtherwise(const CCalibratedDevice& device)
{
    SQsConfigItem item;
    device.Calibration().ParseConfig(device.Calibration().GetConfigurationStringCurrent(), item);
    const CConfiguration now = device.HardwareOfNow();
    const Watched watched = WatchedBy(device);
    std::vector<std::string> parts;
    if (watched.count(eWatchedObjective) != 0) // which also brings the camera into the key
    {
        if (WithoutNone(item.sObjective) != WithoutNone(DMApi::Hardware_Get().sObjective))
            parts.emplace_back("objective");
        if (WithoutNone(item.sCamera) != WithoutNone(now.GetCamera()))
            parts.emplace_back("camera");
    }
    if (watched.count(eWatchedFilterChangers) != 0 &&
        CompareParts(now, SnapshotOf(item), {eWatchedFilterChangers}) != eCalibrationStateIdentical)
        parts.emplace_back("filters");
    return parts;
}

std::set<std::string> KeptAside(const CCalibratedDevice& device)
{
    namespace fs = std::filesystem;
    std::error_code failure;
    const fs::path file = fs::weakly_canonical(fs::u8path(CalibrationFile(device)), failure); // links are followed
    const std::string begin = file.filename().u8string() + ".damaged";
    std::set<std::string> kept;
    for (fs::directory_iterator i(file.parent_path(), failure), end; !failure && i != end; i.increment(failure))
        if (i->path().filename().u8string().compare(0, begin.size(), begin) == 0)
            kept.insert(i->path().generic_u8string());
    return kept;
}

std::string CalibrationFile(const CCalibratedDevice& device)
{
    IQsStimulationDeviceCalibration* const owner = device.Owner();
    return owner != nullptr ? ToUtf8(owner->GetCalibrationFileName()) : std::string();
}

} // namespace Stimhost
