#include "stimhost/CalibrationMeasurement.h"

#include "calibration/SnapshotAccess.h"
#include "stimhost/Bounded.h"
#include "stimhost/Interruption.h"
#include "stimhost/Landing.h"
#include "stimhost/ProgressLine.h"
#include "stimhost/Report.h"
#include "stimhost/Text.h"

#include <algorithm>

namespace Stimhost {

namespace {

constexpr double s_frameMs = 30000.0; // a device or a camera that needs longer for one frame has failed
constexpr int s_smallestSpot = 3;     // radius [mirrors]

// What the thread of one frame shares with who waits for it, perhaps in vain.
struct SFrame
{
    CCalibratedDevice device;
    SQsRLEPicBuf mirrors;
    SQsGrabberImage image;
    std::string fault; // empty: the image is there
};

void LightAndGrab(SFrame& frame)
{
    IQsStimulationDevice& device = frame.device.Device();
    IQsStimulationDevice::SQsStimulationType type;
    type.uiType = IQsStimulationDevice::eStimContinuous;
    type.uiRepeatCount = 1;
    type.uiGroupMask = 1;

    const auto fail = [&frame](const char* what, int status)
    {
        if (frame.fault.empty() && status != QS_OK)
            frame.fault = std::string(what) + ", status " + std::to_string(status);
    };
    fail("the device does not take the spots",
         Ask([&] { return frame.device.Calibrated().SetChipPicture(frame.mirrors); }).status);
    if (!frame.fault.empty())
        return;
    fail("the device gives no light", Ask([&] { return device.StimulationBegin(type); }).status);
    if (frame.fault.empty())
        fail("the camera gives no image", Ask([&] { return frame.device.Camera().Grab(frame.image); }).status);
    // Also after a begin that failed, perhaps with its light on.
    const SAnswer ended = Ask([&] { return device.StimulationEnd(nullptr, nullptr, 0); });
    fail("the device does not end its light", ended.status);
    if (ended.threw)
        Ask([&] { return device.StimulationAbort(); });
}

class CProjector
{
public:
    explicit CProjector(const CCalibratedDevice& device)
        : m_device(device), m_hook([device] { Abort(device); }, [device] { Abort(device); })
    {}

    // False, with the fault, when there is no image of it; an interrupt counts as one.
    bool Show(const SQsRLEPicBuf& mirrors, SQsGrabberImage& image, std::string& fault)
    {
        const auto frame = std::make_shared<SFrame>(SFrame{m_device, mirrors, {}, {}});
        if (!RunBounded(s_frameMs, [frame] { LightAndGrab(*frame); }))
        {
            Abort(m_device);
            fault = m_device.Name() + " or its camera did not answer in time";
            return false;
        }
        fault = WasInterrupted() ? "interrupted" : frame->fault;
        image = std::move(frame->image);
        return fault.empty();
    }

private:
    static void Abort(const CCalibratedDevice& device)
    {
        RunBounded(1000.0, [device] { Ask([&] { return device.Device().StimulationAbort(); }); });
    }

    CCalibratedDevice m_device;
    CInterruptionHook m_hook;
};

// Leaves no mirror on at the end: what stimulates next must not light the last spot.
class CDarkChip
{
public:
    CDarkChip(const CCalibratedDevice& device, const SQsRLEPicBuf& none) : m_device(device), m_none(none) {}
    ~CDarkChip()
    {
        RunBounded(1000.0, [device = m_device, none = m_none]
                   { Ask([&] { return device.Calibrated().SetChipPicture(none); }); });
    }
    CDarkChip(const CDarkChip&) = delete;
    CDarkChip& operator=(const CDarkChip&) = delete;

private:
    CCalibratedDevice m_device;
    SQsRLEPicBuf m_none;
};

SQsRLEPicBuf Disc(const CQsSizeBase<int>& chip, int centreX, int centreY, int radius)
{
    SQsRLEPicBuf disc;
    disc.uiWidth = static_cast<std::uint32_t>(chip.cx);
    disc.uiHeight = static_cast<std::uint32_t>(chip.cy);
    for (int y = centreY - radius; y <= centreY + radius; ++y)
    {
        const int half = static_cast<int>(std::sqrt(radius * radius - (y - centreY) * (y - centreY)));
        disc.runs.push_back({static_cast<std::uint32_t>(y), static_cast<std::uint32_t>(centreX - half),
                             static_cast<std::uint32_t>(2 * half + 1)});
    }
    return disc;
}

void KeepBrightest(SQsGrabberImage& picture, const SQsGrabberImage& image)
{
    if (picture.pixels.size() != image.pixels.size())
        picture = image;
    for (std::size_t i = 0; i < image.pixels.size(); ++i)
        picture.pixels[i] = std::max(picture.pixels[i], image.pixels[i]);
}

// Shows a grid of spots on that part of the chip and adds those that are seen. Why nothing can be measured; empty when
// all were shown.
std::string FindSpots(const CCalibratedDevice& device, const CQsRectBase<int>& part, unsigned columns, unsigned rows,
                      SMeasurement& measurement)
{
    const CQsSizeBase<int> chip = device.Calibrated().GetChipSize();
    const int cellWidth = part.Width() / static_cast<int>(columns);
    const int cellHeight = part.Height() / static_cast<int>(rows);
    const int radius = std::max(s_smallestSpot, std::min({cellWidth, cellHeight, std::min(chip.cx, chip.cy) / 6}) / 8);
    if (2 * radius + 1 > std::min(cellWidth, cellHeight))
        return "the chip of " + std::to_string(chip.cx) + " x " + std::to_string(chip.cy) +
               " mirrors is too small for so many spots";

    SQsRLEPicBuf none;
    none.uiWidth = static_cast<std::uint32_t>(chip.cx);
    none.uiHeight = static_cast<std::uint32_t>(chip.cy);
    const CDarkChip darkAtTheEnd(device, none);
    CProjector projector(device);
    CProgressLine progress;
    std::string fault;
    SQsGrabberImage dark;
    if (!projector.Show(none, dark, fault))
        return fault;
    measurement.dark = GreyLevel(dark);
    for (unsigned i = 0; i < columns * rows; ++i)
    {
        progress.Show("calibrating " + device.Name() + ": spot " + std::to_string(i + 1) + " of " +
                      std::to_string(columns * rows) + ", " + std::to_string(measurement.spots.size()) + " found ");
        const int x = part.left + static_cast<int>(i % columns) * cellWidth + cellWidth / 2;
        const int y = part.top + static_cast<int>(i / columns) * cellHeight + cellHeight / 2;
        SQsGrabberImage lit;
        if (!projector.Show(Disc(chip, x, y, radius), lit, fault))
            return fault;
        ++measurement.projected;
        KeepBrightest(measurement.picture, lit);
        if (const std::optional<SSpot> spot = FindSpot(Difference(lit, dark)))
            measurement.spots.push_back(
                {{x * 1.0, y * 1.0}, spot->position, Mapped(measurement.cameraFromImage, spot->position)});
    }
    return {};
}

// Fits all spots that were seen so far.
void Fit(SMeasurement& measurement)
{
    // The measured side is the camera's, so its residuals are what is made small.
    std::vector<SPointPair> pairs;
    for (const SSpotPair& spot : measurement.spots)
        pairs.push_back({spot.mirror, spot.camera});
    // Limits are those of an image pixel, which binning makes larger than a camera pixel.
    const double pixel = std::max(1.0, measurement.view.format.fx);
    SFitLimits limits;
    limits.inlier *= pixel;
    limits.largestRms *= pixel;
    measurement.fit = FitAffine(pairs, limits);
    measurement.refusal = measurement.fit.refusal;
    const std::optional<CMatrix3> inverse = Inverse(measurement.fit.matrix);
    if (measurement.refusal.empty() && !inverse)
        measurement.refusal = "the mapping has no inverse";
    measurement.dmdFromCamera = inverse.value_or(s_identity3);
    // That of an affine mapping is affine; no rounding, and no negative zero, shall say otherwise.
    std::copy(s_identity3.begin() + 6, s_identity3.end(), measurement.dmdFromCamera.begin() + 6);
}

// Bounds of the mirrors that the image shows, by the fit so far.
CQsRectBase<int> PartInView(const SMeasurement& measurement, const CQsSizeBase<int>& chip)
{
    const CMatrix3 chipFromImage = Product(measurement.dmdFromCamera, measurement.cameraFromImage);
    CQsRectBase<int> part{chip.cx, chip.cy, 0, 0};
    for (const int x : {0, measurement.view.Width() - 1})
        for (const int y : {0, measurement.view.Height() - 1})
        {
            const CPoint mirror = Mapped(chipFromImage, {x * 1.0, y * 1.0});
            const int column = static_cast<int>(std::clamp(mirror.x, 0.0, chip.cx * 1.0));
            const int row = static_cast<int>(std::clamp(mirror.y, 0.0, chip.cy * 1.0));
            part = {std::min(part.left, column), std::min(part.top, row), std::max(part.right, column),
                    std::max(part.bottom, row)};
        }
    return part;
}

} // namespace

SMeasurement MeasureCalibration(const CCalibratedDevice& device, unsigned columns, unsigned rows)
{
    SMeasurement measurement;
    if (device.Calibrated().UpdateHardware() != QS_OK || !device.View(measurement.view, measurement.refusal))
    {
        if (measurement.refusal.empty())
            measurement.refusal = device.CameraName() + ": the camera does not answer";
        return measurement;
    }
    measurement.cameraFromImage = device.CameraFromImage(measurement.view);
    const CQsSizeBase<int> chip = device.Calibrated().GetChipSize();
    const auto measure = [&](const CQsRectBase<int>& part)
    {
        measurement.refusal = FindSpots(device, part, columns, rows, measurement);
        measurement.interrupted = WasInterrupted();
        if (measurement.refusal.empty() && measurement.spots.empty())
            measurement.refusal = "the camera " + device.CameraName() + " sees none of the spots";
        if (measurement.refusal.empty())
            Fit(measurement);
        return measurement.refusal.empty();
    };
    // Where the camera sees but a part of the chip, few of the spots are in it: then that part gets a grid of its own.
    if (measure({0, 0, chip.cx, chip.cy}) && 2 * measurement.spots.size() < measurement.projected)
        measure(PartInView(measurement, chip));
    return measurement;
}

std::string MeasurementText(const CCalibratedDevice& device, const SMeasurement& measurement)
{
    const SAffineFit& fit = measurement.fit;
    std::string text = device.Name() + " on " + device.CameraName() + ", " +
                       ViewText(measurement.view, device.Camera().GetState()) + "\n";
    text += "  spots        " + std::to_string(fit.inlierCount) + " fit of " +
            std::to_string(measurement.spots.size()) + " found of " + std::to_string(measurement.projected) +
            " projected\n";
    if (fit.inlierCount != 0)
        text += "  residual     root mean square " + Number(fit.rms, 3) + ", largest " + Number(fit.largest, 3) +
                " [camera px]\n  condition    " + Number(fit.condition, 2) + "\n";
    if (measurement.refusal.empty())
        text += MatrixText("  DMD <- camera", measurement.dmdFromCamera);
    return text;
}

SCalibrationFigures FiguresOf(const std::string& title, const SMeasurement& measurement, const SQsCameraState& camera)
{
    const SAffineFit& fit = measurement.fit;
    SCalibrationFigures figures;
    figures.title = title;
    figures.camera = ViewText(measurement.view, camera);
    figures.refusal = measurement.refusal;
    figures.projected = measurement.projected;
    figures.found = static_cast<unsigned>(measurement.spots.size());
    figures.inliers = fit.inlierCount;
    if (fit.inlierCount != 0)
    {
        figures.rmsPx = fit.rms;
        figures.largestPx = fit.largest;
        figures.condition = fit.condition;
    }
    return figures;
}

bool AdoptMeasurement(const CCalibratedDevice& device, const SMeasurement& measurement, bool save, std::string& error)
{
    CQsStimulationDeviceCalibration& calibration = device.Calibration();
    calibration.SetCalibrationCamToDMD(Elements(measurement.dmdFromCamera));
    calibration.SetCalibrationDMDToCam(Elements(measurement.fit.matrix));
    // It is one of the hardware of now, saved or not.
    const CQsStimulationDeviceConfiguration now = device.HardwareOfNow();
    *CQsSnapshotAccess(calibration, CQsSnapshotAccess::eCalibrated) = now;
    calibration.UpdateCalibrationState();
    if (!save)
        return true;
    const int status = calibration.SaveCalibrationMatrices(calibration.GetConfigurationStringCurrent());
    if (status != QS_OK)
    {
        error = "the calibration cannot be saved, status " + std::to_string(status);
        return false;
    }
    bool changed = false;
    calibration.LoadCalibration(changed);
    return true;
}

} // namespace Stimhost
