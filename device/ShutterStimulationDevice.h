// A shutter of the host's device layer as a stimulation device: stimulating means opening it.
//
// Created through the class system under its class name, given its shutter by AttachShutter, destroyed by the last
// Release. Kinds 1 (open until StimulationEnd) and 2 (open, wait, close) are supported. No operation reports a hardware
// failure: what the shutter answers is not looked at.
#pragma once

#include "device/StimulationDevice.h"
#include "platform/Win32.h"

#include <atomic>

class CQsShutterStimulationDevice : public IQsStimulationDevice, public CQsClass
{
public:
    CQsShutterStimulationDevice();

    // Slot 29: declared before everything else that is virtual, since some compilers give overrides of CQsClass a slot
    // here too. Takes the logical device id of the shutter and registers with the manager: its result, or -9 without a
    // manager; the id is kept either way. [host, takes R, blocks]
    virtual int AttachShutter(std::uint32_t uiShutterId);

    static const CQsClassInfo* GetCQsClassInfo();

    // CQsClass
    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDevice
    CQsStringW GetUniqueName() const override; // "Shutter_%d"
    bool IsHWConnected() override;
    bool IsVisible() override;
    int SetActive(bool bActive) override;
    bool IsFeatureSupported(unsigned int featureId) override; // 1 to 3
    bool IsFeatureEnabled(unsigned int featureId) override;   // 1 to 3
    EQsStimulationDeviceType GetStimulationDeviceType() const override;
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override; // 0: "<toolbar name> Shutter", else empty
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
                                       const CQsRectBase<int>& cameraRegion) override; // -2
    int StimulationAreaUpload() override;
    bool StimulationAreaIsUpToDate() override;
    int StimulationReady(bool, bool) override;
    bool StimulationIsReady(bool, CQsStringW* pReason) override;
    // Kind 1 opens and returns; kind 2 opens, waits for the duration or an abort, closes and returns. Both 0.
    // -2 for any other kind, and nothing changes. [blocks for kind 2]
    int StimulationBegin(const SQsStimulationType& type) override;
    // Closes the shutter unless a timed stimulation has closed it already. Element 0 of each array gets the last begin
    // and end time, also when `count` is 0; elements 1 to count - 1 get -1.0. Returns 0.
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    // A shutter cannot fire a single shot: -9, and -1.0 in both times.
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override; // [any thread]
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override;

    // The registration step of AttachShutter alone, and its reverse; -9 without a manager. [host, takes R, blocks]
    int RegisterSimpleStimulationDevice();
    int UnregisterSimpleStimulationDevice();

protected:
    // The stop event is not closed: the device may be destroyed while a thread is still inside the event's wait, and
    // the handle lives until the process ends.
    ~CQsShutterStimulationDevice() override = default;

private:
    void SetShutter(bool bOpen) const;

    enum EState : std::int32_t
    {
        eIdle = 0,
        eContinuous = 1,
        eTimed = 2
    };

    // Read by the thread that ends a stimulation while the one that began it may still be inside; hence atomic.
    std::atomic<double> m_dBeginTime{0.0};
    std::atomic<double> m_dEndTime{0.0};
    std::atomic<std::uint32_t> m_uiShutterId{0};
    std::atomic<std::int32_t> m_eState{eIdle};
    HANDLE m_hStopEvent;
};
