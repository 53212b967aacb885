#include "tests/support/FakeDevice.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace QsTest {
namespace {

const char* Text(bool value)
{
    return value ? "true" : "false";
}

std::string Call(const char* operation, std::uint64_t argument)
{
    return std::string(operation) + "(" + std::to_string(argument) + ")";
}

bool Contains(const std::vector<unsigned>& ids, unsigned id)
{
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

} // namespace

// ---------------------------------------------------------------------------------------------------------- call log

void CCallLog::Add(const std::string& entry)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_back(entry);
    m_changed.notify_all();
}

std::vector<std::string> CCallLog::Entries() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

std::size_t CCallLog::Count(const std::string& entry) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(std::count(m_entries.begin(), m_entries.end(), entry));
}

void CCallLog::Clear()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.clear();
}

bool CCallLog::WaitFor(const std::string& entry, std::size_t count, std::chrono::milliseconds patience) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(
        lock, std::chrono::steady_clock::now() + patience,
        [&] { return static_cast<std::size_t>(std::count(m_entries.begin(), m_entries.end(), entry)) >= count; });
}

// ------------------------------------------------------------------------------------------------------- fake device

CQsFakeDeviceBase::CQsFakeDeviceBase(const wchar_t* name) : sName(name), sDisplayName(name) {}

void CQsFakeDeviceBase::Command(const std::string& entry)
{
    log.Add(entry);
    if (pSharedLog != nullptr)
        pSharedLog->Add(sName.ToUtf8() + ": " + entry);
}

std::uint64_t CQsFakeDeviceBase::Remember(const SQsStimulationType& type)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lastRequest = type;
    return m_aborts;
}

IQsStimulationDevice::SQsStimulationType CQsFakeDeviceBase::LastRequest() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastRequest;
}

void CQsFakeDeviceBase::WaitForAbort(std::uint64_t abortsBefore)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_released.wait(lock, [&] { return m_bReleased || (bAbortEndsBegin && m_aborts != abortsBefore); });
}

void CQsFakeDeviceBase::ReleaseBegin()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bReleased = true;
    m_released.notify_all();
}

CQsStringW CQsFakeDeviceBase::GetUniqueName() const
{
    Query("GetUniqueName");
    return sName;
}

bool CQsFakeDeviceBase::IsHWConnected()
{
    Query("IsHWConnected");
    return bConnected;
}

bool CQsFakeDeviceBase::IsVisible()
{
    Query("IsVisible");
    return bVisible;
}

int CQsFakeDeviceBase::SetActive(bool bActive)
{
    Command(std::string("SetActive(") + Text(bActive) + ")");
    return onSetActive ? onSetActive(bActive) : iSetActiveResult.load();
}

bool CQsFakeDeviceBase::IsFeatureSupported(unsigned int featureId)
{
    Query("IsFeatureSupported");
    return Contains(supportedFeatures, featureId);
}

bool CQsFakeDeviceBase::IsFeatureEnabled(unsigned int featureId)
{
    Query("IsFeatureEnabled");
    return Contains(enabledFeatures, featureId);
}

IQsStimulationDevice::EQsStimulationDeviceType CQsFakeDeviceBase::GetStimulationDeviceType() const
{
    Query("GetStimulationDeviceType");
    return eType;
}

CQsStringW CQsFakeDeviceBase::GetLocalizedStringForUI(unsigned int stringId)
{
    Query("GetLocalizedStringForUI");
    return stringId == 0 ? sDisplayName : CQsStringW();
}

int CQsFakeDeviceBase::HWSequencerEnable(bool bEnable)
{
    Command(std::string("HWSequencerEnable(") + Text(bEnable) + ")");
    return 0;
}

double CQsFakeDeviceBase::GetAcquisitionExposureTime()
{
    Query("GetAcquisitionExposureTime");
    return dAcquisitionExposure;
}

int CQsFakeDeviceBase::GetStimulationExposureTime(double*, unsigned int)
{
    Query("GetStimulationExposureTime");
    return 0;
}

double CQsFakeDeviceBase::GetStimulationExposureTimeCombined(std::uint64_t)
{
    Query("GetStimulationExposureTimeCombined");
    return dCombinedExposure;
}

unsigned int CQsFakeDeviceBase::StimulationModeGet()
{
    Query("StimulationModeGet");
    return uiMode;
}

unsigned int CQsFakeDeviceBase::StimulationAreaGetCount()
{
    Query("StimulationAreaGetCount");
    return uiAreaCount;
}

int CQsFakeDeviceBase::StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf&,
                                          const SQsScanAreaDesc*, const SQsGrabberFormatDesc&, const CQsRectBase<int>&)
{
    Command(Call("StimulationAreaSet", regions.size()));
    return 0;
}

int CQsFakeDeviceBase::StimulationAreaGet(std::vector<CQsRoiObject>*, SQsRLEPicBuf*, SQsScanAreaDesc*,
                                          SQsGrabberFormatDesc*, CQsRectBase<int>*, std::uint64_t*)
{
    Query("StimulationAreaGet");
    return 0;
}

int CQsFakeDeviceBase::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf&,
                                                      const SQsScanAreaDesc*, const SQsGrabberFormatDesc&,
                                                      const CQsRectBase<int>&)
{
    Command(Call("StimulationAreaAppendAsPattern", regions.size()));
    return 0;
}

int CQsFakeDeviceBase::StimulationAreaUpload()
{
    Command("StimulationAreaUpload()");
    return 0;
}

bool CQsFakeDeviceBase::StimulationAreaIsUpToDate()
{
    Query("StimulationAreaIsUpToDate");
    return true;
}

int CQsFakeDeviceBase::StimulationReady(bool first, bool second)
{
    Command(std::string("StimulationReady(") + Text(first) + ", " + Text(second) + ")");
    return 0;
}

bool CQsFakeDeviceBase::StimulationIsReady(bool, CQsStringW*)
{
    Query("StimulationIsReady");
    return true;
}

int CQsFakeDeviceBase::StimulationBegin(const SQsStimulationType& type)
{
    // Taken before the call shows in the log, so that an abort that waits for the log entry is never lost.
    const std::uint64_t abortsBefore = Remember(type);
    std::ostringstream entry;
    entry.imbue(std::locale::classic());
    entry << "StimulationBegin(" << type.uiType << ", " << type.dDurationMs << ")";
    Command(entry.str());
    if (onBegin)
        return onBegin(type);
    if (bBeginBlocks)
        WaitForAbort(abortsBefore);
    return iBeginResult;
}

int CQsFakeDeviceBase::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    Command(Call("StimulationEnd", count));
    for (std::uint64_t i = 0; i < count; ++i)
    {
        const bool bTimed = i < endTimes.size();
        if (pdBeginTimes != nullptr)
            pdBeginTimes[i] = bTimed ? endTimes[i].first : -1.0;
        if (pdEndTimes != nullptr)
            pdEndTimes[i] = bTimed ? endTimes[i].second : -1.0;
    }
    return onEnd ? onEnd() : iEndResult.load();
}

int CQsFakeDeviceBase::StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime)
{
    Remember(type);
    const unsigned fire = m_fires++;
    Command(Call("StimulationFire", type.uiType));
    if (pdBeginTime != nullptr)
        *pdBeginTime = fireTimes.first;
    if (pdEndTime != nullptr)
        *pdEndTime = fireTimes.second;
    if (onFire)
        return onFire(type);
    return fire < fireResults.size() ? fireResults[fire] : 0;
}

int CQsFakeDeviceBase::StimulationAbort()
{
    Command("StimulationAbort()");
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_aborts;
        m_released.notify_all();
    }
    return onAbort ? onAbort() : iAbortResult.load();
}

int CQsFakeDeviceBase::StimulationROIPrepare(unsigned int roiIndex)
{
    Command(Call("StimulationROIPrepare", roiIndex));
    return 0;
}

int CQsFakeDeviceBase::StimulationValidate(const SQsExperiment*, CQsStringW&)
{
    Command("StimulationValidate()");
    return 0;
}

int CQsFakeDeviceBase::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const
{
    Query("GetStimulationDeviceInfo");
    if (iInfoResult != 0)
        return iInfoResult;
    out.vecLogDevIds.insert(out.vecLogDevIds.end(), info.vecLogDevIds.begin(), info.vecLogDevIds.end());
    out.vecPhysDevIds.insert(out.vecPhysDevIds.end(), info.vecPhysDevIds.begin(), info.vecPhysDevIds.end());
    return 0;
}

// -------------------------------------------------------------------------------------------------- counted variants

CQsFakeDevice::~CQsFakeDevice()
{
    if (pAlive != nullptr)
        --*pAlive;
}

IQsInterface* CQsFakeDevice::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDevice") != 0)
        return nullptr;
    AddRef();
    return static_cast<IQsStimulationDevice*>(this);
}

IQsInterface* CQsFakeDeviceEx::QueryInterface(const char* name)
{
    if (name == nullptr || std::strcmp(name, "IQsStimulationDeviceEx") != 0)
        return CQsFakeDevice::QueryInterface(name);
    AddRef();
    return static_cast<IQsStimulationDeviceEx*>(this);
}

int CQsFakeDeviceEx::AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                                         bool overwriteExisting)
{
    sImageFile = imageFile;
    sPatternName = patternName;
    bLoadOneToOne = loadOneToOne;
    bOverwriteExisting = overwriteExisting;
    Command("AddPatternFromImage()");
    return iAddPatternResult;
}

} // namespace QsTest
