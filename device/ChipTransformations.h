// Transforms between a camera's chip and its image, and the mapping to the unrotated camera.
//
// Frames:
//   image    pixels of the image that the camera delivers: origin top left, y down
//   chip     pixels of the turned sensor, counted from the corner of the first one, divided by the reference size: the
//            longer side of the sensor, or, when the full field is asked for, the shorter one of the whole field
//   camera   pixels of the sensor as it stands, whatever the camera's rotation and flip
// Matrices are double[9], 3x3 row-major, for columns (x, y, 1). Products go through CBLAS.
//
// Nothing fails on its own and nothing throws: singular and non-finite input gives status 0 with elements that are not
// finite, or with a matrix left uninverted. Check what goes to a device. [any thread]
#pragma once

#include "device/StimulationDevice.h"

struct QS_STIM_API IQsStimulationDevice::SQsTransformationHelper
{
    // chip <- image.
    //   format           fx, fy: chip scale; rcSensor: the sensor
    //   angle            rotation of the camera [rad]
    //   scanArea         scan area of a confocal image, or null; counts only together with askFullFovZoom
    //   imageRect        part of the sensor in the image, or null for all of it
    //   askFullFovZoom   asks the confocal scanner for the zoom of its full field ("ConfocalV4Event_GetFullFOVSDKZoom")
    //   out              the matrix; null: 0, and the scanner is not asked
    // Returns 0.
    static int CalcTransformImgToChip(const SQsGrabberFormatDesc& format, double angle, const SQsScanAreaDesc* scanArea,
                                      const CQsRectBase<int>* imageRect, bool askFullFovZoom, double* out);
    // image <- chip: the inverse. The same arguments.
    static int CalcTransformChipToImg(const SQsGrabberFormatDesc& format, double angle, const SQsScanAreaDesc* scanArea,
                                      const CQsRectBase<int>* imageRect, bool askFullFovZoom, double* out);

    // camera <- image of a turned and flipped camera.
    //   A    rotation, 3x3
    //   B    flip, 3x3
    //   p    centre of the camera [px], 3 values (x, y, 1)
    //   out  3x3
    // Returns 0.
    static int GetMappingToUnrotatedCamera(const double* A, const double* B, const double* p, double* out);

    // One of the grabber's providers is a confocal scanner. False for null.
    static bool IsConfocal(CQsGenericProviderGrabber* grabber);
};
