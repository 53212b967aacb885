// `calibration list|show|find|clear|why`: what is saved, and how it fits the hardware of now.

#include "stimhost/Commands.h"
#include "stimhost/SavedCalibrations.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

#include <cmath>

namespace Stimhost {

namespace {

constexpr double s_degrees = 180.0 / 3.14159265358979323846;

// The device and what is saved for it, or the exit code with one line.
std::optional<int> FindSaved(const SOptions& options, CSession& session, CCalibratedDevice& device,
                             std::vector<SSavedCalibration>& saved)
{
    std::string error;
    if (CCalibratedDevice::Find(*session.Manager(), options.device, device, error) &&
        ReadSavedCalibrations(device, saved, error))
        return std::nullopt;
    Complain(error);
    return eExitBadUse;
}

void WriteItem(CJson& json, const SSavedCalibration& saved)
{
    const SQsConfigItem& item = saved.item;
    json.Text("key", ToUtf8(saved.key)).Text("camera", ToUtf8(item.sCamera));
    json.Text("objective", ToUtf8(item.sObjective)).Text("zoom", ToUtf8(item.sZoom));
    json.Text("rotation", ToUtf8(item.sRotation));
    if (item.bORBAPort)
        json.Integer("illuminatorPort", item.iORBAPort);
    json.Array("filterChangers");
    for (const SQsConfigItem::SFilterChanger& filter : item.vecFilterChangers)
        json.Object()
            .Text("key", ToUtf8(filter.sKey))
            .Text("name", ToUtf8(filter.sName))
            .Text("position", ToUtf8(filter.sPosition))
            .EndObject();
    json.EndArray();
}

std::string ItemText(const SQsConfigItem& item)
{
    std::string text = "  camera " + ToUtf8(item.sCamera) + ", objective " + ToUtf8(item.sObjective) + ", zoom " +
                       ToUtf8(item.sZoom) + ", rotation " + ToUtf8(item.sRotation);
    if (item.bORBAPort)
        text += ", illuminator port " + std::to_string(item.iORBAPort);
    for (const SQsConfigItem::SFilterChanger& filter : item.vecFilterChangers)
        text += ", filter " + ToUtf8(filter.sKey) + "=" + ToUtf8(filter.sName) + ":" + ToUtf8(filter.sPosition);
    return text + "\n";
}

// A mapping in few words: scales along both axes of the chip, how far its first axis is turned, where mirror 0,0 lies.
std::string SummaryText(const CMatrix3& cameraFromDmd)
{
    const double* const m = cameraFromDmd.data();
    const bool mirrored = m[0] * m[4] - m[1] * m[3] < 0.0;
    return "  " + Number(std::hypot(m[0], m[3]), 4) + " x " + Number(std::hypot(m[1], m[4]), 4) +
           " camera px in a mirror, turned by " + Number(std::atan2(m[3], m[0]) * s_degrees, 2) + " deg" +
           (mirrored ? ", mirrored" : "") + ", mirror 0,0 at " + Number(m[2], 1) + "," + Number(m[5], 1) + "\n";
}

void WriteState(CJson& json, const CCalibratedDevice& device)
{
    json.Text("adopted", device.AdoptedKey()).Integer("state", device.State());
    json.Text("stateName", StateName(device.State()));
}

std::string StateLines(const CCalibratedDevice& device)
{
    const std::string adopted = device.AdoptedKey();
    return "  in use       " + (adopted.empty() ? "none" : adopted) + "\n  state        " + StateText(device.State()) +
           "\n";
}

struct SNamedMatrix
{
    const char* key;   // in JSON
    const char* title; // in text
    std::vector<double> elements;
};

std::vector<SNamedMatrix> Matrices(CQsStimulationDeviceCalibration& calibration)
{
    std::vector<SNamedMatrix> matrices = {{"dmdFromCamera", "  measured DMD <- camera", {}},
                                          {"cameraFromDmd", "  measured camera <- DMD", {}},
                                          {"rotation", "  rotation", {}},
                                          {"flip", "  flip", {}},
                                          {"centre", "  centre of the camera", {}},
                                          {"mappingDmdFromImage", "  mapping DMD <- image", {}},
                                          {"mappingImageFromDmd", "  mapping image <- DMD", {}}};
    calibration.GetCalibrationCamToDMD(matrices[0].elements);
    calibration.GetCalibrationDMDToCam(matrices[1].elements);
    calibration.GetRotationMatrix(matrices[2].elements);
    calibration.GetFlipMatrix(matrices[3].elements);
    calibration.GetTranslationVector(matrices[4].elements);
    calibration.GetMappingCamToDMD(matrices[5].elements);
    calibration.GetMappingDMDToCam(matrices[6].elements);
    return matrices;
}

} // namespace

int CalibrationList(const SOptions& options, CSession& session)
{
    CCalibratedDevice device;
    std::vector<SSavedCalibration> saved;
    if (const std::optional<int> code = FindSaved(options, session, device, saved))
        return *code;
    CJson json;
    std::string text =
        CalibrationFile(device) + ": " + std::to_string(saved.size()) + " saved for " + device.Name() + "\n";
    json.Object().Integer("version", 1).Text("device", device.Name()).Text("file", CalibrationFile(device));
    json.Array("calibrations");
    for (const SSavedCalibration& calibration : saved)
    {
        json.Object();
        WriteItem(json, calibration);
        json.Reals("dmdFromCamera", calibration.dmdFromCamera.data(), 9);
        json.Reals("cameraFromDmd", calibration.cameraFromDmd.data(), 9).EndObject();
        text += ToUtf8(calibration.key) + "\n" + ItemText(calibration.item) + SummaryText(calibration.cameraFromDmd);
    }
    json.EndArray().EndObject();
    Print(options.json ? json.Take() : text);
    return eExitDone;
}

int CalibrationShow(const SOptions& options, CSession& session)
{
    CCalibratedDevice device;
    std::vector<SSavedCalibration> saved; // read for the line that a damaged file gets
    if (const std::optional<int> code = FindSaved(options, session, device, saved))
        return *code;
    device.FollowHardware();
    CQsStimulationDeviceCalibration& calibration = device.Calibration();
    const std::string current = ToUtf8(calibration.GetConfigurationStringCurrent());
    CJson json;
    std::string text =
        device.Name() + " on " + device.CameraName() + "\n  hardware     " + current + "\n" + StateLines(device);
    json.Object().Integer("version", 1).Text("device", device.Name()).Text("camera", device.CameraName());
    json.Text("configuration", current);
    WriteState(json, device);
    json.Real("cameraRotation", calibration.GetCameraRotationCurrent());
    for (const SNamedMatrix& matrix : Matrices(calibration))
    {
        json.Reals(matrix.key, matrix.elements.data(), matrix.elements.size());
        if (const std::optional<CMatrix3> square = FromElements(matrix.elements))
            text += MatrixText(matrix.title, *square);
        else if (matrix.elements.size() == 3)
            text += std::string(matrix.title) + ": " + Number(matrix.elements[0], 1) + ", " +
                    Number(matrix.elements[1], 1) + "\n";
    }
    json.EndObject();
    Print(options.json ? json.Take() : text);
    return eExitDone;
}

int CalibrationFind(const SOptions& options, CSession& session)
{
    CCalibratedDevice device;
    std::vector<SSavedCalibration> saved; // read for the line that a damaged file gets
    if (const std::optional<int> code = FindSaved(options, session, device, saved))
        return *code;
    device.Calibrated().UpdateHardware();
    CQsStringW key = device.Calibration().GetConfigurationStringCurrent();
    const std::string current = ToUtf8(key);
    const bool found = device.Calibration().FindCalibration(key) == QS_OK;
    bool changed = false;
    device.Calibration().LoadCalibration(changed);
    const std::string adopted = device.AdoptedKey();
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1).Text("device", device.Name()).Text("configuration", current);
        json.Flag("found", found).Text("foundKey", found ? ToUtf8(key) : "").Flag("changed", changed);
        WriteState(json, device);
        json.EndObject();
        Print(json.Take());
    }
    else
        Print(device.Name() + "\n  hardware     " + current + "\n  saved for it " +
              (found ? ToUtf8(key) : std::string("none")) + "\n" + StateLines(device) + "  changed      " +
              (changed ? "yes" : "no") + "\n");
    if (!adopted.empty())
        return eExitDone;
    Complain("no saved calibration fits the hardware of now");
    return eExitFailed;
}

int CalibrationClear(const SOptions& options, CSession& session)
{
    CCalibratedDevice device;
    std::vector<SSavedCalibration> saved;
    if (const std::optional<int> code = FindSaved(options, session, device, saved))
        return *code;
    if (!options.yes)
    {
        Complain("expected --yes to forget " + std::to_string(saved.size()) + " saved calibrations of " +
                 device.Name() + "; nothing was changed");
        return eExitBadUse;
    }
    const std::size_t before = saved.size();
    device.FollowHardware();
    device.Calibration().ClearAllCalibrationMatrices();
    std::string error;
    const bool read = ReadSavedCalibrations(device, saved, error);
    if (!read || !saved.empty())
    {
        Complain(read ? CalibrationFile(device) + ": the saved calibrations cannot be cleared" : error);
        return eExitBadUse;
    }
    if (options.json)
    {
        CJson json;
        json.Object().Integer("version", 1).Text("device", device.Name());
        json.Integer("cleared", static_cast<long long>(before));
        WriteState(json, device);
        json.EndObject();
        Print(json.Take());
    }
    else
        Print(std::to_string(before) + " cleared\n" + StateLines(device));
    return eExitDone;
}

int CalibrationWhy(const SOptions& options, CSession& session)
{
    CCalibratedDevice device;
    std::vector<SSavedCalibration> saved;
    if (const std::optional<int> code = FindSaved(options, session, device, saved))
        return *code;
    device.FollowHardware();
    const std::string current = ToUtf8(device.Calibration().GetConfigurationStringCurrent());
    CJson json;
    std::string text = device.Name() + "\n  hardware     " + current + "\n" + StateLines(device);
    json.Object().Integer("version", 1).Text("device", device.Name()).Text("configuration", current);
    WriteState(json, device);
    json.Array("calibrations");
    for (const SSavedCalibration& calibration : saved)
    {
        const bool exact = ToUtf8(calibration.key) == current;
        const EQsCalibrationState state = StateWith(device, calibration);
        const std::vector<std::string> reasons = WhyNot(device, calibration);
        json.Object().Text("key", ToUtf8(calibration.key)).Flag("sameText", exact).Integer("state", state);
        json.Text("stateName", StateName(state)).Array("reasons");
        text += ToUtf8(calibration.key) + "\n  with it      " + StateText(state) + "\n";
        if (exact)
            text += "  its text is that of the hardware of now, so it is the one that is adopted\n";
        for (const std::string& reason : reasons)
        {
            json.Element(reason);
            text += "  differs      " + reason + "\n";
        }
        json.EndArray().EndObject();
    }
    json.EndArray().EndObject();
    Print(options.json ? json.Take() : text + (saved.empty() ? "nothing is saved\n" : ""));
    return eExitDone;
}

} // namespace Stimhost
