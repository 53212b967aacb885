// Calibration between a micromirror chip and the camera that watches the specimen: the measured matrices, the
// corrections for the camera's present rotation and flip, the mappings that follow from both, and the saved
// calibrations.
//
// Frames:
//   camera   pixels of the camera's whole sensor as it stands; the calibration matrices were measured in it
//   image    the same pixels in the camera's whole image of now, turned and flipped; the mappings start from it
//   DMD      mirrors of the chip
// Camera and image count from the corner of the first pixel, so that half of a width is the centre; the centre of pixel
// i is i + 0.5.
// Matrices are 9 doubles, 3x3 row-major, for columns (x, y, 1); the translation vector has 3.
//
// Status: 0; -9 QS_ERR_FAIL; -12 no owner; -13 not found. Nothing throws; an owner's operation that throws has failed.
// Threads: [any thread], under the main lock unless an operation says otherwise. The owner is called back under the
// main lock, but for GetCameraFormat out of UpdateTranslationVector alone; it must not wait there for a thread that
// uses the calibration. Who holds the access to a snapshot must not call what takes the main lock (docs/threading.md).
#pragma once

#include "calibration/StimulationDeviceConfiguration.h"
#include "device/StimulationDevice.h"

#include <atomic>
#include <set>
#include <vector>

// The device that a calibration belongs to. It may call the calibration back, but for what updates the state out of
// OnCalibrationStateChanged, which would not end. Section and device name hold no backslash.
class IQsStimulationDeviceCalibration
{
public:
    virtual void GetWatchedDeviceTypes(std::vector<EQsWatchedDeviceType>& types) = 0;
    virtual void OnCalibrationStateChanged(EQsCalibrationState state) = 0;
    virtual CQsStringW GetCalibrationFileName() = 0;    // settings file of the saved calibrations
    virtual CQsStringW GetCalibrationSectionName() = 0; // its first level
    virtual CQsStringW GetCalibrationDeviceName() = 0;  // its second level
    // Of the axes of the image against those of the unflipped one (a b; c d), a and d are read: the image is flipped
    // when they differ. 0 on success.
    virtual int GetCameraFlipReference(double* a, double* b, double* c, double* d) = 0;
    virtual int GetCameraFormat(SQsGrabberFormatValue& format) = 0; // rcFormat is read; 0 on success

protected:
    ~IQsStimulationDeviceCalibration() = default;
};

// A saved key, parsed for display. A value.
struct QS_STIM_API SQsConfigItem
{
    struct SFilterChanger
    {
        CQsStringW sKey;
        CQsStringW sName;
        CQsStringW sPosition; // as it stands in the key
    };

    SQsConfigItem(); // as after Reset
    // Empties the filter changers and sets the four texts to the translated "<none>". The port stays: a key that names
    // none leaves what a caller has put there.
    void Reset();
    // Adds the entries of a filter-changer token without its letter ("$Kkey$Nname$Pposition..."). What is missing is
    // cut as the searches for the marks end. Returns 0.
    int SetFilterChangers(const CQsStringW& text);

    std::vector<SFilterChanger> vecFilterChangers;
    CQsStringW sObjective;
    CQsStringW sZoom; // "%.2fx"
    CQsStringW sCamera;
    CQsStringW sRotation; // "%.2f" [deg]
    std::int32_t iORBAPort = 0;
    bool bORBAPort = false; // the key names a port
};

class QS_STIM_API CQsStimulationDeviceCalibration
{
public:
    // The owner is not owned and outlives the calibration; null: none. Asks it for the watched types. All matrices are
    // the identity, the translation is 0, 0, 0 and the state eCalibrationStateInvalid.
    explicit CQsStimulationDeviceCalibration(IQsStimulationDeviceCalibration* pOwner);
    // Memberwise, with locks of its own; the source must not change meanwhile.
    CQsStimulationDeviceCalibration(const CQsStimulationDeviceCalibration& other);
    CQsStimulationDeviceCalibration& operator=(const CQsStimulationDeviceCalibration& other);
    ~CQsStimulationDeviceCalibration();

    // --- measured matrices. Kept whatever their length; without 9 elements the mappings stay as they are. The mapping
    // follows from camera to DMD alone. Return 0.
    int SetCalibrationDMDToCam(const std::vector<double>& matrix); // camera <- DMD
    int SetCalibrationCamToDMD(const std::vector<double>& matrix); // DMD <- camera
    int GetCalibrationDMDToCam(std::vector<double>& matrix);
    int GetCalibrationCamToDMD(std::vector<double>& matrix);

    // --- mappings of now. Return 0. The inverse of a singular mapping does not exist: then mapping DMD to camera keeps
    // its last value and the log says "Very bad calibration.".
    int GetMappingDMDToCam(std::vector<double>& matrix); // image <- DMD
    int GetMappingCamToDMD(std::vector<double>& matrix); // DMD <- image

    // --- corrections; without the lock: not beside an update, and free for an owner that is asked under it. Return 0.
    int GetRotationMatrix(std::vector<double>& matrix) QS_NO_THREAD_SAFETY_ANALYSIS;
    int GetFlipMatrix(std::vector<double>& matrix) QS_NO_THREAD_SAFETY_ANALYSIS;
    int GetTranslationVector(std::vector<double>& vector) QS_NO_THREAD_SAFETY_ANALYSIS;

    // --- camera
    // [deg], any. When the rotation changes, the flip (its result is ignored), the rotation matrix and the mapping
    // follow. Always written into the current snapshot; the state is not updated. Returns that of
    // UpdateRotationMatrix.
    int SetCameraRotationCurrent(double dDegrees);
    double GetCameraRotationCurrent();
    int SetCameraROI(CQsRectBase<int> roi); // kept, not read
    // Without the lock: the host that sets these two reads and writes them on one thread.
    CQsRectBase<int> GetCameraROI() QS_NO_THREAD_SAFETY_ANALYSIS;
    int SetScanAreaDesc(IQsStimulationDevice::SQsScanAreaDesc& desc) QS_NO_THREAD_SAFETY_ANALYSIS; // kept, not read
    IQsStimulationDevice::SQsScanAreaDesc GetScanAreaDesc();

    // --- snapshots: the hardware of now, and that of the calibration. Access holds the snapshot's access lock until
    // the release on the same thread; an access must be released, and nothing that takes the main lock be called
    // between. The release does not read the pointer.
    CQsStimulationDeviceConfiguration* AccessConfigurationCurrent();
    void UnaccessConfigurationCurrent(CQsStimulationDeviceConfiguration* pConfiguration);
    CQsStimulationDeviceConfiguration* AccessConfigurationCalibrated();
    void UnaccessConfigurationCalibrated(CQsStimulationDeviceConfiguration* pConfiguration);
    CQsStringW GetConfigurationStringCurrent(); // without the access lock
    CQsStringW GetConfigurationStringCalibrated();

    // --- state
    int UpdateCalibrationState();                                         // compares the snapshots, tells the owner
    int SetCalibrationState(EQsCalibrationState state);                   // tells the owner; without the lock
    EQsCalibrationState GetCurrentCalibrationState() { return m_eState; } // without the lock

    // --- updates
    int UpdateRotationMatrix();    // from the current rotation; then the mapping. 0
    int UpdateFlipMatrix();        // from the owner; then the mapping. -9: no owner, or it failed (then no flip)
    int UpdateTranslationVector(); // from the owner; then the mapping. -9: no owner, or it failed (nothing changes)
    // Takes no lock: the caller holds the main lock, or nobody else is there; the analysis cannot know the second. 0
    int UpdateMapping() QS_NO_THREAD_SAFETY_ANALYSIS;

    // --- saved calibrations (docs/formats.md)
    // Rows 0 and 1 of both matrices under the key; other keys stay. -9 when a matrix has fewer than 6 elements, the key
    // holds a zero, the owner throws, another one holds the file for five seconds, or it cannot be read or written; -12
    // without an owner. [blocks]
    int SaveCalibrationMatrices(CQsStringW sKey);
    // Installs the matrices of the key, row 2 as (0, 0, 1); identities for the empty key (0) and for one that is not
    // there (-13). -12 without an owner.
    int LoadCalibrationMatrices(CQsStringW sKey);
    // Chooses the saved calibration that fits the hardware of now best and adopts it with its snapshot; without one the
    // calibration becomes the identity. bChanged is written only when one is adopted: it has another name than the last
    // one. 0; -13 without an owner, and when nothing fits.
    int LoadCalibration(bool& bChanged);
    // 0 when the key is saved, with its rotation or without: a key that is not there loses its rotation. Else -13.
    int FindCalibration(CQsStringW& sKey); // without the lock
    // First saved key of that camera, parsed. -13: none; then the item is that of the last key.
    int FindFirstCalibrationForCamera(const CQsStringW& sCamera, SQsConfigItem& item); // without the lock
    int GetNumberOfSavedCalibrationConfigurations();                                   // reads the file; always 0
    void ClearAllCalibrationMatrices();                                                // and LoadCalibration
    int ParseConfig(const CQsStringW& sKey, SQsConfigItem& item);                      // without the lock. 0

private:
    void CopyFrom(const CQsStimulationDeviceCalibration& other) QS_NO_THREAD_SAFETY_ANALYSIS; // the source is still
    CQsStimulationDeviceConfiguration CandidateOf(const SQsConfigItem& item) const;
    struct SChoice
    {
        EQsCalibrationState eBest = eCalibrationStateNone;
        CQsStringW sKey;
        bool bExamined = false; // there was a key
    };
    SChoice ChooseCalibration();
    bool Adopt(const CQsStringW& sKey, bool& bChanged) QS_REQUIRES(m_MainLock);

    CRITICAL_SECTION m_MainLock;
    CRITICAL_SECTION m_CurrentLock;            // access to m_Current
    CRITICAL_SECTION m_CalibratedLock;         // access to m_Calibrated
    IQsStimulationDeviceCalibration* m_pOwner; // changes in an assignment alone
    std::atomic<EQsCalibrationState> m_eState{eCalibrationStateInvalid};
    double m_dCameraRotationCurrent QS_GUARDED_BY(m_MainLock) = 0.0; // [deg]
    IQsStimulationDevice::SQsScanAreaDesc m_ScanAreaDesc QS_GUARDED_BY(m_MainLock);
    CQsStringW m_sLoadedCalibration QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdRotationMatrix QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdFlipMatrix QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdTranslationVector QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdCalibrationMatrixDMDToCam QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdCalibrationMatrixCamToDMD QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdMappingMatrixCamToDMD QS_GUARDED_BY(m_MainLock);
    std::vector<double> m_pdMappingMatrixDMDToCam QS_GUARDED_BY(m_MainLock);
    CQsRectBase<int> m_CameraROI QS_GUARDED_BY(m_MainLock);
    std::set<EQsWatchedDeviceType> m_WatchedDeviceTypes; // set when it is made
    CQsStimulationDeviceConfiguration m_Current;         // has a lock of its own; the access is for whole snapshots
    CQsStimulationDeviceConfiguration m_Calibrated;      // likewise
    CQsStimulationDeviceConfiguration m_Spare;           // copied with the calibration, not read
};
