// `calibrate`: measures a device's calibration and, where asked, saves it.

#include "stimhost/CalibrationMeasurement.h"
#include "stimhost/Commands.h"
#include "stimhost/Overlay.h"
#include "stimhost/SavedCalibrations.h"
#include "stimhost/Session.h"
#include "stimhost/Text.h"

namespace Stimhost {

namespace {

std::string MeasurementJson(const CCalibratedDevice& device, const SOptions& options, const SMeasurement& measurement)
{
    const SAffineFit& fit = measurement.fit;
    const bool adopted = measurement.refusal.empty();
    CJson json;
    json.Object().Integer("version", 1).Text("device", device.Name()).Text("camera", device.CameraName());
    json.Text("view", ViewText(measurement.view, device.Camera().GetState()));
    json.Text("refusal", measurement.refusal).Flag("saved", adopted && options.save);
    json.Array("grid").Whole(options.gridColumns).Whole(options.gridRows).EndArray();
    json.Integer("projected", measurement.projected);
    json.Integer("found", static_cast<long long>(measurement.spots.size())).Integer("inliers", fit.inlierCount);
    if (fit.inlierCount != 0)
        json.Real("rmsPx", fit.rms).Real("largestPx", fit.largest).Real("condition", fit.condition);
    if (adopted)
    {
        json.Reals("dmdFromCamera", measurement.dmdFromCamera.data(), measurement.dmdFromCamera.size());
        json.Reals("cameraFromDmd", fit.matrix.data(), fit.matrix.size());
    }
    json.Text("configuration", ToUtf8(device.Calibration().GetConfigurationStringCurrent()));
    json.Integer("state", device.State()).Text("stateName", StateName(device.State()));
    json.Text("file", CalibrationFile(device)).Array("spots");
    for (std::size_t i = 0; i < measurement.spots.size(); ++i)
    {
        const SSpotPair& spot = measurement.spots[i];
        json.Object();
        json.Pair("mirror", spot.mirror.x, spot.mirror.y);
        json.Pair("image", spot.image.x, spot.image.y);
        json.Pair("camera", spot.camera.x, spot.camera.y);
        if (i < fit.residuals.size())
            json.Pair("residual", fit.residuals[i].x, fit.residuals[i].y);
        json.Flag("inlier", i < fit.inliers.size() && fit.inliers[i]).EndObject();
    }
    json.EndArray().EndObject();
    return json.Take();
}

// Measures, unless what is measured could not be saved.
SMeasurement Measure(const CCalibratedDevice& device, const SOptions& options)
{
    // A camera that is not there is the measurement's to tell.
    if (!options.save || device.Calibrated().UpdateHardware() != QS_OK ||
        !device.Calibration().GetConfigurationStringCurrent().IsEmpty())
        return MeasureCalibration(device, options.gridColumns, options.gridRows);
    SMeasurement measurement;
    if (device.View(measurement.view, measurement.refusal))
        measurement.refusal = "expected a part of the hardware that " + device.Name() +
                              " watches to save it for, found none: it could never be found again";
    return measurement;
}

// What a user should know of a calibration that has been saved.
void WarnOfSaved(const CCalibratedDevice& device, const std::string& damaged, const std::set<std::string>& keptBefore)
{
    for (const std::string& kept : KeptAside(device))
        if (!damaged.empty() && keptBefore.count(kept) == 0)
            Complain(damaged + "; kept as " + kept);
    std::string parts;
    for (const std::string& part : ReadsBackOtherwise(device))
        parts += (parts.empty() ? "" : ", ") + part;
    if (!parts.empty())
        Complain("saved, but its text reads back as of another " + parts +
                 ", so it will not fit: expected names without # and $, found " +
                 ToUtf8(device.Calibration().GetConfigurationStringCurrent()));
}

} // namespace

int Calibrate(const SOptions& options, CSession& session)
{
    std::string error;
    CCalibratedDevice device;
    if (!CCalibratedDevice::Find(*session.Manager(), options.device, device, error))
    {
        Complain(error);
        return eExitBadUse;
    }
    const SMeasurement measurement = Measure(device, options);
    const std::string damaged = options.save ? FaultOfSaved(device) : std::string();
    const std::set<std::string> keptBefore = KeptAside(device);
    int code = eExitDone;
    if (measurement.interrupted)
        Complain("interrupted: nothing was calibrated");
    else if (!measurement.refusal.empty())
        Complain("not calibrated: " + measurement.refusal);
    else if (!AdoptMeasurement(device, measurement, options.save, error))
    {
        Complain(CalibrationFile(device) + ": " + error);
        code = eExitBadUse;
    }
    else if (options.save)
        WarnOfSaved(device, damaged, keptBefore);
    if (!measurement.refusal.empty())
        code = eExitFailed;
    code = PutLightsOut(code); // before the output, which may wait for its reader
    if (options.json)
        Print(MeasurementJson(device, options, measurement));
    else if (measurement.projected != 0)
    {
        std::string text = MeasurementText(device, measurement);
        if (code == eExitDone)
            text += std::string("  ") + (options.save ? "saved" : "not saved (see --save)") + " for " +
                    ToUtf8(device.Calibration().GetConfigurationStringCurrent()) + "\n  state        " +
                    StateText(device.State()) + "\n";
        Print(text);
    }
    if (!options.picture.empty() && !measurement.interrupted &&
        !WriteOrComplain(options.picture, CalibrationSvg("Calibration of " + device.Name(), measurement)) &&
        code == eExitDone)
        code = eExitBadUse;
    return code;
}

} // namespace Stimhost
