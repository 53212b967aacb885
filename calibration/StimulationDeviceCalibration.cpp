#include "calibration/StimulationDeviceCalibration.h"

#include "calibration/Matrix3.h"
#include "calibration/OwnerCall.h"
#include "calibration/SnapshotAccess.h"
#include "device/Angles.h"
#include "device/ChipTransformations.h"
#include "device/Diagnostics.h"

#include <cblas.h>

#include <cmath>

#define QS_DIAG_UNIT L"StimulationDeviceCalibration"

// The nine elements of a 3x3 matrix as they are stored, for a message.
#define QS_ELEMENTS(m) (m)[0], (m)[1], (m)[2], (m)[3], (m)[4], (m)[5], (m)[6], (m)[7], (m)[8]

namespace {

constexpr std::size_t matrixSize = 9;

double Half(int from, int to)
{
    return static_cast<double>((std::int64_t{to} - from) / 2); // of whole pixels
}

} // namespace

// ----------------------------------------------------------------------------------------------------------- lifetime

CQsStimulationDeviceCalibration::CQsStimulationDeviceCalibration(IQsStimulationDeviceCalibration* pOwner)
    : m_pOwner(pOwner)
{
    InitializeCriticalSection(&m_MainLock);
    InitializeCriticalSection(&m_CurrentLock);
    InitializeCriticalSection(&m_CalibratedLock);

    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    m_pdCalibrationMatrixDMDToCam = QsIdentity3();
    m_pdCalibrationMatrixCamToDMD = QsIdentity3();
    m_pdRotationMatrix = QsIdentity3();
    m_pdFlipMatrix = QsIdentity3();
    m_pdMappingMatrixCamToDMD = QsIdentity3();
    m_pdMappingMatrixDMDToCam = QsIdentity3();
    if (m_pOwner != nullptr)
    {
        std::vector<EQsWatchedDeviceType> types;
        QS_OWNER_CALL(0, L"GetWatchedDeviceTypes", (m_pOwner->GetWatchedDeviceTypes(types), 0));
        m_WatchedDeviceTypes = {types.begin(), types.end()};
    }
    m_pdTranslationVector = {0.0, 0.0, 0.0};
}

CQsStimulationDeviceCalibration::CQsStimulationDeviceCalibration(const CQsStimulationDeviceCalibration& other)
    : m_pOwner(nullptr)
{
    InitializeCriticalSection(&m_MainLock);
    InitializeCriticalSection(&m_CurrentLock);
    InitializeCriticalSection(&m_CalibratedLock);
    CopyFrom(other);
}

CQsStimulationDeviceCalibration&
CQsStimulationDeviceCalibration::operator=(const CQsStimulationDeviceCalibration& other)
{
    if (this != &other)
        CopyFrom(other);
    return *this;
}

// The locks are not copied: bytes of a section that a thread is in could never be entered, and would be deleted twice.
void CQsStimulationDeviceCalibration::CopyFrom(const CQsStimulationDeviceCalibration& other)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, false);
    const CQsConfigurationAutoLock current(&m_CurrentLock, false);
    const CQsConfigurationAutoLock calibrated(&m_CalibratedLock, false);
    m_pOwner = other.m_pOwner;
    m_eState = other.m_eState.load();
    m_dCameraRotationCurrent = other.m_dCameraRotationCurrent;
    m_ScanAreaDesc = other.m_ScanAreaDesc;
    m_sLoadedCalibration = other.m_sLoadedCalibration;
    m_pdRotationMatrix = other.m_pdRotationMatrix;
    m_pdFlipMatrix = other.m_pdFlipMatrix;
    m_pdTranslationVector = other.m_pdTranslationVector;
    m_pdCalibrationMatrixDMDToCam = other.m_pdCalibrationMatrixDMDToCam;
    m_pdCalibrationMatrixCamToDMD = other.m_pdCalibrationMatrixCamToDMD;
    m_pdMappingMatrixCamToDMD = other.m_pdMappingMatrixCamToDMD;
    m_pdMappingMatrixDMDToCam = other.m_pdMappingMatrixDMDToCam;
    m_CameraROI = other.m_CameraROI;
    m_WatchedDeviceTypes = other.m_WatchedDeviceTypes;
    m_Current = other.m_Current;
    m_Calibrated = other.m_Calibrated;
    m_Spare = other.m_Spare;
}

CQsStimulationDeviceCalibration::~CQsStimulationDeviceCalibration()
{
    DeleteCriticalSection(&m_CalibratedLock);
    DeleteCriticalSection(&m_CurrentLock);
    DeleteCriticalSection(&m_MainLock);
}

// --------------------------------------------------------------------------------------------------- measured matrices

int CQsStimulationDeviceCalibration::SetCalibrationDMDToCam(const std::vector<double>& matrix)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    m_pdCalibrationMatrixDMDToCam = matrix;
    if (matrix.size() == matrixSize)
        QS_DIAG_DETAILED(
            L"CQsStimulationDeviceCalibration::SetCalibrationDMDToCam: Calibration matrix DMD -> Camera set to:\n[\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\t]",
            QS_ELEMENTS(matrix));
    UpdateMapping();
    return QS_OK;
}

int CQsStimulationDeviceCalibration::SetCalibrationCamToDMD(const std::vector<double>& matrix)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    m_pdCalibrationMatrixCamToDMD = matrix;
    if (matrix.size() == matrixSize)
        QS_DIAG_DETAILED(
            L"CQsStimulationDeviceCalibration::SetCalibrationCamToDMD: Calibration matrix Camera -> DMD set to:\n[\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\t]",
            QS_ELEMENTS(matrix));
    UpdateMapping();
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetCalibrationDMDToCam(std::vector<double>& matrix)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    matrix = m_pdCalibrationMatrixDMDToCam;
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetCalibrationCamToDMD(std::vector<double>& matrix)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    matrix = m_pdCalibrationMatrixCamToDMD;
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetMappingDMDToCam(std::vector<double>& matrix)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    matrix = m_pdMappingMatrixDMDToCam;
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetMappingCamToDMD(std::vector<double>& matrix)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    matrix = m_pdMappingMatrixCamToDMD;
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetRotationMatrix(std::vector<double>& matrix)
{
    matrix = m_pdRotationMatrix;
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetFlipMatrix(std::vector<double>& matrix)
{
    matrix = m_pdFlipMatrix;
    return QS_OK;
}

int CQsStimulationDeviceCalibration::GetTranslationVector(std::vector<double>& vector)
{
    vector = m_pdTranslationVector;
    return QS_OK;
}

// -------------------------------------------------------------------------------------------------------------- camera

int CQsStimulationDeviceCalibration::SetCameraRotationCurrent(double dDegrees)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    int status = QS_OK;
    const double rotation = std::fmod(std::fmod(dDegrees, 360.0) + 360.0, 360.0);
    if (rotation != m_dCameraRotationCurrent)
    {
        m_dCameraRotationCurrent = rotation;
        UpdateFlipMatrix(); // a camera that does not tell its flip has its rotation all the same
        status = UpdateRotationMatrix();
    }
    // Also when it is the same: the snapshot may have been cleared or filled anew since.
    const CQsSnapshotAccess current(*this, CQsSnapshotAccess::eCurrent);
    current->SetCameraRotation(m_dCameraRotationCurrent);
    return status;
}

double CQsStimulationDeviceCalibration::GetCameraRotationCurrent()
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    return m_dCameraRotationCurrent;
}

int CQsStimulationDeviceCalibration::SetCameraROI(CQsRectBase<int> roi)
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    m_CameraROI = roi;
    return QS_OK;
}

CQsRectBase<int> CQsStimulationDeviceCalibration::GetCameraROI()
{
    return m_CameraROI;
}

int CQsStimulationDeviceCalibration::SetScanAreaDesc(IQsStimulationDevice::SQsScanAreaDesc& desc)
{
    m_ScanAreaDesc = desc;
    return QS_OK;
}

IQsStimulationDevice::SQsScanAreaDesc CQsStimulationDeviceCalibration::GetScanAreaDesc()
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    return m_ScanAreaDesc;
}

// ----------------------------------------------------------------------------------------------------------- snapshots

// The section is left by another operation, which the analysis cannot follow.
CQsStimulationDeviceConfiguration*
CQsStimulationDeviceCalibration::AccessConfigurationCurrent() QS_NO_THREAD_SAFETY_ANALYSIS
{
    EnterCriticalSection(&m_CurrentLock);
    return &m_Current;
}

void CQsStimulationDeviceCalibration::UnaccessConfigurationCurrent(CQsStimulationDeviceConfiguration*)
    QS_NO_THREAD_SAFETY_ANALYSIS
{
    LeaveCriticalSection(&m_CurrentLock);
}

CQsStimulationDeviceConfiguration*
CQsStimulationDeviceCalibration::AccessConfigurationCalibrated() QS_NO_THREAD_SAFETY_ANALYSIS
{
    EnterCriticalSection(&m_CalibratedLock);
    return &m_Calibrated;
}

void CQsStimulationDeviceCalibration::UnaccessConfigurationCalibrated(CQsStimulationDeviceConfiguration*)
    QS_NO_THREAD_SAFETY_ANALYSIS
{
    LeaveCriticalSection(&m_CalibratedLock);
}

CQsStringW CQsStimulationDeviceCalibration::GetConfigurationStringCurrent()
{
    // Without the access lock: it is also asked for while another thread holds the access for long.
    return m_Current.GetConfigurationString();
}

CQsStringW CQsStimulationDeviceCalibration::GetConfigurationStringCalibrated()
{
    const CQsSnapshotAccess calibrated(*this, CQsSnapshotAccess::eCalibrated);
    return calibrated->GetConfigurationString();
}

// --------------------------------------------------------------------------------------------------------------- state

int CQsStimulationDeviceCalibration::UpdateCalibrationState()
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    EQsCalibrationState state;
    {
        // The comparison reads the calibrated snapshot without its own lock.
        const CQsSnapshotAccess calibrated(*this, CQsSnapshotAccess::eCalibrated);
        state = m_Current.CompareSuggestState(*calibrated);
    }
    return SetCalibrationState(state);
}

int CQsStimulationDeviceCalibration::SetCalibrationState(EQsCalibrationState state)
{
    m_eState = state;
    if (m_pOwner != nullptr)
        QS_OWNER_CALL(0, L"OnCalibrationStateChanged", (m_pOwner->OnCalibrationStateChanged(state), 0));
    return QS_OK;
}

// ------------------------------------------------------------------------------------------------------------- updates

int CQsStimulationDeviceCalibration::UpdateRotationMatrix()
{
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    const double a = GetCameraRotationCurrent() * s_qsPi / 180.0;
    m_pdRotationMatrix = QsIdentity3();
    m_pdRotationMatrix[0] = std::cos(a);
    m_pdRotationMatrix[4] = std::cos(a);
    m_pdRotationMatrix[1] = -std::sin(a);
    m_pdRotationMatrix[3] = std::sin(a);
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::UpdateRotationMatrix: Rotation matrix updated to:\n[\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\t]",
        QS_ELEMENTS(m_pdRotationMatrix));
    UpdateMapping();
    return QS_OK;
}

int CQsStimulationDeviceCalibration::UpdateFlipMatrix()
{
    if (m_pOwner == nullptr)
        return QS_ERR_FAIL;
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    m_pdFlipMatrix = QsIdentity3();
    double a = 0.0;
    double b = 0.0;
    double c = 0.0;
    double d = 0.0;
    const int status =
        QS_OWNER_CALL(QS_ERR_FAIL, L"GetCameraFlipReference", m_pOwner->GetCameraFlipReference(&a, &b, &c, &d));
    if (status == QS_OK)
    {
        m_pdFlipMatrix[4] = std::abs(a - d) > 0.0001 ? -1.0 : 1.0;
        QS_DIAG_DETAILED(
            L"CQsStimulationDeviceCalibration::UpdateFlipMatrix: Flip matrix updated to:\n[\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\t]",
            QS_ELEMENTS(m_pdFlipMatrix));
    }
    UpdateMapping();
    return status == QS_OK ? QS_OK : QS_ERR_FAIL;
}

int CQsStimulationDeviceCalibration::UpdateTranslationVector()
{
    if (m_pOwner == nullptr)
        return QS_ERR_FAIL;
    SQsGrabberFormatValue format;
    // Without the lock: the owner asks its camera, which may be waiting for a thread that uses the calibration.
    if (QS_OWNER_CALL(QS_ERR_FAIL, L"GetCameraFormat", m_pOwner->GetCameraFormat(format)) != QS_OK)
        return QS_ERR_FAIL;
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    m_pdTranslationVector = {Half(format.rcFormat.left, format.rcFormat.right),
                             Half(format.rcFormat.top, format.rcFormat.bottom), 1.0};
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::UpdateTranslationVector: Translation vector updated to:\n[\t%.2f,\t%.2f,\t%.2f\t]",
        m_pdTranslationVector[0], m_pdTranslationVector[1], m_pdTranslationVector[2]);
    UpdateMapping();
    return QS_OK;
}

int CQsStimulationDeviceCalibration::UpdateMapping()
{
    // Rotation, flip, translation and mappings always have their sizes; the calibration is what a caller has set.
    if (m_pdCalibrationMatrixCamToDMD.size() != matrixSize)
        return QS_OK;
    double toUnrotated[matrixSize];
    IQsStimulationDevice::SQsTransformationHelper::GetMappingToUnrotatedCamera(
        m_pdRotationMatrix.data(), m_pdFlipMatrix.data(), m_pdTranslationVector.data(), toUnrotated);
    // The other direction is the inverse of this one and not the measured matrix: both mappings then agree also where
    // the two measured matrices do not.
    cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, 3, 3, 3, 1.0, m_pdCalibrationMatrixCamToDMD.data(), 3,
                toUnrotated, 3, 0.0, m_pdMappingMatrixCamToDMD.data(), 3);
    if (CQsMKL_API::InvertMatrix(m_pdMappingMatrixDMDToCam.data(), m_pdMappingMatrixCamToDMD.data(), 3) != 0)
        QS_DIAG_DETAILED(L"CQsStimulationDeviceCalibration::UpdateMapping: Very bad calibration.");
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::UpdateMapping: Mapping matrix DMD -> Camera updated to:\n[\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\t]",
        QS_ELEMENTS(m_pdMappingMatrixDMDToCam));
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::UpdateMapping: Mapping matrix Camera -> DMD updated to:\n[\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\n\t%.2f,\t%.2f,\t%.2f\t]",
        QS_ELEMENTS(m_pdMappingMatrixCamToDMD));
    return QS_OK;
}
