#include "plugins/SimulatedDevice.h"

#include "device/WaitTime.h"
#include "host/QsPluginManager.h"
#include "standalone/Journal.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

using QsStandalone::CQsJournal;

namespace {

constexpr int statusNotImplemented = -2;
constexpr int statusNullArgument = -4;
constexpr int statusNoIdentity = -12;
constexpr unsigned stateBegun = 1;
constexpr double noTime = -1.0;

void Fill(double* times, std::uint64_t count)
{
    if (times)
        std::fill_n(times, count, noTime);
}

} // namespace

double QsFullFieldZoom()
{
    double zoom = 1.0;
    CQsPluginManager::AppRntm_HandleEvent(L"ConfocalV4Event_GetFullFOVSDKZoom", 0, 0, &zoom);
    return zoom;
}

class CQsSimulatedDevice::CLight
{
public:
    explicit CLight(CQsSimulatedDevice& device) : m_device(device), m_on(device.SwitchOn()) {}
    ~CLight()
    {
        if (m_on)
            m_device.SwitchOff();
    }
    CLight(const CLight&) = delete;
    CLight& operator=(const CLight&) = delete;

    explicit operator bool() const { return m_on; }
    void LeaveOn() { m_on = false; }
    SLightTimes Off()
    {
        m_on = false;
        return m_device.SwitchOff();
    }

private:
    CQsSimulatedDevice& m_device;
    bool m_on;
};

CQsSimulatedDevice::CQsSimulatedDevice(const CQsClassInfo& info, const SSimulatedDeviceSettings& settings)
    : m_class(info), m_settings(settings), m_name(CQsStringW::FromUtf8(m_settings.name)),
      m_hStop(CreateEventW(nullptr, TRUE, TRUE, nullptr)), m_presetAreas(m_settings.areas)
{}

CQsSimulatedDevice::~CQsSimulatedDevice()
{
    SwitchOff();
    CloseHandle(m_hStop);
}

IQsInterface* CQsSimulatedDevice::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

// ---------------------------------------------------------------------------------------------------------- answers

int CQsSimulatedDevice::SetActive(bool bActive)
{
    return Journaled([&] { return bActive ? "SetActive(true)" : "SetActive(false)"; }, [] { return QS_OK; });
}

bool CQsSimulatedDevice::IsFeatureSupported(unsigned int featureId)
{
    return featureId >= 1 && featureId <= 3;
}

bool CQsSimulatedDevice::IsFeatureEnabled(unsigned int featureId)
{
    return IsFeatureSupported(featureId);
}

CQsStringW CQsSimulatedDevice::GetLocalizedStringForUI(unsigned int stringId)
{
    return stringId == 0 ? CQsStringW::FromUtf8(m_settings.displayName) : CQsStringW();
}

int CQsSimulatedDevice::HWSequencerEnable(bool)
{
    return QS_OK;
}

int CQsSimulatedDevice::GetStimulationExposureTime(double* pdExposure, unsigned int)
{
    if (!pdExposure)
        return statusNullArgument;
    *pdExposure = m_settings.exposureMs;
    return QS_OK;
}

double CQsSimulatedDevice::GetStimulationExposureTimeCombined(std::uint64_t)
{
    return m_settings.exposureMs;
}

int CQsSimulatedDevice::StimulationReady(bool, bool)
{
    return m_settings.connected ? QS_OK : QS_ERR_FAIL;
}

bool CQsSimulatedDevice::StimulationIsReady(bool, CQsStringW* pReason)
{
    if (!m_settings.connected && pReason)
        *pReason = QS_GetTranslation(L"The device is not connected.", __FILE__);
    return m_settings.connected;
}

int CQsSimulatedDevice::StimulationValidate(const SQsExperiment*, CQsStringW& message)
{
    return StimulationIsReady(false, &message) ? QS_OK : QS_ERR_FAIL;
}

int CQsSimulatedDevice::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const
{
    if (m_settings.logicalIds.empty())
        return statusNoIdentity;
    for (std::size_t i = 0; i < m_settings.logicalIds.size(); ++i)
    {
        const std::uint32_t id = m_settings.logicalIds[i];
        info.vecLogDevIds.push_back(id);
        info.vecPhysDevIds.push_back(i < m_settings.physicalIds.size() ? m_settings.physicalIds[i]
                                                                       : DMApi::LogDev_GetPhysDevId(id));
    }
    return QS_OK;
}

// ------------------------------------------------------------------------------------------------------------ areas

unsigned int CQsSimulatedDevice::AreaCountHolding()
{
    std::size_t count = m_presetAreas;
    for (const SAreas& areas : m_areas)
        count += areas.Count();
    return static_cast<unsigned int>(count);
}

unsigned int CQsSimulatedDevice::StimulationAreaGetCount()
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    return AreaCountHolding();
}

CQsSimulatedDevice::SAreas CQsSimulatedDevice::MakeAreas(const std::vector<CQsRoiObject>& regions,
                                                         const SQsRLEPicBuf& picture, const SQsScanAreaDesc* pScanArea,
                                                         const SQsGrabberFormatDesc& format,
                                                         const CQsRectBase<int>& cameraRegion)
{
    SAreas areas;
    areas.regions = regions;
    CQsRLEPicBufAPI::Copy(areas.picture, picture);
    areas.hasScanArea = pScanArea != nullptr;
    if (pScanArea)
        areas.scanArea = *pScanArea;
    areas.format = format;
    areas.cameraRegion = cameraRegion;
    AcceptAreas(areas);
    return areas;
}

void CQsSimulatedDevice::ReplaceAreas(SAreas areas)
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    m_presetAreas = 0;
    m_areas.clear();
    m_areas.push_back(std::move(areas));
    m_uploaded = false;
}

int CQsSimulatedDevice::StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                           const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                           const CQsRectBase<int>& cameraRegion)
{
    ReplaceAreas(MakeAreas(regions, picture, pScanArea, format, cameraRegion));
    return QS_OK;
}

int CQsSimulatedDevice::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions,
                                                       const SQsRLEPicBuf& picture, const SQsScanAreaDesc* pScanArea,
                                                       const SQsGrabberFormatDesc& format,
                                                       const CQsRectBase<int>& cameraRegion)
{
    SAreas areas = MakeAreas(regions, picture, pScanArea, format, cameraRegion);
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    m_areas.push_back(std::move(areas));
    m_uploaded = false;
    return QS_OK;
}

std::vector<CQsSimulatedDevice::SAreas> CQsSimulatedDevice::Areas()
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    return m_areas;
}

unsigned int CQsSimulatedDevice::PresetAreas()
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    return m_presetAreas;
}

int CQsSimulatedDevice::StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture,
                                           SQsScanAreaDesc* pScanArea, SQsGrabberFormatDesc* pFormat,
                                           CQsRectBase<int>* pCameraRegion, std::uint64_t* pPatternMask)
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    std::vector<CQsRoiObject> regions;
    std::uint64_t mask = 0;
    for (const SAreas& areas : m_areas)
        for (const CQsRoiObject& region : areas.regions)
        {
            regions.push_back(region);
            if (region.GetPatternIndex() >= 0 && region.GetPatternIndex() < 64)
                mask |= std::uint64_t{1} << region.GetPatternIndex();
        }
    const SAreas last = m_areas.empty() ? SAreas() : m_areas.back();
    if (pRegions)
        *pRegions = regions;
    if (pPicture)
        CQsRLEPicBufAPI::Copy(*pPicture, last.picture);
    if (pScanArea && last.hasScanArea)
        *pScanArea = last.scanArea;
    if (pFormat)
        *pFormat = last.format;
    if (pCameraRegion)
        *pCameraRegion = last.cameraRegion;
    if (pPatternMask)
        *pPatternMask = mask;
    return QS_OK;
}

bool CQsSimulatedDevice::KeepPattern(SAreas pattern, bool overwrite)
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    const auto known =
        std::find_if(m_areas.begin(), m_areas.end(),
                     [&pattern](const SAreas& areas) { return areas.patternName == pattern.patternName; });
    if (known != m_areas.end() && !overwrite)
        return false;
    if (known != m_areas.end())
        *known = std::move(pattern);
    else
        m_areas.push_back(std::move(pattern));
    m_uploaded = false;
    return true;
}

int CQsSimulatedDevice::StimulationAreaUpload()
{
    return Journaled([] { return "StimulationAreaUpload()"; },
                     [this]
                     {
                         if (!m_settings.connected)
                             return QS_ERR_FAIL;
                         // First, so that areas that are set meanwhile make it untrue again.
                         SetUploaded(true);
                         const int status = PrepareLight();
                         if (status != QS_OK)
                             SetUploaded(false);
                         return status;
                     });
}

void CQsSimulatedDevice::SetUploaded(bool uploaded)
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    m_uploaded = uploaded;
}

bool CQsSimulatedDevice::StimulationAreaIsUpToDate()
{
    CQsScopedLock<CQsMutex> lock(m_areaLock);
    return m_uploaded;
}

int CQsSimulatedDevice::StimulationROIPrepare(unsigned int roiIndex)
{
    return roiIndex < StimulationAreaGetCount() ? QS_OK : QS_ERR_FAIL;
}

// ------------------------------------------------------------------------------------------------------ stimulation

int CQsSimulatedDevice::StimulationBegin(const SQsStimulationType& type)
{
    return Journaled(
        [&]
        {
            return "StimulationBegin(kind " + std::to_string(type.uiType) + ", " + std::to_string(type.dDurationMs) +
                   " ms, repeat " + std::to_string(type.uiRepeatCount) + ")";
        },
        [&] { return Begin(type); });
}

int CQsSimulatedDevice::StimulationFire(const SQsStimulationType&, double* pdBeginTime, double* pdEndTime)
{
    return Journaled([] { return "StimulationFire()"; }, [&] { return Fire(pdBeginTime, pdEndTime); });
}

int CQsSimulatedDevice::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    return Journaled([&] { return "StimulationEnd(" + std::to_string(count) + ")"; },
                     [&] { return End(pdBeginTimes, pdEndTimes, count); });
}

int CQsSimulatedDevice::StimulationAbort()
{
    return Journaled([] { return "StimulationAbort()"; }, [this] { return Abort(); });
}

int CQsSimulatedDevice::Begin(const SQsStimulationType& type)
{
    const std::vector<std::uint32_t>& kinds = m_settings.kinds;
    if (std::find(kinds.begin(), kinds.end(), type.uiType) == kinds.end())
        return statusNotImplemented;
    if (!m_settings.connected)
        return QS_ERR_FAIL;
    StartStimulation(type.uiType);
    if (m_settings.stateCallback)
        ReportStateChange(stateBegun);
    const int prepared = PrepareLight();
    if (prepared != QS_OK)
        return Refuse(prepared);
    if (!Work(m_settings.beginMs))
        return QS_ERR_FAIL;
    if (m_settings.beginStatus != 0)
    {
        CQsJournal::Fault(JournalName(), "the begin fails");
        return Refuse(m_settings.beginStatus);
    }
    if (type.uiType == eStimRepeatedPatterns)
    {
        ThrowIn("begin");
        return QS_OK;
    }
    CLight light(*this);
    if (!light)
        return QS_ERR_FAIL;
    ThrowIn("begin");
    if (type.uiType == eStimContinuous)
        light.LeaveOn();
    else
        WaitForStop(type.dDurationMs);
    return QS_OK;
}

int CQsSimulatedDevice::Refuse(int status)
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    m_stopped = true;
    return status;
}

int CQsSimulatedDevice::Fire(double* pdBeginTime, double* pdEndTime)
{
    Fill(pdBeginTime, 1);
    Fill(pdEndTime, 1);
    std::uint32_t shot = 0;
    {
        CQsScopedLock<CQsMutex> lock(m_lock);
        if (m_stopped || m_kind != eStimRepeatedPatterns)
            return QS_ERR_FAIL;
        shot = ++m_fires;
    }
    if (!Work(m_settings.fireMs))
        return QS_ERR_FAIL;
    if (shot == m_settings.fireFaultAt)
    {
        CQsJournal::Fault(JournalName(), "shot " + std::to_string(shot) + " fails");
        return m_settings.fireFaultStatus;
    }
    CLight light(*this);
    if (!light)
        return QS_ERR_FAIL;
    ThrowIn("fire");
    const bool stopped = WaitForStop(m_settings.exposureMs);
    const SLightTimes times = light.Off();
    if (pdBeginTime)
        *pdBeginTime = times.begin;
    if (pdEndTime)
        *pdEndTime = times.end;
    return stopped ? QS_ERR_FAIL : QS_OK;
}

int CQsSimulatedDevice::End(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    Fill(pdBeginTimes, count);
    Fill(pdEndTimes, count);
    {
        CQsScopedLock<CQsMutex> lock(m_lock);
        SwitchOffHolding();
        m_stopped = true;
        m_kind = 0;
        for (std::size_t i = 0; i < std::min<std::uint64_t>(count, m_times.size()); ++i)
        {
            if (pdBeginTimes)
                pdBeginTimes[i] = m_times[i].begin;
            if (pdEndTimes)
                pdEndTimes[i] = m_times[i].end;
        }
        m_times.clear();
    }
    SetEvent(m_hStop);
    if (m_settings.endMs > 0.0)
        std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(m_settings.endMs));
    ThrowIn("end");
    if (m_settings.endStatus != 0)
        CQsJournal::Fault(JournalName(), "the end fails");
    return m_settings.endStatus;
}

int CQsSimulatedDevice::Abort()
{
    {
        CQsScopedLock<CQsMutex> lock(m_lock);
        if (m_kind != 0 && QS_GetTimeCounter() - m_beginTime < m_settings.ignoreAbortMs)
        {
            CQsJournal::Fault(JournalName(), "the abort is ignored");
            return QS_ERR_FAIL;
        }
        m_stopped = true;
        SwitchOffHolding();
    }
    SetEvent(m_hStop);
    return QS_OK;
}

void CQsSimulatedDevice::StartStimulation(std::uint32_t kind)
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    SwitchOffHolding(); // of a continuous one that nobody ended
    m_kind = kind;
    m_stopped = false;
    m_beginTime = QS_GetTimeCounter();
    m_fires = 0;
    m_times.clear();
    ResetEvent(m_hStop);
}

bool CQsSimulatedDevice::Work(double ms)
{
    return ms <= 0.0 || !WaitForStop(ms);
}

bool CQsSimulatedDevice::WaitForStop(double ms)
{
    return WaitForSingleObject(m_hStop, QsStimulationWaitMs(ms)) == WAIT_OBJECT_0;
}

bool CQsSimulatedDevice::SwitchOn()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    std::string text;
    if (m_stopped || m_lit || !LightComesOn(text))
        return false;
    m_times.push_back({QS_GetTimeCounter(), noTime});
    m_lit = true;
    CQsJournal::LightOn(JournalName(), text);
    return true;
}

CQsSimulatedDevice::SLightTimes CQsSimulatedDevice::SwitchOff()
{
    CQsScopedLock<CQsMutex> lock(m_lock);
    SwitchOffHolding();
    return m_times.empty() ? SLightTimes() : m_times.back();
}

void CQsSimulatedDevice::SwitchOffHolding()
{
    if (!m_lit)
        return;
    m_lit = false;
    LightGoesOff();
    CQsJournal::LightOff(JournalName());
    m_times.back().end = QS_GetTimeCounter();
}

// The thread is not waited for: who hears of the change may wait for this very stimulation.
void CQsSimulatedDevice::ReportStateChange(unsigned int state)
{
    AddRef();
    try
    {
        std::thread(
            [this, state]
            {
                DeviceStateChangedCallback(state);
                Release();
            })
            .detach();
    }
    catch (const std::system_error&)
    {
        Release();
    }
}

void CQsSimulatedDevice::ThrowIn(const char* operation)
{
    if (m_settings.throws != operation)
        return;
    CQsJournal::Fault(JournalName(), "the " + m_settings.throws + " throws");
    throw std::runtime_error("simulated fault of " + m_settings.name);
}

int CQsSimulatedDevice::Journaled(const std::function<std::string()>& text, const std::function<int()>& operation)
{
    if (!CQsJournal::IsRecording())
        return operation();
    const std::string line = text();
    CQsJournal::Call(JournalName(), line);
    const int status = operation();
    CQsJournal::Return(JournalName(), line, status);
    return status;
}
