// Where the light of a requested region landed, measured on the camera's image while it was on.
#pragma once

#include "stimhost/CalibratedDevice.h"
#include "stimhost/GreyImage.h"
#include "stimhost/Phase.h"
#include "stimhost/RoiText.h"

#include <string>

namespace Stimhost {

struct SLanding
{
    std::string title;
    std::string roi;
    std::string camera;      // "image 640 x 480, turned by 90 deg, ..."
    std::string calibration; // configuration string of the calibration in use; empty: none
    EQsCalibrationState state = eCalibrationStateNone;
    std::string refusal;             // why the device took no region; empty: it did
    double reach = 0.0;              // part of the requested pixels that the chip can light, by its calibration
    std::optional<SLitRegion> light; // none: the camera saw no light
    double errorPx = s_noTime;       // from the requested centre to that of the light [camera px]

    // For a picture.
    SQsGrabberImage image;
    SQsRLEPicBuf requested; // [image px]
    double dark = 0.0;
};

// A region on its way to a device and back from the camera.
class CLandingProbe
{
public:
    // Follows the hardware of now, unless `follow` is false, draws the region on the camera's image of now and hands it
    // to the device. False when the device refused, `Landing().refusal` says why; or with one line in `error` when the
    // region is no good for the image, or the camera does not answer.
    bool Prepare(const CCalibratedDevice& device, const SRoi& roi, bool follow, std::string& error);

    EQsCalibrationState State() const { return m_landing.state; }

    // As SRequest::whileRunning: looks until it sees the light, some frames at most. [blocks]
    void Look();

    // What was seen; call it once, after the stimulation.
    SLanding Take();

private:
    CCalibratedDevice m_device;
    SView m_view;
    SQsGrabberImage m_dark;
    SLanding m_landing;
};

// The camera's image in words.
std::string ViewText(const SView& view, const SQsCameraState& state);

} // namespace Stimhost
