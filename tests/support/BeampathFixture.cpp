#include "tests/support/BeampathFixture.h"

#include "host/QsDMApi.h"
#include "standalone/DeviceManager.h"
#include "tests/support/SystemFaults.h"

#include <algorithm>
#include <stdexcept>

namespace QsTest {

using QsStandalone::CQsDeviceManager;

// --------------------------------------------------------------------------------------------------- scripted device

void CScriptedDevice::Answer(std::vector<double> answers)
{
    const std::lock_guard<std::mutex> lock(m_lockAnswers);
    m_answers = std::move(answers);
    m_asked = 0;
}

unsigned CScriptedDevice::Asked() const
{
    const std::lock_guard<std::mutex> lock(m_lockAnswers);
    return m_asked;
}

double CScriptedDevice::Next(double other) const
{
    const std::lock_guard<std::mutex> lock(m_lockAnswers);
    if (m_answers.empty())
        return other;
    const std::size_t place = std::min<std::size_t>(m_asked++, m_answers.size() - 1);
    return m_answers[place];
}

std::vector<CScriptedDevice::SSpan> CScriptedDevice::BeginSpans() const
{
    const std::lock_guard<std::mutex> lock(m_lockAnswers);
    return m_spans;
}

void CScriptedDevice::Remember(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                               const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                               const CQsRectBase<int>& cameraRegion)
{
    area = {regions.size(), picture.uiWidth, pScanArea, format.sName, cameraRegion.bottom};
}

bool CScriptedDevice::IsHWConnected()
{
    return Next(CProbeDevice::IsHWConnected()) != 0.0;
}

bool CScriptedDevice::IsVisible()
{
    return Next(CProbeDevice::IsVisible()) != 0.0;
}

int CScriptedDevice::SetActive(bool bActive)
{
    return NextStatus(CProbeDevice::SetActive(bActive));
}

bool CScriptedDevice::IsFeatureSupported(unsigned int featureId)
{
    return Next(CProbeDevice::IsFeatureSupported(featureId)) != 0.0;
}

bool CScriptedDevice::IsFeatureEnabled(unsigned int featureId)
{
    return Next(CProbeDevice::IsFeatureEnabled(featureId)) != 0.0;
}

int CScriptedDevice::HWSequencerEnable(bool bEnable)
{
    return NextStatus(CProbeDevice::HWSequencerEnable(bEnable));
}

double CScriptedDevice::GetAcquisitionExposureTime()
{
    return Next(CProbeDevice::GetAcquisitionExposureTime());
}

int CScriptedDevice::GetStimulationExposureTime(double* pdExposure, unsigned int index)
{
    exposureCount = index;
    bExposureArray = pdExposure != nullptr;
    for (unsigned i = 0; pdExposure != nullptr && i < index && i < exposures.size(); ++i)
        pdExposure[i] = exposures[i];
    return NextStatus(CProbeDevice::GetStimulationExposureTime(pdExposure, index));
}

double CScriptedDevice::GetStimulationExposureTimeCombined(std::uint64_t index)
{
    return Next(CProbeDevice::GetStimulationExposureTimeCombined(index));
}

unsigned int CScriptedDevice::StimulationModeGet()
{
    return static_cast<unsigned>(Next(CProbeDevice::StimulationModeGet()));
}

unsigned int CScriptedDevice::StimulationAreaGetCount()
{
    return static_cast<unsigned>(Next(CProbeDevice::StimulationAreaGetCount()));
}

int CScriptedDevice::StimulationAreaSet(const std::vector<CQsRoiObject>& regions, const SQsRLEPicBuf& picture,
                                        const SQsScanAreaDesc* pScanArea, const SQsGrabberFormatDesc& format,
                                        const CQsRectBase<int>& cameraRegion)
{
    Remember(regions, picture, pScanArea, format, cameraRegion);
    return NextStatus(CProbeDevice::StimulationAreaSet(regions, picture, pScanArea, format, cameraRegion));
}

int CScriptedDevice::StimulationAreaGet(std::vector<CQsRoiObject>* pRegions, SQsRLEPicBuf* pPicture,
                                        SQsScanAreaDesc* pScanArea, SQsGrabberFormatDesc* pFormat,
                                        CQsRectBase<int>* pCameraRegion, std::uint64_t* pPatternMask)
{
    if (pPatternMask != nullptr)
        *pPatternMask = 6;
    return NextStatus(
        CProbeDevice::StimulationAreaGet(pRegions, pPicture, pScanArea, pFormat, pCameraRegion, pPatternMask));
}

int CScriptedDevice::StimulationAreaAppendAsPattern(const std::vector<CQsRoiObject>& regions,
                                                    const SQsRLEPicBuf& picture, const SQsScanAreaDesc* pScanArea,
                                                    const SQsGrabberFormatDesc& format,
                                                    const CQsRectBase<int>& cameraRegion)
{
    Remember(regions, picture, pScanArea, format, cameraRegion);
    return NextStatus(CProbeDevice::StimulationAreaAppendAsPattern(regions, picture, pScanArea, format, cameraRegion));
}

int CScriptedDevice::StimulationAreaUpload()
{
    return NextStatus(CProbeDevice::StimulationAreaUpload());
}

bool CScriptedDevice::StimulationAreaIsUpToDate()
{
    return Next(CProbeDevice::StimulationAreaIsUpToDate()) != 0.0;
}

int CScriptedDevice::StimulationReady(bool first, bool second)
{
    return NextStatus(CProbeDevice::StimulationReady(first, second));
}

bool CScriptedDevice::StimulationIsReady(bool flag, CQsStringW* pReason)
{
    if (pReason != nullptr)
        *pReason = sReason;
    return Next(CProbeDevice::StimulationIsReady(flag, pReason)) != 0.0;
}

int CScriptedDevice::StimulationBegin(const SQsStimulationType& type)
{
    m_bLit = m_bLit || type.uiType == eStimContinuous || type.uiType == eStimTimed;
    const double begin = QS_GetTimeCounter();
    const int result = CProbeDevice::StimulationBegin(type);
    if (type.uiType == eStimTimed)
        m_bLit = false;
    const std::lock_guard<std::mutex> lock(m_lockAnswers);
    m_spans.push_back({begin, QS_GetTimeCounter()});
    return result;
}

int CScriptedDevice::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    const int result = CProbeDevice::StimulationEnd(pdBeginTimes, pdEndTimes, count);
    m_bLit = false;
    return result;
}

int CScriptedDevice::StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime)
{
    return NextStatus(CProbeDevice::StimulationFire(type, pdBeginTime, pdEndTime));
}

int CScriptedDevice::StimulationAbort()
{
    m_bLit = false;
    return NextStatus(CProbeDevice::StimulationAbort());
}

int CScriptedDevice::StimulationROIPrepare(unsigned int roiIndex)
{
    return NextStatus(CProbeDevice::StimulationROIPrepare(roiIndex));
}

int CScriptedDevice::StimulationValidate(const SQsExperiment* pExperiment, CQsStringW& message)
{
    if (!sMessage.IsEmpty())
        message = sMessage;
    return NextStatus(CProbeDevice::StimulationValidate(pExperiment, message));
}

IQsLaserPowerControl* CScriptedDevice::GetLaserPowerControl()
{
    return pLaserPower;
}

int CScriptedDevice::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const
{
    return NextStatus(CProbeDevice::GetStimulationDeviceInfo(out));
}

// ----------------------------------------------------------------------------------------------------------- fixture

CCallLog* BeampathTest::s_log = nullptr;

namespace {

CCallLog s_complaints;

void Complain(QtMsgType, const QMessageLogContext&, const QString& text)
{
    s_complaints.Add(text.toStdString());
}

} // namespace

BeampathTest::BeampathTest()
{
    s_log = &Log();
    m_content.users = {{s_user, "User"}, {s_otherUser, "Other user"}};
    m_content.setups = {{s_setup, "Scope"}, {s_otherSetup, "Other scope"}};
    m_content.hwConfigs = {{s_hwConfig, s_setup, "All"},
                           {s_otherHWConfig, s_setup, "Other"},
                           {s_hwConfigElsewhere, s_otherSetup, "Elsewhere"}};
    m_database.kind = QsStandalone::SDeviceDatabaseSetup::EKind::Sqlite;
    m_database.file = Folder() + "/devices.sqlite";
    std::string error;
    if (!CQsDeviceDatabase::Create(m_database, error) || !QsStandalone::ImportDatabase(m_database, m_content, error) ||
        !CQsDeviceDatabase::Open(m_database, error))
        throw std::runtime_error(error);
    SelectSetup(s_setup);
    SelectHWConfig(s_hwConfig);
    SelectUser(s_user);
    CQsDeviceDatabase::ClearReports();
    CHostCalls::Reset();
    // After the opening, which has Qt's messages logged.
    m_formerHandler = qInstallMessageHandler(&Complain);
    s_complaints.Clear();
}

BeampathTest::~BeampathTest()
{
    CWatchdog watchdog("the end of the beampaths");
    FailNothing();
    FailEventCreations(0);
    FailPoolItems(0);
    for (const char* const name : {"CQsStimulationDeviceAggregator", "CQsStimulationDeviceProxy"})
        QsStandalone::RefuseClass(name, false);
    FreeDevices();
    EXPECT_TRUE(CHostCalls::WaitForPool());
    watchdog.Step();
    if (Manager* const manager = Manager::InstanceIfExists())
    {
        EXPECT_TRUE(WaitIdle());
        Change([](SDatabaseContent& content) { content = SDatabaseContent(); });
        manager->SetStimulationBeampathsDirty();
        EXPECT_EQ(0u, manager->GetStimulationBeampathCount()) << "the beampaths cannot be taken out of the manager";
        EXPECT_TRUE(CHostCalls::WaitForPool());
    }
    CQsDeviceDatabase::Close();
    CQsDeviceManager::Reset();
    CHostCalls::Reset();
    qInstallMessageHandler(m_formerHandler);
    EXPECT_THAT(s_complaints.Entries(), ::testing::IsEmpty());
    s_log = nullptr;
}

void BeampathTest::AddBeampath(qs_int32 id, const std::string& name, std::optional<std::string> merged, bool bOn)
{
    SDatabaseContent::SBeampath row;
    row.id = id;
    row.setup = s_setup;
    row.name = name;
    row.onByDefault = bOn;
    row.order = static_cast<qs_int32>(m_content.beampaths.size());
    row.merged = std::move(merged);
    m_content.beampaths.push_back(row);
}

void BeampathTest::On(qs_int32 id, const std::string& name, std::optional<std::string> merged)
{
    AddBeampath(id, name, std::move(merged), true);
}

void BeampathTest::Off(qs_int32 id, const std::string& name, std::optional<std::string> merged)
{
    AddBeampath(id, name, std::move(merged), false);
}

void BeampathTest::Behaviour(qs_int32 hwConfig, qs_int32 beampath, std::optional<qs_int32> behaviour)
{
    m_content.hwConfigBeampaths.push_back({hwConfig, beampath, behaviour});
}

std::uint32_t BeampathTest::NewLogicalDevice()
{
    const std::uint32_t id = ++m_lastLogicalDevice;
    std::string error;
    if (!CQsDeviceManager::AddLogicalDevice({id, id + 900, DatabaseId(id)}, error))
        throw std::runtime_error(error);
    m_content.logicalIds.push_back({DatabaseId(id), id});
    return id;
}

CScriptedDevice& BeampathTest::DeviceOn(qs_int32 beampath, const wchar_t* name, qs_int32 type)
{
    CScriptedDevice& device = Simple<CScriptedDevice>(name);
    PutOn(beampath, device, type);
    return device;
}

void BeampathTest::PutOn(qs_int32 beampath, CQsFakeDevice& device, qs_int32 type)
{
    if (device.info.vecLogDevIds.empty())
    {
        const std::uint32_t id = NewLogicalDevice();
        device.info.vecLogDevIds = {id};
        device.info.vecPhysDevIds = {id + 900};
    }
    PutLogicalDeviceOn(beampath, DatabaseId(device.info.vecLogDevIds.front()), type);
}

void BeampathTest::PutLogicalDeviceOn(qs_int32 beampath, qs_int32 databaseId, qs_int32 type)
{
    SDatabaseContent::SConfiguration row;
    row.beampath = beampath;
    row.logicalDevice = databaseId;
    row.type = type;
    m_content.configurations.push_back(row);
}

void BeampathTest::Write()
{
    std::string error;
    if (!QsStandalone::ImportDatabase(m_database, m_content, error))
        throw std::runtime_error(error);
}

void BeampathTest::Change(const QsStandalone::SDeviceDatabaseSetup& setup,
                          const std::function<void(SDatabaseContent&)>& change)
{
    SDatabaseContent content;
    std::string error;
    if (!QsStandalone::ExportDatabase(setup, content, error))
        throw std::runtime_error(error);
    change(content);
    if (!QsStandalone::ImportDatabase(setup, content, error))
        throw std::runtime_error(error);
}

SDatabaseContent::SBeampath& BeampathTest::Row(SDatabaseContent& content, qs_int32 beampath)
{
    for (SDatabaseContent::SBeampath& row : content.beampaths)
        if (row.id == beampath)
            return row;
    throw std::logic_error("no row of beampath " + std::to_string(beampath));
}

void BeampathTest::SetMerged(qs_int32 beampath, std::optional<std::string> merged)
{
    Change([&](SDatabaseContent& content) { Row(content, beampath).merged = std::move(merged); });
}

void BeampathTest::SelectHWConfig(qs_int32 id)
{
    std::string error;
    if (!CQsDeviceDatabase::SetCurrentHWConfig(id, error))
        throw std::runtime_error(error);
}

void BeampathTest::SelectUser(qs_int32 id)
{
    std::string error;
    if (!CQsDeviceDatabase::SetCurrentUser(id, error))
        throw std::runtime_error(error);
}

void BeampathTest::SelectSetup(qs_int32 id)
{
    std::string error;
    if (!CQsDeviceDatabase::SetCurrentSetup(id, error))
        throw std::runtime_error(error);
}

BeampathTest::Devices BeampathTest::MakeBeampath(unsigned devices)
{
    std::vector<std::wstring> names;
    for (unsigned i = 0; i < devices; ++i)
        names.push_back(std::wstring(1, static_cast<wchar_t>(L'A' + i)));
    return MakeBeampathOf(names);
}

BeampathTest::Devices BeampathTest::MakeBeampathOf(const std::vector<std::wstring>& names)
{
    Devices devices;
    std::string merged;
    qs_int32 id = s_firstSubbeampath;
    for (const std::wstring& name : names)
    {
        Off(id, "part " + std::to_string(id));
        devices.push_back(name.empty() ? nullptr : &DeviceOn(id, name.c_str()));
        merged += (merged.empty() ? "[" : ",") + std::to_string(id);
        ++id;
    }
    On(s_beampath, "P", merged + "]");
    Write();
    M().Update();
    BeampathDevice();
    ClearLogs();
    ForgetLines();
    return devices;
}

bool BeampathTest::HasBeampathDevice(qs_int32 id)
{
    return M().GetStimulationDeviceInterfaceForBeampath(id) != nullptr;
}

Aggregator& BeampathTest::BeampathDevice(qs_int32 id)
{
    auto* const device = dynamic_cast<Aggregator*>(M().GetStimulationDeviceInterfaceForBeampath(id));
    if (device == nullptr)
        throw std::runtime_error("the manager has no device of beampath " + std::to_string(id));
    return *device;
}

void BeampathTest::ActivateBeampath()
{
    ASSERT_EQ(0, M().SetStimulationOC(L"P:C"));
    ASSERT_EQ(s_beampath, M().GetActiveStimulationBeampathId());
}

void BeampathTest::Rebuild()
{
    M().SetStimulationBeampathsDirty();
    EXPECT_EQ(-9, M().UpdateStimulationBeampaths());
}

void BeampathTest::LogOCCommands()
{
    M().AddCallbackForStimulationOCCommand(&OnOCCommand);
}

void BeampathTest::OnOCCommand(unsigned command)
{
    if (s_log != nullptr)
        s_log->Add("OC " + std::to_string(command));
}

std::vector<std::string> BeampathTest::Lines(const wchar_t* unit)
{
    std::vector<std::string> texts;
    for (const QsStandalone::SLogLine& line : QsStandalone::CQsDiagnosticLog::MemoryLines())
        if (line.unit == unit)
            texts.push_back(line.text.ToUtf8());
    return texts;
}

std::size_t BeampathTest::LineCount(const wchar_t* unit, const std::string& text)
{
    const std::vector<std::string> lines = Lines(unit);
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
}

bool BeampathTest::WaitForLine(const wchar_t* unit, const std::string& text, std::size_t count)
{
    return Eventually([&] { return LineCount(unit, text) >= count; });
}

void BeampathTest::ForgetLines()
{
    QsStandalone::CQsDiagnosticLog::ToMemory(false);
    QsStandalone::CQsDiagnosticLog::ToMemory(true);
}

std::string BeampathTest::Report(const char* location, const char* text, bool bStructure)
{
    return std::string(location) + "|" + text + (bStructure ? "|structure" : "|data");
}

std::vector<std::string> BeampathTest::Reports()
{
    std::vector<std::string> reports;
    for (const SDatabaseReport& report : CQsDeviceDatabase::Reports())
        reports.push_back(Report(report.location.ToUtf8().c_str(), report.text.ToUtf8().c_str(), report.bStructure));
    return reports;
}

bool BeampathTest::Eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + s_patience;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

Request BeampathTest::OfKind(unsigned kind, double dDurationMs, unsigned groups)
{
    Request request;
    request.uiType = kind;
    request.dDurationMs = dDurationMs;
    request.uiGroupMask = groups;
    return request;
}

Request BeampathTest::Continuous()
{
    return OfKind(IQsStimulationDevice::eStimContinuous);
}

Request BeampathTest::Phase(double dDurationMs)
{
    return OfKind(IQsStimulationDevice::eStimTimed, dDurationMs);
}

void BeampathTest::Fail(SDatabaseFault::EStage stage, const wchar_t* location, const std::string& statement,
                        unsigned skip, unsigned count)
{
    SDatabaseFault fault;
    fault.stage = stage;
    fault.location = location;
    fault.statement = statement;
    fault.skip = skip;
    fault.count = count;
    CQsDeviceDatabase::SetFaults({fault});
}

} // namespace QsTest
