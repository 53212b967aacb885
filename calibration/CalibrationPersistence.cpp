// Saved calibrations: kept in the owner's settings file under the text of the hardware that they were measured on.
#include "calibration/Matrix3.h"
#include "calibration/OwnerCall.h"
#include "calibration/SnapshotAccess.h"
#include "calibration/StimulationDeviceCalibration.h"
#include "device/Diagnostics.h"

#define QS_DIAG_UNIT L"StimulationDeviceCalibration"

namespace {

constexpr int statusNoOwner = -12;
constexpr int statusNotFound = -13;

// Elements of each matrix that are saved: the third row of an affine map is (0, 0, 1).
constexpr std::size_t savedElements = 6;

constexpr wchar_t keyDMDToCam[] = L"m_pdCalibrationMatrixDMDToCam";
constexpr wchar_t keyCamToDMD[] = L"m_pdCalibrationMatrixCamToDMD";

// Where the owner keeps its calibrations. Not known when the owner does not say.
struct SPlace
{
    CQsStringW sFile;
    CQsStringW sSection;
    CQsStringW sDevice;
    bool bKnown = true;

    explicit SPlace(IQsStimulationDeviceCalibration& owner)
    {
        bKnown =
            QS_OWNER_CALL(false, L"GetCalibrationFileName", (sFile = owner.GetCalibrationFileName(), true)) &&
            QS_OWNER_CALL(false, L"GetCalibrationSectionName", (sSection = owner.GetCalibrationSectionName(), true)) &&
            QS_OWNER_CALL(false, L"GetCalibrationDeviceName", (sDevice = owner.GetCalibrationDeviceName(), true));
    }
};

// A level that is left at the end of the scope.
class CLevel
{
public:
    CLevel(CQsLiteVariantR& tree, const CQsStringW& sName) : m_tree(tree), m_bEntered(tree.EnterLevel(sName.c_str())) {}
    CLevel(CQsLiteVariantR& tree, std::size_t index) : m_tree(tree), m_bEntered(tree.EnterEntry(index)) {}
    ~CLevel()
    {
        if (m_bEntered)
            m_tree.LeaveLevel();
    }
    CLevel(const CLevel&) = delete;
    CLevel& operator=(const CLevel&) = delete;

    explicit operator bool() const { return m_bEntered; }

private:
    CQsLiteVariantR& m_tree;
    const bool m_bEntered;
};

// The owner's file, opened at the level of the saved calibrations. A clear leaves a value of that name, which is none.
class CSavedCalibrations
{
public:
    explicit CSavedCalibrations(IQsStimulationDeviceCalibration& owner)
    {
        const SPlace place(owner);
        m_bOpen = place.bKnown && m_tree.LoadFromFile(place.sFile.c_str(), true, false) == QS_OK &&
                  m_tree.EnterLevel(place.sSection.c_str()) && m_tree.EnterLevel(place.sDevice.c_str()) &&
                  m_tree.EnterLevel(L"Definition") && m_tree.EnterLevel(L"Calibration");
    }

    bool IsOpen() const { return m_bOpen; }
    CQsLiteVariantR& Tree() { return m_tree; }

    bool Has(const CQsStringW& sKey) { return static_cast<bool>(CLevel(m_tree, sKey)); }

    // Calls `examine` with each saved key in the order of the file until it answers false.
    template <class Examine>
    void Walk(Examine examine)
    {
        const std::size_t count = m_tree.GetEntryCount();
        for (std::size_t i = 0; i < count; ++i)
        {
            if (IsLevel(i) && !examine(m_tree.GetEntryName(i)))
                return;
        }
    }

private:
    bool IsLevel(std::size_t index) { return static_cast<bool>(CLevel(m_tree, index)); }

    CQsLiteVariantR m_tree;
    bool m_bOpen = false;
};

} // namespace

// ------------------------------------------------------------------------------------------------------------ one key

int CQsStimulationDeviceCalibration::SaveCalibrationMatrices(CQsStringW sKey)
{
    if (m_pOwner == nullptr)
        return statusNoOwner;
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::SaveCalibrationMatrices: Saving calibration matrix D2C and C2D for: %s",
        sKey.c_str());
    std::vector<double> camToDMD;
    std::vector<double> dmdToCam;
    if (GetCalibrationCamToDMD(camToDMD) != QS_OK || GetCalibrationDMDToCam(dmdToCam) != QS_OK ||
        camToDMD.size() < savedElements || dmdToCam.size() < savedElements)
        return QS_ERR_FAIL;
    const SPlace place(*m_pOwner);
    if (!place.bKnown || sKey.Std().find(L'\0') != std::wstring::npos) // names of levels end at a zero
        return QS_ERR_FAIL;

    CQsLiteVariantW writer;
    for (const CQsStringW& level :
         {place.sSection, place.sDevice, CQsStringW(L"Definition"), CQsStringW(L"Calibration"), sKey})
        writer.OpenLevel(level.c_str());
    for (std::size_t i = 0; i < savedElements; ++i)
    {
        writer.OpenLevel(L"");
        writer.SetDouble(keyDMDToCam, dmdToCam[i]);
        writer.SetDouble(keyCamToDMD, camToDMD[i]);
        writer.CloseLevel();
    }
    for (int i = 0; i < 5; ++i)
        writer.CloseLevel();

    // From the load to the save: what another device or process saves meanwhile would be lost.
    const CQsSettingsFileLock fileLock(place.sFile.c_str());
    if (!fileLock.IsHeld())
        return QS_ERR_FAIL;
    CQsLiteVariantR saved(writer);
    CQsLiteVariantR existing;
    if (existing.LoadFromFile(place.sFile.c_str(), true, false) == QS_OK)
        saved.Merge(existing);
    return saved.SaveToFile(place.sFile.c_str(), false, true, false);
}

int CQsStimulationDeviceCalibration::LoadCalibrationMatrices(CQsStringW sKey)
{
    if (m_pOwner == nullptr)
        return statusNoOwner;
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::LoadCalibrationMatrices: Loading calibration matrix D2C and C2D for: %s",
        sKey.c_str());
    std::vector<double> camToDMD = QsIdentity3();
    std::vector<double> dmdToCam = QsIdentity3();
    if (sKey.IsEmpty())
    {
        UpdateRotationMatrix();
        UpdateFlipMatrix();
        UpdateTranslationVector();
        SetCalibrationCamToDMD(camToDMD);
        SetCalibrationDMDToCam(dmdToCam);
        return QS_OK;
    }

    int status = statusNotFound;
    CSavedCalibrations saved(*m_pOwner);
    if (saved.IsOpen())
    {
        CQsLiteVariantR& tree = saved.Tree();
        const CLevel key(tree, sKey);
        if (key)
        {
            QS_DIAG_DETAILED(
                L"CQsStimulationDeviceCalibration::LoadCalibrationMatrices: Succesfully read the calibration data:");
            for (std::size_t i = 0; i < savedElements; ++i)
            {
                const CLevel entry(tree, i);
                dmdToCam[i] = entry ? tree.GetDouble(keyDMDToCam, 0.0) : 0.0;
                camToDMD[i] = entry ? tree.GetDouble(keyCamToDMD, 0.0) : 0.0;
            }
            status = QS_OK;
        }
    }
    // Also identities, when the key is not there: the matrices of another hardware must not stay.
    SetCalibrationCamToDMD(camToDMD);
    SetCalibrationDMDToCam(dmdToCam);
    return status;
}

int CQsStimulationDeviceCalibration::FindCalibration(CQsStringW& sKey)
{
    if (m_pOwner == nullptr)
        return statusNotFound;
    CSavedCalibrations saved(*m_pOwner);
    if (!saved.IsOpen())
        return statusNotFound;
    bool bFound = saved.Has(sKey);
    const std::size_t rotation = sKey.Find(L"#R");
    if (!bFound && rotation != CQsStringW::npos)
    {
        // Measured before the camera told its rotation. The caller keeps the shorter key, found or not: it saves under
        // it next.
        const std::size_t next = sKey.Find(L"#", rotation + 2);
        CQsStringW shorter = sKey.Left(rotation);
        if (next != CQsStringW::npos)
            shorter += sKey.c_str() + next;
        sKey = shorter;
        bFound = saved.Has(sKey);
    }
    if (!bFound)
        return statusNotFound;
    QS_DIAG_DETAILED(L"CQsStimulationDeviceCalibration::FindCalibration: Calibration available...");
    return QS_OK;
}

int CQsStimulationDeviceCalibration::FindFirstCalibrationForCamera(const CQsStringW& sCamera, SQsConfigItem& item)
{
    if (m_pOwner == nullptr)
        return statusNotFound;
    int status = statusNotFound;
    const CQsStringW camera = sCamera; // may be a text of the item
    CSavedCalibrations saved(*m_pOwner);
    if (saved.IsOpen())
    {
        saved.Walk(
            [&](const CQsStringW& key)
            {
                ParseConfig(key, item);
                if (item.sCamera == camera)
                    status = QS_OK;
                return status != QS_OK;
            });
    }
    return status;
}

int CQsStimulationDeviceCalibration::GetNumberOfSavedCalibrationConfigurations()
{
    if (m_pOwner == nullptr)
        return 0;
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    // Every entry is visited and none counted: hosts rely on the 0 and ask FindCalibration.
    CSavedCalibrations saved(*m_pOwner);
    if (saved.IsOpen())
        saved.Walk([](const CQsStringW&) { return true; });
    return 0;
}

void CQsStimulationDeviceCalibration::ClearAllCalibrationMatrices()
{
    if (m_pOwner == nullptr)
        return;
    {
        const SPlace place(*m_pOwner);
        const CQsStringW path = CQsStringW::Format(L"\\%s\\%s\\%s\\%s", place.sSection.c_str(), place.sDevice.c_str(),
                                                   L"Definition", L"Calibration");
        const CQsConfigurationAutoLock lock(&m_MainLock, true);
        const CQsSettingsFileLock fileLock(place.sFile.c_str());
        CQsLiteVariantR tree;
        if (place.bKnown && fileLock.IsHeld() && tree.LoadFromFile(place.sFile.c_str(), true, false) == QS_OK)
        {
            CQsLiteVariantW nothing;
            nothing.SetString(L"Calibration", CQsStringW());
            if (tree.Replace(path.c_str(), CQsLiteVariantR(nothing)) == QS_OK)
                tree.SaveToFile(place.sFile.c_str(), false, true, false);
        }
    }
    bool bChanged = false;
    LoadCalibration(bChanged);
}

// ------------------------------------------------------------------------------------------------------------- choice

// Lights, microscope and multilasers are not in the item, and so not in the candidate.
CQsStimulationDeviceConfiguration CQsStimulationDeviceCalibration::CandidateOf(const SQsConfigItem& item) const
{
    const CQsStringW none = QS_GetTranslation(L"<none>", __FILE__);
    const CQsStringW empty;
    CQsStimulationDeviceConfiguration candidate(m_WatchedDeviceTypes);
    candidate.AddCamera(item.sCamera == none ? empty : item.sCamera);
    double value = 0.0;
    if (QS_StringToDouble(item.sRotation.c_str(), value))
        candidate.SetCameraRotation(value);
    for (const SQsConfigItem::SFilterChanger& changer : item.vecFilterChangers)
        candidate.AddFilterChanger(changer.sKey, changer.sName, QS_wtoi(changer.sPosition.c_str()));
    if (QS_StringToDouble(item.sZoom.c_str(), value))
        candidate.AddManualZoom(value);
    candidate.AddObjective(item.sObjective == none ? empty : item.sObjective);
    candidate.AddConnectionPort(item.iORBAPort);
    candidate.SetORBAConnected(item.bORBAPort);
    return candidate;
}

CQsStimulationDeviceCalibration::SChoice CQsStimulationDeviceCalibration::ChooseCalibration()
{
    SChoice choice;
    CSavedCalibrations saved(*m_pOwner);
    if (!saved.IsOpen())
        return choice;
    const CQsSnapshotAccess current(*this, CQsSnapshotAccess::eCurrent);
    const CQsStringW currentKey = current->GetConfigurationString();
    saved.Walk(
        [&](const CQsStringW& key)
        {
            choice.bExamined = true;
            EQsCalibrationState state = eCalibrationStateIdentical;
            if (key != currentKey)
            {
                SQsConfigItem item; // a fresh one: a port stays in an item that is used again
                ParseConfig(key, item);
                state = current->CompareSuggestState(CandidateOf(item));
            }
            if (state > choice.eBest)
            {
                choice.eBest = state;
                choice.sKey = key;
            }
            return state != eCalibrationStateIdentical;
        });
    return choice;
}

// The snapshot that is adopted is the one that the key stands for, not the hardware of now: what the key leaves out
// then shows in the state.
bool CQsStimulationDeviceCalibration::Adopt(const CQsStringW& sKey, bool& bChanged)
{
    if (LoadCalibrationMatrices(sKey) != QS_OK)
        return false;
    SQsConfigItem item;
    ParseConfig(sKey, item);
    CQsStringW sName;
    {
        const CQsSnapshotAccess calibrated(*this, CQsSnapshotAccess::eCalibrated);
        *calibrated = CandidateOf(item);
        sName = calibrated->GetConfigurationString();
    }
    bChanged = m_sLoadedCalibration != sName;
    m_sLoadedCalibration = sName;
    QS_DIAG_DETAILED(
        L"CQsStimulationDeviceCalibration::LoadCalibration: Loaded calibration with configuration string %s, current configuration %s, current calibration state: %d",
        m_sLoadedCalibration.c_str(), GetConfigurationStringCurrent().c_str(), static_cast<int>(m_eState.load()));
    return true;
}

int CQsStimulationDeviceCalibration::LoadCalibration(bool& bChanged)
{
    if (m_pOwner == nullptr)
        return statusNotFound;
    UpdateCalibrationState();
    const CQsConfigurationAutoLock lock(&m_MainLock, true);
    const SChoice choice = ChooseCalibration();
    int status = statusNotFound;
    if (choice.eBest > eCalibrationStateInvalid && Adopt(choice.sKey, bChanged))
        status = QS_OK;
    UpdateCalibrationState();
    // With the best one at "invalid" (the right hardware, but another camera or rotation) the calibration of before
    // stays: it was made for this session's hardware, and the state says that it does not fit.
    if (!choice.bExamined || choice.eBest < eCalibrationStateInvalid || m_eState == eCalibrationStateNone)
    {
        CQsSnapshotAccess(*this, CQsSnapshotAccess::eCalibrated)->Clear();
        LoadCalibrationMatrices(CQsStringW());
    }
    UpdateRotationMatrix();
    UpdateFlipMatrix();
    UpdateTranslationVector();
    UpdateCalibrationState();
    return status;
}
