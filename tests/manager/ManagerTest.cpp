#include "tests/manager/ManagerTest.h"

#include "platform/Process.h"
#include "tests/support/SystemFaults.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace QsTest {

// ---------------------------------------------------------------------------------------------------------- watchdog

CWatchdog::CWatchdog(std::string what) : m_what(std::move(what)), m_thread([this] { Watch(); }) {}

CWatchdog::~CWatchdog()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_bDone = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void CWatchdog::Step()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_steps;
    }
    m_changed.notify_all();
}

void CWatchdog::Watch()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_bDone)
    {
        const unsigned steps = m_steps;
        const auto deadline = std::chrono::steady_clock::now() + s_patience;
        if (m_changed.wait_until(lock, deadline, [&] { return m_bDone || m_steps != steps; }))
            continue;
        std::fprintf(stderr, "%s: no progress after step %u, probably a deadlock\n", m_what.c_str(), steps);
        std::fflush(nullptr);
        std::_Exit(1);
    }
}

// ------------------------------------------------------------------------------------------------------ finish, gate

void CFinish::Function(int result, double* beginTimes, double* endTimes, unsigned count, void* user)
{
    auto& self = *static_cast<CFinish*>(user);
    SFinished finished;
    finished.result = result;
    finished.bArrays = beginTimes != nullptr && endTimes != nullptr;
    finished.count = count;
    finished.thread = std::this_thread::get_id();
    if (finished.bArrays)
    {
        finished.begin.assign(beginTimes, beginTimes + count);
        finished.end.assign(endTimes, endTimes + count);
    }
    if (self.onFinish)
        self.onFinish();
    const std::lock_guard<std::mutex> lock(self.m_mutex);
    self.m_calls.push_back(std::move(finished));
    self.m_changed.notify_all();
}

std::vector<SFinished> CFinish::Calls() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

bool CFinish::WaitFor(std::size_t calls) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, std::chrono::steady_clock::now() + s_patience,
                                [&] { return m_calls.size() >= calls; });
}

void CGate::Open()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bOpen = true;
    m_changed.notify_all();
}

void CGate::Pass()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    EXPECT_TRUE(m_changed.wait_until(lock, std::chrono::steady_clock::now() + s_patience, [this] { return m_bOpen; }));
}

// ------------------------------------------------------------------------------------------------------ probe device

namespace {

void Run(const std::function<void()>& hook)
{
    if (hook)
        hook();
}

} // namespace

CQsStringW CProbeDevice::GetUniqueName() const
{
    Run(onName);
    return CQsFakeDevice::GetUniqueName();
}

bool CProbeDevice::IsHWConnected()
{
    Run(onConnected);
    return CQsFakeDevice::IsHWConnected();
}

bool CProbeDevice::IsVisible()
{
    Run(onVisible);
    return CQsFakeDevice::IsVisible();
}

bool CProbeDevice::IsFeatureSupported(unsigned int featureId)
{
    Run(onFeature);
    return CQsFakeDevice::IsFeatureSupported(featureId);
}

int CProbeDevice::GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const
{
    Run(onInfo);
    return CQsFakeDevice::GetStimulationDeviceInfo(out);
}

unsigned int CProbeDevice::StimulationModeGet()
{
    Run(onModeGet);
    return CQsFakeDevice::StimulationModeGet();
}

unsigned int CProbeDevice::StimulationAreaGetCount()
{
    Run(onAreaCount);
    return CQsFakeDevice::StimulationAreaGetCount();
}

double CProbeDevice::GetStimulationExposureTimeCombined(std::uint64_t index)
{
    exposureIndex = index;
    Run(onExposure);
    return CQsFakeDevice::GetStimulationExposureTimeCombined(index);
}

int CProbeDevice::StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count)
{
    if (!onEndTimes)
        return CQsFakeDevice::StimulationEnd(pdBeginTimes, pdEndTimes, count);
    Command("StimulationEnd(" + std::to_string(count) + ")");
    return onEndTimes(pdBeginTimes, pdEndTimes, count);
}

int CProbeDevice::StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime)
{
    if (pdBeginTime != nullptr || pdEndTime != nullptr)
        bFireGotTimes = true;
    return CQsFakeDevice::StimulationFire(type, pdBeginTime, pdEndTime);
}

// ---------------------------------------------------------------------------------------------------------- registry

namespace {

constexpr wchar_t s_key[] = L"Software\\Corvane\\Misc\\StimulationDeviceManager";

} // namespace

void WriteRegistry(HKEY root, const wchar_t* name, DWORD type, const std::vector<unsigned char>& data)
{
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyW(root, s_key, &key));
    EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, name, 0, type, data.data(), static_cast<DWORD>(data.size())));
    RegCloseKey(key);
}

std::optional<SStored> ReadRegistry(HKEY root, const wchar_t* name)
{
    HKEY key = nullptr;
    if (RegOpenKeyW(root, s_key, &key) != ERROR_SUCCESS)
        return std::nullopt;
    SStored stored;
    stored.data.resize(1u << 16);
    auto size = static_cast<DWORD>(stored.data.size());
    const LSTATUS status = RegQueryValueExW(key, name, nullptr, &stored.type, stored.data.data(), &size);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS)
        return std::nullopt;
    stored.data.resize(size);
    return stored;
}

std::vector<unsigned char> TextBytes(const std::u16string& text, bool bTerminator)
{
    std::vector<unsigned char> bytes;
    const auto append = [&bytes](char16_t unit)
    {
        bytes.push_back(static_cast<unsigned char>(unit & 0xFF));
        bytes.push_back(static_cast<unsigned char>(unit >> 8));
    };
    for (const char16_t unit : text)
        append(unit);
    if (bTerminator)
        append(u'\0');
    return bytes;
}

std::vector<unsigned char> DwordBytes(std::uint32_t value)
{
    return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
            static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
}

// ----------------------------------------------------------------------------------------------------------- fixture

CCallLog* ManagerTest::s_log = nullptr;

ManagerTest::ManagerTest() : m_objectsBefore(QsStandalone::LiveObjectCount())
{
    QsStandalone::CQsDiagnosticLog::ToMemory(true);
    // Has Qt make on this thread what it keeps until the process ends: the thread sanitizer does not see how Qt orders
    // the end of an object with that of the thread that made it.
    const QSqlDatabase none;
    s_log = m_log.get();
}

ManagerTest::~ManagerTest()
{
    RefuseRegistry(HKEY_CURRENT_USER, false);
    RefuseRegistry(HKEY_LOCAL_MACHINE, false);
    EmptyManager();
    Access::DeleteInstance();
    for (const auto& device : m_devices)
        EXPECT_EQ(1u, QsStandalone::ReferenceCount(device.get())) << device->sName.ToUtf8();
    m_devices.clear();
    QsStandalone::SetDeviceDatabaseInitialized(false);
    QsStandalone::SetTimeCounter(nullptr);
    QsStandalone::CQsDiagnosticLog::ToMemory(false);
    s_log = nullptr;
    EXPECT_EQ(m_objectsBefore, QsStandalone::LiveObjectCount()) << "references were lost";
}

void ManagerTest::EmptyManager()
{
    Manager* const manager = Manager::InstanceIfExists();
    if (manager == nullptr)
        return;
    CWatchdog watchdog("the end of the test");
    FreeDevices();
    EXPECT_TRUE(WaitIdle());
    for (const auto& device : m_devices)
        EXPECT_EQ(0, manager->UnregisterSimpleStimulationDevice(device.get()));
    manager->SpecialDevicesRemoveAll();
    manager->OptConfDevicesRemoveAll();
    manager->ShuttersRemoveAll();
    while (!Access::StaticDevices(*manager).empty())
    {
        const Manager::SQsDeviceInfo info = Access::StaticDevices(*manager).front();
        EXPECT_EQ(0, manager->StaticDeviceRemove(info.sClassName.c_str()));
        manager->Update(); // nothing refers to the device any more
        CQsRTTI::Release(info.pDevice);
    }
    EXPECT_EQ(-13, manager->Update());
}

void ManagerTest::FreeDevices()
{
    for (const auto& device : m_devices)
    {
        device->ReleaseBegin();
        device->onSetActive = nullptr;
    }
}

CQsStringW ManagerTest::ThisProgram()
{
    return CQsStringW::FromUtf8(std::filesystem::u8path(QsPlatform::ProgramFile()).filename().u8string());
}

Request ManagerTest::Timed(double dDurationMs)
{
    Request request;
    request.uiType = IQsStimulationDevice::eStimTimed;
    request.dDurationMs = dDurationMs;
    return request;
}

bool ManagerTest::WaitIdle()
{
    return Access::WaitForStimulationEnd(M(), static_cast<unsigned>(s_patience.count()), false) == 0;
}

void ManagerTest::ClearLogs()
{
    m_log->Clear();
    for (const auto& device : m_devices)
    {
        device->log.Clear();
        device->queries.Clear();
    }
}

void ManagerTest::LogChangeCodes()
{
    M().AddCallbackForChange(&OnChange);
}

void ManagerTest::OnChange(unsigned code)
{
    if (s_log != nullptr)
        s_log->Add("code " + std::to_string(code));
}

std::vector<std::string> ManagerTest::DeviceNames()
{
    std::vector<std::string> names;
    for (unsigned i = 0; i < M().GetDeviceCount(); ++i)
    {
        Manager::SQsInfo info;
        EXPECT_EQ(0, M().GetDeviceInfo(i, info));
        names.push_back(info.sName.ToUtf8());
    }
    return names;
}

Manager::SQsInfo ManagerTest::Info(const wchar_t* name)
{
    Manager::SQsInfo info;
    for (unsigned i = 0; i < M().GetDeviceCount(); ++i)
        if (M().GetDeviceInfo(i, info) == 0 && info.sName == name)
            return info;
    ADD_FAILURE() << "no device " << CQsStringW(name).ToUtf8();
    return {};
}

std::vector<std::string> ManagerTest::DiagnosticTexts()
{
    std::vector<std::string> texts;
    for (const QsStandalone::SLogLine& line : QsStandalone::CQsDiagnosticLog::MemoryLines())
        if (line.unit == L"StimulationManager")
            texts.push_back(line.text.ToUtf8());
    return texts;
}

} // namespace QsTest
