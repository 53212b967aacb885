// What only this side's thread pool promises, and shows: how many threads there are, when they end, which takes an
// item.
#include "platform/posix/Control.h"
#include "tests/platform/PoolItems.h"
#include "tests/platform/System.h"

#include <array>
#include <cstdlib>
#include <deque>
#include <vector>

#include <pthread.h>
#include <unistd.h>

namespace {

// The item has run, and its thread waits for the next one.
bool BecomesIdle(SItem& item)
{
    if (!item.done.Wait())
        return false;
    UntilParked(item.thread);
    return true;
}

// Begins and ends without a thread of the pool.
class PosixPool : public testing::Test
{
protected:
    PosixPool()
    {
        QsPlatform::SetPoolIdleTime(20);
        EXPECT_TRUE(Becomes([] { return QsPlatform::PoolThreads() == 0; })); // of a test before this one
    }
    ~PosixPool() override
    {
        QsPlatform::FailThreadCreations(0);
        QsPlatform::FailPoolItems(0);
        EXPECT_TRUE(Becomes([] { return QsPlatform::PoolThreads() == 0; }));
    }
};

TEST_F(PosixPool, RunsFiveHundredAtOnceAndTheOthersInTheirOrder)
{
    constexpr unsigned most = 500;
    std::atomic<unsigned> here{0};
    std::deque<SBlocked> blocked;
    for (unsigned i = 0; i < most; ++i)
    {
        blocked.emplace_back([&] { ++here; });
        ASSERT_NE(FALSE, blocked.back().item.Queue());
    }
    EXPECT_TRUE(Becomes([&] { return here == most; }));

    std::vector<int> order; // of the one thread that is released
    std::deque<SItem> others;
    for (int i = 0; i < 5; ++i)
    {
        others.emplace_back([&order, i] { order.push_back(i); });
        EXPECT_NE(FALSE, others.back().Queue());
    }
    EXPECT_EQ(most, QsPlatform::PoolThreads());
    EXPECT_EQ(0u, others.front().thread); // every thread is inside an item that has not been released

    blocked[250].release.Set();
    EXPECT_TRUE(others.back().done.Wait());
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), order);
    for (const SItem& other : others)
        EXPECT_EQ(blocked[250].item.thread, other.thread);
    EXPECT_EQ(most, here);

    for (SBlocked& item : blocked)
        item.release.Set();
    for (SBlocked& item : blocked)
        EXPECT_TRUE(item.item.done.Wait());
}

TEST_F(PosixPool, AnIdleThreadTakesTheNextItem)
{
    QsPlatform::SetPoolIdleTime(3000);
    SItem first([] {});
    SItem second([] {});
    ASSERT_NE(FALSE, first.Queue());
    ASSERT_TRUE(BecomesIdle(first));
    ASSERT_NE(FALSE, second.Queue());
    ASSERT_TRUE(second.done.Wait());
    EXPECT_EQ(first.thread, second.thread);
    EXPECT_EQ(1u, QsPlatform::PoolThreads());
}

TEST_F(PosixPool, TheMostRecentlyIdleThreadIsTakenFirst)
{
    QsPlatform::SetPoolIdleTime(3000);
    std::array<SBlocked, 3> blocked;
    for (SBlocked& item : blocked)
        ASSERT_NE(FALSE, item.item.Queue());
    for (const int i : {2, 0, 1})
    {
        blocked[static_cast<std::size_t>(i)].release.Set();
        ASSERT_TRUE(BecomesIdle(blocked[static_cast<std::size_t>(i)].item));
    }
    std::array<SBlocked, 3> next;
    for (const int i : {1, 0, 2})
    {
        SBlocked& item = next[static_cast<std::size_t>(i)];
        ASSERT_NE(FALSE, item.item.Queue());
        EXPECT_TRUE(Becomes([&] { return item.item.thread != 0; }));
        EXPECT_EQ(blocked[static_cast<std::size_t>(i)].item.thread, item.item.thread);
    }
    for (SBlocked& item : next)
    {
        item.release.Set();
        EXPECT_TRUE(item.item.done.Wait());
    }
}

TEST_F(PosixPool, IdleThreadsEndAndTheNextItemGetsANewOne)
{
    for (int round = 0; round < 3; ++round)
    {
        std::deque<SBlocked> blocked(4);
        for (SBlocked& item : blocked)
            ASSERT_NE(FALSE, item.item.Queue());
        EXPECT_EQ(4u, QsPlatform::PoolThreads());
        for (SBlocked& item : blocked)
        {
            item.release.Set();
            EXPECT_TRUE(item.item.done.Wait());
        }
        EXPECT_TRUE(Becomes([] { return QsPlatform::PoolThreads() == 0; }));
    }
}

TEST_F(PosixPool, RunsEveryItemOnceWhileIdleThreadsEnd)
{
    // Threads that end as soon as they are idle meet items that are just being handed to them.
    QsPlatform::SetPoolIdleTime(0);
    constexpr unsigned itemCount = 2000;
    static std::atomic<unsigned> s_ran;
    s_ran = 0;
    std::vector<std::thread> queuers;
    std::atomic<unsigned> refused{0};
    for (int i = 0; i < 4; ++i)
        queuers.emplace_back(
            [&]
            {
                for (unsigned k = 0; k < itemCount; ++k)
                {
                    const BOOL bQueued = QueueUserWorkItem(
                        [](LPVOID) -> DWORD
                        {
                            ++s_ran;
                            return 0;
                        },
                        nullptr, WT_EXECUTELONGFUNCTION);
                    refused += bQueued ? 0 : 1;
                    if (k % 3 == 0)
                        std::this_thread::yield();
                }
            });
    for (std::thread& queuer : queuers)
        queuer.join();
    EXPECT_EQ(0u, refused);
    EXPECT_TRUE(Becomes([&] { return s_ran == 4 * itemCount; })) << s_ran;
}

TEST_F(PosixPool, AnItemIsNotLeftToAThreadThatIsJustEnding)
{
    // Each item meets the thread of the one before at the end of its idle time, and nothing else comes to take it.
    QsPlatform::SetPoolIdleTime(0);
    static std::atomic<unsigned> s_ran;
    s_ran = 0;
    for (unsigned i = 1; i <= 20000; ++i)
    {
        ASSERT_NE(FALSE, QueueUserWorkItem(
                             [](LPVOID) -> DWORD
                             {
                                 ++s_ran;
                                 return 0;
                             },
                             nullptr, WT_EXECUTELONGFUNCTION));
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
        while (s_ran != i)
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "item " << i;
    }
}

TEST_F(PosixPool, RefusesAnItemWithoutAFunction)
{
    EXPECT_EQ(FALSE, QueueUserWorkItem(nullptr, nullptr, WT_EXECUTELONGFUNCTION));
    EXPECT_EQ(0u, QsPlatform::PoolThreads());
}

TEST_F(PosixPool, RefusesAnItemWhenThereIsNoThreadAndNoneCanBeMade)
{
    std::atomic<int> ran{0};
    SItem item([&] { ++ran; });
    QsPlatform::FailThreadCreations(1);
    EXPECT_EQ(FALSE, item.Queue());
    EXPECT_EQ(0u, QsPlatform::PoolThreads());
    EXPECT_NE(FALSE, item.Queue());
    EXPECT_TRUE(item.done.Wait());
    EXPECT_TRUE(Becomes([] { return QsPlatform::PoolThreads() == 0; }));
    EXPECT_EQ(1, ran);
}

TEST_F(PosixPool, AnItemWaitsForABusyThreadWhenNoneCanBeMade)
{
    SBlocked busy;
    SItem item([] {});
    ASSERT_NE(FALSE, busy.item.Queue());
    QsPlatform::FailThreadCreations(1);
    EXPECT_NE(FALSE, item.Queue());
    EXPECT_EQ(1u, QsPlatform::PoolThreads());
    EXPECT_EQ(0u, item.thread);
    busy.release.Set();
    ASSERT_TRUE(item.done.Wait());
    EXPECT_EQ(busy.item.thread, item.thread);
}

TEST_F(PosixPool, NeedsNoNewThreadWhileOneIsIdle)
{
    QsPlatform::SetPoolIdleTime(3000);
    SItem first([] {});
    SItem second([] {});
    ASSERT_NE(FALSE, first.Queue());
    ASSERT_TRUE(BecomesIdle(first));
    QsPlatform::FailThreadCreations(1);
    EXPECT_NE(FALSE, second.Queue());
    EXPECT_TRUE(second.done.Wait());
}

TEST_F(PosixPool, GivesDeviceCodeTheStackOfAnyThread)
{
    const auto sizeHere = []
    {
        pthread_attr_t attributes;
        std::size_t size = 0;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0)
            return size;
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        return size;
    };
    std::size_t inPool = 0;
    std::size_t elsewhere = 1;
    SItem item([&] { inPool = sizeHere(); });
    ASSERT_NE(FALSE, item.Queue());
    ASSERT_TRUE(item.done.Wait());
    std::thread([&] { elsewhere = sizeHere(); }).join();
    EXPECT_EQ(elsewhere, inPool);
}

[[noreturn]] void ExitWithThreadsOfThePool()
{
    // Never destroyed: their threads use them to the end.
    auto& blocked = *new std::array<SBlocked, 3>;
    auto& last = *new SItem([] {});
    static SBlocked* s_reached = blocked.data(); // for the leak check
    static SItem* s_reachedToo = &last;
    for (SBlocked& item : blocked)
        item.item.Queue();
    last.Queue();
    const bool bAsMeant = BecomesIdle(last) && Becomes([&] { return s_reached[2].item.thread != 0; });
    std::exit(bAsMeant && s_reachedToo->thread != 0 ? 0 : 1);
}

TEST(PosixPoolAtExit, TheProcessEndsWhileItemsRunAndThreadsAreIdle)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(ExitWithThreadsOfThePool(), testing::ExitedWithCode(0), "");
}

TEST(ThreadId, IsTheSystems)
{
    EXPECT_EQ(static_cast<DWORD>(gettid()), GetCurrentThreadId());
    DWORD other = 0;
    DWORD system = 1;
    std::thread(
        [&]
        {
            other = GetCurrentThreadId();
            system = static_cast<DWORD>(gettid());
        })
        .join();
    EXPECT_EQ(system, other);
    EXPECT_NE(GetCurrentThreadId(), other);
}

TEST(DeleteObject, ReleasesAnEventAndIsCountedOnItsOwn)
{
    const std::uint64_t closed = QsPlatform::ClosedHandles();
    const std::uint64_t deleted = QsPlatform::DeletedObjects();
    HANDLE event = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_NE(FALSE, DeleteObject(event));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(event, kLong));
    EXPECT_EQ(FALSE, SetEvent(event));
    EXPECT_EQ(FALSE, DeleteObject(event));
    EXPECT_EQ(FALSE, CloseHandle(event));
    EXPECT_EQ(FALSE, DeleteObject(nullptr));
    EXPECT_EQ(deleted + 1, QsPlatform::DeletedObjects());
    EXPECT_EQ(closed, QsPlatform::ClosedHandles());
}

} // namespace
