// Stands for one sub-beampath of a stimulation beampath, one without a stimulation device.
//
// Such a sub-beampath still behaves as a device: it reports defaults, accepts what it is given and, for a timed
// stimulation, waits out the duration, so that a beampath can mix devices and plain light paths.
#pragma once

#include "device/StimulationDevice.h"
#include "platform/ThreadSafety.h"
#include "platform/Win32.h"

#include <atomic>

class QS_STIM_API CQsStimulationDeviceProxy : public IQsStimulationDevice, public CQsClass
{
public:
    CQsStimulationDeviceProxy();

    static const CQsClassInfo* GetCQsClassInfo();

    // Says which sub-beampath this is. 0, also for ids below 1, which stand for no sub-beampath; -9, and nothing
    // changed, without a manager. [host]
    int SetStimulationSubbeampathId(qs_int32 id);
    qs_int32 GetStimulationSubbeampathId() const; // [any thread]

    // 0 and nothing else: a proxy is reached through its beampath and never enters the manager's map. [any thread]
    int RegisterSimpleStimulationDevice();
    int UnregisterSimpleStimulationDevice();

    // CQsClass
    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDevice
    CQsStringW GetUniqueName() const override;                // "StimulationDeviceProxy_%d"
    bool IsHWConnected() override;                            // the id is above 0
    bool IsVisible() override;                                // the id is above 0
    int SetActive(bool bActive) override;                     // -2
    bool IsFeatureSupported(unsigned int featureId) override; // 1 to 3
    bool IsFeatureEnabled(unsigned int featureId) override;   // 1 to 3
    EQsStimulationDeviceType GetStimulationDeviceType() const override;
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override; // the same for every id
    int HWSequencerEnable(bool bEnable) override;
    double GetAcquisitionExposureTime() override;
    int GetStimulationExposureTime(double* pdExposure, unsigned int index) override;
    double GetStimulationExposureTimeCombined(std::uint64_t index) override;
    unsigned int StimulationModeGet() override; // 3
    unsigned int StimulationAreaGetCount() override;
    int StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                           const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                           const CQsRectBase<int>& cameraRegion) override;
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
    // 0 for kind 1; for kind 2 waits for the duration or an abort, then 0. -9 for any other kind and without a manager.
    // Phases of one sub-beampath run one after the other. [blocks for kind 2]
    int StimulationBegin(const SQsStimulationType& type) override;
    // 0, and fires the OC command 16 when there is a manager. The times are left alone: no light was on.
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    // 0, and -1.0 in both times: nothing was lit.
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override; // wakes the wait of a phase; 0 [any thread]
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override; // -2

protected:
    ~CQsStimulationDeviceProxy() override;

private:
    std::atomic<qs_int32> m_id{0};
    CQsRecursiveMutex m_lockPhase; // held for the whole of a begin, also while it waits
    HANDLE m_hAbortEvent;
};

extern QS_STIM_API CQsClassInfo sm_classCQsStimulationDeviceProxy;
extern QS_STIM_API const wchar_t sm_classWcsCQsStimulationDeviceProxy[];
