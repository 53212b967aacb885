// Base of the simulated devices: all operations of a stimulation device, driven by its settings.
//
// Every change of its light stands in the host's journal under the device's unique name. The light is off on every
// path out of an operation, an exception and an abort included, but for the continuous kind, which is lit until the end
// or an abort. StimulationAbort switches it off itself and wakes whatever waits inside the device.
//
// A stimulation runs from StimulationBegin to StimulationEnd. After an abort the rest of it fires nothing more:
// StimulationFire answers -9. An abort outside a stimulation changes nothing.
#pragma once

#include "device/StimulationDevice.h"
#include "platform/ThreadSafety.h"
#include "platform/Win32.h"
#include "plugins/DeviceSettings.h"

#include <functional>
#include <string>

// Zoom of the confocal scanner's full field; 1 where no scanner answers.
double QsFullFieldZoom();

class CQsSimulatedDevice : public IQsStimulationDevice, public CQsClass
{
public:
    // CQsClass
    const CQsClassInfo* GetClass() const override { return &m_class; }
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDevice
    CQsStringW GetUniqueName() const override { return m_name; }
    bool IsHWConnected() override { return m_settings.connected; }
    bool IsVisible() override { return m_settings.visible; }
    int SetActive(bool bActive) override;
    bool IsFeatureSupported(unsigned int featureId) override; // 1 to 3
    bool IsFeatureEnabled(unsigned int featureId) override;   // 1 to 3
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override;
    int HWSequencerEnable(bool bEnable) override;
    double GetAcquisitionExposureTime() override { return 0.0; }
    int GetStimulationExposureTime(double* pdExposure, unsigned int index) override; // the same of every area
    double GetStimulationExposureTimeCombined(std::uint64_t index) override; // areas are lit together: that of one shot
    unsigned int StimulationModeGet() override { return m_settings.mode; }
    unsigned int StimulationAreaGetCount() override;
    // Regions and pictures are kept as they are given. A set without region and picture is no area.
    int StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                           const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                           const CQsRectBase<int>& cameraRegion) override;
    // The regions of all sets, the rest of the last one. Null outputs are left out.
    int StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture, SQsScanAreaDesc* pScanArea,
                           SQsGrabberFormatDesc* pFormat, CQsRectBase<int>* pCameraRegion,
                           std::uint64_t* pPatternMask) override;
    int StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                       const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                       const CQsRectBase<int>& cameraRegion) override;
    int StimulationAreaUpload() override; // -9 when not connected, and what PrepareLight answers
    bool StimulationAreaIsUpToDate() override;
    int StimulationReady(bool, bool) override; // -9 when not connected
    bool StimulationIsReady(bool, CQsStringW* pReason) override;
    // -2 for a kind that the device does not take; -9 when not connected, or aborted while it prepares. A timed
    // stimulation that is aborted later answers 0: it was ended as asked. [blocks for kind 2]
    int StimulationBegin(const SQsStimulationType& type) override;
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    // One shot of a stimulation that was begun with kind 3; -9 otherwise and when aborted. [blocks]
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override;                           // [any thread]
    int StimulationROIPrepare(unsigned int roiIndex) override; // -9 when there is no such area
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override;

protected:
    // A set of areas, or a named pattern.
    struct SAreas
    {
        CQsStringW patternName; // empty: none
        std::vector<CQsRoiObject> regions;
        SQsRLEPicBuf picture;
        bool hasScanArea = false;
        SQsScanAreaDesc scanArea;
        SQsGrabberFormatDesc format;
        CQsRectBase<int> cameraRegion;
        SQsCameraState camera; // when the areas were given; of devices that have a camera
        bool onChip = false;   // the picture is one of mirrors, not of the image

        std::size_t Count() const { return !regions.empty() ? regions.size() : picture.runs.empty() ? 0 : 1; }
    };

    // `settings` are those that the device shall have.
    CQsSimulatedDevice(const CQsClassInfo& info, const SSimulatedDeviceSettings& settings);
    ~CQsSimulatedDevice() override;

    // --- hooks
    // Areas that are about to be kept. Called without a lock.
    virtual void AcceptAreas(SAreas&) {}
    // Makes the light of the areas of now ready, before an upload answers and before a begin lights anything. Other
    // than 0: they answer it, and nothing is lit. Called without a lock.
    virtual int PrepareLight() { return QS_OK; }
    // The light comes on, and what the journal shall say about it; false: it stays off. And it goes off. Called under
    // the lock of the light: they take locks of their own only, and wait for nobody. A class that overrides them calls
    // SwitchOff in its destructor.
    virtual bool LightComesOn(std::string&) { return true; }
    virtual void LightGoesOff() {}

    // Runs the operation between its two lines of the journal.
    int Journaled(const std::function<std::string()>& text, const std::function<int()>& operation);
    const std::string& JournalName() const { return m_settings.name; }
    // Adds a named pattern, or replaces it; false when the name is taken and must not be replaced.
    bool KeepPattern(SAreas pattern, bool overwrite);
    void ReplaceAreas(SAreas areas); // all of them
    std::vector<SAreas> Areas();
    unsigned int PresetAreas(); // of the settings, until areas are set

    struct SLightTimes
    {
        double begin = -1.0;
        double end = -1.0;
    };
    SLightTimes SwitchOff();
    // Tells the manager from a thread of its own. Not before the object has a reference.
    void ReportStateChange(unsigned int state);

private:
    class CLight; // on until the end of its scope

    int Begin(const SQsStimulationType& type);
    int Fire(double* pdBeginTime, double* pdEndTime);
    int End(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count);
    int Abort();
    void StartStimulation(std::uint32_t kind);
    bool Work(double ms); // without light; false when aborted
    bool WaitForStop(double ms);
    int Refuse(int status); // a begin: nothing of its stimulation lights any more
    bool SwitchOn();        // false when aborted, and when the light cannot come on
    void SwitchOffHolding() QS_REQUIRES(m_lock);
    void ThrowIn(const char* operation);
    SAreas MakeAreas(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                     const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                     const CQsRectBase<int>& cameraRegion);
    void SetUploaded(bool uploaded);
    unsigned int AreaCountHolding() QS_REQUIRES(m_areaLock);

    const CQsClassInfo& m_class;
    const SSimulatedDeviceSettings m_settings;
    const CQsStringW m_name;
    const HANDLE m_hStop; // manual reset: set from an abort or the end to the next begin

    CQsMutex m_areaLock;
    std::uint32_t m_presetAreas QS_GUARDED_BY(m_areaLock) = 0; // of the settings, until areas are set
    std::vector<SAreas> m_areas QS_GUARDED_BY(m_areaLock);
    bool m_uploaded QS_GUARDED_BY(m_areaLock) = true;

    CQsMutex m_lock;
    std::uint32_t m_kind QS_GUARDED_BY(m_lock) = 0; // of the stimulation under way; 0: none
    bool m_stopped QS_GUARDED_BY(m_lock) = true;    // no light may come on
    bool m_lit QS_GUARDED_BY(m_lock) = false;
    double m_beginTime QS_GUARDED_BY(m_lock) = 0.0;
    std::uint32_t m_fires QS_GUARDED_BY(m_lock) = 0;
    std::vector<SLightTimes> m_times QS_GUARDED_BY(m_lock);
};
