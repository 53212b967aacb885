#include "calibration/StimulationDeviceConfiguration.h"

#include "host/QsDMApi.h"

#include <algorithm>
#include <cmath>

// ---------------------------------------------------------------------------------------------------------- auto lock

CQsConfigurationAutoLock::CQsConfigurationAutoLock(CRITICAL_SECTION* pSection, bool bLockDeviceManager)
    : m_pSection(pSection), m_bDeviceManagerLocked(bLockDeviceManager && DMApi_TryLockDeviceManager(1))
{
    EnterCriticalSection(m_pSection);
}

CQsConfigurationAutoLock::~CQsConfigurationAutoLock()
{
    LeaveCriticalSection(m_pSection);
    if (m_bDeviceManagerLocked)
        DMApi_ReleaseLockDeviceManager(1);
}

// ----------------------------------------------------------------------------------------------------------- snapshot

CQsStimulationDeviceConfiguration::CQsStimulationDeviceConfiguration()
{
    InitializeCriticalSection(&m_Lock);
}

CQsStimulationDeviceConfiguration::CQsStimulationDeviceConfiguration(std::set<EQsWatchedDeviceType> watched)
    : CQsStimulationDeviceConfiguration()
{
    SetWatchedDeviceTypes(std::move(watched));
}

CQsStimulationDeviceConfiguration::CQsStimulationDeviceConfiguration(const CQsStimulationDeviceConfiguration& other)
    : CQsStimulationDeviceConfiguration()
{
    *this = other;
}

// The source's lock is not taken: with both, a = b beside b = a would wait for each other for ever. Whoever copies a
// snapshot that others change holds the access to it.
CQsStimulationDeviceConfiguration& CQsStimulationDeviceConfiguration::operator=(
    const CQsStimulationDeviceConfiguration& other) QS_NO_THREAD_SAFETY_ANALYSIS
{
    if (this == &other)
        return *this;
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_sCamera = other.m_sCamera;
    m_dManualZoom = other.m_dManualZoom;
    m_FilterChangers = other.m_FilterChangers;
    m_Lights = other.m_Lights;
    m_Multilasers = other.m_Multilasers;
    m_sMicroscope = other.m_sMicroscope;
    m_sObjective = other.m_sObjective;
    m_dCameraRotation = other.m_dCameraRotation;
    m_bCameraRotationSet = other.m_bCameraRotationSet;
    m_bValid = other.m_bValid;
    m_bORBAConnected = other.m_bORBAConnected;
    m_iORBAPort = other.m_iORBAPort;
    std::copy(std::begin(other.m_bWatched), std::end(other.m_bWatched), std::begin(m_bWatched));
    return *this;
}

CQsStimulationDeviceConfiguration::~CQsStimulationDeviceConfiguration()
{
    DeleteCriticalSection(&m_Lock);
}

// ------------------------------------------------------------------------------------------------------------ changes

void CQsStimulationDeviceConfiguration::AddCamera(const CQsStringW& sCamera)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_sCamera = sCamera;
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddObjective(CQsStringW sObjective)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_sObjective = std::move(sObjective);
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddMicroscope(CQsStringW sMicroscope)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_sMicroscope = std::move(sMicroscope);
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddLight(CQsStringW sLight)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_Lights.insert(std::move(sLight));
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddFilterChanger(CQsStringW sKey, CQsStringW sName, int iPosition)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_FilterChangers.insert({std::move(sKey), std::move(sName), iPosition});
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddMultilaser(CQsStringW sName, unsigned uiNumber)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_Multilasers.insert({std::move(sName), uiNumber});
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddManualZoom(double dZoom)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_dManualZoom = dZoom;
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::AddConnectionPort(int iPort)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_iORBAPort = iPort;
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::SetORBAConnected(bool bConnected)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_bORBAConnected = bConnected;
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::SetCameraRotation(double dDegrees)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    // An angle just below 0 becomes one just below 360 and may read as 360.000000 in the text. Saved keys hold such
    // texts, so it stays.
    m_dCameraRotation = std::fmod(std::fmod(dDegrees, 360.0) + 360.0, 360.0);
    m_bCameraRotationSet = true;
    m_bValid = true;
}

void CQsStimulationDeviceConfiguration::SetValid(bool bValid)
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_bValid = bValid;
}

void CQsStimulationDeviceConfiguration::SetWatchedDeviceTypes(std::set<EQsWatchedDeviceType> watched)
{
    for (int i = 0; i < 8; ++i)
        m_bWatched[i] = watched.count(static_cast<EQsWatchedDeviceType>(i)) != 0;
}

void CQsStimulationDeviceConfiguration::Clear()
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    m_FilterChangers.clear();
    m_Lights.clear();
    m_Multilasers.clear();
    m_sObjective = CQsStringW();
    m_sMicroscope = CQsStringW();
    m_sCamera = CQsStringW();
    m_dManualZoom = 0.0;
    m_dCameraRotation = 0.0;
    m_bORBAConnected = false;
    m_iORBAPort = 0;
    m_bValid = false;
    // m_bCameraRotationSet stays: a camera that has told its rotation once has one, and a comparison after the snapshot
    // is filled again must answer "another rotation" and not "unknown".
}

// --------------------------------------------------------------------------------------------------------- comparison

// The other snapshot is read without its lock, as in an assignment and for the same reason.
bool CQsStimulationDeviceConfiguration::DiffersIn(
    EQsWatchedDeviceType type, const CQsStimulationDeviceConfiguration& other) const QS_NO_THREAD_SAFETY_ANALYSIS
{
    if (!IsWatched(type))
        return false;
    switch (type)
    {
    case eWatchedFilterChangers:
        return m_FilterChangers != other.m_FilterChangers;
    case eWatchedObjective:
        return m_sObjective != other.m_sObjective;
    case eWatchedManualZoom:
        return m_dManualZoom != other.m_dManualZoom; // a NaN differs from everything
    case eWatchedLights:
        return m_Lights != other.m_Lights || m_Multilasers != other.m_Multilasers;
    case eWatchedCamera:
        return m_sCamera != other.m_sCamera;
    case eWatchedCameraRotation:
        return m_dCameraRotation != other.m_dCameraRotation;
    case eWatchedMicroscope:
        return m_sMicroscope != other.m_sMicroscope;
    case eWatchedReserved:
        break;
    }
    return false;
}

bool CQsStimulationDeviceConfiguration::Equals(const CQsStimulationDeviceConfiguration& other)
    QS_NO_THREAD_SAFETY_ANALYSIS // reads the other one without its lock
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    if (!m_bValid || !other.m_bValid)
        return false;
    for (const EQsWatchedDeviceType type : {eWatchedObjective, eWatchedMicroscope, eWatchedFilterChangers,
                                            eWatchedLights, eWatchedManualZoom, eWatchedCamera, eWatchedCameraRotation})
    {
        if (DiffersIn(type, other))
            return false;
    }
    // By the ports alone: whether the illuminator is switched on at the moment does not move its light.
    return (!m_bORBAConnected && !other.m_bORBAConnected) || m_iORBAPort == other.m_iORBAPort;
}

EQsCalibrationState CQsStimulationDeviceConfiguration::CompareSuggestState(
    const CQsStimulationDeviceConfiguration& other) QS_NO_THREAD_SAFETY_ANALYSIS // reads the other one without its lock
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    if (!m_bValid || !other.m_bValid)
        return eCalibrationStateInvalid;
    if (Equals(other))
        return eCalibrationStateIdentical;
    if (DiffersIn(eWatchedCamera, other))
        return eCalibrationStateInvalid;
    for (const EQsWatchedDeviceType type :
         {eWatchedObjective, eWatchedMicroscope, eWatchedFilterChangers, eWatchedLights, eWatchedManualZoom})
    {
        if (DiffersIn(type, other))
            return eCalibrationStateChanged;
    }
    // Stricter than Equals: what is not equal for another reason is no closer for an illuminator that is not there.
    if (m_bORBAConnected != other.m_bORBAConnected || (m_bORBAConnected && m_iORBAPort != other.m_iORBAPort))
        return eCalibrationStateChanged;
    if (!IsWatched(eWatchedCameraRotation))
        return eCalibrationStateNone;
    if (!m_bCameraRotationSet || !other.m_bCameraRotationSet)
        return eCalibrationStateRotationUnknown;
    return DiffersIn(eWatchedCameraRotation, other) ? eCalibrationStateInvalid : eCalibrationStateNone;
}

// --------------------------------------------------------------------------------------------------------------- text

CQsStringW CQsStimulationDeviceConfiguration::GetConfigurationString()
{
    const CQsConfigurationAutoLock lock(&m_Lock, false);
    // The host's word for "nothing chosen" would make the text depend on the user's language.
    const CQsStringW none = QS_GetTranslation(L"<none>", __FILE__);
    const CQsStringW empty;
    CQsStringW s;
    // Piece by piece: one formatted print for each entry would make most of the time.
    const auto append = [&](const wchar_t* mark, const CQsStringW& name)
    {
        s += mark;
        s += (name == none ? empty : name).c_str(); // a zero ends a name, as it does in a formatted print
    };
    if (IsWatched(eWatchedFilterChangers))
    {
        s += L"#F";
        for (const SFilterChanger& changer : m_FilterChangers)
        {
            append(L"$K", changer.sKey);
            append(L"$N", changer.sName);
            s += CQsStringW::Format(L"$P%d", changer.iPosition);
        }
    }
    if (IsWatched(eWatchedObjective))
        append(L"#O", m_sObjective);
    if (IsWatched(eWatchedCameraRotation))
        s += CQsStringW::Format(L"#R%f", m_dCameraRotation);
    if (m_bORBAConnected)
        s += CQsStringW::Format(L"#L%i", m_iORBAPort);
    if (IsWatched(eWatchedLights))
    {
        s += L"#L";
        for (const CQsStringW& light : m_Lights)
            append(L"K", light);
    }
    if (IsWatched(eWatchedMicroscope))
        append(L"#Mi", m_sMicroscope);
    if (IsWatched(eWatchedLights))
    {
        s += L"#M";
        for (const SMultilaser& multilaser : m_Multilasers)
        {
            append(L"K", multilaser.sName);
            s += CQsStringW::Format(L"M%d", multilaser.uiNumber);
        }
    }
    if (IsWatched(eWatchedManualZoom) && m_dManualZoom > 0.0)
        s += CQsStringW::Format(L"#Z%f", m_dManualZoom);
    // With the objective's flag: keys of cameras that are not watched name their camera all the same, since a
    // calibration is looked up by it.
    if (IsWatched(eWatchedObjective))
        append(L"#C", m_sCamera);
    return s;
}
