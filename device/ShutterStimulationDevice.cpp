#include "device/ShutterStimulationDevice.h"

#include "device/ClassRegistration.h"
#include "device/WaitTime.h"
#include "manager/StimulationManager.h"

#include <cstring>

QS_REGISTER_STIMULATION_CLASS(CQsShutterStimulationDevice, "Shutter Stimulation device");

namespace {

constexpr int statusNotImplemented = -2;
constexpr int statusNoIdentity = -12;

constexpr std::uint32_t noShutterIndex = 0xFFFFFFFFu;

} // namespace

CQsShutterStimulationDevice::CQsShutterStimulationDevice() : m_hStopEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{}

const CQsClassInfo* CQsShutterStimulationDevice::GetCQsClassInfo()
{
    return &sm_classCQsShutterStimulationDevice;
}

const CQsClassInfo* CQsShutterStimulationDevice::GetClass() const
{
    return GetCQsClassInfo();
}

IQsInterface* CQsShutterStimulationDevice::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

CQsStringW CQsShutterStimulationDevice::GetUniqueName() const
{
    return CQsStringW::Format(L"Shutter_%d", static_cast<int>(m_uiShutterId.load()));
}

bool CQsShutterStimulationDevice::IsHWConnected()
{
    return DMApi::Shutter_GetIndex(m_uiShutterId.load()).value < noShutterIndex;
}

bool CQsShutterStimulationDevice::IsVisible()
{
    return true;
}

int CQsShutterStimulationDevice::SetActive(bool)
{
    return QS_OK;
}

bool CQsShutterStimulationDevice::IsFeatureSupported(unsigned int featureId)
{
    return featureId >= 1 && featureId <= 3;
}

bool CQsShutterStimulationDevice::IsFeatureEnabled(unsigned int featureId)
{
    return IsFeatureSupported(featureId);
}

IQsStimulationDevice::EQsStimulationDeviceType CQsShutterStimulationDevice::GetStimulationDeviceType() const
{
    return eStimDevShutter;
}

CQsStringW CQsShutterStimulationDevice::GetLocalizedStringForUI(unsigned int stringId)
{
    if (stringId != 0)
        return CQsStringW();
    const wchar_t* const toolbarName = DMApi::Shutter_GetToolbarName(m_uiShutterId.load());
    return CQsStringW::Format(L"%s Shutter", toolbarName != nullptr ? toolbarName : L"");
}

int CQsShutterStimulationDevice::HWSequencerEnable(bool)
{
    return QS_OK;
}

double CQsShutterStimulationDevice::GetAcquisitionExposureTime()
{
    return 0.0;
}

int CQsShutterStimulationDevice::GetStimulationExposureTime(double*, unsigned int)
{
    return QS_OK;
}

double CQsShutterStimulationDevice::GetStimulationExposureTimeCombined(std::uint64_t)
{
    return 0.0;
}

unsigned int CQsShutterStimulationDevice::StimulationModeGet()
{
    return 3;
}

unsigned int CQsShutterStimulationDevice::StimulationAreaGetCount()
{
    return 0;
}

int CQsShutterStimulationDevice::StimulationAreaSet(const std::vector<CQsRoiObject>&, const SQsRLEPicBuf&,
                                                    const SQsScanAreaDesc*, const SQsGrabberFormatDesc&,
                                                    const CQsRectBase<int>&)
{
    return QS_OK;
}

int CQsShutterStimulationDevice::StimulationAreaGet(std::vector<CQsRoiObject>*, SQsRLEPicBuf*, SQsScanAreaDesc*,
                                                    SQsGrabberFormatDesc*, CQsRectBase<int>*, std::uint64_t*)
{
    return QS_OK;
}

int CQsShutterStimulationDevice::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>&, const SQsRLEPicBuf&,
                                                                const SQsScanAreaDesc*, const SQsGrabberFormatDesc&,
                                                                const CQsRectBase<int>&)
{
    return statusNotImplemented;
}

int CQsShutterStimulationDevice::StimulationAreaUpload()
{
    return QS_OK;
}

bool CQsShutterStimulationDevice::StimulationAreaIsUpToDate()
{
    return true;
}

int CQsShutterStimulationDevice::StimulationReady(bool, bool)
{
    return QS_OK;
}

bool CQsShutterStimulationDevice::StimulationIsReady(bool, CQsStringW*)
{
    return true;
}

void CQsShutterStimulationDevice::SetShutter(bool bOpen) const
{
    DMApi::Shutter_SetState(m_uiShutterId.load(), bOpen, false, true);
}

// The begin time is taken before the shutter opens and the end time after it has closed: the times enclose the light.
int CQsShutterStimulationDevice::StimulationBegin(const SQsStimulationType& type)
{
    switch (type.uiType)
    {
    case eStimContinuous:
        m_eState.store(eContinuous, std::memory_order_release);
        m_dBeginTime.store(QS_GetTimeCounter(), std::memory_order_release);
        SetShutter(true);
        return QS_OK;

    case eStimTimed:
        m_eState.store(eTimed, std::memory_order_release);
        m_dBeginTime.store(QS_GetTimeCounter(), std::memory_order_release);
        SetShutter(true);
        // Only now, since an abort of an earlier stimulation may have left the event signalled. An abort between the
        // opening and here closes the shutter but does not end the wait, and one before the opening does neither: who
        // aborts repeats it until the stimulation has ended, as the manager does.
        ResetEvent(m_hStopEvent);
        WaitForSingleObject(m_hStopEvent, QsStimulationWaitMs(type.dDurationMs));
        SetShutter(false);
        m_dEndTime = QS_GetTimeCounter();
        return QS_OK;

    default:
        return statusNotImplemented;
    }
}

int CQsShutterStimulationDevice::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    for (std::uint64_t i = 0; i < count; ++i)
    {
        if (pdBeginTimes != nullptr)
            pdBeginTimes[i] = -1.0;
        if (pdEndTimes != nullptr)
            pdEndTimes[i] = -1.0;
    }

    // A timed stimulation has closed its shutter and taken its end time.
    if (m_eState.exchange(eIdle) != eTimed)
    {
        SetShutter(false);
        m_dEndTime = QS_GetTimeCounter();
    }

    // Element 0 is written for any count, also 0: callers with arrays own at least one element.
    if (pdBeginTimes != nullptr)
        pdBeginTimes[0] = m_dBeginTime;
    if (pdEndTimes != nullptr)
        pdEndTimes[0] = m_dEndTime;
    return QS_OK;
}

int CQsShutterStimulationDevice::StimulationFire(const SQsStimulationType&, double* pdBeginTime, double* pdEndTime)
{
    if (pdBeginTime != nullptr)
        *pdBeginTime = -1.0;
    if (pdEndTime != nullptr)
        *pdEndTime = -1.0;
    return QS_ERR_FAIL;
}

// Leaves the state alone: the thread inside StimulationBegin still closes the shutter and takes the end time, and
// StimulationEnd must not do so again.
int CQsShutterStimulationDevice::StimulationAbort()
{
    SetEvent(m_hStopEvent);
    SetShutter(false);
    return QS_OK;
}

int CQsShutterStimulationDevice::StimulationROIPrepare(unsigned int)
{
    return QS_OK;
}

int CQsShutterStimulationDevice::StimulationValidate(const SQsExperiment*, CQsStringW&)
{
    return QS_OK;
}

int CQsShutterStimulationDevice::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const
{
    const std::uint32_t id = m_uiShutterId;
    if (id == 0)
        return statusNoIdentity;
    info.vecLogDevIds.push_back(id);
    info.vecPhysDevIds.push_back(DMApi::LogDev_GetPhysDevId(id));
    return QS_OK;
}

int CQsShutterStimulationDevice::AttachShutter(std::uint32_t uiShutterId)
{
    m_uiShutterId = uiShutterId;
    return RegisterSimpleStimulationDevice();
}

int CQsShutterStimulationDevice::RegisterSimpleStimulationDevice()
{
    CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists();
    return manager != nullptr ? manager->RegisterSimpleStimulationDevice(this) : QS_ERR_FAIL;
}

int CQsShutterStimulationDevice::UnregisterSimpleStimulationDevice()
{
    CQsStimulationDeviceManager* const manager = CQsStimulationDeviceManager::InstanceIfExists();
    return manager != nullptr ? manager->UnregisterSimpleStimulationDevice(this) : QS_ERR_FAIL;
}
