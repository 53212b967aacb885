#include "platform/Win32.h"
#include "tests/platform/System.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr DWORD kLong = 60000; // ends only when something is broken

class CEvent
{
public:
    explicit CEvent(bool manualReset, bool signalled = false)
        : m_handle(CreateEventW(nullptr, manualReset ? TRUE : FALSE, signalled ? TRUE : FALSE, nullptr))
    {
        EXPECT_NE(nullptr, m_handle);
    }
    ~CEvent() { EXPECT_NE(FALSE, CloseHandle(m_handle)); }
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;
    operator HANDLE() const { return m_handle; }

private:
    HANDLE m_handle;
};

DWORD Poll(HANDLE handle)
{
    return WaitForSingleObject(handle, 0);
}

milliseconds Since(Clock::time_point begin)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

TEST(Event, StartsAsItWasAskedTo)
{
    CEvent clear(true, false);
    CEvent set(true, true);
    EXPECT_EQ(WAIT_TIMEOUT, Poll(clear));
    EXPECT_EQ(WAIT_OBJECT_0, Poll(set));
}

TEST(Event, ManualResetStaysSignalledUntilItIsReset)
{
    CEvent event(true);
    EXPECT_NE(FALSE, SetEvent(event));
    EXPECT_EQ(WAIT_OBJECT_0, Poll(event));
    EXPECT_EQ(WAIT_OBJECT_0, Poll(event));
    EXPECT_NE(FALSE, ResetEvent(event));
    EXPECT_EQ(WAIT_TIMEOUT, Poll(event));
}

TEST(Event, AutoResetIsTakenByOneWait)
{
    CEvent event(false);
    SetEvent(event);
    SetEvent(event); // a second signal of a signalled event adds nothing
    EXPECT_EQ(WAIT_OBJECT_0, Poll(event));
    EXPECT_EQ(WAIT_TIMEOUT, Poll(event));
}

TEST(Event, CallsOnNoHandleFail)
{
    EXPECT_EQ(FALSE, SetEvent(nullptr));
    EXPECT_EQ(FALSE, ResetEvent(nullptr));
    EXPECT_EQ(FALSE, CloseHandle(nullptr));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(nullptr, 0));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(nullptr, kLong));
}

TEST(Event, CallsOnAClosedHandleFail)
{
    HANDLE closed = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    ASSERT_NE(FALSE, CloseHandle(closed));
    EXPECT_EQ(FALSE, CloseHandle(closed));
    EXPECT_EQ(FALSE, SetEvent(closed));
    EXPECT_EQ(FALSE, ResetEvent(closed));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(closed, kLong));
}

TEST(Event, CallsOnWhatIsNoHandleFail)
{
    int local = 0;
    for (HANDLE garbage : {reinterpret_cast<HANDLE>(std::uintptr_t{1}),
                           reinterpret_cast<HANDLE>(std::uintptr_t{0x1234567890}), static_cast<HANDLE>(&local)})
    {
        EXPECT_EQ(FALSE, CloseHandle(garbage));
        EXPECT_EQ(FALSE, SetEvent(garbage));
        EXPECT_EQ(FALSE, ResetEvent(garbage));
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(garbage, kLong));
    }
}

TEST(Event, ManyLiveSideBySide)
{
    std::vector<HANDLE> events;
    for (int i = 0; i < 2000; ++i)
        events.push_back(CreateEventW(nullptr, TRUE, i % 3 == 0 ? TRUE : FALSE, nullptr));
    for (std::size_t i = 0; i < events.size(); ++i)
        EXPECT_EQ(i % 3 == 0 ? WAIT_OBJECT_0 : static_cast<DWORD>(WAIT_TIMEOUT), Poll(events[i])) << i;
    for (HANDLE event : events)
        EXPECT_NE(FALSE, CloseHandle(event));
}

TEST(WaitForSingleObject, IsNeverEarly)
{
    CEvent event(true);
    for (const DWORD duration : {1u, 2u, 7u, 30u, 100u})
    {
        const auto begin = Clock::now();
        ASSERT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, duration));
        EXPECT_GE(Clock::now() - begin, milliseconds(duration));
    }
}

TEST(WaitForSingleObject, IsWokenByASignalFromAnotherThread)
{
    for (const bool manualReset : {false, true})
    {
        CEvent event(manualReset);
        const auto begin = Clock::now();
        std::thread other([&] { SetEvent(event); });
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, kLong));
        EXPECT_LT(Since(begin), milliseconds(10000));
        other.join();
    }
}

TEST(WaitForSingleObject, WaitsWithoutLimitWhenToldTo)
{
    CEvent event(false);
    std::thread other([&] { SetEvent(event); });
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, INFINITE));
    other.join();
}

TEST(WaitForSingleObject, AManualEventReleasesEightWaiters)
{
    CEvent event(true);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 8; ++i)
        waiters.emplace_back([&] { released += WaitForSingleObject(event, kLong) == WAIT_OBJECT_0 ? 1 : 0; });
    SetEvent(event);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(8, released);
}

TEST(WaitForSingleObject, AnAutoEventReleasesOneWaiterForEachSignal)
{
    CEvent event(false);
    CEvent taken(false);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back(
            [&]
            {
                if (WaitForSingleObject(event, kLong) == WAIT_OBJECT_0)
                    ++released;
                SetEvent(taken);
            });
    for (int i = 1; i <= 4; ++i)
    {
        SetEvent(event);
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(taken, kLong));
        EXPECT_EQ(i, released);
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(WAIT_TIMEOUT, Poll(event));
}

TEST(WaitForSingleObject, TheWokenThreadMayCloseTheEvent)
{
    for (int i = 0; i < 2000; ++i)
    {
        HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        std::thread signaller([event] { SetEvent(event); });
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, kLong));
        ASSERT_NE(FALSE, CloseHandle(event));
        signaller.join();
    }
}

TEST(WaitForMultipleObjects, FailsForNoneForTooManyAndForABadHandle)
{
    CEvent event(true, true);
    std::vector<HANDLE> distinct;
    for (int i = 0; i < 65; ++i)
        distinct.push_back(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    for (const BOOL all : {TRUE, FALSE})
    {
        HANDLE one = event;
        EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(0, &one, all, 0));
        EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(65, distinct.data(), all, 0));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(64, distinct.data(), all, 0));
        const HANDLE withNull[] = {event, nullptr};
        EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(2, withNull, all, kLong));
    }
    for (HANDLE handle : distinct)
        CloseHandle(handle);
}

TEST(WaitForMultipleObjects, ABadHandleLeavesTheSignalledOnesAlone)
{
    CEvent event(false, true);
    const HANDLE handles[] = {event, nullptr};
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(2, handles, FALSE, 0));
    EXPECT_EQ(WAIT_OBJECT_0, Poll(event));
}

TEST(WaitForMultipleObjects, OneHandleTwiceFailsWhenWaitingForAll)
{
    if (IsWine())
        GTEST_SKIP() << "Wine does not look for it";
    CEvent event(true, true);
    CEvent other(true, true);
    const HANDLE handles[] = {event, other, event};
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(3, handles, TRUE, 0));
}

TEST(WaitForMultipleObjects, WaitingForAllTakesNothingUntilAllAreSignalled)
{
    CEvent first(false, true);
    CEvent second(false, false);
    const HANDLE handles[] = {first, second};
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(2, handles, TRUE, 0));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(2, handles, TRUE, 20));
    EXPECT_EQ(WAIT_OBJECT_0, Poll(first)); // was still signalled
    SetEvent(first);
    SetEvent(second);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, handles, TRUE, 0));
    EXPECT_EQ(WAIT_TIMEOUT, Poll(first));
    EXPECT_EQ(WAIT_TIMEOUT, Poll(second));
}

TEST(WaitForMultipleObjects, WaitingForAnyTakesTheFirstSignalledAlone)
{
    CEvent first(false, false);
    CEvent second(false, true);
    CEvent third(false, true);
    const HANDLE handles[] = {first, second, third};
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjects(3, handles, FALSE, 0));
    EXPECT_EQ(WAIT_TIMEOUT, Poll(second));
    EXPECT_EQ(WAIT_OBJECT_0, Poll(third));
}

TEST(WaitForMultipleObjects, IsNeverEarly)
{
    CEvent set(true, true);
    CEvent clear(true, false);
    const HANDLE handles[] = {set, clear};
    for (const DWORD duration : {1u, 7u, 50u})
    {
        const auto begin = Clock::now();
        ASSERT_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(2, handles, TRUE, duration));
        EXPECT_GE(Clock::now() - begin, milliseconds(duration));
    }
}

TEST(WaitForMultipleObjects, SixtyFourEndWhenTheLastIsSignalled)
{
    std::vector<HANDLE> events;
    for (int i = 0; i < 64; ++i)
        events.push_back(CreateEventW(nullptr, i % 2, FALSE, nullptr));
    std::atomic<int> set{0};
    std::thread setter(
        [&]
        {
            for (HANDLE event : events)
            {
                ++set;
                SetEvent(event);
            }
        });
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(64, events.data(), TRUE, INFINITE));
    EXPECT_EQ(64, set);
    setter.join();
    for (std::size_t i = 0; i < events.size(); ++i)
    {
        EXPECT_EQ(i % 2 ? WAIT_OBJECT_0 : static_cast<DWORD>(WAIT_TIMEOUT), Poll(events[i])) << i;
        CloseHandle(events[i]);
    }
}

TEST(WaitForMultipleObjects, ThreeThreadsShareEverySignalWithoutLosingOrDoublingOne)
{
    // Waits for any, for all of one, and for a single object compete for the same auto-reset event.
    CEvent event(false);
    CEvent stop(true);
    CEvent taken(false);
    std::atomic<int> count{0};
    const auto consumed = [&]
    {
        ++count;
        SetEvent(taken);
    };
    std::thread any(
        [&]
        {
            const HANDLE handles[] = {stop, event};
            while (WaitForMultipleObjects(2, handles, FALSE, kLong) == WAIT_OBJECT_0 + 1)
                consumed();
        });
    std::thread all(
        [&]
        {
            const HANDLE handle = event;
            while (Poll(stop) == WAIT_TIMEOUT)
                if (WaitForMultipleObjects(1, &handle, TRUE, 5) == WAIT_OBJECT_0)
                    consumed();
        });
    std::thread single(
        [&]
        {
            while (Poll(stop) == WAIT_TIMEOUT)
                if (WaitForSingleObject(event, 5) == WAIT_OBJECT_0)
                    consumed();
        });
    for (int i = 1; i <= 500; ++i)
    {
        SetEvent(event);
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(taken, kLong));
        ASSERT_EQ(i, count);
    }
    SetEvent(stop);
    any.join();
    all.join();
    single.join();
    EXPECT_EQ(500, count);
}

} // namespace
