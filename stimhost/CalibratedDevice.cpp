#include "stimhost/CalibratedDevice.h"

#include "calibration/SnapshotAccess.h"
#include "device/ChipTransformations.h"
#include "manager/StimulationManager.h"
#include "stimhost/Text.h"

#include <algorithm>

namespace Stimhost {

namespace {

template <class T>
std::shared_ptr<T> QueryShared(IQsInterface* object, const char* name)
{
    IQsInterface* const answered = CQsRTTI::Query(object, name);
    T* const wanted = dynamic_cast<T*>(answered);
    if (wanted == nullptr)
    {
        CQsRTTI::Release(answered);
        return nullptr;
    }
    return std::shared_ptr<T>(wanted, SReleaser());
}

// Names of the manager's devices, the active one first.
std::vector<CQsStringW> DeviceNames(CQsStimulationDeviceManager& manager)
{
    std::vector<CQsStringW> names;
    CQsStimulationDeviceManager::SQsInfo info;
    for (unsigned i = 0; manager.GetDeviceInfo(i, info) == QS_OK; ++i)
        names.insert(info.bActive ? names.begin() : names.end(), info.sName);
    return names;
}

} // namespace

bool CCalibratedDevice::Find(CQsStimulationDeviceManager& manager, const std::optional<std::string>& name,
                             CCalibratedDevice& found, std::string& error)
{
    std::string known;
    for (const CQsStringW& candidate : DeviceNames(manager))
    {
        CCalibratedDevice device;
        device.m_calibrated = QueryShared<IQsCalibratedStimulationDevice>(manager.GetDevice(candidate.c_str()),
                                                                          "IQsCalibratedStimulationDevice");
        if (device.m_calibrated == nullptr)
            continue;
        device.m_name = ToUtf8(candidate);
        known += (known.empty() ? "" : ", ") + device.m_name;
        if (name && device.m_name != *name)
            continue;
        device.m_device = QueryShared<IQsStimulationDevice>(device.m_calibrated.get(), "IQsStimulationDevice");
        const CQsStringW camera = device.m_calibrated->GetCalibrationCamera();
        device.m_cameraName = ToUtf8(camera);
        device.m_camera.reset(CQsGrabberManager::FindCamera(camera), SReleaser());
        if (device.m_device == nullptr || device.m_camera == nullptr)
        {
            error = device.m_name + ": expected a camera named \"" + device.m_cameraName + "\", found none";
            return false;
        }
        found = std::move(device);
        return true;
    }
    if (known.empty())
        error = "expected a device with a calibration, found none in the rig";
    else
        error = "no device with a calibration is named \"" + *name + "\"; expected one of: " + known;
    return false;
}

IQsStimulationDeviceCalibration* CCalibratedDevice::Owner() const
{
    return dynamic_cast<IQsStimulationDeviceCalibration*>(m_device.get());
}

void CCalibratedDevice::FollowHardware(bool* changed) const
{
    m_calibrated->UpdateHardware(); // a camera that is gone shows in the state
    bool ignored = false;
    Calibration().LoadCalibration(changed != nullptr ? *changed : ignored);
}

bool CCalibratedDevice::View(SView& view, std::string& error) const
{
    SView now;
    SQsGrabberFormatValue value;
    if (m_camera->GetFormat(now.format) != QS_OK || m_camera->GetFormatValue(value) != QS_OK)
    {
        error = m_cameraName + ": the camera does not answer";
        return false;
    }
    now.region = value.rcRegion;
    view = now;
    return true;
}

CMatrix3 CCalibratedDevice::CameraFromImage(const SView& view) const
{
    CMatrix3 cameraFromWhole = s_identity3;
    std::vector<double> rotation;
    std::vector<double> flip;
    std::vector<double> centre;
    Calibration().GetRotationMatrix(rotation);
    Calibration().GetFlipMatrix(flip);
    Calibration().GetTranslationVector(centre);
    IQsStimulationDevice::SQsTransformationHelper::GetMappingToUnrotatedCamera(rotation.data(), flip.data(),
                                                                               centre.data(), cameraFromWhole.data());
    // Where the region begins in the whole image, which is turned and flipped: at the smallest of its corners there.
    CPoint begin{view.region.left * 1.0, view.region.top * 1.0};
    if (const std::optional<CMatrix3> wholeFromCamera = Inverse(cameraFromWhole))
    {
        const CPoint a = Mapped(*wholeFromCamera, {view.region.left * 1.0, view.region.top * 1.0});
        const CPoint b = Mapped(*wholeFromCamera, {view.region.right * 1.0, view.region.bottom * 1.0});
        begin = {std::min(a.x, b.x), std::min(a.y, b.y)};
    }
    // A pixel's centre is half a pixel from its corner, and binning makes pixels of several of the sensor's.
    const double fx = view.format.fx;
    const double fy = view.format.fy;
    const CMatrix3 wholeFromImage = {fx, 0.0, begin.x + 0.5 * fx, 0.0, fy, begin.y + 0.5 * fy, 0.0, 0.0, 1.0};
    return Product(cameraFromWhole, wholeFromImage);
}

std::optional<CMatrix3> CCalibratedDevice::ChipFromImage(const SView& view,
                                                         const IQsStimulationDevice::SQsScanAreaDesc* area) const
{
    CMatrix3 matrix = s_identity3;
    if (m_calibrated->GetImageToChip(view.format, area, view.region, matrix.data()) != QS_OK)
        return std::nullopt;
    return matrix;
}

CQsStimulationDeviceConfiguration CCalibratedDevice::HardwareOfNow() const
{
    return *CQsSnapshotAccess(Calibration(), CQsSnapshotAccess::eCurrent);
}

std::string CCalibratedDevice::AdoptedKey() const
{
    CQsStimulationDeviceConfiguration calibrated(*CQsSnapshotAccess(Calibration(), CQsSnapshotAccess::eCalibrated));
    return calibrated.IsValid() ? ToUtf8(calibrated.GetConfigurationString()) : std::string();
}

bool IsOnChip(const CPoint& mirror, const CQsSizeBase<int>& chip)
{
    return mirror.x >= -0.5 && mirror.y >= -0.5 && mirror.x <= chip.cx - 0.5 && mirror.y <= chip.cy - 0.5;
}

const char* StateName(EQsCalibrationState state)
{
    switch (state)
    {
    case eCalibrationStateNone:
        return "None";
    case eCalibrationStateInvalid:
        return "Invalid";
    case eCalibrationStateChanged:
        return "Changed";
    case eCalibrationStateRotationUnknown:
        return "RotationUnknown";
    case eCalibrationStateIdentical:
        return "Identical";
    }
    return "unknown";
}

std::string StateText(EQsCalibrationState state)
{
    const char* meaning = "";
    switch (state)
    {
    case eCalibrationStateNone:
        meaning = "no usable calibration";
        break;
    case eCalibrationStateInvalid:
        meaning = "no calibration, or one of another camera or another rotation";
        break;
    case eCalibrationStateChanged:
        meaning = "a watched part of the microscope, or the illuminator, has changed since";
        break;
    case eCalibrationStateRotationUnknown:
        meaning = "it fits as far as is known, but the camera's rotation is not";
        break;
    case eCalibrationStateIdentical:
        meaning = "it fits the hardware of now";
        break;
    }
    return std::to_string(static_cast<int>(state)) + " " + StateName(state) + ": " + meaning;
}

std::string MatrixText(const std::string& title, const CMatrix3& matrix)
{
    std::string text = title + "\n";
    for (std::size_t row = 0; row < 3; ++row)
    {
        text += "   ";
        for (std::size_t column = 0; column < 3; ++column)
            text += Padded(Number(matrix[3 * row + column], 6), 15, true);
        text += "\n";
    }
    return text;
}

} // namespace Stimhost
