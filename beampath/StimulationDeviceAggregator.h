// Stands for one stimulation beampath, one whose sub-beampaths have no stimulation device.
//
// It keeps the areas that it is given, tells the host through the manager's callbacks when a stimulation begins and
// ends, and reports the neutral results of a beampath that drives nothing.
#pragma once

#include "device/StimulationDevice.h"
#include "platform/ThreadSafety.h"

#include <atomic>

class QS_STIM_API CQsStimulationDeviceAggregator : public IQsStimulationDevice, public CQsClass
{
public:
    CQsStimulationDeviceAggregator() = default;

    static const CQsClassInfo* GetCQsClassInfo();

    // 0 and nothing else: a beampath's device is reached through the manager's beampath lookups and never enters its
    // map. [any thread]
    int RegisterSimpleStimulationDevice();
    int UnregisterSimpleStimulationDevice();

    // CQsClass
    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDevice
    CQsStringW GetUniqueName() const override;                // empty
    bool IsHWConnected() override;                            // false
    bool IsVisible() override;                                // false
    int SetActive(bool bActive) override;                     // -2: a beampath is activated by its id at the manager
    bool IsFeatureSupported(unsigned int featureId) override; // false
    bool IsFeatureEnabled(unsigned int featureId) override;   // false
    EQsStimulationDeviceType GetStimulationDeviceType() const override;
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override; // empty
    int HWSequencerEnable(bool bEnable) override;
    double GetAcquisitionExposureTime() override;
    int GetStimulationExposureTime(double* pdExposure, unsigned int index) override;
    double GetStimulationExposureTimeCombined(std::uint64_t index) override;
    unsigned int StimulationModeGet() override;      // 3
    unsigned int StimulationAreaGetCount() override; // regions of the last StimulationAreaSet
    // Keeps copies of what is given; a null scan area leaves the kept one as it is. Returns 0. [any thread]
    int StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                           const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                           const CQsRectBase<int>& cameraRegion) override;
    // Answers from the copies, each only where its pointer is not null. Bit k of the mask is set for each region of
    // kind 4 with pattern index k = 0 to 2. Returns 0. [any thread]
    int StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture, SQsScanAreaDesc* pScanArea,
                           SQsGrabberFormatDesc* pFormat, CQsRectBase<int>* pCameraRegion,
                           std::uint64_t* pPatternMask) override;
    int StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                       const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                       const CQsRectBase<int>& cameraRegion) override;
    int StimulationAreaUpload() override;
    bool StimulationAreaIsUpToDate() override;
    int StimulationReady(bool, bool) override;
    bool StimulationIsReady(bool, CQsStringW* pReason) override;
    // Fires change code 8 and the OC commands 1 and 2, and for kind 2 the OC commands 1 and 16 after them. 0; -9
    // without a manager; -4 for kind 2 with a duration of 0.001 ms or less, after the change code alone.
    int StimulationBegin(const SQsStimulationType& type) override;
    // After a begin of kind 1 fires the OC commands 1 and 16; then, always, change code 16. 0; the times are left
    // alone.
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    // 0, and -1.0 in both times: nothing was lit.
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override;
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override; // 0, nothing appended

protected:
    ~CQsStimulationDeviceAggregator() override = default;

private:
    std::atomic<std::uint32_t> m_lastKind{0}; // of the last StimulationBegin; 0 after StimulationEnd

    // What the last StimulationAreaSet was given.
    std::vector<CQsRoiObject> m_regions QS_GUARDED_BY(m_lockAreas);
    SQsRLEPicBuf m_picture QS_GUARDED_BY(m_lockAreas);
    SQsScanAreaDesc m_scanArea QS_GUARDED_BY(m_lockAreas);
    SQsGrabberFormatDesc m_format QS_GUARDED_BY(m_lockAreas);
    CQsRectBase<int> m_cameraRegion QS_GUARDED_BY(m_lockAreas);
    CQsMutex m_lockAreas; // a leaf
};

extern QS_STIM_API CQsClassInfo sm_classCQsStimulationDeviceAggregator;
extern QS_STIM_API const wchar_t sm_classWcsCQsStimulationDeviceAggregator[];
