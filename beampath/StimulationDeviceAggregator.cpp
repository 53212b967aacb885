#include "beampath/StimulationDeviceAggregator.h"

#include "device/ClassRegistration.h"
#include "manager/StimulationManager.h"

#include <cmath>
#include <cstring>

#define QS_DIAG(...) DiagOutputExW(L"StimulationDeviceAggregator", __LINE__, __VA_ARGS__)

namespace {

constexpr int s_notImplemented = -2;
constexpr int s_phaseTooShort = -4;
constexpr double s_shortestPhaseMs = 0.001;
constexpr unsigned s_roiKindPattern = 4;
constexpr int s_patternCount = 3;

} // namespace

QS_REGISTER_STIMULATION_CLASS(CQsStimulationDeviceAggregator, "Beampath Aggregated Stimulation device");
QS_EXPORT_WIDE_CLASS_NAME(CQsStimulationDeviceAggregator);

const CQsClassInfo* CQsStimulationDeviceAggregator::GetCQsClassInfo()
{
    return &sm_classCQsStimulationDeviceAggregator;
}

const CQsClassInfo* CQsStimulationDeviceAggregator::GetClass() const
{
    return GetCQsClassInfo();
}

IQsInterface* CQsStimulationDeviceAggregator::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

int CQsStimulationDeviceAggregator::RegisterSimpleStimulationDevice()
{
    return QS_OK;
}

int CQsStimulationDeviceAggregator::UnregisterSimpleStimulationDevice()
{
    return QS_OK;
}

CQsStringW CQsStimulationDeviceAggregator::GetUniqueName() const
{
    return {};
}

bool CQsStimulationDeviceAggregator::IsHWConnected()
{
    return false;
}

bool CQsStimulationDeviceAggregator::IsVisible()
{
    return false;
}

int CQsStimulationDeviceAggregator::SetActive(bool)
{
    return s_notImplemented;
}

bool CQsStimulationDeviceAggregator::IsFeatureSupported(unsigned int)
{
    return false;
}

bool CQsStimulationDeviceAggregator::IsFeatureEnabled(unsigned int)
{
    return false;
}

IQsStimulationDevice::EQsStimulationDeviceType CQsStimulationDeviceAggregator::GetStimulationDeviceType() const
{
    return eStimDevGeneric;
}

CQsStringW CQsStimulationDeviceAggregator::GetLocalizedStringForUI(unsigned int)
{
    return {};
}

int CQsStimulationDeviceAggregator::HWSequencerEnable(bool)
{
    return QS_OK;
}

double CQsStimulationDeviceAggregator::GetAcquisitionExposureTime()
{
    return 0.0;
}

int CQsStimulationDeviceAggregator::GetStimulationExposureTime(double*, unsigned int)
{
    return QS_OK;
}

double CQsStimulationDeviceAggregator::GetStimulationExposureTimeCombined(std::uint64_t)
{
    return 0.0;
}

unsigned int CQsStimulationDeviceAggregator::StimulationModeGet()
{
    return 3;
}

unsigned int CQsStimulationDeviceAggregator::StimulationAreaGetCount()
{
    const CQsScopedLock<CQsMutex> lock(m_lockAreas);
    return static_cast<unsigned>(m_regions.size());
}

int CQsStimulationDeviceAggregator::StimulationAreaSet(const std::vector<CQsRoiObject>& regions,
                                                       const SQsRLEPicBuf& picture, const SQsScanAreaDesc* pScanArea,
                                                       const SQsGrabberFormatDesc& format,
                                                       const CQsRectBase<int>& cameraRegion)
{
    const CQsScopedLock<CQsMutex> lock(m_lockAreas);
    m_regions = regions;
    CQsRLEPicBufAPI::Copy(m_picture, picture);
    if (pScanArea != nullptr)
        m_scanArea = *pScanArea;
    m_format = format;
    m_cameraRegion = cameraRegion;
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture,
                                                       SQsScanAreaDesc* pScanArea, SQsGrabberFormatDesc* pFormat,
                                                       CQsRectBase<int>* pCameraRegion, std::uint64_t* pPatternMask)
{
    const CQsScopedLock<CQsMutex> lock(m_lockAreas);
    if (pRegions != nullptr)
        *pRegions = m_regions;
    if (pPicture != nullptr)
        CQsRLEPicBufAPI::Copy(*pPicture, m_picture);
    if (pScanArea != nullptr)
        *pScanArea = m_scanArea;
    if (pFormat != nullptr)
        *pFormat = m_format;
    if (pCameraRegion != nullptr)
        *pCameraRegion = m_cameraRegion;
    if (pPatternMask != nullptr)
    {
        *pPatternMask = 0;
        for (const CQsRoiObject& region : m_regions)
        {
            const int k = region.GetPatternIndex();
            if (region.GetKind() == s_roiKindPattern && k >= 0 && k < s_patternCount)
                *pPatternMask |= std::uint64_t{1} << k;
        }
    }
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>&,
                                                                   const SQsRLEPicBuf&, const SQsScanAreaDesc*,
                                                                   const SQsGrabberFormatDesc&, const CQsRectBase<int>&)
{
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationAreaUpload()
{
    return QS_OK;
}

bool CQsStimulationDeviceAggregator::StimulationAreaIsUpToDate()
{
    return true;
}

int CQsStimulationDeviceAggregator::StimulationReady(bool, bool)
{
    return QS_OK;
}

bool CQsStimulationDeviceAggregator::StimulationIsReady(bool, CQsStringW*)
{
    return true;
}

int CQsStimulationDeviceAggregator::StimulationBegin(const SQsStimulationType& type)
{
    using Manager = CQsStimulationDeviceManager;
    Manager* const pManager = Manager::InstanceIfExists();
    if (pManager == nullptr)
        return QS_ERR_FAIL;
    pManager->FireCallbackForChange(Manager::eChangeStimulationBegin);
    if (type.uiType == eStimTimed && std::fabs(type.dDurationMs) <= s_shortestPhaseMs)
    {
        QS_DIAG(L"CQsStimulationDeviceAggregator::StimulationBegin: Invalid stimulation phase duration %f [ms].",
                type.dDurationMs);
        return s_phaseTooShort;
    }
    m_lastKind = type.uiType;
    pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
    pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationPhase);
    if (type.uiType == eStimTimed)
    {
        pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
        pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationEnd);
    }
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationEnd(double*, double*, std::uint64_t)
{
    using Manager = CQsStimulationDeviceManager;
    Manager* const pManager = Manager::InstanceIfExists();
    const bool bContinuous = m_lastKind.exchange(0) == eStimContinuous;
    if (pManager == nullptr)
        return QS_OK;
    if (bContinuous)
    {
        pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationBegin);
        pManager->FireCallbackForStimulationOCCommand(Manager::eOCCommandStimulationEnd);
    }
    pManager->FireCallbackForChange(Manager::eChangeStimulationEnd);
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationFire(const SQsStimulationType&, double* pdBeginTime, double* pdEndTime)
{
    if (pdBeginTime != nullptr)
        *pdBeginTime = -1.0;
    if (pdEndTime != nullptr)
        *pdEndTime = -1.0;
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationAbort()
{
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationROIPrepare(unsigned int)
{
    return QS_OK;
}

int CQsStimulationDeviceAggregator::StimulationValidate(const SQsExperiment*, CQsStringW&)
{
    return QS_OK;
}

int CQsStimulationDeviceAggregator::GetStimulationDeviceInfo(SQsStimulationDeviceInfo&) const
{
    return QS_OK;
}
