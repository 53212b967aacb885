// Which locks snapshots take, and which not.
#include "host/QsDMApi.h"
#include "standalone/HostControl.h"
#include "tests/calibration/Locks.h"
#include "tests/calibration/Snapshots.h"

#include <gmock/gmock.h>

#include <algorithm>

using namespace QsTest;
using CSnapshot = CQsStimulationDeviceConfiguration;
using ::testing::ElementsAre;

namespace {

// The lock of a snapshot: the one that its text takes.
CRITICAL_SECTION* LockOf(CSnapshot& snapshot)
{
    return FirstTakenBy([&snapshot] { snapshot.GetConfigurationString(); });
}

struct SOperation
{
    const char* name;
    std::function<void(CSnapshot&)> run;
};

const std::vector<SOperation>& LockedOperations()
{
    static const std::vector<SOperation> operations = {
        {"AddCamera", [](CSnapshot& s) { s.AddCamera(L"C"); }},
        {"AddObjective", [](CSnapshot& s) { s.AddObjective(L"O"); }},
        {"AddMicroscope", [](CSnapshot& s) { s.AddMicroscope(L"M"); }},
        {"AddLight", [](CSnapshot& s) { s.AddLight(L"L"); }},
        {"AddFilterChanger", [](CSnapshot& s) { s.AddFilterChanger(L"K", L"N", 1); }},
        {"AddMultilaser", [](CSnapshot& s) { s.AddMultilaser(L"U", 1); }},
        {"AddManualZoom", [](CSnapshot& s) { s.AddManualZoom(2.0); }},
        {"AddConnectionPort", [](CSnapshot& s) { s.AddConnectionPort(3); }},
        {"SetORBAConnected", [](CSnapshot& s) { s.SetORBAConnected(true); }},
        {"SetCameraRotation", [](CSnapshot& s) { s.SetCameraRotation(1.0); }},
        {"SetValid", [](CSnapshot& s) { s.SetValid(true); }},
        {"Clear", [](CSnapshot& s) { s.Clear(); }},
        {"Equals", [](CSnapshot& s) { s.Equals(CSnapshot()); }},
        {"CompareSuggestState", [](CSnapshot& s) { s.CompareSuggestState(CSnapshot()); }},
        {"GetConfigurationString", [](CSnapshot& s) { s.GetConfigurationString(); }},
        {"operator=", [](CSnapshot& s) { s = CSnapshot(); }},
    };
    return operations;
}

TEST(SnapshotLock, IsHeldByEveryOperationThatChangesComparesOrWrites)
{
    for (const SOperation& operation : LockedOperations())
    {
        CSnapshot snapshot;
        CRITICAL_SECTION* const lock = LockOf(snapshot);
        ASSERT_NE(nullptr, lock);
        EXPECT_TRUE(WaitsFor(lock, [&] { operation.run(snapshot); })) << operation.name;
        operation.run(snapshot);
        EXPECT_TRUE(CLockCalls::Held().empty()) << operation.name;
    }
}

TEST(SnapshotLock, IsNotTakenByTheGetters)
{
    CSnapshot snapshot;
    Microscope().Fill(snapshot);
    CRITICAL_SECTION* const lock = LockOf(snapshot);
    const auto getters = [&snapshot]
    {
        snapshot.IsValid();
        snapshot.GetORBAPort();
        snapshot.IsORBAConnected();
        snapshot.GetManualZoom();
        snapshot.GetCameraRotation();
        snapshot.GetCamera();
        std::as_const(snapshot).GetCamera();
        snapshot.SetWatchedDeviceTypes(Everything());
    };
    EXPECT_TRUE(TakenBy(getters).empty());
    EXPECT_TRUE(RunsBeside(lock, getters));
}

TEST(SnapshotLock, OfTheOtherSnapshotIsNotTakenByAComparisonOrAnAssignment)
{
    CSnapshot left, right;
    Microscope().Fill(left);
    Microscope().Fill(right);
    CRITICAL_SECTION* const lock = LockOf(left);
    CRITICAL_SECTION* const other = LockOf(right);
    ASSERT_NE(lock, other);
    const std::vector<std::function<void()>> operations = {
        [&] { left.Equals(right); },
        [&] { left.CompareSuggestState(right); },
        [&] { left = right; },
    };
    for (const std::function<void()>& operation : operations)
    {
        EXPECT_THAT(TakenBy(operation), ElementsAre(lock));
        EXPECT_TRUE(RunsBeside(other, operation));
    }
    EXPECT_EQ(0u, TakenBy([&] { CSnapshot copy(right); }).count(other));
    EXPECT_TRUE(RunsBeside(other, [&] { CSnapshot copy(right); }));
}

TEST(SnapshotLock, ACopyHasOneOfItsOwn)
{
    CSnapshot source;
    Microscope().Fill(source);
    CRITICAL_SECTION* const lock = LockOf(source);
    EnterCriticalSection(lock); // a bytewise copy would be held by this thread for good
    CSnapshot copy(source);
    LeaveCriticalSection(lock);
    ASSERT_NE(lock, LockOf(copy));
    // Both are used, each by a thread of its own, while the other's is held.
    EXPECT_TRUE(RunsBeside(lock, [&] { copy.AddLight(L"L"); }));
    EXPECT_TRUE(RunsBeside(LockOf(copy), [&] { source.AddLight(L"L"); }));
    CSnapshot assigned;
    CRITICAL_SECTION* const own = LockOf(assigned);
    assigned = source;
    EXPECT_EQ(own, LockOf(assigned));
}

TEST(SnapshotLock, IsDeletedWithTheSnapshot)
{
    const std::size_t before = CLockCalls::Live();
    {
        CSnapshot a, b({eWatchedCamera}), c(a);
        c = b;
        EXPECT_EQ(before + 3, CLockCalls::Live());
    }
    EXPECT_EQ(before, CLockCalls::Live());
}

// a = b and b = a at the same time: the one that waits for its own lock does not keep the other's.
TEST(SnapshotLock, AssignmentsCrosswiseDoNotWaitForEachOther)
{
    CSnapshot a, b;
    Microscope().Fill(a);
    b.AddCamera(L"other");
    CRITICAL_SECTION* const lock = LockOf(a);
    EnterCriticalSection(lock);
    std::thread thread([&] { a = b; });
    EXPECT_TRUE(CLockCalls::WaitForWaiter(lock));
    std::future<CRITICAL_SECTION*> taken = std::async(std::launch::async, [&] { return LockOf(b); });
    EXPECT_EQ(std::future_status::ready, taken.wait_for(s_patience)); // the waiting one does not hold it
    b = a;
    EXPECT_EQ(L"Cam", b.GetCamera());
    LeaveCriticalSection(lock);
    thread.join();
    EXPECT_EQ(L"Cam", a.GetCamera());
}

TEST(SnapshotLock, TheGlobalOneIsNeverTried)
{
    const std::uint64_t before = QsStandalone::DeviceManagerLock().tries;
    for (const SOperation& operation : LockedOperations())
    {
        CSnapshot snapshot;
        operation.run(snapshot);
        CSnapshot copy(snapshot);
    }
    EXPECT_EQ(before, QsStandalone::DeviceManagerLock().tries);
}

// What is added from several threads at once is all there.
TEST(SnapshotLock, KeepsWhatSeveralThreadsAdd)
{
    CSnapshot snapshot;
    CSnapshot reference;
    reference.AddCamera(L"C"); // not changed any more: may be read from every thread
    constexpr int s_threads = 4;
    constexpr int s_each = 200;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < s_threads; ++thread)
        threads.emplace_back(
            [&, thread]
            {
                for (int i = 0; i < s_each; ++i)
                {
                    snapshot.AddFilterChanger(CQsStringW::Format(L"%d", thread), L"N", i);
                    snapshot.AddLight(CQsStringW::Format(L"%d-%d", thread, i));
                    snapshot.AddMultilaser(L"U", static_cast<unsigned>(thread * s_each + i));
                    snapshot.SetCameraRotation(i);
                    snapshot.AddCamera(L"C");
                    snapshot.Equals(reference);
                    snapshot.CompareSuggestState(reference);
                    EXPECT_LT(0u, snapshot.GetConfigurationString().GetLength());
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    const std::wstring text = snapshot.GetConfigurationString().Std();
    std::size_t changers = 0;
    for (std::size_t at = text.find(L"$K"); at != std::wstring::npos; at = text.find(L"$K", at + 2))
        ++changers;
    EXPECT_EQ(static_cast<std::size_t>(s_threads * s_each), changers);
    const std::wstring lights = text.substr(text.find(L"#L"), text.find(L"#Mi") - text.find(L"#L"));
    EXPECT_EQ(s_threads * s_each, std::count(lights.begin(), lights.end(), L'K'));
    const std::wstring lasers = text.substr(text.rfind(L"#M"));
    EXPECT_EQ(s_threads * s_each, std::count(lasers.begin(), lasers.end(), L'K'));
}

// --------------------------------------------------------------------------------------------------- the scoped lock

class AutoLock : public ::testing::Test
{
protected:
    AutoLock()
    {
        InitializeCriticalSection(&m_section);
        CLockCalls::Forget();
    }
    ~AutoLock() override
    {
        QsStandalone::RefuseDeviceManagerLock(false);
        DeleteCriticalSection(&m_section);
    }

    CRITICAL_SECTION m_section;
};

TEST_F(AutoLock, TriesTheGlobalLockFirstAndReleasesItLast)
{
    {
        const CQsConfigurationAutoLock lock(&m_section, true);
        EXPECT_EQ(1u, CLockCalls::GlobalDepth());
        EXPECT_THAT(CLockCalls::Held(), ElementsAre(&m_section));
    }
    EXPECT_THAT(CLockCalls::KindsOfThisThread(),
                ElementsAre(ELockCall::Try, ELockCall::Enter, ELockCall::Leave, ELockCall::Release));
    EXPECT_EQ(1, CLockCalls::OfThisThread().front().importance);
    EXPECT_EQ(1, CLockCalls::OfThisThread().back().importance);
    EXPECT_EQ(0u, QsStandalone::DeviceManagerLock().depth);
}

TEST_F(AutoLock, EntersTheSectionAndReleasesNothingWhenTheTryIsRefused)
{
    QsStandalone::RefuseDeviceManagerLock(true);
    {
        const CQsConfigurationAutoLock lock(&m_section, true);
        EXPECT_THAT(CLockCalls::Held(), ElementsAre(&m_section));
    }
    EXPECT_THAT(CLockCalls::KindsOfThisThread(), ElementsAre(ELockCall::Refused, ELockCall::Enter, ELockCall::Leave));
}

TEST_F(AutoLock, EntersTheSectionWhileAnotherThreadHoldsTheGlobalLock)
{
    ASSERT_TRUE(DMApi_TryLockDeviceManager(1));
    std::async(std::launch::async,
               [this]
               {
                   const CQsConfigurationAutoLock lock(&m_section, true);
                   EXPECT_THAT(CLockCalls::KindsOfThisThread(), ElementsAre(ELockCall::Refused, ELockCall::Enter));
               })
        .get();
    EXPECT_EQ(1u, QsStandalone::DeviceManagerLock().depth); // still this thread's
    DMApi_ReleaseLockDeviceManager(1);
}

TEST_F(AutoLock, LeavesTheGlobalLockAloneWhenNotAsked)
{
    {
        const CQsConfigurationAutoLock lock(&m_section, false);
        EXPECT_EQ(0u, CLockCalls::GlobalDepth());
    }
    EXPECT_THAT(CLockCalls::KindsOfThisThread(), ElementsAre(ELockCall::Enter, ELockCall::Leave));
}

TEST_F(AutoLock, IsReleasedWhenAnExceptionLeavesTheScope)
{
    try
    {
        const CQsConfigurationAutoLock lock(&m_section, true);
        throw std::runtime_error("out");
    }
    catch (const std::runtime_error&)
    {}
    EXPECT_TRUE(CLockCalls::Held().empty());
    EXPECT_EQ(0u, QsStandalone::DeviceManagerLock().depth);
}

TEST_F(AutoLock, NestsOnOneThread)
{
    // In functions of their own: the lock analysis does not know that a section is recursive.
    const auto inside = [this]
    {
        const CQsConfigurationAutoLock inner(&m_section, true);
        EXPECT_EQ(2u, QsStandalone::DeviceManagerLock().depth);
        EXPECT_THAT(CLockCalls::Held(), ElementsAre(&m_section, &m_section));
    };
    const CQsConfigurationAutoLock outer(&m_section, true);
    inside();
}

} // namespace
