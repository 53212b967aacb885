// The registry lock by itself: recursive, and lent while its owner waits.
#include "tests/manager/ManagerTest.h"

#include <future>

using namespace QsTest;
using ::testing::ElementsAre;

using std::chrono::milliseconds;
using Worker = CQsRegistryLock::CWorkerScope;
using Parked = CQsRegistryLock::CParked;
using Announcement = CQsRegistryLock::CStateAnnouncement;

namespace {

// Holds the lock to the end of the scope. Without annotations, since the analysis knows no lock that one thread may
// take twice.
class Scope
{
public:
    explicit Scope(CQsRegistryLock& lock) QS_NO_THREAD_SAFETY_ANALYSIS : m_lock(lock) { m_lock.lock(); }
    ~Scope() QS_NO_THREAD_SAFETY_ANALYSIS { m_lock.unlock(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    CQsRegistryLock& m_lock;
};

// Time after which a thread that is not through counts as kept out. A slow thread makes the test weaker, not wrong.
constexpr milliseconds s_keptOut{40};

bool IsThrough(const std::future<void>& future, milliseconds patience)
{
    return future.wait_for(patience) == std::future_status::ready;
}

std::future<void> LockOnAnyThread(CQsRegistryLock& lock)
{
    return std::async(std::launch::async, [&lock] { const Scope scope(lock); });
}

constexpr CQsRegistryLock::Run s_run = 7;      // the stimulation that owners wait for
constexpr CQsRegistryLock::Run s_otherRun = 8; // and one that was started meanwhile

std::future<void> LockOnWorkerOf(CQsRegistryLock::Run run, CQsRegistryLock& lock)
{
    return std::async(std::launch::async,
                      [run, &lock]
                      {
                          const Worker worker(run);
                          const Scope scope(lock);
                      });
}

std::future<void> LockOnWorker(CQsRegistryLock& lock)
{
    return LockOnWorkerOf(s_run, lock);
}

std::future<void> LockOnAnotherWorker(CQsRegistryLock& lock)
{
    return LockOnWorkerOf(s_otherRun, lock);
}

// Without annotations, as for Scope.
void AnnounceWithin(CQsRegistryLock& lock) QS_NO_THREAD_SAFETY_ANALYSIS
{
    const Announcement inner(lock);
    EXPECT_TRUE(CQsRegistryLock::IsAnnouncingThread());
}

std::future<void> LockForAnnouncement(CQsRegistryLock& lock)
{
    return std::async(std::launch::async, [&lock] { const Announcement scope(lock); });
}

using Locker = std::future<void> (*)(CQsRegistryLock&);
constexpr Locker s_allLockers[] = {&LockOnAnyThread, &LockOnWorker, &LockOnAnotherWorker, &LockForAnnouncement};
constexpr Locker s_borrowers[] = {&LockOnWorker, &LockForAnnouncement};
constexpr Locker s_strangers[] = {&LockOnAnyThread, &LockOnAnotherWorker};

} // namespace

class RegistryLock : public ::testing::Test
{
protected:
    CWatchdog m_watchdog{"the registry lock"};
    CQsRegistryLock m_lock;
};

TEST_F(RegistryLock, IsRecursiveAndKeepsEveryOtherThreadOut)
{
    for (const Locker locker : s_allLockers)
    {
        std::future<void> other;
        {
            const Scope first(m_lock);
            {
                const Scope second(m_lock);
                other = locker(m_lock);
                EXPECT_FALSE(IsThrough(other, s_keptOut));
            }
            EXPECT_FALSE(IsThrough(other, s_keptOut));
        }
        EXPECT_TRUE(IsThrough(other, s_patience));
    }
}

TEST_F(RegistryLock, IsLentToTheWorkerAndToAnnouncementsWhileItsOwnerWaits)
{
    for (const Locker borrower : s_borrowers)
    {
        const Scope first(m_lock);
        const Scope second(m_lock); // at whatever depth
        const Parked parked(m_lock, s_run);
        EXPECT_TRUE(IsThrough(borrower(m_lock), s_patience));
        EXPECT_TRUE(IsThrough(borrower(m_lock), s_patience));
    }
}

TEST_F(RegistryLock, LetsABorrowerInThatWaitedBeforeItsOwnerDid)
{
    for (const Locker borrower : s_borrowers)
    {
        const Scope scope(m_lock);
        std::future<void> other = borrower(m_lock);
        EXPECT_FALSE(IsThrough(other, s_keptOut));
        const Parked parked(m_lock, s_run);
        EXPECT_TRUE(IsThrough(other, s_patience));
    }
}

TEST_F(RegistryLock, IsLentNeitherToOtherThreadsNorToTheWorkerOfAnotherStimulation)
{
    for (const Locker stranger : s_strangers)
    {
        std::future<void> other;
        {
            const Scope scope(m_lock);
            {
                const Parked parked(m_lock, s_run);
                other = stranger(m_lock);
                EXPECT_FALSE(IsThrough(other, s_keptOut));
                EXPECT_TRUE(IsThrough(LockOnWorker(m_lock), s_patience)); // who waits there keeps no borrower out
            }
            EXPECT_FALSE(IsThrough(other, s_keptOut));
        }
        EXPECT_TRUE(IsThrough(other, s_patience));
    }
}

TEST_F(RegistryLock, IsLentToTheWorkerOfTheInnermostWaitAndThenOfTheOuterOneAgain)
{
    const Scope scope(m_lock);
    const Parked parked(m_lock, s_run);
    std::future<void> first;
    {
        const Scope again(m_lock);
        const Parked inner(m_lock, s_otherRun);
        EXPECT_TRUE(IsThrough(LockOnAnotherWorker(m_lock), s_patience));
        first = LockOnWorker(m_lock);
        EXPECT_FALSE(IsThrough(first, s_keptOut));
    }
    EXPECT_TRUE(IsThrough(first, s_patience));
}

// Who aborts the devices of a stimulation that it waits for waits for those aborts too, and for both without a step of
// its own between them.
TEST_F(RegistryLock, IsLentToBothWhomOneHoldWaitsFor)
{
    std::future<void> other; // ends after the scope
    const Scope scope(m_lock);
    const Parked parked(m_lock, s_run);
    {
        const Parked inner(m_lock, s_otherRun);
        EXPECT_TRUE(IsThrough(LockOnAnotherWorker(m_lock), s_patience));
        EXPECT_TRUE(IsThrough(LockOnWorker(m_lock), s_patience));
    }
    EXPECT_TRUE(IsThrough(LockOnWorker(m_lock), s_patience));
    other = LockOnAnotherWorker(m_lock);
    EXPECT_FALSE(IsThrough(other, s_keptOut));
}

// The stimulation may wait for what such a thread holds.
TEST_F(RegistryLock, IsLentToAThreadThatHoldsWhatOthersMayWaitForAsLongAsItDoes)
{
    std::future<void> stranger; // ends after the scope
    const Scope scope(m_lock);
    const Parked parked(m_lock, s_run);
    std::future<void> holding = std::async(std::launch::async,
                                           [this]
                                           {
                                               const CQsRegistryLock::CHoldingScope held;
                                               EXPECT_TRUE(CQsRegistryLock::IsHoldingThread());
                                               const Scope borrowed(m_lock);
                                           });
    EXPECT_TRUE(IsThrough(holding, s_patience));
    stranger = std::async(std::launch::async,
                          [this]
                          {
                              {
                                  const CQsRegistryLock::CHoldingScope held;
                              }
                              EXPECT_FALSE(CQsRegistryLock::IsHoldingThread());
                              const Scope late(m_lock);
                          });
    EXPECT_FALSE(IsThrough(stranger, s_keptOut));
}

TEST_F(RegistryLock, IsNotLentAnyMoreWhenItsOwnerGoesOn)
{
    std::future<void> other;
    {
        const Scope scope(m_lock);
        {
            const Parked parked(m_lock, s_run);
        }
        other = LockOnWorker(m_lock);
        EXPECT_FALSE(IsThrough(other, s_keptOut));
    }
    EXPECT_TRUE(IsThrough(other, s_patience));
}

TEST_F(RegistryLock, HoldsItsOwnerBackUntilTheBorrowerIsDone)
{
    CCallLog log;
    CGate borrowed;
    CGate release;
    const Scope scope(m_lock);
    std::future<void> borrower;
    std::future<void> releaser;
    {
        const Parked parked(m_lock, s_run);
        borrower = std::async(std::launch::async,
                              [&]
                              {
                                  const Worker worker(s_run);
                                  const Scope inner(m_lock);
                                  const Scope again(m_lock); // a borrower's hold is recursive too
                                  borrowed.Open();
                                  release.Pass();
                                  log.Add("borrower");
                              });
        borrowed.Pass();
        releaser = std::async(std::launch::async,
                              [&]
                              {
                                  std::this_thread::sleep_for(s_keptOut);
                                  release.Open();
                              });
    }
    log.Add("owner");
    EXPECT_THAT(log.Entries(), ElementsAre("borrower", "owner"));
}

TEST_F(RegistryLock, IsLentOnByABorrowerThatWaits)
{
    const Scope scope(m_lock);
    const Parked parked(m_lock, s_run);
    auto borrower = std::async(std::launch::async,
                               [this]
                               {
                                   const Announcement announcement(m_lock);
                                   auto worker = LockOnWorker(m_lock);
                                   EXPECT_FALSE(IsThrough(worker, s_keptOut));
                                   const Parked inner(m_lock, s_run);
                                   EXPECT_TRUE(IsThrough(worker, s_patience));
                               });
    EXPECT_TRUE(IsThrough(borrower, s_patience));
}

TEST_F(RegistryLock, ServesOneBorrowerAtATime)
{
    CGate release;
    CGate borrowed;
    const Scope scope(m_lock);
    const Parked parked(m_lock, s_run);
    auto first = std::async(std::launch::async,
                            [&]
                            {
                                const Announcement announcement(m_lock);
                                borrowed.Open();
                                release.Pass();
                            });
    borrowed.Pass();
    auto second = LockForAnnouncement(m_lock);
    EXPECT_FALSE(IsThrough(second, s_keptOut));
    release.Open();
    EXPECT_TRUE(IsThrough(second, s_patience));
    EXPECT_TRUE(IsThrough(first, s_patience));
}

TEST_F(RegistryLock, IsNotLentWhileItsWaitingOwnerUsesItItself)
{
    const Scope scope(m_lock);
    const Parked parked(m_lock, s_run);
    std::future<void> other;
    {
        const Scope again(m_lock);
        other = LockOnWorker(m_lock);
        EXPECT_FALSE(IsThrough(other, s_keptOut));
        {
            const Parked inner(m_lock, s_run); // a wait inside the wait lends it again
            EXPECT_TRUE(IsThrough(other, s_patience));
        }
        other = LockOnWorker(m_lock);
        EXPECT_FALSE(IsThrough(other, s_keptOut));
    }
    EXPECT_TRUE(IsThrough(other, s_patience));
}

TEST_F(RegistryLock, IsNotTakenByAThreadThatParksWithoutIt)
{
    const Parked parked(m_lock, s_run);
    EXPECT_TRUE(IsThrough(LockOnAnyThread(m_lock), s_patience));
}

TEST_F(RegistryLock, KnowsTheWorkersThreadWhileItsScopeLasts)
{
    EXPECT_EQ(0u, CQsRegistryLock::WorkerRun());
    {
        const Worker worker(s_run);
        EXPECT_EQ(s_run, CQsRegistryLock::WorkerRun());
        EXPECT_EQ(0u, std::async(std::launch::async, [] { return CQsRegistryLock::WorkerRun(); }).get());
    }
    EXPECT_EQ(0u, CQsRegistryLock::WorkerRun());
}

TEST_F(RegistryLock, KnowsTheThreadThatAnnouncesWhileAnyOfItsAnnouncementsLasts)
{
    EXPECT_FALSE(CQsRegistryLock::IsAnnouncingThread());
    {
        const Announcement outer(m_lock);
        EXPECT_TRUE(CQsRegistryLock::IsAnnouncingThread());
        std::async(std::launch::async, [] { EXPECT_FALSE(CQsRegistryLock::IsAnnouncingThread()); }).get();
        AnnounceWithin(m_lock);
        EXPECT_TRUE(CQsRegistryLock::IsAnnouncingThread());
    }
    EXPECT_FALSE(CQsRegistryLock::IsAnnouncingThread());
}

// ------------------------------------------------------------------------------------------------------------ changes

TEST_F(RegistryLock, IsNotChangedByAThreadThatDoesNotHoldIt)
{
    m_lock.BeginChange();
    EXPECT_FALSE(m_lock.IsChanging());
    const Scope scope(m_lock);
    EXPECT_FALSE(m_lock.IsChanging());
}

TEST_F(RegistryLock, IsChangedUntilTheHoldEndsInWhichTheChangeBegan)
{
    const Scope outer(m_lock);
    {
        const Scope scope(m_lock);
        EXPECT_FALSE(m_lock.IsChanging());
        m_lock.BeginChange();
        EXPECT_TRUE(m_lock.IsChanging());
        {
            const Scope inner(m_lock);
            EXPECT_TRUE(m_lock.IsChanging());
            m_lock.BeginChange(); // belongs to the change that began further out
        }
        EXPECT_TRUE(m_lock.IsChanging());
    }
    EXPECT_FALSE(m_lock.IsChanging());
    m_lock.BeginChange();
    EXPECT_TRUE(m_lock.IsChanging());
}

TEST_F(RegistryLock, IsNotChangedAnyMoreByAWaitingOwnerWhenItsInnerHoldEnds)
{
    const Scope scope(m_lock);
    {
        const Parked parked(m_lock, s_run);
        {
            const Scope inner(m_lock); // out of the device that the wait aborts
            m_lock.BeginChange();
            EXPECT_TRUE(m_lock.IsChanging());
        }
        EXPECT_FALSE(m_lock.IsChanging());
        EXPECT_TRUE(IsThrough(LockOnWorker(m_lock), s_patience)); // and it is lent again
    }
    EXPECT_FALSE(m_lock.IsChanging());
}

TEST_F(RegistryLock, IsChangedByTheThreadThatBeganTheChangeAndByNoOther)
{
    const Scope scope(m_lock);
    m_lock.BeginChange();
    const Parked parked(m_lock, s_run);
    const auto borrow = [this]
    {
        const Announcement announcement(m_lock);
        EXPECT_FALSE(m_lock.IsChanging());
        m_lock.BeginChange();
        EXPECT_TRUE(m_lock.IsChanging());
    };
    std::async(std::launch::async, borrow).get();
    EXPECT_TRUE(m_lock.IsChanging());
    std::async(std::launch::async, [this] { EXPECT_FALSE(m_lock.IsChanging()); }).get();
}

TEST_F(RegistryLock, KeepsOneThreadAtATimeInsideWhateverTheyAre)
{
    constexpr unsigned rounds = 2000;
    unsigned inside = 0; // guarded by the lock alone, which the thread sanitizer sees
    const auto enter = [&inside]
    {
        const unsigned before = inside;
        inside = before + 1;
    };
    const auto plain = [&]
    {
        for (unsigned i = 0; i < rounds; ++i)
        {
            const Scope scope(m_lock);
            enter();
        }
    };
    const auto parking = [&]
    {
        for (unsigned i = 0; i < rounds; ++i)
        {
            const Scope scope(m_lock);
            enter();
            {
                const Parked parked(m_lock, s_run);
                std::this_thread::yield();
            }
            enter();
        }
    };
    const auto announcing = [&]
    {
        for (unsigned i = 0; i < rounds; ++i)
        {
            const Announcement scope(m_lock);
            enter();
        }
    };
    const auto working = [&]
    {
        const Worker worker(s_run);
        plain();
    };
    std::vector<std::thread> threads;
    threads.emplace_back(plain);
    threads.emplace_back(parking);
    threads.emplace_back(parking);
    threads.emplace_back(announcing);
    threads.emplace_back(working);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(rounds * 7, inside);
}
