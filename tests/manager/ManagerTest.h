// Fixture of the manager's tests: a registry of its own in a temporary folder, the log in memory, and devices that live
// until the manager is gone. When it ends it takes every device out of the manager, deletes the manager, and fails the
// test if an object is left over: each reference that was taken must have been given back.
#pragma once

#include "host/QsDevice.h"
#include "standalone/DiagnosticLog.h"
#include "standalone/HostControl.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/ManagerTestAccess.h"
#include "tests/support/OwnRegistry.h"
#include "tests/support/Vectors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace QsTest {

using Manager = CQsStimulationDeviceManager;
using Access = CQsStimulationDeviceManagerTestAccess;
using Request = IQsStimulationDevice::SQsStimulationType;

constexpr wchar_t s_v4Name[] = L"CQsStimulationDeviceV4New";
constexpr wchar_t s_hx4Name[] = L"CQsHX4Stimulation";

// Ends the program with a message when a step takes longer than any correct one can, so that a deadlock fails the test
// instead of hanging it.
class CWatchdog
{
public:
    explicit CWatchdog(std::string what);
    ~CWatchdog();
    CWatchdog(const CWatchdog&) = delete;
    CWatchdog& operator=(const CWatchdog&) = delete;

    void Step(); // the step in hand is done

private:
    void Watch();

    const std::string m_what;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned m_steps = 0;
    bool m_bDone = false;
    std::thread m_thread;
};

// What one call of a finish function brought.
struct SFinished
{
    int result = 0;
    bool bArrays = false; // both arrays were there
    std::vector<double> begin;
    std::vector<double> end;
    unsigned count = 0;
    std::thread::id thread;
};

// A finish function with a memory: pass &CFinish::Function and the object as the user pointer. [any thread]
class CFinish
{
public:
    static void Function(int result, double* beginTimes, double* endTimes, unsigned count, void* user);

    std::function<void()> onFinish; // run before the call is remembered; may throw

    std::vector<SFinished> Calls() const;
    bool WaitFor(std::size_t calls = 1) const; // false after patience

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<SFinished> m_calls;
};

// A fake device that also shows the arguments which the fake device itself does not keep, and has hooks in the queries.
class CProbeDevice : public CQsFakeDevice
{
public:
    explicit CProbeDevice(const wchar_t* name) : CQsFakeDevice(name) {}

    std::function<void()> onName;
    std::function<void()> onConnected;
    std::function<void()> onVisible;
    std::function<void()> onInfo;
    std::function<void()> onFeature;
    std::function<void()> onModeGet;
    std::function<void()> onAreaCount;
    std::function<void()> onExposure;
    // Instead of the fake device's end, which writes each element.
    std::function<int(double*, double*, std::uint64_t)> onEndTimes;
    std::atomic<std::uint64_t> exposureIndex{~std::uint64_t{0}};
    std::atomic<bool> bFireGotTimes{false};

    CQsStringW GetUniqueName() const override;
    bool IsHWConnected() override;
    bool IsVisible() override;
    bool IsFeatureSupported(unsigned int featureId) override;
    int GetStimulationDeviceInfo(SQsStimulationDeviceInfo& out) const override;
    unsigned int StimulationModeGet() override;
    unsigned int StimulationAreaGetCount() override;
    double GetStimulationExposureTimeCombined(std::uint64_t index) override;
    int StimulationEnd(double* pdBeginTimes, double* pdEndTimes, std::uint64_t count) override;
    int StimulationFire(const SQsStimulationType& type, double* pdBeginTime, double* pdEndTime) override;
};

// A gate that threads wait at until it is opened. Waiting fails the test after patience and then goes on.
class CGate
{
public:
    void Open();
    void Pass();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bOpen = false;
};

// One value in the manager's registry key. Text is UTF-16LE as it is stored.
struct SStored
{
    DWORD type = 0;
    std::vector<unsigned char> data;
};
void WriteRegistry(HKEY root, const wchar_t* name, DWORD type, const std::vector<unsigned char>& data);
std::optional<SStored> ReadRegistry(HKEY root, const wchar_t* name);
std::vector<unsigned char> TextBytes(const std::u16string& text, bool bTerminator = true);
std::vector<unsigned char> DwordBytes(std::uint32_t value);

class ManagerTest : public ::testing::Test
{
public:
    ManagerTest();
    ~ManagerTest() override;

    static Manager& M() { return *Manager::GetInstance(); }

    // A device that lives until the fixture ends. Its commands also go to Log(), with its name.
    template <class Device = CQsFakeDevice>
    Device& Make(const wchar_t* name)
    {
        auto device = Ref<Device>::Make(name);
        device->pSharedLog = m_log;
        Device& reference = *device;
        m_devices.push_back(Ref<CQsFakeDevice>(device.get()));
        return reference;
    }

    // The same, known to the manager from that source.
    template <class Device = CQsFakeDevice>
    Device& Simple(const wchar_t* name)
    {
        Device& device = Make<Device>(name);
        EXPECT_EQ(0, M().RegisterSimpleStimulationDevice(&device));
        return device;
    }
    template <class Device = CQsFakeDevice>
    Device& Special(const wchar_t* name)
    {
        return List<Device>(name, &Manager::SpecialDevicesAdd);
    }
    CQsFakeDevice& OptConf(const wchar_t* name) { return List<CQsFakeDevice>(name, &Manager::OptConfDevicesAdd); }
    CQsFakeDevice& Shutter(const wchar_t* name) { return List<CQsFakeDevice>(name, &Manager::ShuttersAdd); }

    // A static device whose object exists already. Its class name is "Class-" and the name, its module this program.
    template <class Device = CQsFakeDevice>
    Device& Static(const wchar_t* name)
    {
        Device& device = Make<Device>(name);
        device.AddRef(); // the reference that the manager keeps
        Manager::SQsDeviceInfo info(ClassName(name).c_str(), ThisProgram().c_str());
        info.pDevice = &device;
        EXPECT_EQ(0, M().StaticDeviceAdd(info));
        return device;
    }
    static std::string ClassName(const wchar_t* name) { return "Class-" + CQsStringW(name).ToUtf8(); }
    static CQsStringW ThisProgram(); // its file name

    // A simple device that is active.
    template <class Device = CQsFakeDevice>
    Device& Active(const wchar_t* name)
    {
        Device& device = Simple<Device>(name);
        M().Update();
        EXPECT_EQ(0, M().SetActive(name, false));
        EXPECT_EQ(&device, M().GetActive());
        ClearLogs();
        return device;
    }

    // Lives until the manager is gone, whatever still runs at the end of the test.
    CFinish& NewFinish() { return m_finishes.emplace_back(); }
    // Starts a stimulation whose end `finish` sees.
    static int Start(CFinish& finish, const Request& request = Timed(1.0))
    {
        return M().StimulateTimedWithActiveAsync(request, &CFinish::Function, &finish);
    }
    static Request Timed(double dDurationMs);
    // Until the worker has ended; false after patience.
    static bool WaitIdle();

    CCallLog& Log() { return *m_log; }
    void ClearLogs(); // of the fixture and of every device
    // Adds "code <n>" to Log() for each change code from now on.
    void LogChangeCodes();

    std::vector<std::string> DeviceNames(); // of the device map, in its order
    Manager::SQsInfo Info(const wchar_t* name);
    static std::vector<CQsStringW> Mru() { return Access::Mru(M()); }
    static std::vector<std::string> DiagnosticTexts(); // of the manager's unit

    const std::string& Folder() const { return m_registry.Folder(); }

protected:
    void FreeDevices(); // every device goes on, and forgets the hooks that may refer to what is gone by now

private:
    template <class Device>
    Device& List(const wchar_t* name, void (Manager::*add)(IQsStimulationDevice*))
    {
        Device& device = Make<Device>(name);
        device.AddRef(); // handed over
        (M().*add)(&device);
        return device;
    }
    void EmptyManager();
    static void OnChange(unsigned code);

    static CCallLog* s_log;
    const std::size_t m_objectsBefore;
    const COwnRegistry m_registry;
    std::shared_ptr<CCallLog> m_log = std::make_shared<CCallLog>();
    std::vector<Ref<CQsFakeDevice>> m_devices;
    std::deque<CFinish> m_finishes;
};

// A fixture with the manager in database mode.
class DatabaseManagerTest : public ManagerTest
{
public:
    DatabaseManagerTest() { QsStandalone::SetDeviceDatabaseInitialized(true); }
};

} // namespace QsTest
