// Fixture of the tests on a device database: a database of its own in a temporary folder, filled from a few rows that
// the test names, and devices that stand on beampaths and do what the test tells them.
//
// The database has the setups 1 and 2, the hardware configurations 7 and 8 of setup 1 and 9 of setup 2, and the users 3
// and 4. Setup 1, hardware configuration 7 and user 3 are the current ones. Every kind of id has numbers of its own, so
// that a test fails where two kinds are mixed up.
//
// When the fixture ends it takes the beampaths out of the manager, and the fixture below fails the test if an object or
// a reference is left over.
#pragma once

#include "beampath/StimulationDeviceAggregator.h"
#include "beampath/StimulationDeviceProxy.h"
#include "standalone/DatabaseContent.h"
#include "standalone/DeviceDatabase.h"
#include "tests/manager/ManagerTest.h"
#include "tests/support/CreatedDevice.h"
#include "tests/support/HostCalls.h"

#include <QtGlobal>

#include <optional>
#include <string>
#include <vector>

namespace QsTest {

using Aggregator = CQsStimulationDeviceAggregator;
using Proxy = CQsStimulationDeviceProxy;
using QsStandalone::CQsDeviceDatabase;
using QsStandalone::SDatabaseContent;
using QsStandalone::SDatabaseFault;
using QsStandalone::SDatabaseReport;

constexpr wchar_t s_aggregatorUnit[] = L"StimulationDeviceAggregator";
constexpr wchar_t s_proxyUnit[] = L"StimulationDeviceProxy";

// A device whose first and second answers may differ.
class CScriptedDevice : public CProbeDevice
{
public:
    using CProbeDevice::CProbeDevice;

    // Answers of the next calls, whatever operation it is that answers with a number or with yes (not 0) or no: of the
    // first, the second, ...; the last one is repeated. Begin and end keep the answers of the fake device. [any thread]
    void Answer(std::vector<double> answers);
    unsigned Asked() const; // calls that were answered so [any thread]

    std::vector<double> exposures;            // what it writes into the array of GetStimulationExposureTime
    std::atomic<unsigned> exposureCount{~0u}; // the number that it was last given there
    std::atomic<bool> bExposureArray{false};  // and whether there was an array
    IQsLaserPowerControl* pLaserPower = nullptr;
    CQsStringW sReason;  // what StimulationIsReady writes
    CQsStringW sMessage; // what StimulationValidate writes

    // Arguments of the last StimulationAreaSet or StimulationAreaAppendAsPattern.
    struct SAreaArguments
    {
        std::size_t regions = 0;
        std::uint32_t pictureWidth = 0;
        const SQsScanAreaDesc* pScanArea = nullptr;
        CQsStringW formatName;
        int bottom = 0;
    };
    SAreaArguments area;

    // From the call of a begin of kind 1 or 2 to its end or abort; a phase of kind 2 that returns puts its light out.
    bool IsLit() const { return m_bLit; } // [any thread]
    // When the begins were inside it [ms of QS_GetTimeCounter]. [any thread]
    struct SSpan
    {
        double begin = 0.0;
        double end = 0.0;
    };
    std::vector<SSpan> BeginSpans() const;

    bool IsHWConnected() override;
    bool IsVisible() override;
    int SetActive(bool bActive) override;
    bool IsFeatureSupported(unsigned int featureId) override;
    bool IsFeatureEnabled(unsigned int featureId) override;
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
    int StimulationReady(bool first, bool second) override;
    bool StimulationIsReady(bool flag, CQsStringW* pReason) override;
    int StimulationBegin(const SQsStimulationType& type) override;
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
    int StimulationAbort() override;
    int StimulationROIPrepare(unsigned int roiIndex) override;
    int StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message) override;
    IQsLaserPowerControl* GetLaserPowerControl() override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const override;

private:
    // The next answer, or `other` of a device that was told none.
    double Next(double other) const;
    int NextStatus(int other) const { return static_cast<int>(Next(other)); }
    void Remember(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                  const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                  const CQsRectBase<int>& cameraRegion);

    mutable std::mutex m_lockAnswers;
    mutable std::vector<double> m_answers;
    mutable unsigned m_asked = 0;
    std::vector<SSpan> m_spans;
    std::atomic<bool> m_bLit{false};
};

class BeampathTest : public ManagerTest
{
public:
    static constexpr qs_int32 s_setup = 1;
    static constexpr qs_int32 s_otherSetup = 2;
    static constexpr qs_int32 s_hwConfig = 7;
    static constexpr qs_int32 s_otherHWConfig = 8;
    static constexpr qs_int32 s_hwConfigElsewhere = 9;
    static constexpr qs_int32 s_user = 3;
    static constexpr qs_int32 s_otherUser = 4;
    static constexpr qs_int32 s_beampath = 42;         // of MakeBeampath
    static constexpr qs_int32 s_firstSubbeampath = 51; // its sub-beampaths: 51, 52, ...

    BeampathTest();
    ~BeampathTest() override;

    // --- rows of the database. They are in it after the next Write.

    // A stimulation beampath of setup 1 that is switched on unless a hardware configuration says otherwise.
    void On(qs_int32 id, const std::string& name, std::optional<std::string> merged = std::nullopt);
    // One that is switched off, which others are merged from.
    void Off(qs_int32 id, const std::string& name, std::optional<std::string> merged = std::nullopt);
    void Behaviour(qs_int32 hwConfig, qs_int32 beampath, std::optional<qs_int32> behaviour);
    // A simple device, or another that is there already, on that beampath.
    CScriptedDevice& DeviceOn(qs_int32 beampath, const wchar_t* name, qs_int32 type = 1);
    void PutOn(qs_int32 beampath, CQsFakeDevice& device, qs_int32 type = 1);
    // The logical device that the host knows by `databaseId`, on that beampath.
    void PutLogicalDeviceOn(qs_int32 beampath, qs_int32 databaseId, qs_int32 type = 1);
    // Another logical id; the host's device manager and the database know it by its database id, 500 more.
    std::uint32_t NewLogicalDevice();
    static qs_int32 DatabaseId(std::uint32_t logDevId) { return static_cast<qs_int32>(logDevId) + 500; }
    SDatabaseContent& Content() { return m_content; }
    void Write(); // replaces everything, saved parameters too
    // Changes what the database holds now.
    static void Change(const QsStandalone::SDeviceDatabaseSetup& setup,
                       const std::function<void(SDatabaseContent&)>& change);
    void Change(const std::function<void(SDatabaseContent&)>& change) { Change(m_database, change); }
    void SetMerged(qs_int32 beampath, std::optional<std::string> merged);
    static SDatabaseContent::SBeampath& Row(SDatabaseContent& content, qs_int32 beampath);

    void SelectHWConfig(qs_int32 id);
    void SelectUser(qs_int32 id);
    void SelectSetup(qs_int32 id);

    // --- the manager's beampaths

    using Devices = std::vector<CScriptedDevice*>;
    // Beampath 42, "P", merged of as many sub-beampaths with a device each: A, B, ... With an Update done and the logs
    // empty.
    Devices MakeBeampath(unsigned devices);
    // Beampath 42, "P", of `names`; an empty name is a light path without a device (null in the result).
    Devices MakeBeampathOf(const std::vector<std::wstring>& names);
    // The device of a beampath that is there; refreshes as a host's lookup does.
    static Aggregator& BeampathDevice(qs_int32 id = s_beampath);
    static bool HasBeampathDevice(qs_int32 id);
    // Makes beampath 42 the active one.
    static void ActivateBeampath();
    // Marks the beampaths and rebuilds them; expects that it ran.
    static void Rebuild();
    static void WaitUntilIdle() { EXPECT_TRUE(WaitIdle()); }

    // A beampath's device, or a sub-beampath's, that nobody but the test refers to.
    template <class Device>
    struct SOwn
    {
        DevicePtr reference;
        Device* device = nullptr;
        Device* operator->() const { return device; }
        Device& operator*() const { return *device; }
    };
    static SOwn<Aggregator> MakeAggregator() { return MakeOwn<Aggregator>("CQsStimulationDeviceAggregator"); }
    static SOwn<Proxy> MakeProxy() { return MakeOwn<Proxy>("CQsStimulationDeviceProxy"); }

    // --- what happened

    // Adds "OC <n>" to Log() for each optical-configuration command from now on.
    void LogOCCommands();
    void LogEverything()
    {
        LogChangeCodes();
        LogOCCommands();
        ClearLogs();
    }
    static std::vector<std::string> Lines(const wchar_t* unit); // of the diagnostic log
    static std::size_t LineCount(const wchar_t* unit, const std::string& text);
    static bool WaitForLine(const wchar_t* unit, const std::string& text, std::size_t count = 1);
    static void ForgetLines();
    // "<location>|<text>|structure" or "...|data" of each failure that was reported to the database's library.
    static std::vector<std::string> Reports();
    static std::string Report(const char* location, const char* text, bool bStructure);

    // Asks until it is so; false after patience.
    static bool Eventually(const std::function<bool()>& condition);

    // --- requests: with every group
    static Request Continuous();
    static Request Phase(double dDurationMs);
    static Request OfKind(unsigned kind, double dDurationMs = 0.0, unsigned groups = 7);

    // A failure at every place of that location; all of them end with the test.
    static void Fail(SDatabaseFault::EStage stage, const wchar_t* location, const std::string& statement = {},
                     unsigned skip = 0, unsigned count = SDatabaseFault::always);
    static void FailNothing() { CQsDeviceDatabase::SetFaults({}); }

    const QsStandalone::SDeviceDatabaseSetup& Database() const { return m_database; }

private:
    template <class Device>
    static SOwn<Device> MakeOwn(const char* className)
    {
        SOwn<Device> own;
        own.reference = CreateDevice(className);
        own.device = dynamic_cast<Device*>(own.reference.get());
        if (own.device == nullptr)
            throw std::runtime_error(std::string("no object of ") + className);
        return own;
    }
    void AddBeampath(qs_int32 id, const std::string& name, std::optional<std::string> merged, bool bOn);
    static void OnOCCommand(unsigned command);

    static CCallLog* s_log;
    QtMessageHandler m_formerHandler = nullptr;
    QsStandalone::SDeviceDatabaseSetup m_database;
    SDatabaseContent m_content;
    std::uint32_t m_lastLogicalDevice = 100;
};

} // namespace QsTest
