// Base of a multilaser unit's stimulation device: the identity, the driver and the registration. Every stimulation
// operation reports -2 (not implemented) or a neutral value; a unit's plug-in overrides what its hardware does.
//
// Not registered with the class system and not reference counted: the code that creates it owns it, unregisters it from
// the manager before destroying it, and owns the driver.
#pragma once

#include "device/StimulationDevice.h"

class QS_STIM_API CQsMultilaserStimulationDevice : public IQsStimulationDevice
{
public:
    CQsMultilaserStimulationDevice();
    CQsMultilaserStimulationDevice(const CQsMultilaserStimulationDevice&);
    CQsMultilaserStimulationDevice& operator=(const CQsMultilaserStimulationDevice&);
    ~CQsMultilaserStimulationDevice() override;

    const CQsClassInfo* GetClass() const override; // null: the class system does not know this class

    CQsStringW GetUniqueName() const override; // empty: two plain base objects share one entry of the device map
    bool IsHWConnected() override;
    bool IsVisible() override;
    int SetActive(bool bActive) override;
    bool IsFeatureSupported(unsigned int featureId) override;
    bool IsFeatureEnabled(unsigned int featureId) override;
    EQsStimulationDeviceType GetStimulationDeviceType() const override;
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override;
    int HWSequencerEnable(bool bEnable) override;
    double GetAcquisitionExposureTime() override;
    int GetStimulationExposureTime(double* pdExposure, unsigned int index) override;
    double GetStimulationExposureTimeCombined(std::uint64_t index) override;
    unsigned int StimulationModeGet() override;      // 0xFFFFFFFE
    unsigned int StimulationAreaGetCount() override; // 0xFFFFFFFE
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
    int StimulationBegin(const SQsStimulationType& type) override;
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override;
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override;

    virtual void SetLogDevId(unsigned int uiLogDevId);      // slot 29
    virtual IQsStimulationPhysDev* GetDriver();             // slot 30
    virtual void SetDriver(IQsStimulationPhysDev* pDriver); // slot 31; not owned

    // -12 while the device database is not initialised, -9 without a manager, else the manager's result.
    // [host, takes R, blocks]
    int RegisterSimpleStimulationDevice();
    int UnregisterSimpleStimulationDevice();

private:
    std::uint32_t m_uiLogDevId = 0;
    IQsStimulationPhysDev* m_pDriver = nullptr;
};
