// The device that a command calibrates or draws on, with the camera that watches what it lights.
#pragma once

#include "calibration/CalibratedDevice.h"
#include "host/QsGrabber.h"
#include "stimhost/Matrix3.h"

#include <memory>
#include <optional>
#include <string>

class CQsStimulationDeviceManager;
class IQsStimulationDeviceCalibration;

namespace Stimhost {

struct SReleaser
{
    void operator()(IQsInterface* object) const { CQsRTTI::Release(object); }
};
// What the camera delivers now.
struct SView
{
    SQsGrabberFormatDesc format;
    CQsRectBase<int> region; // of the sensor [camera px]

    int Width() const { return format.size.cx; } // of the image [px]
    int Height() const { return format.size.cy; }
};

// Copies share the objects.
class CCalibratedDevice
{
public:
    // Device of that name; without a name the active one when it has a calibration, or the first that has one. Its
    // camera must be there. False, with one line, and `found` unchanged.
    static bool Find(CQsStimulationDeviceManager& manager, const std::optional<std::string>& name,
                     CCalibratedDevice& found, std::string& error);

    IQsStimulationDevice& Device() const { return *m_device; }
    IQsCalibratedStimulationDevice& Calibrated() const { return *m_calibrated; }
    CQsStimulationDeviceCalibration& Calibration() const { return m_calibrated->GetCalibration(); }
    IQsStimulationDeviceCalibration* Owner() const; // null when the device does not show it
    IQsGrabberCamera& Camera() const { return *m_camera; }
    const std::string& Name() const { return m_name; }
    const std::string& CameraName() const { return m_cameraName; }

    // Reads the hardware of now and adopts the saved calibration that fits it best.
    void FollowHardware(bool* changed = nullptr) const;
    // False, with one line, when the camera does not answer.
    bool View(SView& view, std::string& error) const;

    // Matrix camera <- image: from pixels of the image of now to those of the sensor as it stands.
    CMatrix3 CameraFromImage(const SView& view) const;
    // Matrix DMD <- image. None when the device has no usable mapping.
    std::optional<CMatrix3> ChipFromImage(const SView& view, const IQsStimulationDevice::SQsScanAreaDesc* area) const;

    CQsStimulationDeviceConfiguration HardwareOfNow() const; // a copy of the current snapshot
    std::string AdoptedKey() const; // configuration string of the calibration in use; empty: none is
    EQsCalibrationState State() const { return Calibration().GetCurrentCalibrationState(); }

private:
    std::string m_name;
    std::string m_cameraName;
    std::shared_ptr<IQsStimulationDevice> m_device;
    std::shared_ptr<IQsCalibratedStimulationDevice> m_calibrated;
    std::shared_ptr<IQsGrabberCamera> m_camera;
};

bool IsOnChip(const CPoint& mirror, const CQsSizeBase<int>& chip);

// "Changed", ...; and with what it means: "2 Changed: ...".
const char* StateName(EQsCalibrationState state);
std::string StateText(EQsCalibrationState state);
// Title and three rows.
std::string MatrixText(const std::string& title, const CMatrix3& matrix);

} // namespace Stimhost
