// Measures where a device's mirrors light: projects spots, finds them on the camera's image, fits the mapping.
#pragma once

#include "stimhost/AffineFit.h"
#include "stimhost/CalibratedDevice.h"
#include "stimhost/GreyImage.h"

#include <string>
#include <vector>

namespace Stimhost {

struct SSpotPair
{
    CPoint mirror; // centre of the projected spot [mirrors]
    CPoint image;  // where it was found [image px]
    CPoint camera; // the same on the sensor as it stands [camera px]
};

struct SMeasurement
{
    SView view;
    CMatrix3 cameraFromImage = s_identity3;
    unsigned projected = 0;
    std::vector<SSpotPair> spots; // those that were found
    SAffineFit fit;               // camera <- DMD, a pair for each spot; residuals in camera px
    CMatrix3 dmdFromCamera = s_identity3;
    std::string refusal; // why there is no calibration; empty: there is one
    bool interrupted = false;
    SQsGrabberImage picture; // the brightest of all frames
    double dark = 0.0;       // grey value of the picture where no light is
};

// Every spot is a disc of mirrors in a frame of its own, so that no two can be taken for each other, whatever dust or
// noise shows and however many lie outside the camera's view; where most do, the part of the chip that is in view gets
// a second grid. The calibration of the device stays as it is. The light is off at the end; an interrupt ends it early.
// [blocks]
SMeasurement MeasureCalibration(const CCalibratedDevice& device, unsigned columns, unsigned rows);

struct SCalibrationFigures;
SCalibrationFigures FiguresOf(const std::string& title, const SMeasurement& measurement, const SQsCameraState& camera);
// The figures as a person reads them.
std::string MeasurementText(const CCalibratedDevice& device, const SMeasurement& measurement);

// Makes the measured one the device's calibration, for the hardware of now, and saves it where asked. False, with one
// line, when it cannot be saved: then the calibration is in use all the same.
bool AdoptMeasurement(const CCalibratedDevice& device, const SMeasurement& measurement, bool save, std::string& error);

} // namespace Stimhost
