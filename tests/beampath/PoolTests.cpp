// The devices of a beampath on the threads of the pool: that they run beside each other, what a task costs and gives
// back, and what happens when the pool, an event or a device fails.
#include "tests/support/BeampathFixture.h"

#include "device/ShutterStimulationDevice.h"
#include "standalone/DeviceManager.h"
#include "standalone/Journal.h"
#include "tests/support/SystemFaults.h"

#include <future>
#include <stdexcept>

using namespace QsTest;
using QsStandalone::CQsDeviceManager;
using QsStandalone::CQsJournal;
using QsStandalone::EJournalKind;
using QsStandalone::SJournalEntry;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr char s_timeout[] =
    "CQsStimulationDeviceAggregator::StimulationBegin: Timeout while waiting for devices to finish their tasks.";

// Threads that wait for each other: Pass returns true as soon as `count` of them are inside; false after patience.
class CMeeting
{
public:
    explicit CMeeting(unsigned count) : m_count(count) {}
    bool Pass()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_inside;
        m_changed.notify_all();
        return m_changed.wait_for(lock, s_patience, [this] { return m_inside >= m_count; });
    }

private:
    const unsigned m_count;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned m_inside = 0;
};

} // namespace

class Pool : public BeampathTest
{
public:
    Pool() : m_deleted(DeletedObjects()), m_closed(ClosedHandles()) {}

    std::uint64_t Deleted() const { return DeletedObjects() - m_deleted; }
    std::uint64_t Closed() const { return ClosedHandles() - m_closed; }

protected:
    CWatchdog m_watchdog{"a beampath on the pool"};

private:
    const std::uint64_t m_deleted;
    const std::uint64_t m_closed;
};

// ---------------------------------------------------------------------------------------------------- side by side

TEST_F(Pool, BeginsAllDevicesBesideEachOther)
{
    const Devices devices = MakeBeampath(5);
    CMeeting meeting(5);
    std::atomic<unsigned> met{0};
    for (CScriptedDevice* const device : devices)
        device->onBegin = [&](const Request&)
        {
            met += meeting.Pass() ? 1u : 0u;
            return 0;
        };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_EQ(5u, met);
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Pool, EndsAllDevicesBesideEachOther)
{
    const Devices devices = MakeBeampath(5);
    CMeeting meeting(5);
    std::atomic<unsigned> met{0};
    for (CScriptedDevice* const device : devices)
        device->onEnd = [&]
        {
            met += meeting.Pass() ? 1u : 0u;
            return 0;
        };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_EQ(5u, met);
}

TEST_F(Pool, LightsTheShuttersOfABeampathAtTheSameTime)
{
    std::string error;
    std::vector<DevicePtr> shutters;
    for (const std::uint32_t id : {11u, 12u})
    {
        QsStandalone::SShutterSetup setup;
        setup.logDevId = id;
        setup.physDevId = id + 900;
        setup.databaseId = DatabaseId(id);
        setup.name = "Lamp " + std::to_string(id);
        ASSERT_TRUE(CQsDeviceManager::AddShutter(setup, error)) << error;
        Content().logicalIds.push_back({DatabaseId(id), id});
        PutLogicalDeviceOn(s_firstSubbeampath + static_cast<qs_int32>(shutters.size()), DatabaseId(id));
        shutters.push_back(CreateDevice("CQsShutterStimulationDevice"));
        M();
        ASSERT_EQ(0, dynamic_cast<CQsShutterStimulationDevice&>(*shutters.back()).AttachShutter(id));
    }
    MakeBeampathOf({L"", L""});
    CQsJournal::Clear();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(80.0)));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_THAT(CQsJournal::LitDevices(), IsEmpty());

    double lastOn = -1.0;
    double firstOff = -1.0;
    unsigned on = 0;
    unsigned off = 0;
    for (const SJournalEntry& entry : CQsJournal::Entries())
    {
        if (entry.kind == EJournalKind::LightOn)
        {
            lastOn = entry.timeMs;
            ++on;
        }
        if (entry.kind == EJournalKind::LightOff && off++ == 0)
            firstOff = entry.timeMs;
    }
    EXPECT_EQ(2u, on);
    EXPECT_EQ(2u, off);
    EXPECT_LT(lastOn, firstOff); // both were lit in between

    for (const DevicePtr& shutter : shutters)
        ASSERT_EQ(0, M().UnregisterSimpleStimulationDevice(shutter.get()));
    M().Update();
}

// ------------------------------------------------------------------------------------------------ what a task costs

TEST_F(Pool, GetsOneLongItemForEachDevice)
{
    MakeBeampath(3);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_THAT(CHostCalls::PoolFlags(), ElementsAre(16u, 16u, 16u));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_THAT(CHostCalls::PoolFlags(), ElementsAre(16u, 16u, 16u, 16u, 16u, 16u));
}

TEST_F(Pool, GivesTheEventOfEachTaskBackAsAnObjectAndNotAsAHandle)
{
    MakeBeampath(3);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(3u, Deleted());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(6u, Deleted());
    EXPECT_EQ(0u, Closed());
}

TEST_F(Pool, GivesTheEventOfATaskBackThatNobodyWaitedFor)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->bBeginBlocks = true;
    devices[0]->bAbortEndsBegin = false;
    CHostCalls::ShortenWaits(1000);
    CHostCalls::HoldPool();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_EQ(1u, LineCount(s_aggregatorUnit, s_timeout));
    EXPECT_EQ(0u, Deleted());
    CHostCalls::LetPoolGo();
    ASSERT_TRUE(devices[0]->log.WaitFor("StimulationBegin(1, 0)"));
    EXPECT_TRUE(Eventually([this] { return Deleted() == 1; })); // the other's
    devices[0]->ReleaseBegin();
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(2u, Deleted());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Pool, WaitsForMoreDevicesThanOneWaitTakes)
{
    constexpr std::size_t count = 70;
    MakeBeampathOf(std::vector<std::wstring>(count));
    CHostCalls::ForgetWaits();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(0.0011)));
    std::size_t waited = 0;
    for (const SWaitCall& wait : CHostCalls::WaitsOf(100))
    {
        EXPECT_LE(wait.count, MAXIMUM_WAIT_OBJECTS);
        waited += wait.count;
    }
    EXPECT_GE(waited, 64u);
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(count, Deleted());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(2 * count, Deleted());
}

// With a wait that refuses so many, every phase would end in the time-out's message.
TEST_F(Pool, HasAllOfMoreDevicesThanOneWaitTakesBegunWhenTheBeginReturns)
{
    const std::size_t count = 66;
    std::vector<std::wstring> names;
    for (std::size_t i = 0; i < count; ++i)
        names.push_back(L"D" + std::to_wstring(i));
    const Devices devices = MakeBeampathOf(names);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(1u, device->BeginSpans().size());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

// ----------------------------------------------------------------------------------------------- the end of a beampath

TEST_F(Pool, KeepsTheBeampathUntilItsTasksHaveEnded)
{
    const Devices devices = MakeBeampath(2);
    const std::size_t objects = QsStandalone::LiveObjectCount();
    CHostCalls::HoldPool();
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(OfKind(0)));
    ASSERT_EQ(2u, CHostCalls::HeldPoolItems());
    SelectHWConfig(s_otherHWConfig);
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_otherHWConfig, s_beampath, 0}); });
    M().SetStimulationBeampathsDirty();
    EXPECT_FALSE(HasBeampathDevice(s_beampath));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(objects - 3, QsStandalone::LiveObjectCount());
    for (const CScriptedDevice* const device : devices)
        EXPECT_EQ(3u, QsStandalone::ReferenceCount(const_cast<CScriptedDevice*>(device)));
}

TEST_F(Pool, MayStillBeInsideADeviceWhenItsBeampathGoes)
{
    const Devices devices = MakeBeampath(2);
    const std::size_t objects = QsStandalone::LiveObjectCount();
    devices[0]->bBeginBlocks = true;
    devices[0]->bAbortEndsBegin = false;
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(1.0)));
    ASSERT_TRUE(devices[0]->log.WaitFor("StimulationBegin(2, 1)"));
    SelectHWConfig(s_otherHWConfig);
    Change([](SDatabaseContent& content) { content.hwConfigBeampaths.push_back({s_otherHWConfig, s_beampath, 0}); });
    M().SetStimulationBeampathsDirty();
    auto lookup = std::async(std::launch::async, [] { return HasBeampathDevice(s_beampath); });
    // The rebuild does not wait for the device.
    const bool bReturned = lookup.wait_for(s_patience) == std::future_status::ready;
    EXPECT_TRUE(bReturned);
    devices[0]->ReleaseBegin();
    EXPECT_FALSE(lookup.get());
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_FALSE(devices[0]->IsLit());
    EXPECT_EQ(objects - 3, QsStandalone::LiveObjectCount());
}

// ------------------------------------------------------------------------------------------------------ what fails

TEST_F(Pool, ThatTakesNoItemStartsNoLightAndSaysSo)
{
    const Devices devices = MakeBeampath(3);
    const auto begin = std::chrono::steady_clock::now();
    FailPoolItems(3);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(60000.0)));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60)); // nobody to wait for
    EXPECT_THAT(Lines(s_aggregatorUnit), Not(IsEmpty()));
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    EXPECT_EQ(3u, Deleted());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice())); // the tasks' references are given back
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
}

TEST_F(Pool, ThatTakesOneItemLessBeginsTheOtherDevices)
{
    const Devices devices = MakeBeampath(3);
    FailPoolItems(1);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(60000.0)));
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));
    std::size_t begun = 0;
    for (const CScriptedDevice* const device : devices)
        begun += device->BeginSpans().size();
    EXPECT_EQ(2u, begun);
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice()));
}

TEST_F(Pool, WithoutEventsLeavesNoLightOnAndWaitsForNobody)
{
    const Devices devices = MakeBeampath(2);
    for (const unsigned failures : {1u, 2u})
    {
        SCOPED_TRACE(failures);
        FailEventCreations(failures);
        EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
        FailEventCreations(0);
        // A wait for an event that is none fails at once and would be taken for devices that are too slow.
        EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));
        EXPECT_TRUE(CHostCalls::WaitForPool());
        EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
        for (const CScriptedDevice* const device : devices)
            EXPECT_FALSE(device->IsLit());
        EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice()));
    }
}

TEST_F(Pool, ThatTakesNothingDoesNotKeepALightOn)
{
    const Devices devices = MakeBeampath(3);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    for (const CScriptedDevice* const device : devices)
        ASSERT_TRUE(device->IsLit());
    FailPoolItems(3);
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice()));
}

TEST_F(Pool, WithoutEventsDoesNotKeepALightOn)
{
    const Devices devices = MakeBeampath(2);
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    FailEventCreations(2);
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice()));
}

TEST_F(Pool, SurvivesADeviceThatThrowsOutOfItsBeginWhichCountsAsFailed)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->onBegin = [](const Request&) -> int { throw std::runtime_error("no laser"); };
    devices[1]->onBegin = [](const Request&) -> int { throw 5; };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Phase(30000.0)));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout)); // a task that throws still signals its event
    for (const std::string name : {"A", "B"})
    {
        unsigned failed = 0;
        for (const std::string& line : Lines(s_aggregatorUnit))
            failed += line.find("Failed to call StimulationROIPrepare on device " + name + ",") != std::string::npos;
        EXPECT_EQ(1u, failed) << name;
    }
    EXPECT_EQ(2u, Deleted());
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice()));
}

TEST_F(Pool, AbortsADeviceThatThrowsOutOfItsEnd)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->onEnd = []() -> int { throw std::runtime_error("no shutter"); };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    ForgetLines();
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    EXPECT_EQ(
        1u,
        LineCount(s_aggregatorUnit,
                  "CQsStimulationDeviceAggregator::StimulationEndAsync: Async call to StimulationEnd of A failed."));
    EXPECT_EQ(1u, devices[0]->log.Count("StimulationAbort()"));
    EXPECT_EQ(0u, devices[1]->log.Count("StimulationAbort()"));
    for (const CScriptedDevice* const device : devices)
        EXPECT_FALSE(device->IsLit());
}

// The name of a device that failed is logged, and the device may fail there too.
TEST_F(Pool, SurvivesADeviceThatThrowsOutOfItsName)
{
    const Devices devices = MakeBeampath(2);
    devices[0]->iBeginResult = -5;
    devices[0]->iEndResult = -5;
    devices[0]->onName = [] { throw std::runtime_error("no name"); };
    EXPECT_EQ(0, BeampathDevice().StimulationBegin(Continuous()));
    EXPECT_EQ(0, BeampathDevice().StimulationEnd(nullptr, nullptr, 0));
    EXPECT_TRUE(CHostCalls::WaitForPool());
    devices[0]->onName = nullptr;
    EXPECT_EQ(4u, Deleted());
    EXPECT_EQ(1u, QsStandalone::ReferenceCount(&BeampathDevice()));
}

// ------------------------------------------------------------------------------------------------- callers that hold R

// A device may announce its state out of its begin, which takes the manager's lock on the pool's thread.
TEST_F(Pool, LetsADeviceAnnounceItsStateWhileTheCallerHoldsTheRegistry)
{
    const Devices devices = MakeBeampath(2);
    for (CScriptedDevice* const device : devices)
    {
        device->onBegin = [device](const Request&)
        {
            device->DeviceStateChangedCallback(1);
            return 0;
        };
        device->onEnd = [device]
        {
            device->DeviceStateChangedCallback(2);
            return 0;
        };
    }
    Aggregator& beampath = BeampathDevice();
    {
        const CQsScopedLock<CQsRegistryLock> lock(Access::LockR(M()));
        EXPECT_EQ(0, beampath.StimulationBegin(Phase(30000.0)));
        for (const CScriptedDevice* const device : devices)
            EXPECT_EQ(1u, device->BeginSpans().size());
        EXPECT_EQ(0, beampath.StimulationEnd(nullptr, nullptr, 0));
        for (const CScriptedDevice* const device : devices)
            EXPECT_FALSE(device->IsLit());
    }
    EXPECT_EQ(0u, LineCount(s_aggregatorUnit, s_timeout));
}

TEST_F(Pool, LendsTheRegistryToWhomSomebodyWaitsForAndToNobodyElse)
{
    CScriptedDevice& device = Simple<CScriptedDevice>(L"A");
    M().Update();
    CGate gate;
    IQsStimulationDevice* found = nullptr;
    constexpr CQsRegistryLock::Run run = 77;
    std::thread awaited(
        [&]
        {
            const CQsRegistryLock::CWorkerScope worker(run);
            gate.Pass();
            found = M().GetDevice(L"A"); // takes R
        });
    std::future<IQsStimulationDevice*> other;
    {
        const CQsScopedLock<CQsRegistryLock> lock(Access::LockR(M()));
        other = std::async(std::launch::async, [] { return M().GetDevice(L"A"); });
        M().LendRegistryWhile(run,
                              [&]
                              {
                                  gate.Open();
                                  awaited.join();
                                  // A device's announcement gets through from any thread.
                                  std::thread([&device] { device.DeviceStateChangedCallback(1); }).join();
                                  EXPECT_EQ(std::future_status::timeout, other.wait_for(std::chrono::milliseconds(50)));
                              });
        EXPECT_EQ(&device, found);
    }
    EXPECT_EQ(&device, other.get());
    bool bRan = false;
    M().LendRegistryWhile(0, [&bRan] { bRan = true; }); // of a thread that has nothing to lend
    EXPECT_TRUE(bRan);
}
