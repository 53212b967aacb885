// Simulated micromirror device: lights regions of a camera's image through its calibration against that camera.
//
// Its light lies on the optical bench while it is on, so that the simulated cameras see it. What is lit is worked out
// anew at every upload and every begin, with the hardware of that moment; without a usable mapping nothing is lit.
#include "calibration/CalibratedDevice.h"
#include "device/ChipTransformations.h"
#include "device/ClassRegistration.h"
#include "device/ScanAreaGeometry.h"
#include "plugins/ChipMapping.h"
#include "plugins/OpticalBench.h"
#include "plugins/PatternedDevice.h"
#include "plugins/SettingsReader.h"

#include <Eigen/Core>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <initializer_list>

namespace {

constexpr int statusNullArgument = -4;
constexpr unsigned stateCalibrationChanged = 2; // of the device, for who hears of its changes of state
constexpr double pi = 3.14159265358979323846;

using Matrix3 = Eigen::Matrix<double, 3, 3, Eigen::RowMajor>;

struct SMicromirrorSettings
{
    SSimulatedDeviceSettings device;
    std::string camera = "Simulated camera";
    std::string calibrationFile = "calibrations.json";
    std::string section = "Stimulation";
    std::vector<std::string> watches = {"filterChangers", "objective", "manualZoom", "camera"};
    CQsSizeBase<int> chip = {1024, 768}; // mirrors
};

SMicromirrorSettings ReadSettings(const CQsClassInfo& info)
{
    constexpr double longestSide = 8192.0;
    SMicromirrorSettings defaults;
    defaults.device.name = "CQsSimMicromirrorDevice";
    defaults.device.displayName = "Simulated micromirror device";
    defaults.device.mode = IQsStimulationDevice::s_modeRepeatedPatterns;
    defaults.device.kinds = {IQsStimulationDevice::eStimContinuous, IQsStimulationDevice::eStimTimed,
                             IQsStimulationDevice::eStimRepeatedPatterns};
    defaults.device.exposureMs = 20.0;
    SMicromirrorSettings settings = defaults;
    const bool right = ReadHostSettings(info.GetName(),
                                        [&settings](CQsSettingsReader& reader)
                                        {
                                            ReadDeviceKeys(reader, settings.device);
                                            reader.Text("camera", settings.camera);
                                            reader.Text("calibrationFile", settings.calibrationFile);
                                            if (settings.calibrationFile.empty())
                                                reader.Complain("calibrationFile", "the name of a file");
                                            reader.Text("section", settings.section);
                                            reader.ChoiceList("watches", settings.watches,
                                                              {"filterChangers", "objective", "manualZoom", "lights",
                                                               "camera", "cameraRotation", "microscope"});
                                            reader.Whole("chipWidth", settings.chip.cx, 1.0, longestSide);
                                            reader.Whole("chipHeight", settings.chip.cy, 1.0, longestSide);
                                        });
    return right ? settings : defaults;
}

std::vector<EQsWatchedDeviceType> WatchedTypes(const std::vector<std::string>& names)
{
    static const std::pair<const char*, EQsWatchedDeviceType> known[] = {{"filterChangers", eWatchedFilterChangers},
                                                                         {"objective", eWatchedObjective},
                                                                         {"manualZoom", eWatchedManualZoom},
                                                                         {"lights", eWatchedLights},
                                                                         {"camera", eWatchedCamera},
                                                                         {"cameraRotation", eWatchedCameraRotation},
                                                                         {"microscope", eWatchedMicroscope}};
    std::vector<EQsWatchedDeviceType> types;
    for (const auto& type : known)
        if (std::find(names.begin(), names.end(), type.first) != names.end())
            types.push_back(type.second);
    return types;
}

bool IsIdentity(const std::vector<double>& matrix)
{
    return matrix == std::vector<double>{1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
}

bool IsMountedAlike(const SQsCameraState& a, const SQsCameraState& b)
{
    return a.dRotation == b.dRotation && a.bFlipped == b.bFlipped;
}

// Whether a scan area is one that a scanner can sweep.
bool IsScannable(const IQsStimulationDevice::SQsScanAreaDesc& area)
{
    const auto likely = [](std::initializer_list<double> numbers)
    {
        constexpr double greatest = 1e6;
        return std::all_of(numbers.begin(), numbers.end(),
                           [](double number) { return std::abs(number) <= greatest; }); // false for NaN
    };
    const bool field = likely({area.dZoom, area.dAngle, area.dXOffset, area.dYOffset, area.dScanAreaAspect}) &&
                       area.dZoom > 0.0 && area.dScanAreaAspect > 0.0;
    const bool crop = likely({area.dCropXOffset, area.dCropYOffset, area.dCropZoom, area.dCropAspect}) &&
                      area.dCropZoom > 0.0 && area.dCropAspect > 0.0;
    return field && (crop || !area.bIsCrop);
}

// The whole image of the full field <- the whole image that was acquired with the scan area, both of that size and
// counted from the corner of the first pixel.
//
// By way of the scanner's field, as the galvanometer goes. CalcTransformImgToChip places scan areas, too, but in an
// image with square pixels alone, and a crop that is turned about the middle of its uncropped size: lines that are
// drawn on one image would be lit at other places by mirrors than by a beam.
Matrix3 FullFieldFromScanned(const IQsStimulationDevice::SQsScanAreaDesc& area, const CQsSizeBase<int>& size)
{
    using Geometry = IQsStimulationDevice::SQsScanAreaHelper;
    const IQsStimulationDevice::SQsScanAreaDesc fullField;
    const double zoom = QsFullFieldZoom();
    const CQsPointBase<double> corners[3] = {{0.0, 0.0}, {1.0 * size.cx, 0.0}, {0.0, 1.0 * size.cy}};
    CQsPointBase<double> to[3];
    for (int i = 0; i < 3; ++i)
    {
        Geometry::ConvertPointImgToPointArea(to[i], corners[i], &area, size, zoom);
        Geometry::ConvertPointAreaToPointImg(to[i], to[i], &fullField, size, zoom);
    }
    Matrix3 placed;
    placed << (to[1].x - to[0].x) / size.cx, (to[2].x - to[0].x) / size.cy, to[0].x, //
        (to[1].y - to[0].y) / size.cx, (to[2].y - to[0].y) / size.cy, to[0].y,       //
        0.0, 0.0, 1.0;
    return placed;
}

// Bit by bit, so that a matrix that is not a number is the same as itself.
bool AreSame(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

// A reference to a camera, for a scope.
class CCamera
{
public:
    explicit CCamera(const CQsStringW& name) : m_camera(CQsGrabberManager::FindCamera(name)) {}
    ~CCamera() { CQsRTTI::Release(m_camera); }
    CCamera(const CCamera&) = delete;
    CCamera& operator=(const CCamera&) = delete;

    // Whether the camera is there and answers.
    bool IsThere()
    {
        SQsGrabberFormatValue format;
        return m_camera != nullptr && m_camera->GetFormatValue(format) == QS_OK;
    }
    IQsGrabberCamera* operator->() const { return m_camera; }
    explicit operator bool() const { return m_camera != nullptr; }

private:
    IQsGrabberCamera* const m_camera;
};

} // namespace

class CQsSimMicromirrorDevice : public CQsSimPatternedDevice,
                                public IQsStimulationDeviceCalibration,
                                public IQsCalibratedStimulationDevice
{
public:
    CQsSimMicromirrorDevice();
    ~CQsSimMicromirrorDevice() override;

    const CQsClassInfo* GetClass() const override { return CQsSimPatternedDevice::GetClass(); }
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDeviceCalibration
    void GetWatchedDeviceTypes(std::vector<EQsWatchedDeviceType>& types) override { types = m_watched; }
    void OnCalibrationStateChanged(EQsCalibrationState state) override;
    CQsStringW GetCalibrationFileName() override;
    CQsStringW GetCalibrationSectionName() override { return CQsStringW::FromUtf8(m_own.section); }
    CQsStringW GetCalibrationDeviceName() override { return GetUniqueName(); }
    int GetCameraFlipReference(double* a, double* b, double* c, double* d) override;
    int GetCameraFormat(SQsGrabberFormatValue& format) override;

    // IQsCalibratedStimulationDevice
    CQsStimulationDeviceCalibration& GetCalibration() override { return m_calibration; }
    CQsStringW GetCalibrationCamera() override { return m_camera; }
    CQsSizeBase<int> GetChipSize() override { return Chip(); }
    int UpdateHardware() override;
    int SetChipPicture(const SQsRLEPicBuf& mirrors) override;
    int GetChipPicture(SQsRLEPicBuf& mirrors) override;
    int GetImageToChip(const SQsGrabberFormatDesc& format, const SQsScanAreaDesc* pScanArea,
                       const CQsRectBase<int>& cameraRegion, double* matrix) override;

protected:
    void AcceptAreas(SAreas& areas) override;
    int PrepareLight() override;
    bool LightComesOn(std::string& text) override;
    void LightGoesOff() override;

private:
    // What a mapping depends on, read together.
    struct SHardware
    {
        SQsCameraState camera;
        std::vector<double> imageToMirrors; // DMD <- whole image of the camera
        bool calibrated = false;
        EQsCalibrationState state = eCalibrationStateNone;
    };

    explicit CQsSimMicromirrorDevice(const SMicromirrorSettings& settings);

    int ReadHardware(SHardware& hardware);
    int ImageToChip(const SHardware& hardware, const SQsGrabberFormatDesc& format, const SQsScanAreaDesc* pScanArea,
                    const CQsRectBase<int>& cameraRegion, double* matrix) const;
    int Refuse(const char* reason) const; // one line in the log; -9

    const SMicromirrorSettings m_own;
    const CQsStringW m_camera;
    const std::vector<EQsWatchedDeviceType> m_watched;
    std::atomic<EQsCalibrationState> m_state{eCalibrationStateInvalid}; // what a calibration begins with
    // What the calibration's flip stands for: the camera may be flipped and back again between two looks at its state.
    enum EFlip
    {
        flipUnknown,
        upright,
        flipped
    };
    std::atomic<EFlip> m_flipTold{flipUnknown};
    CQsStimulationDeviceCalibration m_calibration;

    CQsMutex m_hardwareLock; // one reading of the hardware at a time; taken before the calibration's locks
    CQsMutex m_readyLock;
    ChipLight m_ready QS_GUARDED_BY(m_readyLock); // what the next light lights; null: nothing may be lit
};

QS_REGISTER_STIMULATION_CLASS(CQsSimMicromirrorDevice, "Simulated micromirror device");

CQsSimMicromirrorDevice::CQsSimMicromirrorDevice()
    : CQsSimMicromirrorDevice(ReadSettings(sm_classCQsSimMicromirrorDevice))
{}

CQsSimMicromirrorDevice::CQsSimMicromirrorDevice(const SMicromirrorSettings& settings)
    : CQsSimPatternedDevice(sm_classCQsSimMicromirrorDevice, settings.device, settings.chip), m_own(settings),
      m_camera(CQsStringW::FromUtf8(settings.camera)), m_watched(WatchedTypes(settings.watches)), m_calibration(this)
{}

CQsSimMicromirrorDevice::~CQsSimMicromirrorDevice()
{
    SwitchOff();
}

IQsInterface* CQsSimMicromirrorDevice::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsCalibratedStimulationDevice") != 0)
        return CQsSimPatternedDevice::QueryInterface(name);
    AddRef();
    return static_cast<IQsCalibratedStimulationDevice*>(this);
}

// ------------------------------------------------------------------------------------------------------ calibration

// Comes under the calibration's lock, where the manager must not be waited for.
void CQsSimMicromirrorDevice::OnCalibrationStateChanged(EQsCalibrationState state)
{
    if (m_state.exchange(state) != state)
        ReportStateChange(stateCalibrationChanged);
}

CQsStringW CQsSimMicromirrorDevice::GetCalibrationFileName()
{
    namespace fs = std::filesystem;
    const fs::path folder = fs::u8path(QS_GetSettingsFolder().ToUtf8());
    return CQsStringW::FromUtf8((folder / fs::u8path(m_own.calibrationFile)).generic_u8string()); // or an absolute one
}

int CQsSimMicromirrorDevice::GetCameraFlipReference(double* a, double* b, double* c, double* d)
{
    if (!a || !b || !c || !d)
        return statusNullArgument;
    const CCamera camera(m_camera);
    const int status = camera ? camera->GetFlipReference(*a, *b, *c, *d) : QS_ERR_FAIL;
    m_flipTold = status != QS_OK ? flipUnknown : std::abs(*a - *d) > 0.0001 ? flipped : upright; // as it is read
    return status;
}

int CQsSimMicromirrorDevice::GetCameraFormat(SQsGrabberFormatValue& format)
{
    const CCamera camera(m_camera);
    return camera ? camera->GetFormatValue(format) : QS_ERR_FAIL;
}

int CQsSimMicromirrorDevice::UpdateHardware()
{
    SHardware hardware;
    return ReadHardware(hardware);
}

int CQsSimMicromirrorDevice::ReadHardware(SHardware& hardware)
{
    const CQsScopedLock<CQsMutex> guard(m_hardwareLock);
    const SQsDMApiHardware now = DMApi::Hardware_Get();
    CCamera camera(m_camera);
    const bool cameraThere = camera.IsThere();

    // Filled aside and put in place whole: a comparison on another thread sees the old hardware or the new one.
    CQsStimulationDeviceConfiguration* const current = m_calibration.AccessConfigurationCurrent();
    CQsStimulationDeviceConfiguration filled(*current);
    filled.Clear();
    filled.SetWatchedDeviceTypes({m_watched.begin(), m_watched.end()}); // the owner's do not reach it otherwise
    filled.AddMicroscope(now.sMicroscope);
    filled.AddObjective(now.sObjective);
    filled.AddManualZoom(now.dManualZoom);
    for (const CQsStringW& light : now.lights)
        filled.AddLight(light);
    for (const SQsDMApiHardware::SFilterChanger& changer : now.filterChangers)
        filled.AddFilterChanger(changer.sKey, changer.sName, changer.iPosition);
    for (const SQsDMApiHardware::SMultilaser& unit : now.multilasers)
        filled.AddMultilaser(unit.sName, unit.uiNumber);
    filled.SetORBAConnected(now.bIlluminatorConnected);
    filled.AddConnectionPort(now.iIlluminatorPort);
    if (cameraThere)
        filled.AddCamera(m_camera);
    *current = filled;
    m_calibration.UnaccessConfigurationCurrent(current);

    bool read = false;
    for (int attempt = 0; cameraThere && !read && attempt < 3; ++attempt)
    {
        hardware.camera = camera->GetState();
        m_calibration.SetCameraRotationCurrent(hardware.camera.dRotation);
        // The calibration asks the camera itself: a camera that is turned or flipped meanwhile is read again, and one
        // that does not answer is not taken for one that stands upright.
        const bool updated =
            m_calibration.UpdateFlipMatrix() == QS_OK && m_calibration.UpdateTranslationVector() == QS_OK;
        read = updated && IsMountedAlike(hardware.camera, camera->GetState()) &&
               m_flipTold == (hardware.camera.bFlipped ? flipped : upright);
    }
    m_calibration.UpdateCalibrationState();
    hardware.state = m_state; // the calibration's own is read without its lock

    // The mapping is that of the measured matrix only when the matrix is the same before and after.
    std::vector<double> measured;
    std::vector<double> after;
    m_calibration.GetCalibrationCamToDMD(measured);
    m_calibration.GetMappingCamToDMD(hardware.imageToMirrors);
    m_calibration.GetCalibrationCamToDMD(after);
    // Whoever loads a calibration meanwhile asks for the flip again.
    read = read && m_flipTold == (hardware.camera.bFlipped ? flipped : upright);
    // The identity is what a calibration starts from, and falls back to when none is saved: it says nothing about where
    // light would land.
    hardware.calibrated = hardware.state != eCalibrationStateNone && AreSame(measured, after) && measured.size() == 9 &&
                          !IsIdentity(measured);
    return read ? QS_OK : QS_ERR_FAIL;
}

int CQsSimMicromirrorDevice::GetImageToChip(const SQsGrabberFormatDesc& format, const SQsScanAreaDesc* pScanArea,
                                            const CQsRectBase<int>& cameraRegion, double* matrix)
{
    if (!matrix)
        return statusNullArgument;
    SHardware hardware;
    if (ReadHardware(hardware) != QS_OK)
        return Refuse("the camera is not there or does not answer");
    return ImageToChip(hardware, format, pScanArea, cameraRegion, matrix);
}

int CQsSimMicromirrorDevice::ImageToChip(const SHardware& hardware, const SQsGrabberFormatDesc& format,
                                         const SQsScanAreaDesc* pScanArea, const CQsRectBase<int>& cameraRegion,
                                         double* matrix) const
{
    const CQsRectBase<int>& sensor = format.rcSensor;
    if (!hardware.calibrated)
        return Refuse("there is no calibration");
    constexpr int widest = 1 << 20; // [px] no sensor is wider, and sums of such sides do not overflow
    const bool likely = std::min({sensor.left, sensor.top, cameraRegion.left, cameraRegion.top}) >= -widest &&
                        std::max({sensor.right, sensor.bottom, cameraRegion.right, cameraRegion.bottom}) <= widest &&
                        sensor.right > sensor.left && sensor.bottom > sensor.top &&
                        cameraRegion.right >= cameraRegion.left && cameraRegion.bottom >= cameraRegion.top;
    if (!(format.fx > 0.0) || !(format.fy > 0.0) || !likely)
        return Refuse("the format says nothing of the sensor or the binning");
    if (pScanArea && !IsScannable(*pScanArea))
        return Refuse("no scanner sweeps such a scan area");

    // The transformation to the chip knows no flip: it is given the region as it lies in the image that is not flipped.
    CQsRectBase<int> region = cameraRegion;
    const bool whole = region.Width() == 0 && region.Height() == 0;
    const bool quarterTurn = std::fmod(hardware.camera.dRotation, 180.0) != 0.0;
    if (hardware.camera.bFlipped && !quarterTurn)
    {
        region.top = sensor.top + sensor.bottom - cameraRegion.bottom;
        region.bottom = sensor.top + sensor.bottom - cameraRegion.top;
    }
    else if (hardware.camera.bFlipped)
    {
        region.left = sensor.left + sensor.right - cameraRegion.right;
        region.right = sensor.left + sensor.right - cameraRegion.left;
    }
    Matrix3 imageToSensor; // in its reference size, the longer side
    SQsTransformationHelper::CalcTransformImgToChip(format, hardware.camera.dRotation * pi / 180.0, nullptr,
                                                    whole ? nullptr : &region, false, imageToSensor.data());
    Matrix3 pixels = Matrix3::Identity();
    pixels(0, 0) = pixels(1, 1) = std::max(sensor.Width(), sensor.Height());
    // The scan area says where this image lies in the one that the camera would deliver of the full field.
    Matrix3 placed = Matrix3::Identity();
    if (pScanArea)
        placed = FullFieldFromScanned(*pScanArea, quarterTurn ? CQsSizeBase<int>{sensor.Height(), sensor.Width()}
                                                              : CQsSizeBase<int>{sensor.Width(), sensor.Height()});
    // That transformation leads to the centre of the first of the binned sensor pixels, not to that of all of them.
    Matrix3 centres = Matrix3::Identity();
    centres(0, 2) = (format.fx - 1.0) / (2.0 * format.fx);
    centres(1, 2) = (format.fy - 1.0) / (2.0 * format.fy);
    if (hardware.imageToMirrors.size() != 9)
        return Refuse("the calibration has no nine elements");
    const Eigen::Map<const Matrix3> mapping(hardware.imageToMirrors.data());
    const Matrix3 result = mapping * placed * pixels * imageToSensor * centres;
    double inverse[9];
    if (!InvertAffine(result.data(), inverse))
        return Refuse("the mapping is singular, not finite or not affine");
    std::copy(result.data(), result.data() + 9, matrix);
    return QS_OK;
}

int CQsSimMicromirrorDevice::Refuse(const char* reason) const
{
    DiagOutputExW(L"SimulatedDevices", __LINE__, L"%s - image points cannot be mapped to mirrors: %hs, QS_ERR_FAIL",
                  GetUniqueName().c_str(), reason);
    return QS_ERR_FAIL;
}

// ------------------------------------------------------------------------------------------------------------ light

void CQsSimMicromirrorDevice::AcceptAreas(SAreas& areas)
{
    const CCamera camera(m_camera);
    if (camera)
        areas.camera = camera->GetState();
}

int CQsSimMicromirrorDevice::SetChipPicture(const SQsRLEPicBuf& mirrors)
{
    return Journaled([&] { return "SetChipPicture(" + std::to_string(CountLit(mirrors)) + " mirrors)"; },
                     [&]
                     {
                         if (!CQsMirrors(Chip()).Fits(mirrors))
                             return QS_ERR_FAIL;
                         SAreas areas;
                         areas.onChip = true;
                         CQsRLEPicBufAPI::Copy(areas.picture, mirrors);
                         ReplaceAreas(std::move(areas));
                         return QS_OK;
                     });
}

int CQsSimMicromirrorDevice::GetChipPicture(SQsRLEPicBuf& mirrors)
{
    const std::vector<SAreas> areas = Areas();
    CQsMirrors on(Chip());
    if (PresetAreas() != 0)
        on.AddAll();
    SHardware hardware;
    bool read = false;
    for (const SAreas& area : areas)
    {
        if (area.onChip)
        {
            on.AddChipPicture(area.picture);
            continue;
        }
        if (area.picture.runs.empty())
            continue;
        if (!read && ReadHardware(hardware) != QS_OK)
            return Refuse("the camera is not there or does not answer");
        read = true;
        // The picture belongs to an image that the camera delivered when the area was given. Mapped as an image of now
        // it would light another part of the specimen.
        if (!IsMountedAlike(area.camera, hardware.camera))
            return Refuse("the camera was turned or flipped after the areas were given");
        double imageToChip[9];
        if (ImageToChip(hardware, area.format, area.hasScanArea ? &area.scanArea : nullptr, area.cameraRegion,
                        imageToChip) != QS_OK)
            return QS_ERR_FAIL;
        if (!on.AddImagePicture(area.picture, imageToChip)) // the matrix is a usable one
            return Refuse("the picture is larger than any image");
    }
    if (read && hardware.state < eCalibrationStateRotationUnknown)
        DiagOutputExW(L"SimulatedDevices", __LINE__,
                      L"%s - the areas are mapped by a calibration of other hardware, state %d",
                      GetUniqueName().c_str(), static_cast<int>(hardware.state));
    mirrors = on.Picture();
    return QS_OK;
}

int CQsSimMicromirrorDevice::PrepareLight()
{
    auto light = std::make_shared<SQsRLEPicBuf>();
    int status = GetChipPicture(*light);
    const std::vector<SAreas> areas = Areas();
    // Mirrors that were given as they stand may all be off.
    const bool darkOnPurpose = std::any_of(areas.begin(), areas.end(), [](const SAreas& area) { return area.onChip; });
    if (status == QS_OK && light->runs.empty() && !darkOnPurpose)
    {
        DiagOutputExW(L"SimulatedDevices", __LINE__, L"%s - %hs, QS_ERR_FAIL", GetUniqueName().c_str(),
                      areas.empty() ? "there is no area to light" : "the areas lie beside the chip");
        status = QS_ERR_FAIL;
    }
    const CQsScopedLock<CQsMutex> guard(m_readyLock);
    m_ready = status == QS_OK ? light : nullptr;
    return status;
}

bool CQsSimMicromirrorDevice::LightComesOn(std::string& text)
{
    const CQsScopedLock<CQsMutex> guard(m_readyLock);
    if (!m_ready)
        return false;
    CQsOpticalBench::Light(this, m_camera, m_ready);
    text = std::to_string(CountLit(*m_ready)) + " mirrors";
    return true;
}

void CQsSimMicromirrorDevice::LightGoesOff()
{
    CQsOpticalBench::Light(this, m_camera, nullptr);
}
