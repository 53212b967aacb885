#include "device/MultilaserStimulationDevice.h"

#include "host/QsDevice.h"
#include "manager/StimulationManager.h"

namespace {

constexpr int s_notImplemented = -2;
constexpr int s_noIdentity = -12;

} // namespace

CQsMultilaserStimulationDevice::CQsMultilaserStimulationDevice() = default;
CQsMultilaserStimulationDevice::CQsMultilaserStimulationDevice(const CQsMultilaserStimulationDevice&) = default;
CQsMultilaserStimulationDevice&
CQsMultilaserStimulationDevice::operator=(const CQsMultilaserStimulationDevice&) = default;
CQsMultilaserStimulationDevice::~CQsMultilaserStimulationDevice() = default;

const CQsClassInfo* CQsMultilaserStimulationDevice::GetClass() const
{
    return nullptr;
}

CQsStringW CQsMultilaserStimulationDevice::GetUniqueName() const
{
    return {};
}

bool CQsMultilaserStimulationDevice::IsHWConnected()
{
    return false;
}

bool CQsMultilaserStimulationDevice::IsVisible()
{
    return false;
}

int CQsMultilaserStimulationDevice::SetActive(bool)
{
    return s_notImplemented;
}

bool CQsMultilaserStimulationDevice::IsFeatureSupported(unsigned int)
{
    return false;
}

bool CQsMultilaserStimulationDevice::IsFeatureEnabled(unsigned int)
{
    return false;
}

IQsStimulationDevice::EQsStimulationDeviceType CQsMultilaserStimulationDevice::GetStimulationDeviceType() const
{
    return eStimDevMultilaser;
}

CQsStringW CQsMultilaserStimulationDevice::GetLocalizedStringForUI(unsigned int)
{
    return {};
}

int CQsMultilaserStimulationDevice::HWSequencerEnable(bool)
{
    return s_notImplemented;
}

double CQsMultilaserStimulationDevice::GetAcquisitionExposureTime()
{
    return 0.0;
}

int CQsMultilaserStimulationDevice::GetStimulationExposureTime(double*, unsigned int)
{
    return s_notImplemented;
}

double CQsMultilaserStimulationDevice::GetStimulationExposureTimeCombined(std::uint64_t)
{
    return 0.0;
}

// The status goes through the unsigned result of this and of the next operation: the device of a beampath compares
// modes by size and takes this one for the largest when a plain multilaser unit is among its members.
unsigned int CQsMultilaserStimulationDevice::StimulationModeGet()
{
    return static_cast<unsigned>(s_notImplemented);
}

unsigned int CQsMultilaserStimulationDevice::StimulationAreaGetCount()
{
    return static_cast<unsigned>(s_notImplemented);
}

int CQsMultilaserStimulationDevice::StimulationAreaSet(const std::vector<CQsRoiObject>&, const SQsRLEPicBuf&,
                                                       const SQsScanAreaDesc*, const SQsGrabberFormatDesc&,
                                                       const CQsRectBase<int>&)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationAreaGet(std::vector<CQsRoiObject>*, SQsRLEPicBuf*, SQsScanAreaDesc*,
                                                       SQsGrabberFormatDesc*, CQsRectBase<int>*, std::uint64_t*)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>&,
                                                                   const SQsRLEPicBuf&, const SQsScanAreaDesc*,
                                                                   const SQsGrabberFormatDesc&, const CQsRectBase<int>&)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationAreaUpload()
{
    return s_notImplemented;
}

bool CQsMultilaserStimulationDevice::StimulationAreaIsUpToDate()
{
    return true;
}

int CQsMultilaserStimulationDevice::StimulationReady(bool, bool)
{
    return s_notImplemented;
}

bool CQsMultilaserStimulationDevice::StimulationIsReady(bool, CQsStringW*)
{
    return false;
}

int CQsMultilaserStimulationDevice::StimulationBegin(const SQsStimulationType&)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationEnd(double*, double*, std::uint64_t)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationFire(const SQsStimulationType&, double*, double*)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationAbort()
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationROIPrepare(unsigned int)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::StimulationValidate(const SQsExperiment*, CQsStringW&)
{
    return s_notImplemented;
}

int CQsMultilaserStimulationDevice::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const
{
    if (m_uiLogDevId == 0)
        return s_noIdentity;
    info.vecLogDevIds.push_back(m_uiLogDevId);
    info.vecPhysDevIds.push_back(DMApi::LogDev_GetPhysDevId(m_uiLogDevId));
    return QS_OK;
}

void CQsMultilaserStimulationDevice::SetLogDevId(unsigned int uiLogDevId)
{
    m_uiLogDevId = uiLogDevId;
}

IQsStimulationPhysDev* CQsMultilaserStimulationDevice::GetDriver()
{
    return m_pDriver;
}

void CQsMultilaserStimulationDevice::SetDriver(IQsStimulationPhysDev* pDriver)
{
    m_pDriver = pDriver;
}

int CQsMultilaserStimulationDevice::RegisterSimpleStimulationDevice()
{
    if (!DeviceDBApi::IsInitialized())
        return s_noIdentity;
    CQsStimulationDeviceManager* const pManager = CQsStimulationDeviceManager::InstanceIfExists();
    return pManager != nullptr ? pManager->RegisterSimpleStimulationDevice(this) : QS_ERR_FAIL;
}

int CQsMultilaserStimulationDevice::UnregisterSimpleStimulationDevice()
{
    if (!DeviceDBApi::IsInitialized())
        return s_noIdentity;
    CQsStimulationDeviceManager* const pManager = CQsStimulationDeviceManager::InstanceIfExists();
    return pManager != nullptr ? pManager->UnregisterSimpleStimulationDevice(this) : QS_ERR_FAIL;
}
