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
    const SMeasurement measurement = MeasureCalibration(device, options.gridColumns, options.gridRows);
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
