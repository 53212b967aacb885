// A stimulation device that does what a test tells it and remembers what was asked of it.
//
//   CQsFakeDevice            reference counted; make it with QsTest::Ref<CQsFakeDevice>::Make(L"A")
//   CQsFakeDeviceEx          and answers "IQsStimulationDeviceEx"
//   CQsUncountedFakeDevice   not a CQsClass; a plain object of the test
//
// No class of these is registered: GetClass returns null.
//
// Set what is not atomic before the device is handed to another thread.
#pragma once

#include "device/StimulationDevice.h"
#include "host/QsPluginManager.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace QsTest {

// Upper bound of waits for something that must happen; never reached by a correct run.
constexpr std::chrono::milliseconds s_patience{30000};

// Ordered log of calls. [any thread]
class CCallLog
{
public:
    void Add(const std::string& entry);
    std::vector<std::string> Entries() const;
    std::size_t Count(const std::string& entry) const; // entries that are equal
    void Clear();
    // True as soon as `entry` was logged `count` times; false after `patience`.
    bool WaitFor(const std::string& entry, std::size_t count = 1,
                 std::chrono::milliseconds patience = s_patience) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_entries;
};

// A counted reference to a reference-counted object.
template <class T>
class Ref
{
public:
    Ref() = default;
    explicit Ref(T* object) : m_object(object) { AddRef(); }
    Ref(const Ref& other) : Ref(other.m_object) {}
    Ref(Ref&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    Ref& operator=(Ref other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~Ref()
    {
        if (m_object != nullptr)
            m_object->Release();
    }

    template <class... Arguments>
    static Ref Make(Arguments&&... arguments)
    {
        return Ref(new (__FILE__, __LINE__) T(std::forward<Arguments>(arguments)...));
    }

    T* get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }

private:
    void AddRef()
    {
        if (m_object != nullptr)
            m_object->AddRef();
    }

    T* m_object = nullptr;
};

class CQsFakeDeviceBase : public IQsStimulationDevice
{
public:
    explicit CQsFakeDeviceBase(const wchar_t* name);

    // --- what it answers
    CQsStringW sName;
    CQsStringW sDisplayName; // GetLocalizedStringForUI(0)
    std::atomic<bool> bConnected{true};
    std::atomic<bool> bVisible{true};
    EQsStimulationDeviceType eType = eStimDevGeneric;
    std::atomic<unsigned> uiMode{3};
    std::atomic<unsigned> uiAreaCount{0};
    std::atomic<double> dCombinedExposure{0.0};
    std::atomic<double> dAcquisitionExposure{0.0};
    SQsStimulationDeviceInfo info;   // appended by GetStimulationDeviceInfo
    std::atomic<int> iInfoResult{0}; // when it is not 0, nothing is appended
    std::vector<unsigned> supportedFeatures;
    std::vector<unsigned> enabledFeatures;

    // --- statuses
    std::atomic<int> iSetActiveResult{0};
    std::atomic<int> iBeginResult{0};
    std::atomic<int> iEndResult{0};
    std::atomic<int> iAbortResult{0};
    std::vector<int> fireResults; // of the first, second, ... fire; 0 beyond them

    // --- times: element i of StimulationEnd's arrays, -1.0 beyond them; and those of every fire
    std::vector<std::pair<double, double>> endTimes;
    std::pair<double, double> fireTimes{-1.0, -1.0};

    // --- a begin that waits for StimulationAbort or ReleaseBegin before it returns
    std::atomic<bool> bBeginBlocks{false};
    std::atomic<bool> bAbortEndsBegin{true}; // false: a device that does not hear the abort
    void ReleaseBegin();                     // lets the waiting and every later begin go on

    // --- hooks, run after the call was logged and without a lock; a hook's result is the call's. They may throw.
    std::function<int(const SQsStimulationType&)> onBegin; // instead of the wait
    std::function<int(const SQsStimulationType&)> onFire;
    std::function<int()> onEnd;
    std::function<int()> onAbort;
    std::function<int(bool)> onSetActive;

    // --- what was asked of it
    //
    // Commands, in order: "SetActive(true)", "HWSequencerEnable(false)", "StimulationAreaSet(2)" (regions),
    // "StimulationAreaAppendAsPattern(2)", "StimulationAreaUpload()", "StimulationReady(true, false)",
    // "StimulationBegin(2, 300)" (kind, duration), "StimulationEnd(1)" (count), "StimulationFire(3)" (kind),
    // "StimulationAbort()", "StimulationROIPrepare(4)", "StimulationValidate()", "AddPatternFromImage()".
    CCallLog log;
    // Queries, by name alone: "GetUniqueName()", "IsHWConnected()", "GetStimulationDeviceInfo()", ...
    CCallLog queries;
    // When set: the commands of several devices in one order, each as "<name>: <command>".
    std::shared_ptr<CCallLog> pSharedLog;

    SQsStimulationType LastRequest() const; // of the last begin or fire
    unsigned FireCount() const { return m_fires; }

    CQsStringW GetUniqueName() const override;
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
    unsigned int StimulationModeGet() override;
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
    int StimulationBegin(const SQsStimulationType& type) override;
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override;
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const override;

protected:
    void Command(const std::string& entry);
    void Query(const char* name) const { const_cast<CCallLog&>(queries).Add(std::string(name) + "()"); }

private:
    std::uint64_t Remember(const SQsStimulationType& type); // the aborts so far
    void WaitForAbort(std::uint64_t abortsBefore);

    mutable std::mutex m_mutex;
    std::condition_variable m_released;
    SQsStimulationType m_lastRequest;
    bool m_bReleased = false;
    std::uint64_t m_aborts = 0;
    std::atomic<unsigned> m_fires{0};
};

class CQsFakeDevice : public CQsFakeDeviceBase, public CQsClass
{
public:
    explicit CQsFakeDevice(const wchar_t* name) : CQsFakeDeviceBase(name) {}

    // When set, counted down by the destructor, so that a test sees the device go.
    std::shared_ptr<std::atomic<int>> pAlive;
    ~CQsFakeDevice() override;

    const CQsClassInfo* GetClass() const override { return nullptr; }
    IQsInterface* QueryInterface(const char* name) override;
};

class CQsFakeDeviceEx : public CQsFakeDevice, public IQsStimulationDeviceEx
{
public:
    explicit CQsFakeDeviceEx(const wchar_t* name) : CQsFakeDevice(name) {}

    std::atomic<int> iAddPatternResult{0};
    // Arguments of the last call.
    CQsStringW sImageFile;
    CQsStringW sPatternName;
    bool bLoadOneToOne = false;
    bool bOverwriteExisting = false;

    const CQsClassInfo* GetClass() const override { return nullptr; }
    IQsInterface* QueryInterface(const char* name) override;
    int AddPatternFromImage(const wchar_t* imageFile, const wchar_t* patternName, bool loadOneToOne,
                            bool overwriteExisting) override;
};

class CQsUncountedFakeDevice : public CQsFakeDeviceBase
{
public:
    explicit CQsUncountedFakeDevice(const wchar_t* name) : CQsFakeDeviceBase(name) {}

    const CQsClassInfo* GetClass() const override { return nullptr; }
};

} // namespace QsTest
