#include "beampath/StimulationDeviceProxy.h"

#include "device/ClassRegistration.h"
#include "device/WaitTime.h"
#include "manager/StimulationManager.h"

#include <cstring>

#define QS_DIAG(...) DiagOutputExW(L"StimulationDeviceProxy", __LINE__, __VA_ARGS__)

namespace {

constexpr int s_notImplemented = -2;

} // namespace

QS_REGISTER_STIMULATION_CLASS(CQsStimulationDeviceProxy, "Beampath Proxy Stimulation device");
QS_EXPORT_WIDE_CLASS_NAME(CQsStimulationDeviceProxy);

CQsStimulationDeviceProxy::CQsStimulationDeviceProxy()
{
    constexpr const char* operation = "CQsStimulationDeviceProxy::CQsStimulationDeviceProxy";
    QS_DIAG(L"%hs - begin", operation);
    m_hAbortEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    QS_DIAG(L"%hs - end", operation);
}

CQsStimulationDeviceProxy::~CQsStimulationDeviceProxy()
{
    constexpr const char* operation = "CQsStimulationDeviceProxy::~CQsStimulationDeviceProxy";
    QS_DIAG(L"%hs - begin", operation);
    if (m_hAbortEvent != nullptr)
        CloseHandle(m_hAbortEvent);
    QS_DIAG(L"%hs - end", operation);
}

int CQsStimulationDeviceProxy::SetStimulationSubbeampathId(qs_int32 id)
{
    if (CQsStimulationDeviceManager::InstanceIfExists() == nullptr)
        return QS_ERR_FAIL;
    m_id = id;
    return QS_OK;
}

qs_int32 CQsStimulationDeviceProxy::GetStimulationSubbeampathId() const
{
    return m_id;
}

const CQsClassInfo* CQsStimulationDeviceProxy::GetCQsClassInfo()
{
    return &sm_classCQsStimulationDeviceProxy;
}

const CQsClassInfo* CQsStimulationDeviceProxy::GetClass() const
{
    return GetCQsClassInfo();
}

IQsInterface* CQsStimulationDeviceProxy::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

int CQsStimulationDeviceProxy::RegisterSimpleStimulationDevice()
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::UnregisterSimpleStimulationDevice()
{
    return QS_OK;
}

CQsStringW CQsStimulationDeviceProxy::GetUniqueName() const
{
    return CQsStringW::Format(L"StimulationDeviceProxy_%d", m_id.load());
}

bool CQsStimulationDeviceProxy::IsHWConnected()
{
    return m_id > 0;
}

bool CQsStimulationDeviceProxy::IsVisible()
{
    return m_id > 0;
}

int CQsStimulationDeviceProxy::SetActive(bool)
{
    return s_notImplemented;
}

bool CQsStimulationDeviceProxy::IsFeatureSupported(unsigned int featureId)
{
    return featureId >= 1 && featureId <= 3;
}

bool CQsStimulationDeviceProxy::IsFeatureEnabled(unsigned int featureId)
{
    return featureId >= 1 && featureId <= 3;
}

IQsStimulationDevice::EQsStimulationDeviceType CQsStimulationDeviceProxy::GetStimulationDeviceType() const
{
    return eStimDevGeneric;
}

CQsStringW CQsStimulationDeviceProxy::GetLocalizedStringForUI(unsigned int)
{
    // Filled in without the formatter: a translation may hold more than the one place for the name. The sub-beampath's
    // name stands in the device database, so the place stays empty.
    const CQsStringW text = QS_GetTranslation(L"Stimulation Device for Beampath %s", __FILE__);
    const std::size_t place = text.Find(L"%s");
    return place == CQsStringW::npos ? text : text.Left(place) + CQsStringW(text.c_str() + place + 2);
}

int CQsStimulationDeviceProxy::HWSequencerEnable(bool)
{
    return QS_OK;
}

double CQsStimulationDeviceProxy::GetAcquisitionExposureTime()
{
    return 0.0;
}

int CQsStimulationDeviceProxy::GetStimulationExposureTime(double*, unsigned int)
{
    return QS_OK;
}

double CQsStimulationDeviceProxy::GetStimulationExposureTimeCombined(std::uint64_t)
{
    return 0.0;
}

unsigned int CQsStimulationDeviceProxy::StimulationModeGet()
{
    return 3;
}

unsigned int CQsStimulationDeviceProxy::StimulationAreaGetCount()
{
    return 0;
}

int CQsStimulationDeviceProxy::StimulationAreaSet(const std::vector<CQsRoiObject>&, const SQsRLEPicBuf&,
                                                  const SQsScanAreaDesc*, const SQsGrabberFormatDesc&,
                                                  const CQsRectBase<int>&)
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationAreaGet(std::vector<CQsRoiObject>*, SQsRLEPicBuf*, SQsScanAreaDesc*,
                                                  SQsGrabberFormatDesc*, CQsRectBase<int>*, std::uint64_t*)
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>&, const SQsRLEPicBuf&,
                                                              const SQsScanAreaDesc*, const SQsGrabberFormatDesc&,
                                                              const CQsRectBase<int>&)
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationAreaUpload()
{
    return QS_OK;
}

bool CQsStimulationDeviceProxy::StimulationAreaIsUpToDate()
{
    return true;
}

int CQsStimulationDeviceProxy::StimulationReady(bool, bool)
{
    return QS_OK;
}

bool CQsStimulationDeviceProxy::StimulationIsReady(bool, CQsStringW*)
{
    return StimulationAreaIsUpToDate();
}

int CQsStimulationDeviceProxy::StimulationBegin(const SQsStimulationType& type)
{
    if (CQsStimulationDeviceManager::InstanceIfExists() == nullptr)
        return QS_ERR_FAIL;
    const CQsScopedLock<CQsRecursiveMutex> lock(m_lockPhase);
    switch (type.uiType)
    {
    case eStimContinuous:
        return QS_OK;
    case eStimTimed:
        ResetEvent(m_hAbortEvent);
        WaitForSingleObject(m_hAbortEvent, QsStimulationWaitMs(type.dDurationMs));
        return QS_OK;
    default:
        QS_DIAG(L"CQsStimulationDeviceProxy::StimulationBegin: Entered default case for Stimulation Begin...");
        return QS_ERR_FAIL;
    }
}

int CQsStimulationDeviceProxy::StimulationEnd(double*, double*, std::uint64_t)
{
    {
        // An end that overtakes a begin waits for its phase.
        const CQsScopedLock<CQsRecursiveMutex> lock(m_lockPhase);
    }
    // Outside the lock, since the host's callbacks may come back to this device from another thread.
    CQsStimulationDeviceManager* const pManager = CQsStimulationDeviceManager::InstanceIfExists();
    if (pManager != nullptr)
        pManager->FireCallbackForStimulationOCCommand(CQsStimulationDeviceManager::eOCCommandStimulationEnd);
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationFire(const SQsStimulationType&, double* pdBeginTime, double* pdEndTime)
{
    if (pdBeginTime != nullptr)
        *pdBeginTime = -1.0;
    if (pdEndTime != nullptr)
        *pdEndTime = -1.0;
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationAbort()
{
    // Not under the phase's lock: it is there to reach a begin that holds it.
    SetEvent(m_hAbortEvent);
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationROIPrepare(unsigned int)
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::StimulationValidate(const SQsExperiment*, CQsStringW&)
{
    return QS_OK;
}

int CQsStimulationDeviceProxy::GetStimulationDeviceInfo(SQsStimulationDeviceInfo&) const
{
    return s_notImplemented;
}
