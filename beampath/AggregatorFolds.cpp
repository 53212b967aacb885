// What a beampath answers for its devices: one answer folded from theirs.
#include "beampath/AggregatorTable.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

constexpr int s_notImplemented = -2;
constexpr unsigned s_roiKindPattern = 4;
constexpr int s_patternCount = 3;

} // namespace

CQsStringW CQsStimulationDeviceAggregator::GetUniqueName() const
{
    const CQsScopedLock<CQsMutex> lock(m_lockTable);
    return m_uniqueName;
}

bool CQsStimulationDeviceAggregator::IsHWConnected()
{
    const TablePtr table = Table();
    bool bConnected = !table->entries.empty();
    table->ForEach([&](IQsStimulationDevice& device) { bConnected = device.IsHWConnected() && bConnected; });
    return bConnected;
}

bool CQsStimulationDeviceAggregator::IsVisible()
{
    bool bVisible = false;
    Table()->ForEach([&](IQsStimulationDevice& device) { bVisible = device.IsVisible() || bVisible; });
    return bVisible;
}

int CQsStimulationDeviceAggregator::SetActive(bool bActive)
{
    m_bActive = bActive;
    return s_notImplemented;
}

bool CQsStimulationDeviceAggregator::IsFeatureSupported(unsigned int featureId)
{
    return Table()->Any([=](IQsStimulationDevice& device) { return device.IsFeatureSupported(featureId); });
}

bool CQsStimulationDeviceAggregator::IsFeatureEnabled(unsigned int featureId)
{
    bool bEnabled = false;
    Table()->ForEach([&](IQsStimulationDevice& device) { bEnabled = device.IsFeatureEnabled(featureId) || bEnabled; });
    return bEnabled;
}

IQsStimulationDevice::EQsStimulationDeviceType CQsStimulationDeviceAggregator::GetStimulationDeviceType() const
{
    return eStimDevGeneric;
}

CQsStringW CQsStimulationDeviceAggregator::GetLocalizedStringForUI(unsigned int)
{
    return {};
}

int CQsStimulationDeviceAggregator::HWSequencerEnable(bool bEnable)
{
    return LastLowestStatus([=](IQsStimulationDevice& device) { return device.HWSequencerEnable(bEnable); });
}

double CQsStimulationDeviceAggregator::GetAcquisitionExposureTime()
{
    double longest = 0.0;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (device.GetAcquisitionExposureTime() >= longest)
                longest = device.GetAcquisitionExposureTime();
        });
    return longest;
}

int CQsStimulationDeviceAggregator::GetStimulationExposureTime(double* pdExposure, unsigned int index)
{
    constexpr std::size_t stride = 8;
    const unsigned count = index;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (count == 0)
                return;
            // Zeroed by the system, page by page as they are used: a count that nobody can mean costs nothing.
            const std::unique_ptr<double, decltype(&std::free)> times(
                static_cast<double*>(std::calloc(count, sizeof(double))), &std::free);
            if (times == nullptr)
                return;
            device.GetStimulationExposureTime(times.get(), count);
            for (std::size_t i = 0; pdExposure != nullptr && i < count; ++i)
                pdExposure[stride * i] = std::max(pdExposure[stride * i], times.get()[i]);
        });
    return QS_OK;
}

double CQsStimulationDeviceAggregator::GetStimulationExposureTimeCombined(std::uint64_t index)
{
    double sum = 0.0;
    Table()->ForEach([&](IQsStimulationDevice& device) { sum += device.GetStimulationExposureTimeCombined(index); });
    return sum;
}

unsigned int CQsStimulationDeviceAggregator::StimulationModeGet()
{
    unsigned highest = 3;
    Table()->ForEach(
        [&](IQsStimulationDevice& device)
        {
            if (device.StimulationModeGet() > highest)
                highest = device.StimulationModeGet();
        });
    return highest;
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
    {
        const CQsScopedLock<CQsMutex> lock(m_lockAreas);
        m_regions = regions;
        CQsRLEPicBufAPI::Copy(m_picture, picture);
        if (pScanArea != nullptr)
            m_scanArea = *pScanArea;
        m_format = format;
        m_cameraRegion = cameraRegion;
    }
    LastLowestStatus([&](IQsStimulationDevice& device)
                     { return device.StimulationAreaSet(regions, picture, pScanArea, format, cameraRegion); });
    // The beampath has taken its areas; which device could not is asked with StimulationAreaIsUpToDate.
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

int CQsStimulationDeviceAggregator::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions,
                                                                   const SQsRLEPicBuf& picture,
                                                                   const SQsScanAreaDesc* pScanArea,
                                                                   const SQsGrabberFormatDesc& format,
                                                                   const CQsRectBase<int>& cameraRegion)
{
    return LowestStatus(
        [&](IQsStimulationDevice& device)
        { return device.StimulationAreaAppendAsPattern(regions, picture, pScanArea, format, cameraRegion); });
}

int CQsStimulationDeviceAggregator::StimulationAreaUpload()
{
    return LowestStatus([](IQsStimulationDevice& device) { return device.StimulationAreaUpload(); });
}

bool CQsStimulationDeviceAggregator::StimulationAreaIsUpToDate()
{
    return !Table()->Any([](IQsStimulationDevice& device) { return !device.StimulationAreaIsUpToDate(); });
}

int CQsStimulationDeviceAggregator::StimulationReady(bool a, bool b)
{
    return LowestStatus([=](IQsStimulationDevice& device) { return device.StimulationReady(a, b); });
}

bool CQsStimulationDeviceAggregator::StimulationIsReady(bool flag, CQsStringW* pReason)
{
    return !Table()->Any([=](IQsStimulationDevice& device) { return !device.StimulationIsReady(flag, pReason); });
}
