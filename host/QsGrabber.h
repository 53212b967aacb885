// The host's grabber manager: descriptions of camera formats.
#pragma once

#include "host/QsSystem.h"

// Format of a camera's frames. Real-valued fields read -1.0 where the camera gives no value.
struct SQsGrabberFormatDesc
{
    CQsStringW sName;
    CQsStringW sUserName;
    CQsSizeBase<int> size;     // frame [px]
    CQsSizeBase<int> binning;  // camera pixels in one frame pixel
    double dPixelSizeX = -1.0; // [um]
    double dPixelSizeY = -1.0; // [um]
    double fx = -1.0;          // horizontal chip scale
    double fy = -1.0;          // vertical chip scale
    CQsRectBase<int> rcSensor; // sensor rectangle [camera px]
};
