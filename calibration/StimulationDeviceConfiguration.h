// Snapshot of the microscope's hardware that a calibration depends on: what it is compared with and saved under.
//
// A value with a lock of its own. Operations that change it, comparisons and the text take the lock; the plain getters
// do not, and an operation on two snapshots locks only the one that it is called on. Nothing throws. [any thread]
#pragma once

#include "device/QsStimApi.h"
#include "host/QsSystem.h"
#include "platform/ThreadSafety.h"
#include "platform/Win32.h"

#include <cstdint>
#include <set>
#include <tuple>

// Parts of a snapshot. Only watched parts are compared and written into the text.
enum EQsWatchedDeviceType : std::int32_t
{
    eWatchedFilterChangers = 0,
    eWatchedObjective = 1, // in the text also the camera
    eWatchedManualZoom = 2,
    eWatchedLights = 3, // and multilasers
    eWatchedCamera = 4, // in comparisons
    eWatchedCameraRotation = 5,
    eWatchedMicroscope = 6,
    eWatchedReserved = 7 // stored, not read
};

// How well a calibration fits the hardware; higher is closer.
enum EQsCalibrationState : std::int32_t
{
    eCalibrationStateNone = 0,            // no usable calibration
    eCalibrationStateInvalid = 1,         // a snapshot is not valid, another camera, or another known rotation
    eCalibrationStateChanged = 2,         // another watched part or the illuminator differs
    eCalibrationStateRotationUnknown = 3, // rotation is watched and one of the two is not known
    eCalibrationStateIdentical = 4
};

// Holds a critical section, and the host device manager's global lock where it was asked for and free, to the end of
// the scope.
class QS_STIM_API QS_SCOPED_CAPABILITY CQsConfigurationAutoLock
{
public:
    // bLockDeviceManager: tries the global lock first. That it is taken elsewhere does not keep the section from being
    // entered; waiting for it here could wait for a thread that waits for the section.
    CQsConfigurationAutoLock(CRITICAL_SECTION* pSection, bool bLockDeviceManager) QS_ACQUIRE(pSection);
    ~CQsConfigurationAutoLock() QS_RELEASE();
    CQsConfigurationAutoLock(const CQsConfigurationAutoLock&) = delete;
    CQsConfigurationAutoLock& operator=(const CQsConfigurationAutoLock&) = delete;

private:
    CRITICAL_SECTION* m_pSection;
    bool m_bDeviceManagerLocked;
};

class QS_STIM_API CQsStimulationDeviceConfiguration
{
public:
    CQsStimulationDeviceConfiguration();                                                // not valid, watches everything
    explicit CQsStimulationDeviceConfiguration(std::set<EQsWatchedDeviceType> watched); // not valid
    CQsStimulationDeviceConfiguration(const CQsStimulationDeviceConfiguration& other);
    CQsStimulationDeviceConfiguration& operator=(const CQsStimulationDeviceConfiguration& other);
    virtual ~CQsStimulationDeviceConfiguration();

    // Each makes the snapshot valid. Lights, filter changers and multilasers accumulate, equal ones once; all others
    // replace the value.
    void AddCamera(const CQsStringW& sCamera);
    void AddObjective(CQsStringW sObjective);
    void AddMicroscope(CQsStringW sMicroscope);
    void AddLight(CQsStringW sLight);
    void AddFilterChanger(CQsStringW sKey, CQsStringW sName, int iPosition);
    void AddMultilaser(CQsStringW sName, unsigned uiNumber);
    void AddManualZoom(double dZoom);
    void AddConnectionPort(int iPort); // of the laser-stimulation illuminator
    void SetORBAConnected(bool bConnected);
    void SetCameraRotation(double dDegrees); // any; kept in [0, 360), but for rounding just below 0

    void SetValid(bool bValid);
    void SetWatchedDeviceTypes(std::set<EQsWatchedDeviceType> watched); // no lock: not beside a comparison

    // Empty and not valid. The watched parts stay, and so does that a rotation was given: a calibration of a camera
    // that has told its rotation once does not pass for one of an unknown rotation.
    void Clear();

    // Without the lock, as the callers that hold an access to the snapshot need no second one.
    bool IsValid() const QS_NO_THREAD_SAFETY_ANALYSIS { return m_bValid; }
    int GetORBAPort() QS_NO_THREAD_SAFETY_ANALYSIS { return m_iORBAPort; }
    bool IsORBAConnected() QS_NO_THREAD_SAFETY_ANALYSIS { return m_bORBAConnected; }
    double GetManualZoom() const QS_NO_THREAD_SAFETY_ANALYSIS { return m_dManualZoom; }
    double GetCameraRotation() const QS_NO_THREAD_SAFETY_ANALYSIS { return m_dCameraRotation; } // [deg]
    CQsStringW GetCamera() QS_NO_THREAD_SAFETY_ANALYSIS { return m_sCamera; }
    const CQsStringW& GetCamera() const QS_NO_THREAD_SAFETY_ANALYSIS { return m_sCamera; }

    // Compares the parts that this snapshot watches. False when one of the two is not valid. The illuminator counts
    // by its ports, as soon as one of the two is connected.
    bool Equals(const CQsStimulationDeviceConfiguration& other);
    // Stricter than Equals where the illuminator's connection and the knowledge of the rotation are concerned.
    EQsCalibrationState CompareSuggestState(const CQsStimulationDeviceConfiguration& other);

    // The text that calibrations are saved under (docs/formats.md).
    CQsStringW GetConfigurationString();

private:
    struct SFilterChanger
    {
        CQsStringW sKey;
        CQsStringW sName;
        std::int32_t iPosition;
        bool operator<(const SFilterChanger& other) const
        {
            return std::tie(sKey, sName, iPosition) < std::tie(other.sKey, other.sName, other.iPosition);
        }
        bool operator==(const SFilterChanger& other) const
        {
            return iPosition == other.iPosition && sKey == other.sKey && sName == other.sName;
        }
    };
    struct SMultilaser
    {
        CQsStringW sName;
        std::uint32_t uiNumber;
        bool operator<(const SMultilaser& other) const
        {
            return std::tie(sName, uiNumber) < std::tie(other.sName, other.uiNumber);
        }
        bool operator==(const SMultilaser& other) const { return uiNumber == other.uiNumber && sName == other.sName; }
    };

    // Whether a watched part differs from the other snapshot's.
    bool DiffersIn(EQsWatchedDeviceType type, const CQsStimulationDeviceConfiguration& other) const QS_REQUIRES(m_Lock);
    bool IsWatched(EQsWatchedDeviceType type) const { return m_bWatched[type]; }

    std::set<SFilterChanger> m_FilterChangers QS_GUARDED_BY(m_Lock);
    CQsStringW m_sObjective QS_GUARDED_BY(m_Lock);
    std::set<CQsStringW> m_Lights QS_GUARDED_BY(m_Lock);
    CQsStringW m_sMicroscope QS_GUARDED_BY(m_Lock);
    std::set<SMultilaser> m_Multilasers QS_GUARDED_BY(m_Lock);
    double m_dManualZoom QS_GUARDED_BY(m_Lock) = 0.0;
    CQsStringW m_sCamera QS_GUARDED_BY(m_Lock);
    double m_dCameraRotation QS_GUARDED_BY(m_Lock) = 0.0; // [deg]
    bool m_bCameraRotationSet QS_GUARDED_BY(m_Lock) = false;
    bool m_bValid QS_GUARDED_BY(m_Lock) = false;
    std::int32_t m_iORBAPort QS_GUARDED_BY(m_Lock) = 0;
    bool m_bORBAConnected QS_GUARDED_BY(m_Lock) = false;
    bool m_bWatched[8] = {true, true, true, true, true, true, true, true}; // set without the lock
    CRITICAL_SECTION m_Lock;
};
