// Scan-area geometry: where points, scan areas and crops of a point scanner lie in its images.
//
// Frames; every function names the two that it converts between:
//   area   field of the scanner: origin at its centre; at the reference zoom it spans [-1, +1] on both axes
//   image  pixels of the image acquired with scan area C: origin top left, y down
//   FCS    points relative to a scan area F: origin at its centre, [-1, +1] are its sides
// Angles inside an SQsScanAreaDesc are degrees; angles passed on their own are radians. Both are converted with
// pi = 3.1415926535898, so that an angle that goes both ways comes back.
//
// Arguments in common:
//   C      scan area that the image was acquired with
//   size   size of that image [px]
//   dZ0    reference zoom [ratio]; the effective zoom of an area is its dZoom / dZ0
//   mode   1, 5 and 6 treat the scan area as square; every other mode uses its aspect
// An output may be the same object as an input.
//
// Status: 0; -4 a null description or matrix: nothing is written; -9 as said at the function. Zoom, aspect or size 0
// give infinities and NaN with status 0. Nothing throws. [any thread]
#pragma once

#include "device/StimulationDevice.h"

struct QS_STIM_API IQsStimulationDevice::SQsScanAreaHelper
{
    // Values without a name of their own are the host's; they use the aspect.
    enum EScanAreaMode : std::int32_t
    {
        eScanAreaModeSquare = 1,
        eScanAreaModeAspect = 2,
        eScanAreaModeSquare5 = 5,
        eScanAreaModeSquare6 = 6,
        eScanAreaModeInternal = 7 // with aspect: what this module itself asks with
    };

    // image(C) <- area
    static int ConvertPointAreaToPointImg(const CQsPointBase<double>& areaPoint, CQsPointBase<double>& imagePoint,
                                          const SQsScanAreaDesc* C, CQsSizeBase<int> size, double dZ0);
    // area <- image(C)
    static int ConvertPointImgToPointArea(CQsPointBase<double>& areaPoint, const CQsPointBase<double>& imagePoint,
                                          const SQsScanAreaDesc* C, CQsSizeBase<int> size, double dZ0);
    // image(C) <- FCS(F)
    static int ConvertFCSPointAreaToPointImg(const CQsPointBase<double>& fcsPoint, CQsPointBase<double>& imagePoint,
                                             const SQsScanAreaDesc* C, CQsSizeBase<int> size, const SQsScanAreaDesc* F,
                                             double dZ0);
    // FCS(F) <- image(C)
    static int ConvertPointImgToFCSPointArea(CQsPointBase<double>& fcsPoint, const CQsPointBase<double>& imagePoint,
                                             const SQsScanAreaDesc* C, CQsSizeBase<int> size, const SQsScanAreaDesc* F,
                                             double dZ0);
    // area <- FCS(F)
    static int ConvertFCSPointAreaToAbsoluteArea(const CQsPointBase<double>& fcsPoint, CQsPointBase<double>& areaPoint,
                                                 const SQsScanAreaDesc* F, double dZ0);

    // image(C) <- scan area A: its rectangle before it is turned, and the angle that it is turned by about its centre.
    // The height comes from the width, not from the image's height: the scanner's field is square.
    static int ConvertScanAreaToRect(const SQsScanAreaDesc* A, CQsRectBase<double>& rect, double& angle,
                                     const SQsScanAreaDesc* C, CQsSizeBase<int> size, double dZ0, EScanAreaMode mode);
    // scan area A <- image(C). Writes zoom, angle, offsets and aspect of A. -9, and nothing written, when C has points.
    static int ConvertRectToScanArea(SQsScanAreaDesc* A, CQsRectBase<double> rect, double angle,
                                     const SQsScanAreaDesc* C, CQsSizeBase<int> size, double dZ0, EScanAreaMode mode);
    // image(C) <- crop of A; of an area without a crop the whole area. -9 when the area itself cannot be converted.
    static int ConvertCropAreaToRect(const SQsScanAreaDesc* A, CQsRectBase<double>& rect, double& angle,
                                     const SQsScanAreaDesc* C, CQsSizeBase<int> size, double dZ0, EScanAreaMode mode);
    // crop of A <- image(C). Switches the crop of A on and writes its zoom, aspect and offsets. The crop is turned as A
    // is; `angle` is not read.
    static int ConvertRectToCropArea(SQsScanAreaDesc* A, CQsRectBase<double> rect, double angle,
                                     const SQsScanAreaDesc* C, CQsSizeBase<int> size, double dZ0, EScanAreaMode mode);

    // Sides of the scan area in sides of its crop; (1, 1) without a crop. Does not depend on dZ0. -9 when a conversion
    // fails: then (1, 1).
    static int CalcCropFactor(const SQsScanAreaDesc* A, CQsSizeBase<double>& factor, double dZ0);

    // Matrix image(A) <- image(full field).
    //   size    image of the full field [px]
    //   matrix  out, double[9], 3x3 row-major, for columns (x, y, 1); the caller's storage
    // -9 when the area cannot be converted: then nothing is written. Within 1e-6 (radians, ratio, pixels) of the
    // identity it writes exactly the identity.
    static int CalcTransformMatrixToArea(const SQsScanAreaDesc* A, const CQsSizeBase<int>& size, double* matrix,
                                         double dZ0);
};
