// A stimulation device with a micromirror chip that is calibrated against a camera. Found by querying a device for
// "IQsCalibratedStimulationDevice".
//
// Frames as in calibration/StimulationDeviceCalibration.h; mirror (x, y) is the one of column x and row y, its centre
// is the point (x, y) of the DMD frame.
#pragma once

#include "calibration/StimulationDeviceCalibration.h"

class IQsCalibratedStimulationDevice : virtual public IQsInterface
{
public:
    virtual CQsStimulationDeviceCalibration& GetCalibration() = 0; // the device's, lives as long
    virtual CQsStringW GetCalibrationCamera() = 0;                 // name of the camera
    virtual CQsSizeBase<int> GetChipSize() = 0;                    // mirrors

    // Reads the microscope and the camera of now into the current snapshot, and rotation, flip and translation into the
    // calibration; updates the state. -9 when the camera is not there: the snapshot then names no camera.
    virtual int UpdateHardware() = 0;

    // The mirrors of the next stimulation, as they stand, in place of all areas: what a calibration projects. -9 when
    // the picture has another size than the chip.
    virtual int SetChipPicture(const SQsRLEPicBuf& mirrors) = 0;
    // The mirrors that the areas of now light. -9, and nothing written, when they cannot be mapped.
    virtual int GetChipPicture(SQsRLEPicBuf& mirrors) = 0;

    // Matrix DMD <- image of that format and region (pixels of the image that the camera delivers), double[9], with the
    // hardware of now. Goes through SQsTransformationHelper::CalcTransformImgToChip, for a scan area through the point
    // conversions of SQsScanAreaHelper, and the calibration's mapping. -4 for a null matrix; -9, and nothing written,
    // when the camera does not answer, a number is not finite, the mapping is singular, or nothing was measured: the
    // matrix is the identity that a calibration starts from. A calibration of other hardware (states below
    // eCalibrationStateIdentical) is used all the same: ask for the state.
    virtual int GetImageToChip(const SQsGrabberFormatDesc& format,
                               const IQsStimulationDevice::SQsScanAreaDesc* pScanArea,
                               const CQsRectBase<int>& cameraRegion, double* matrix) = 0;

protected:
    ~IQsCalibratedStimulationDevice() = default;
};
