#include "platform/Threads.h"
#include "platform/Win32.h"
#include "tests/support/SystemFaults.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

namespace {

constexpr DWORD kLong = 60000;

// A thread procedure that stays until it is let go.
struct SHeld
{
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> finished{0};

    ~SHeld() { CloseHandle(go); }

    static void* Run(void* context)
    {
        auto& held = *static_cast<SHeld*>(context);
        WaitForSingleObject(held.go, kLong);
        ++held.finished;
        return nullptr;
    }
};

TEST(Thread, RunsWithItsArgument)
{
    std::atomic<int> value{0};
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void* context) -> void*
                     {
                         *static_cast<std::atomic<int>*>(context) = 42;
                         return nullptr;
                     },
                     &value));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
    EXPECT_EQ(42, value);
}

TEST(Thread, WaitTimesOutWhileItRuns)
{
    SHeld held;
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, SHeld::Run, &held));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ETIMEDOUT, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), 20));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
    EXPECT_EQ(0, held.finished);
    SetEvent(held.go);
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
    EXPECT_EQ(1, held.finished);
}

TEST(Thread, AnEndedOneAnswersEveryWaitFromEveryThread)
{
    SHeld held;
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, SHeld::Run, &held));
    std::atomic<int> ended{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 8; ++i)
        waiters.emplace_back(
            [&]
            {
                for (int n = 0; n < 100; ++n)
                    ended += pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong) == 0 ? 1 : 0;
            });
    SetEvent(held.go);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(800, ended);
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), 0));
}

TEST(Thread, MayBeWaitedForTogetherWithEvents)
{
    SHeld held;
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, SHeld::Run, &held));
    const HANDLE handles[] = {pthread_getw32threadhandle_np(thread), held.go};
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(2, handles, TRUE, 0));
    SetEvent(held.go);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, handles, TRUE, kLong));
    EXPECT_EQ(1, held.finished);
}

TEST(Thread, HandleMayBeOverwrittenWhileItRuns)
{
    SHeld held;
    QsThread thread{};
    constexpr int kThreads = 20;
    for (int i = 0; i < kThreads; ++i)
        ASSERT_EQ(0, pthread_create(&thread, nullptr, SHeld::Run, &held));
    SetEvent(held.go);
    while (held.finished != kThreads)
        std::this_thread::yield();
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
}

TEST(Thread, ACopyOfTheHandleOutlivesTheOverwrittenOne)
{
    SHeld held;
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, SHeld::Run, &held));
    const QsThread copy = thread;
    thread = QsThread{};
    EXPECT_EQ(ETIMEDOUT, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(copy), 0));
    SetEvent(held.go);
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(copy), kLong));
}

TEST(Thread, NoThreadHasNoHandle)
{
    EXPECT_EQ(nullptr, pthread_getw32threadhandle_np(QsThread{}));
    EXPECT_EQ(EINVAL, pthreadCancelableTimedWait(nullptr, 0));
    EXPECT_EQ(EINVAL, pthreadCancelableTimedWait(nullptr, kLong));
}

void* Nothing(void*)
{
    return nullptr;
}

TEST(Thread, CreationThatFailsLeavesTheHandle)
{
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, Nothing, nullptr));
    const QsThread before = thread;
    QsTest::FailThreadCreations(1);
    EXPECT_EQ(EAGAIN, pthread_create(&thread, nullptr, Nothing, nullptr));
    EXPECT_EQ(pthread_getw32threadhandle_np(before), pthread_getw32threadhandle_np(thread));
    ASSERT_EQ(0, pthread_create(&thread, nullptr, Nothing, nullptr));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(before), kLong));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
}

TEST(Thread, CreationWithoutAHandleOrAFunctionFails)
{
    QsThread thread{};
    EXPECT_EQ(EINVAL, pthread_create(static_cast<QsThread*>(nullptr), nullptr, Nothing, nullptr));
    EXPECT_EQ(EINVAL, pthread_create(&thread, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, pthread_getw32threadhandle_np(thread));
}

TEST(Thread, LeavingThroughPthreadExitEndsItToo)
{
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void*
                     {
                         pthread_exit(nullptr);
                         return nullptr; // not every library says that the call does not return
                     },
                     nullptr));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
}

TEST(Thread, MayBeMadeDetachedAndIsWaitedForAllTheSame)
{
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED));
    SHeld held;
    QsThread thread{};
    ASSERT_EQ(0, pthread_create(&thread, &attributes, SHeld::Run, &held));
    EXPECT_EQ(ETIMEDOUT, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), 0));
    SetEvent(held.go);
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
    EXPECT_EQ(1, held.finished);
    pthread_attr_destroy(&attributes);
}

TEST(Thread, ManyShortOnesLeaveNothingBehind)
{
    std::atomic<int> runs{0};
    constexpr int kThreads = 1000; // well beyond what the system would keep as unjoined
    for (int i = 0; i < kThreads; ++i)
    {
        QsThread thread{};
        ASSERT_EQ(0, pthread_create(
                         &thread, nullptr,
                         [](void* context) -> void*
                         {
                             ++*static_cast<std::atomic<int>*>(context);
                             return nullptr;
                         },
                         &runs));
        ASSERT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
    }
    EXPECT_EQ(kThreads, runs);
}

TEST(RecursiveMutex, IsTakenTwiceByOneThread)
{
    pthread_mutexattr_t attributes;
    ASSERT_EQ(0, pthread_mutexattr_init(&attributes));
    ASSERT_EQ(0, pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE));
    pthread_mutex_t mutex;
    ASSERT_EQ(0, pthread_mutex_init(&mutex, &attributes));
    EXPECT_EQ(0, pthread_mutex_lock(&mutex));
    EXPECT_EQ(0, pthread_mutex_lock(&mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mutex));
    EXPECT_EQ(0, pthread_mutex_destroy(&mutex));
    pthread_mutexattr_destroy(&attributes);
}

} // namespace
