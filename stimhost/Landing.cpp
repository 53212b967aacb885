#include "stimhost/Landing.h"

#include "stimhost/SavedCalibrations.h"
#include "stimhost/Text.h"

namespace Stimhost {

namespace {

constexpr unsigned s_mostLooks = 4;

double PartOnChip(const SQsRLEPicBuf& picture, const CMatrix3& chipFromImage, const CQsSizeBase<int>& chip)
{
    std::uint64_t inside = 0;
    for (const SQsRLEPicBuf::SRun& run : picture.runs)
        for (std::uint32_t i = 0; i < run.uiCount; ++i)
            inside += IsOnChip(Mapped(chipFromImage, {run.uiFirst + i * 1.0, run.uiRow * 1.0}), chip) ? 1 : 0;
    return static_cast<double>(inside) / static_cast<double>(PixelCount(picture));
}

} // namespace

bool CLandingProbe::Prepare(const CCalibratedDevice& device, const SRoi& roi, bool follow, std::string& error)
{
    m_device = device;
    m_landing = SLanding();
    m_landing.roi = roi.text;
    if (follow)
        device.FollowHardware();
    if (!device.View(m_view, error) || !Rasterise(roi, m_view.Width(), m_view.Height(), m_landing.requested, error))
        return false;
    m_landing.camera = ViewText(m_view, device.Camera().GetState());
    m_landing.calibration = device.AdoptedKey();
    if (const std::optional<CMatrix3> chipFromImage = device.ChipFromImage(m_view, nullptr))
        m_landing.reach = PartOnChip(m_landing.requested, *chipFromImage, device.Calibrated().GetChipSize());
    if (device.Camera().Grab(m_dark) != QS_OK)
    {
        error = device.CameraName() + ": the camera gives no image";
        return false;
    }
    int status = device.Device().StimulationAreaSet({}, m_landing.requested, nullptr, m_view.format, m_view.region);
    if (status == QS_OK)
        status = device.Device().StimulationAreaUpload();
    // The upload may have looked at the hardware.
    m_landing.state = device.State();
    if (status != QS_OK)
    {
        const std::string fault = FaultOfSaved(device);
        m_landing.refusal = device.Name() + " does not take the region, status " + std::to_string(status) +
                            "; calibration state " + StateText(m_landing.state) + (fault.empty() ? "" : "; " + fault);
    }
    return status == QS_OK;
}

void CLandingProbe::Look()
{
    for (unsigned look = 0; look < s_mostLooks && !m_landing.light; ++look)
    {
        SQsGrabberImage image;
        if (m_device.Camera().Grab(image) != QS_OK)
            return;
        m_landing.light = FindLitRegion(Difference(image, m_dark), m_landing.requested);
        m_landing.image = std::move(image);
    }
}

SLanding CLandingProbe::Take()
{
    if (m_landing.image.pixels.empty())
        m_landing.image = m_dark;
    m_landing.dark = GreyLevel(m_dark);
    if (m_landing.light)
    {
        const CMatrix3 cameraFromImage = m_device.CameraFromImage(m_view);
        m_landing.errorPx = Distance(Mapped(cameraFromImage, m_landing.light->centre),
                                     Mapped(cameraFromImage, m_landing.light->requestedCentre));
    }
    return std::move(m_landing);
}

std::string ViewText(const SView& view, const SQsCameraState& state)
{
    std::string text = "image " + std::to_string(view.Width()) + " x " + std::to_string(view.Height());
    if (state.dRotation != 0.0)
        text += ", turned by " + Number(state.dRotation, 0) + " deg";
    if (state.bFlipped)
        text += ", flipped";
    if (view.format.fx != 1.0)
        text += ", binned by " + Number(view.format.fx, 0);
    if (view.region.Width() != view.format.rcSensor.Width() || view.region.Height() != view.format.rcSensor.Height())
        text += ", region " + std::to_string(view.region.left) + "," + std::to_string(view.region.top) + "," +
                std::to_string(view.region.right) + "," + std::to_string(view.region.bottom);
    return text;
}

} // namespace Stimhost
