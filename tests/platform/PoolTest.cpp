// The thread pool, and the release call for graphics objects that it is used with.
#include "platform/Threads.h"
#include "tests/platform/PoolItems.h"
#include "tests/platform/System.h"
#include "tests/support/SystemFaults.h"

#include <array>
#include <cstdlib>
#include <deque>
#include <vector>

namespace {

TEST(ThreadPool, RunsAnItemOnAnotherThread)
{
    bool bRan = false;
    SItem item([&] { bRan = true; });
    ASSERT_NE(FALSE, item.Queue());
    ASSERT_TRUE(item.done.Wait());
    EXPECT_TRUE(bRan);
    EXPECT_NE(GetCurrentThreadId(), item.thread);
}

TEST(ThreadPool, RunsEightThatBlockAtTheSameTime)
{
    std::atomic<int> here{0};
    CEvent all(true);
    std::deque<SItem> items;
    for (int i = 0; i < 8; ++i)
    {
        items.emplace_back(
            [&]
            {
                if (++here == 8)
                    all.Set();
                EXPECT_TRUE(all.Wait()); // ends only if all eight are inside
            });
        ASSERT_NE(FALSE, items.back().Queue());
    }
    for (SItem& item : items)
        EXPECT_TRUE(item.done.Wait());
    EXPECT_EQ(8, here);
}

TEST(ThreadPool, RunsEveryItemOfFourThreadsOnce)
{
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

TEST(ThreadPool, RefusesItemsAsOftenAsItIsTold)
{
    std::atomic<int> ran{0};
    SItem refused([&] { ran += 100; });
    SItem item([&] { ++ran; });
    QsTest::FailPoolItems(2);
    EXPECT_EQ(FALSE, refused.Queue());
    EXPECT_EQ(FALSE, refused.Queue());
    EXPECT_NE(FALSE, item.Queue());
    EXPECT_TRUE(item.done.Wait());
    EXPECT_EQ(1, ran);
}

[[noreturn]] void ExitWhileItemsRun()
{
    // Never destroyed: their threads use them to the end.
    static auto& blocked = *new std::array<SBlocked, 3>;
    for (SBlocked& item : blocked)
        item.item.Queue();
    for (SBlocked& item : blocked)
        UntilParked(item.item.thread);
    std::exit(7);
}

TEST(ThreadPoolAtExit, TheProcessEndsWhileItemsRun)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(ExitWhileItemsRun(), testing::ExitedWithCode(7), "");
}

TEST(ThreadId, IsTheSameAtEveryCallAndAnotherOneInEachThread)
{
    const DWORD own = GetCurrentThreadId();
    EXPECT_NE(0u, own);
    EXPECT_EQ(own, GetCurrentThreadId());
    DWORD other = 0;
    std::thread([&] { other = GetCurrentThreadId(); }).join();
    EXPECT_NE(0u, other);
    EXPECT_NE(own, other);
}

TEST(DeleteObject, RefusesWhatIsNoEvent)
{
    EXPECT_EQ(FALSE, DeleteObject(nullptr));
    int local = 0;
    EXPECT_EQ(FALSE, DeleteObject(&local));
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr));
    EXPECT_EQ(FALSE, DeleteObject(pthread_getw32threadhandle_np(thread)));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
}

} // namespace
