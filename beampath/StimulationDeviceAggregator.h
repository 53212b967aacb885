// Stands for one stimulation beampath: drives the devices of all its sub-beampaths together.
//
// A beampath may be merged from several sub-beampaths; there is one CQsStimulationDeviceProxy for each. Most operations
// ask every one of them, in ascending order of their ids, and fold the answers into one. With two or more sub-beampaths
// a stimulation begins and ends on the threads of the system's pool, all devices at once.
//
// Made by the manager's rebuild of the beampaths, which is also what rebuilds its sub-beampaths. Operations may run
// beside a rebuild: each walks the sub-beampaths that there were when it began.
//
// A fold whose second answer counts asks twice on purpose: the comparison and the kept value are two calls, and devices
// that count them, or answer differently the second time, are built for that.
#pragma once

#include "beampath/StimulationTask.h"
#include "device/StimulationDevice.h"
#include "platform/ThreadSafety.h"

#include <array>
#include <atomic>
#include <memory>

class CQsStimulationDeviceProxy;

class QS_STIM_API CQsStimulationDeviceAggregator : public IQsStimulationDevice,
                                                   public IQsStimulationDeviceManagerEventListener,
                                                   public CQsClass,
                                                   public IQsDMApiPluginNotification
{
public:
    // Registers with the manager, if there is one, as a listener, and with the host for the three events that save the
    // group assignments.
    CQsStimulationDeviceAggregator();

    static const CQsClassInfo* GetCQsClassInfo();

    // Says which beampath this is; once. 0; -9, which is logged, for an id that the database does not have, and when
    // the database fails; else the status of the first rebuild. [host]
    int SetStimulationBPId(qs_int32 id);
    qs_int32 GetStimulationBPId(); // [any thread]
    // Reads the sub-beampaths anew. 0; -12 without a device database; -9 without a manager or a connection, and when
    // the query fails: then nothing changed. A sub-beampath that is gone keeps its place without a device, also when it
    // comes back. Restores the group assignments. [any thread]
    int UpdateAggregatedDevicesAccordingToBPId();
    // Which sub-beampath serves stimulation group 0, 1 and 2.
    std::array<qs_int32, 3> GetStimulationGroupAssignments(); // [any thread]
    // Assigns group 0 to 2 to a sub-beampath; -9, nothing changed, for another group or an id that is not one of this
    // beampath's. Saved by SaveStimulationGroupDeviceAssignments. [any thread]
    int SetStimulationGroupAssignment(unsigned group, qs_int32 subbeampathId);
    // Saves them for the current setup and user; what the parameter store says. 0, and nothing saved, with fewer than
    // two sub-beampaths: there is nothing to choose. [any thread]
    int SaveStimulationGroupDeviceAssignments();
    std::vector<qs_int32> GetStimulationSubbeampathIds(); // ascending, also those without a device [any thread]

    // Bodies of the pool's tasks; always 0. [pool]
    std::uint32_t StimulationBeginAsync(SQsStimulationAsyncParams& params);
    std::uint32_t StimulationEndAsync(SQsStimulationEndParams& params);

    // 0 and nothing else: a beampath's device is reached through the manager's beampath lookups and never enters its
    // map. [any thread]
    int RegisterSimpleStimulationDevice();
    int UnregisterSimpleStimulationDevice();

    // IQsStimulationDeviceManagerEventListener
    int AvailableStimulationDevicesChanged() override; // rebuilds

    // IQsDMApiPluginNotification
    unsigned AppRntm_HandleEvent(const wchar_t* eventName, void* context) override; // 0 [any thread]

    // CQsClass
    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDevice. A place without a device is skipped.
    CQsStringW GetUniqueName() const override; // of the beampath; empty before it is known
    bool IsHWConnected() override;             // of all devices; false without sub-beampaths
    bool IsVisible() override;                 // of any device
    int SetActive(bool bActive) override; // -2, no device is told: a beampath is activated by its id at the manager
    bool IsFeatureSupported(unsigned int featureId) override; // by any device; stops at the first
    bool IsFeatureEnabled(unsigned int featureId) override;   // on any device; all are asked
    EQsStimulationDeviceType GetStimulationDeviceType() const override;
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override; // empty
    // Lowest status, of 0 or less; a device whose status is as low as the lowest so far, or lower, is asked again, so
    // on success every device is told twice.
    int HWSequencerEnable(bool bEnable) override;
    // Longest, of 0 or more; a device as long as the longest so far, or longer, is asked again.
    double GetAcquisitionExposureTime() override;
    // `index` is a count here: every device fills that many elements, and element 8 * i of the caller's array becomes
    // the greatest of what it was and the devices' elements i; the array belongs to records of eight numbers. Null:
    // devices are asked, nothing is written. 0.
    int GetStimulationExposureTime(double* pdExposure, unsigned int index) override;
    double GetStimulationExposureTimeCombined(std::uint64_t index) override; // sum
    unsigned int StimulationModeGet() override;      // highest, of 3 or more; a higher device is asked again
    unsigned int StimulationAreaGetCount() override; // regions of the last StimulationAreaSet
    // Keeps copies of what is given (a null scan area leaves the kept one as it is) and hands it to every device, twice
    // as HWSequencerEnable does. Returns 0 whatever they say.
    int StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                           const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                           const CQsRectBase<int>& cameraRegion) override;
    // Answers from the copies, each only where its pointer is not null; asks no device. Bit k of the mask is set for
    // each region of kind 4 with pattern index k = 0 to 2. Returns 0. [any thread]
    int StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture, SQsScanAreaDesc* pScanArea,
                           SQsGrabberFormatDesc* pFormat, CQsRectBase<int>* pCameraRegion,
                           std::uint64_t* pPatternMask) override;
    // From here on "lowest status" is of 0 or less, and a device with a lower status than the lowest so far is asked
    // again.
    int StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                       const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                       const CQsRectBase<int>& cameraRegion) override; // lowest status
    int StimulationAreaUpload() override;                                              // lowest status
    bool StimulationAreaIsUpToDate() override;                   // on all devices; stops at the first that says no
    int StimulationReady(bool, bool) override;                   // lowest status
    bool StimulationIsReady(bool, CQsStringW* pReason) override; // all devices; stops at the first that says no
    // Fires change code 8, and for a valid request the OC commands 1 and 2. -9 without a manager; -4 for kind 2 with a
    // duration of 0.001 ms or less either way, after the change code alone. With one sub-beampath its status; with none
    // 0. With more every device begins on a thread of its own, and for the kinds 1 and 2 the call waits until all have
    // begun (kind 2: have lit their phase), at most 1000 ms (kind 2: twice the duration, at least 100 ms); always 0:
    // devices that fail or are late are logged, and the end still reaches them. A mask without a group starts nothing.
    // For kind 2 the OC commands 1 and 16 follow. An abort keeps devices dark that have not begun yet. [blocks]
    int StimulationBegin(const SQsStimulationType& type) override;
    // After a begin of kind 1 fires the OC commands 1 and, at the end, 16; then always change code 16. With one
    // sub-beampath the times are its device's; with more every device ends on a thread of its own, is waited for 10 s,
    // and the times are left alone. 0. [blocks]
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    // Lowest status. Without sub-beampaths -1.0 in both times: nothing was lit.
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override;                           // lowest status; takes no lock that waits [any thread]
    int StimulationROIPrepare(unsigned int roiIndex) override; // lowest status
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override; // lowest status
    // Lowest status; `info` is left alone: a beampath must not pass for the devices that it drives.
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override;

protected:
    // Ends every registration; releases the sub-beampaths' devices.
    ~CQsStimulationDeviceAggregator() override;

private:
    struct STable;
    using TablePtr = std::shared_ptr<const STable>;

    TablePtr Table() const;
    TablePtr ExchangeBegunTable(TablePtr table); // the one before
    int Rebuild(TablePtr& old, std::vector<IQsStimulationDevice*>& released);
    TablePtr RebuildTable(const std::vector<qs_int32>& ids, std::vector<IQsStimulationDevice*>& released);
    void RestoreAssignments();
    template <class Selects, class Ask>
    int FoldStatus(Selects selects, Ask ask) const;
    template <class Ask>
    int LowestStatus(Ask ask) const;
    template <class Ask>
    int LastLowestStatus(Ask ask) const;
    bool BeginTogether(const STable& table, const SQsStimulationType& type, std::uint64_t withdrawals);
    void EndTogether(const STable& table);

    std::atomic<qs_int32> m_id{0};
    CQsRecursiveMutex m_lock; // SetStimulationBPId and the rebuild

    // A leaf: what operations read, and an abort, while a rebuild is under way.
    mutable CQsMutex m_lockTable;
    TablePtr m_pTable QS_GUARDED_BY(m_lockTable);
    TablePtr m_pBegunTable QS_GUARDED_BY(m_lockTable); // that devices may be beginning from; an abort reaches both
    CQsStringW m_uniqueName QS_GUARDED_BY(m_lockTable);
    CQsStringW m_settingsKey QS_GUARDED_BY(m_lockTable);
    std::array<qs_int32, 3> m_groupAssignments QS_GUARDED_BY(m_lockTable) = {-1, -1, -1};
    std::atomic<bool> m_bAssignmentsUnknown{false}; // the store failed when they were to be restored

    std::atomic<std::uint32_t> m_lastKind{0}; // of the last StimulationBegin; 0 after StimulationEnd
    std::atomic<bool> m_bActive{false};
    // Aborts and ends so far: a begin that has not entered its device when one comes does not any more.
    std::atomic<std::uint64_t> m_withdrawals{0};

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
