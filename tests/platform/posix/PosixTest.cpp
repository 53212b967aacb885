// What only this side of the platform layer shows, or does otherwise than Windows: injected failures, names that are
// not supported, handles that are told apart from those that were closed.
#include "platform/Threads.h"
#include "platform/posix/Control.h"
#include "tests/platform/System.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr DWORD kLong = 60000;

TEST(Handle, GarbageIsRefused)
{
    for (const std::uintptr_t value :
         {std::uintptr_t{4}, ~std::uintptr_t{0}}) // a handle on Windows, the process itself
    {
        HANDLE garbage = reinterpret_cast<HANDLE>(value);
        EXPECT_EQ(FALSE, CloseHandle(garbage));
        EXPECT_EQ(FALSE, SetEvent(garbage));
        EXPECT_EQ(FALSE, ResetEvent(garbage));
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(garbage, kLong));
    }
}

TEST(Event, CreationFailsAsOftenAsItIsTold)
{
    QsPlatform::FailEventCreations(2);
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, nullptr));
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_NE(nullptr, event);
    CloseHandle(event);
}

TEST(Event, NamedOnesAreNotSupported)
{
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, L"name"));
}

TEST(Event, ClosingIsCountedWhenItClosedSomething)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const std::uint64_t before = QsPlatform::ClosedHandles();
    CloseHandle(event);
    CloseHandle(event);
    CloseHandle(nullptr);
    EXPECT_EQ(before + 1, QsPlatform::ClosedHandles());
}

TEST(Wait, ATimedOneAsksForTheFinestTimer)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread(
        [&]
        {
            prctl(PR_SET_TIMERSLACK, 50000); // a thread begins with that of its maker
            WaitForSingleObject(event, 1);
            EXPECT_EQ(1, prctl(PR_GET_TIMERSLACK));
        })
        .join();
    std::thread(
        [&]
        {
            prctl(PR_SET_TIMERSLACK, 50000);
            WaitForMultipleObjects(1, &event, TRUE, 1);
            EXPECT_EQ(1, prctl(PR_GET_TIMERSLACK));
        })
        .join();
    CloseHandle(event);
}

void* Nothing(void*)
{
    return nullptr;
}

TEST(Thread, CreationThatTheSystemRefusesLeavesTheHandle)
{
    // A stack larger than the address space.
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, std::size_t{1} << 55));
    QsThread thread;
    EXPECT_NE(0, pthread_create(&thread, &attributes, Nothing, nullptr));
    EXPECT_EQ(nullptr, thread);
    pthread_attr_destroy(&attributes);
}

TEST(Thread, HonoursTheStackSizeAndIsDetachedInAnyCase)
{
    for (const int detachState : {PTHREAD_CREATE_JOINABLE, PTHREAD_CREATE_DETACHED})
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, detachState);
        pthread_attr_setstacksize(&attributes, 12u << 20); // more than the default: no cached stack will do
        struct SSeen
        {
            HANDLE created = CreateEventW(nullptr, TRUE, FALSE, nullptr);
            std::atomic<std::size_t> stack{0};
            std::atomic<int> detachState{-1};
        } seen;
        QsThread thread;
        ASSERT_EQ(0, pthread_create(
                         &thread, &attributes,
                         [](void* context) -> void*
                         {
                             auto& mine = *static_cast<SSeen*>(context);
                             WaitForSingleObject(mine.created, kLong);
                             pthread_attr_t own;
                             pthread_getattr_np(pthread_self(), &own);
                             std::size_t size = 0;
                             int state = -1;
                             pthread_attr_getstacksize(&own, &size);
                             pthread_attr_getdetachstate(&own, &state);
                             pthread_attr_destroy(&own);
                             mine.stack = size;
                             mine.detachState = state;
                             return nullptr;
                         },
                         &seen));
        SetEvent(seen.created);
        EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(thread), kLong));
        EXPECT_EQ(PTHREAD_CREATE_DETACHED, seen.detachState);
        EXPECT_GE(seen.stack, 12u << 20);
        EXPECT_LT(seen.stack, 16u << 20);
        CloseHandle(seen.created);
        pthread_attr_destroy(&attributes);
    }
}

TEST(Thread, KnowsItsOwnHandleFromItsFirstInstruction)
{
    struct SOwn
    {
        QsThread thread;
        std::atomic<bool> known{false};
    } own;
    ASSERT_EQ(0, pthread_create(
                     &own.thread, nullptr,
                     [](void* context) -> void*
                     {
                         auto& mine = *static_cast<SOwn*>(context);
                         mine.known = mine.thread != nullptr;
                         return nullptr;
                     },
                     &own));
    EXPECT_EQ(0, pthreadCancelableTimedWait(pthread_getw32threadhandle_np(own.thread), kLong));
    EXPECT_TRUE(own.known);
}

TEST(Thread, ItsHandleIsNotAnEvent)
{
    QsThread thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, Nothing, nullptr));
    HANDLE handle = pthread_getw32threadhandle_np(thread);
    EXPECT_EQ(FALSE, SetEvent(handle));
    EXPECT_EQ(FALSE, ResetEvent(handle));
    EXPECT_EQ(FALSE, CloseHandle(handle));
    EXPECT_EQ(0, pthreadCancelableTimedWait(handle, kLong));
    thread.reset();
    // The thread drops its own copy after it has signalled its end.
    while (WaitForSingleObject(handle, 0) == WAIT_OBJECT_0)
        std::this_thread::yield();
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(handle, 0));
}

TEST(Event, AWaitForAClosedOneTimesOutAndDoesNotSeeTheNextEvent)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<DWORD> thread{0};
    DWORD result = 0xDEADBEEF;
    std::thread waiter(
        [&]
        {
            thread = GetCurrentThreadId();
            result = WaitForSingleObject(event, 300);
        });
    UntilParked(thread);
    CloseHandle(event);
    HANDLE next = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    EXPECT_NE(event, next); // no handle is given twice
    waiter.join();
    EXPECT_EQ(WAIT_TIMEOUT, result);
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(event, 0));
    CloseHandle(next);
}

TEST(ThreadId, IsTheSystems)
{
    EXPECT_EQ(static_cast<DWORD>(gettid()), GetCurrentThreadId());
}

} // namespace
