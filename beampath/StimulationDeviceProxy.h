// Stands for one sub-beampath of a stimulation beampath: forwards every operation to the device that the device
// database configures on it, its target.
//
// A sub-beampath without a target still behaves as a device: it reports defaults, accepts what it is given and, for a
// timed stimulation, waits out the duration, so that a beampath can mix devices and plain light paths.
//
// Two operations never reach the target at the same time, but for StimulationAbort, which takes no lock that waits. A
// target that is exchanged while an operation runs on it takes effect with the next operation. The device that a
// stimulation began on is ended, and aborted, with the present target, and put out when the proxy goes. A begin that
// still waits for another operation when an abort comes begins nothing.
#pragma once

#include "beampath/StimulationTask.h"
#include "device/StimulationDevice.h"
#include "platform/ThreadSafety.h"
#include "platform/Win32.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

class QS_STIM_API CQsStimulationDeviceProxy : public IQsStimulationDevice, public CQsClass
{
public:
    CQsStimulationDeviceProxy();

    static const CQsClassInfo* GetCQsClassInfo();

    // Says which sub-beampath this is and looks its device up in the device database. 0, also for ids below 1, which
    // stand for no sub-beampath and ask nothing; -9, and nothing changed, without a manager. Of several devices the one
    // with the lowest address is taken. The target stays when the database names none, cannot be reached or fails,
    // which is reported. [any thread]
    int SetStimulationSubbeampathId(qs_int32 id);
    qs_int32 GetStimulationSubbeampathId() const; // [any thread]

    // For the aggregator: as SetStimulationSubbeampathId, but devices whose references are left over are appended to
    // `released`, for the caller to release when it holds no lock.
    int AssignSubbeampath(qs_int32 id, std::vector<IQsStimulationDevice*>& released);
    // For the aggregator: StimulationBegin, unless `withdrawals` has left `expected` before the device is entered: an
    // abort, or the end, has overtaken the begin, and what is dark stays dark. 0 then. [blocks for kind 2]
    int BeginUnlessWithdrawn(const SQsStimulationType& type, const std::atomic<std::uint64_t>& withdrawals,
                             std::uint64_t expected);

    // For the aggregator, when the sub-beampath goes: puts out what has begun, also where somebody still uses this.
    void AbortIfBegun();

    // Bodies of the pool's tasks, as the aggregator's; always 0. [pool]
    std::uint32_t StimulationBeginAsync(SQsStimulationAsyncParams& params);
    std::uint32_t StimulationEndAsync(SQsStimulationEndParams& params);

    // 0 and nothing else: a proxy is reached through its beampath and never enters the manager's map. [any thread]
    int RegisterSimpleStimulationDevice();
    int UnregisterSimpleStimulationDevice();

    // CQsClass
    const CQsClassInfo* GetClass() const override;
    IQsInterface* QueryInterface(const char* name) override;

    // IQsStimulationDevice: what the target says; the comments say what is answered without one.
    CQsStringW GetUniqueName() const override;                // "StimulationDeviceProxy_%d"
    bool IsHWConnected() override;                            // the id is above 0
    bool IsVisible() override;                                // the id is above 0
    int SetActive(bool bActive) override;                     // -2
    bool IsFeatureSupported(unsigned int featureId) override; // 1 to 3
    bool IsFeatureEnabled(unsigned int featureId) override;   // 1 to 3
    EQsStimulationDeviceType GetStimulationDeviceType() const override;
    CQsStringW GetLocalizedStringForUI(unsigned int stringId) override; // with the sub-beampath's name
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
    int StimulationAreaUpload() override; // 0, also when the target says otherwise
    bool StimulationAreaIsUpToDate() override;
    int StimulationReady(bool, bool) override;
    bool StimulationIsReady(bool, CQsStringW* pReason) override;
    // 0 for kind 1; for kind 2 waits for the duration or an abort, then 0. With a target, too, -9 for any other kind,
    // which is logged, and without a manager. Phases of one sub-beampath run one after the other. [blocks for kind 2]
    int StimulationBegin(const SQsStimulationType& type) override;
    // 0, and fires the OC command 16 when there is a manager. The times are left alone: no light was on.
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    // 0, and -1.0 in both times: nothing was lit.
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override; // wakes the wait of a phase; 0. Takes no lock that waits [any thread]
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    IQsLaserPowerControl* GetLaserPowerControl() override;                       // null
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& info) const override; // -2

protected:
    ~CQsStimulationDeviceProxy() override;

private:
    class CTarget;

    void SetTarget(IQsStimulationDevice* target, std::vector<IQsStimulationDevice*>& released);
    IQsStimulationDevice* AdoptNextTarget() const QS_REQUIRES(m_lockTarget);
    void WaitForTarget() const;
    std::vector<IQsStimulationDevice*> TakeBegunBefore();
    template <class Result, class Call>
    Result Forward(Result without, Call call) const;

    std::atomic<qs_int32> m_id{0};
    CQsRecursiveMutex m_lockId; // held for the whole of SetStimulationSubbeampathId

    // Held by every operation while it is inside the target, and by a begin without one while it waits.
    mutable CQsRecursiveMutex m_lockTarget;
    mutable std::atomic<std::thread::id> m_targetThread{}; // the one that holds it
    // Changed with m_lockTarget and m_lockState both; read with either. Counted reference.
    mutable IQsStimulationDevice* m_pTarget = nullptr;
    mutable unsigned m_depth QS_GUARDED_BY(m_lockTarget) = 0; // operations inside one another
    std::atomic<std::uint32_t> m_lastKind{0};                 // of the last begin; 0 after an end without a target
    mutable std::atomic<bool> m_bBegun{false};                // on m_pTarget, and not ended

    // A leaf: an abort reads the target under it.
    mutable CQsMutex m_lockState;
    mutable IQsStimulationDevice* m_pNextTarget QS_GUARDED_BY(m_lockState) = nullptr; // counted; waits for m_lockTarget
    mutable std::atomic<bool> m_bNextTarget{false};                                   // there is one
    // What began before its exchange and has not ended yet; counted references.
    mutable std::vector<IQsStimulationDevice*> m_begunBefore QS_GUARDED_BY(m_lockState);
    CQsStringW m_beampathName QS_GUARDED_BY(m_lockState);

    std::atomic<std::uint64_t> m_aborts{0}; // so that a begin that waits for the target sees one
    HANDLE m_hAbortEvent;

    // Of the threads that wait for m_lockTarget.
    mutable std::atomic<unsigned> m_targetWaiters{0};
    mutable std::mutex m_waitMutex; // a leaf
    mutable std::condition_variable m_targetLeft;
};

extern QS_STIM_API CQsClassInfo sm_classCQsStimulationDeviceProxy;
extern QS_STIM_API const wchar_t sm_classWcsCQsStimulationDeviceProxy[];
