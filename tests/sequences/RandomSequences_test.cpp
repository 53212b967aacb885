// Random sequences of host calls from four threads, in database mode.
//
// Every sequence has a manager of its own, three lamps, four beampaths (merged from several lamps, one lamp, one
// without a lamp) and two hardware configurations, and follows from its seed alone, as far as threads do. What must
// hold at its end, whatever happened: every call came back, every light is off, every accepted request that found a
// device was finished once, and every reference was given back.
//
// QS_SEED=n runs one sequence, with that seed, over and over (a hundred times).
#include "host/QsDevice.h"
#include "standalone/DatabaseContent.h"
#include "standalone/DeviceDatabase.h"
#include "standalone/HostControl.h"
#include "tests/manager/ManagerTest.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <random>

namespace {

using namespace QsTest;
using QsStandalone::CQsDeviceDatabase;
using QsStandalone::SDatabaseContent;

constexpr unsigned s_threads = 4;
constexpr unsigned s_callsOfThread = 10;
constexpr unsigned s_lampCount = 3;
constexpr unsigned s_sequencesOfTest = QS_SEQUENCES_OF_TEST;

constexpr qs_int32 s_hwConfigA = 1;
constexpr qs_int32 s_hwConfigB = 2;
constexpr qs_int32 s_hwConfigDark = 3; // without a beampath

// Light that is on during a timed begin, or from a continuous begin until the end, and off after an abort.
class CLamp : public CQsFakeDevice
{
public:
    CLamp(const wchar_t* name, std::uint32_t logDevId) : CQsFakeDevice(name) { info.vecLogDevIds = {logDevId}; }

    bool IsLit() const { return m_bLit; }

    int StimulationBegin(const SQsStimulationType& type) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_bLit = true;
        if (type.uiType != eStimTimed)
            return 0;
        const std::uint64_t aborts = m_aborts;
        m_aborted.wait_for(lock, std::chrono::duration<double, std::milli>(type.dDurationMs),
                           [&] { return m_aborts != aborts; });
        m_bLit = false;
        lock.unlock();
        DeviceStateChangedCallback(1); // as devices do, from inside their operation
        return 0;
    }
    int StimulationEnd(double* begin, double* end, std::uint64_t count) override
    {
        for (std::uint64_t i = 0; i < count; ++i)
        {
            if (begin != nullptr)
                begin[i] = -1.0;
            if (end != nullptr)
                end[i] = -1.0;
        }
        m_bLit = false;
        return 0;
    }
    int StimulationAbort() override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_aborts;
        m_bLit = false;
        m_aborted.notify_all();
        return 0;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_aborted;
    std::uint64_t m_aborts = 0;
    std::atomic<bool> m_bLit{false};
};

SDatabaseContent Content()
{
    SDatabaseContent content;
    content.users = {{1, "user"}};
    content.setups = {{1, "setup"}};
    content.hwConfigs = {{s_hwConfigA, 1, "A"}, {s_hwConfigB, 1, "B"}, {s_hwConfigDark, 1, "dark"}};
    const auto beampath = [&content](qs_int32 id, const char* name, const char* merged, qs_int32 type)
    {
        SDatabaseContent::SBeampath row;
        row.id = id;
        row.setup = 1;
        row.name = name;
        row.type = type;
        if (merged != nullptr)
            row.merged = merged;
        content.beampaths.push_back(row);
    };
    beampath(1, "All", "[11,12,13]", 2);
    beampath(2, "Two", "[11,14]", 2); // a lamp and a path without one
    beampath(3, "One", "[12]", 2);
    beampath(4, "None", "[14]", 2);
    for (qs_int32 id = 11; id <= 14; ++id)
        beampath(id, ("Path" + std::to_string(id)).c_str(), nullptr, 1);
    for (qs_int32 id = 1; id <= 4; ++id)
    {
        content.hwConfigBeampaths.push_back({s_hwConfigDark, id, 0});
        content.hwConfigBeampaths.push_back({s_hwConfigB, id, id == 1 || id == 3 ? 1 : 0});
    }
    for (qs_int32 lamp = 1; lamp <= static_cast<qs_int32>(s_lampCount); ++lamp)
    {
        content.configurations.push_back({10 + lamp, 100 + lamp, 1});
        content.logicalIds.push_back({100 + lamp, static_cast<std::uint32_t>(lamp)});
    }
    content.parameters = {{"sLastActiveGlobalStimulationConfiguration", 1, 1, "All:1"}}; // an update comes back to it
    return content;
}

// Finish calls of one request. Lives until the manager's worker is gone.
struct SRequestRecord
{
    std::atomic<unsigned> finishes{0};
    static void Finish(int, double*, double*, unsigned, void* user) { ++static_cast<SRequestRecord*>(user)->finishes; }
};

class CSequence
{
public:
    explicit CSequence(unsigned seed) : m_seed(seed), m_manager(*Manager::GetInstance())
    {
        constexpr std::array<const wchar_t*, s_lampCount> names = {L"Lamp 1", L"Lamp 2", L"Lamp 3"};
        for (std::uint32_t i = 0; i < s_lampCount; ++i)
        {
            m_lamps.push_back(Ref<CLamp>::Make(names[i], i + 1));
            m_manager.RegisterSimpleStimulationDevice(m_lamps.back().get());
        }
        SetHWConfig(s_hwConfigA);
        m_manager.Update();
        m_manager.SetStimulationOC(L"All:1");
    }

    void Run()
    {
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < s_threads; ++i)
            threads.emplace_back([this, i] { RunThread(i); });
        for (std::thread& thread : threads)
            thread.join();
    }

    unsigned Accepted() const { return m_accepted; }
    bool HadNoDevice() { return Access::IsRequestPending(m_manager); }

    void CheckAndClear()
    {
        ASSERT_TRUE(Eventually([this] { return HasEnded(); })) << "a stimulation did not end";
        const bool bPending = Access::IsRequestPending(m_manager);
        unsigned finishes = 0;
        for (const SRequestRecord& record : m_records)
        {
            EXPECT_LE(record.finishes, 1u) << "a request was finished twice";
            finishes += record.finishes;
        }
        // A request that found no device is not finished, and none is accepted after it.
        EXPECT_EQ(m_accepted, finishes + (bPending ? 1u : 0u));
        EXPECT_TRUE(Eventually([this] { return AreAllDark(); })) << "a light was left on";

        m_manager.UnregisterSimpleStimulationDevice(nullptr);
        for (const Ref<CLamp>& lamp : m_lamps)
            m_manager.UnregisterSimpleStimulationDevice(lamp.get());
        m_manager.Update();
        SetHWConfig(s_hwConfigDark);
        EXPECT_EQ(0u, m_manager.GetStimulationBeampathCount());
        for (const Ref<CLamp>& lamp : m_lamps)
            EXPECT_TRUE(Eventually([&] { return QsStandalone::ReferenceCount(lamp.get()) == 1; }))
                << lamp->sName.ToUtf8() << " has " << QsStandalone::ReferenceCount(lamp.get()) << " references";
    }

private:
    // Reached by every correct run; never waited out.
    template <class Condition>
    static bool Eventually(Condition condition)
    {
        const auto until = std::chrono::steady_clock::now() + s_patience;
        while (!condition())
        {
            if (std::chrono::steady_clock::now() > until)
                return false;
            std::this_thread::yield();
        }
        return true;
    }

    bool HasEnded() { return Access::WaitForStimulationEnd(m_manager, 0, false) == QS_OK; }
    bool AreAllDark() const
    {
        return std::none_of(m_lamps.begin(), m_lamps.end(), [](const Ref<CLamp>& lamp) { return lamp->IsLit(); });
    }

    void SetHWConfig(qs_int32 id)
    {
        std::string error;
        ASSERT_TRUE(CQsDeviceDatabase::SetCurrentHWConfig(id, error)) << error;
        m_manager.SetStimulationBeampathsDirty();
    }

    void Start(std::mt19937& random)
    {
        Request request;
        request.uiType = static_cast<std::uint32_t>(1 + random() % 2);
        request.dDurationMs = 0.5 + static_cast<double>(random() % 3);
        request.uiGroupMask = static_cast<std::uint32_t>(random() % 8);
        SRequestRecord* record = nullptr;
        {
            const std::lock_guard<std::mutex> lock(m_recordsLock);
            record = &m_records.emplace_back();
        }
        if (m_manager.StimulateTimedWithActiveAsync(request, &SRequestRecord::Finish, record) == QS_OK)
            ++m_accepted;
    }

    void RunThread(unsigned index)
    {
        std::mt19937 random(m_seed * s_threads + index);
        for (unsigned call = 0; call < s_callsOfThread; ++call)
        {
            CLamp& lamp = *m_lamps[random() % m_lamps.size()];
            switch (random() % 16)
            {
            case 0:
            case 1:
            case 2:
            case 3:
                Start(random);
                break;
            case 4:
            case 5:
                m_manager.StimulationAbort();
                break;
            case 6:
                m_manager.Update();
                break;
            case 7:
                m_manager.RegisterSimpleStimulationDevice(&lamp);
                break;
            case 8:
                m_manager.UnregisterSimpleStimulationDevice(&lamp);
                break;
            case 9:
                SetHWConfig(random() % 2 == 0 ? s_hwConfigA : s_hwConfigB);
                break;
            case 10:
            case 11:
            {
                constexpr std::array<const wchar_t*, 6> names = {L"All:1",  L"Two:1", L"One:1",
                                                                 L"None:1", L"",      L"no OC"};
                // Rarely one without a beampath: it ends the stimulations of the sequence.
                const std::size_t choices = random() % 8 == 0 ? names.size() : 4;
                m_manager.SetStimulationOC(names[random() % choices]);
                break;
            }
            case 12:
                m_manager.GetStimulationBeampathIdByName(L"Two");
                break;
            case 13:
                m_manager.NotifyStimulationDeviceManagerEventListeners();
                break;
            case 14:
                CQsPluginManager::AppRntm_HandleEvent(L"QS_MODULEEVENT_SAVE_SETTINGS", 0, 0, nullptr);
                break;
            default:
                m_manager.QueryFeatureSupported(1);
                break;
            }
        }
    }

    const unsigned m_seed;
    Manager& m_manager;
    std::vector<Ref<CLamp>> m_lamps;
    std::mutex m_recordsLock;
    std::deque<SRequestRecord> m_records;
    std::atomic<unsigned> m_accepted{0};
};

class RandomSequences : public ::testing::TestWithParam<unsigned>
{
protected:
    RandomSequences()
    {
        QsStandalone::SDeviceDatabaseSetup setup;
        std::string error;
        setup.file = m_registry.Folder() + "/database.sqlite";
        EXPECT_TRUE(CQsDeviceDatabase::Create(setup, error)) << error;
        EXPECT_TRUE(QsStandalone::ImportDatabase(setup, Content(), error)) << error;
        EXPECT_TRUE(CQsDeviceDatabase::Open(setup, error)) << error;
    }
    ~RandomSequences() override { CQsDeviceDatabase::Close(); }

    void RunSequence(unsigned seed)
    {
        SCOPED_TRACE("QS_SEED=" + std::to_string(seed));
        const std::size_t before = QsStandalone::LiveObjectCount();
        {
            CSequence sequence(seed);
            sequence.Run();
            sequence.CheckAndClear();
            m_accepted += sequence.Accepted();
            m_withoutDevice += sequence.HadNoDevice() ? 1 : 0;
            Access::DeleteInstance();
        }
        EXPECT_EQ(before, QsStandalone::LiveObjectCount());
    }

    unsigned m_accepted = 0;
    unsigned m_withoutDevice = 0;

private:
    const COwnRegistry m_registry;
};

TEST_P(RandomSequences, LeaveNoLightNoReferenceAndNoRequestBehind)
{
    const char* const single = std::getenv("QS_SEED");
    const unsigned first = GetParam() * s_sequencesOfTest;
    for (unsigned i = 0; i < s_sequencesOfTest && !HasFailure(); ++i)
    {
        const unsigned seed = single != nullptr ? static_cast<unsigned>(std::atoi(single)) : first + i;
        if (single != nullptr && i == 100)
            break;
        CWatchdog watchdog("sequence QS_SEED=" + std::to_string(seed));
        RunSequence(seed);
    }
    if (HasFailure() || single != nullptr)
        return;
    // The sequences do what they are for: stimulate, and now and then find no device.
    EXPECT_GT(m_accepted, s_sequencesOfTest);
    EXPECT_GT(m_withoutDevice, 0u);
    std::printf("%u sequences: %u requests accepted, %u found no device\n", s_sequencesOfTest, m_accepted,
                m_withoutDevice);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomSequences, ::testing::Range(0u, 10u));

} // namespace
