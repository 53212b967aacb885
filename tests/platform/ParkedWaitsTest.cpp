// Waits that are under way when something happens to what they wait for.
#include "platform/Win32.h"
#include "tests/platform/System.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

constexpr DWORD kLong = 60000; // ends only when something is broken

// A thread that waits.
template <class Wait>
class CWaiter
{
public:
    explicit CWaiter(Wait wait)
        : m_thread(
              [this, wait]
              {
                  m_id = GetCurrentThreadId();
                  m_result = wait();
              })
    {
        UntilParked(m_id);
    }
    DWORD Result()
    {
        m_thread.join();
        return m_result;
    }

private:
    std::atomic<DWORD> m_id{0};
    std::atomic<DWORD> m_result{0xDEADBEEF};
    std::thread m_thread;
};

TEST(ParkedWaiter, IsReleasedByASignalThatIsResetAtOnce)
{
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CWaiter single([&] { return WaitForSingleObject(event, kLong); });
    CWaiter group([&] { return WaitForMultipleObjects(1, &event, TRUE, kLong); });
    SetEvent(event);
    ResetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, single.Result());
    EXPECT_EQ(WAIT_OBJECT_0, group.Result());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
    CloseHandle(event);
}

TEST(ParkedWaiter, TwoSignalsOfAnAutoEventReleaseTwo)
{
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    CWaiter first([&] { return WaitForSingleObject(event, kLong); });
    CWaiter second([&] { return WaitForSingleObject(event, kLong); });
    SetEvent(event);
    SetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, first.Result());
    EXPECT_EQ(WAIT_OBJECT_0, second.Result());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
    CloseHandle(event);
}

TEST(ParkedWaiter, AWaitForAllIsReleasedByTheLastSignalAlone)
{
    HANDLE events[] = {CreateEventW(nullptr, FALSE, FALSE, nullptr), CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    CWaiter both([&] { return WaitForMultipleObjects(2, events, TRUE, kLong); });
    SetEvent(events[0]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(events[0], 0)); // not taken by the waiter
    SetEvent(events[1]);
    SetEvent(events[0]);
    EXPECT_EQ(WAIT_OBJECT_0, both.Result());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(events[0], 0));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(events[1], 0));
    CloseHandle(events[0]);
    CloseHandle(events[1]);
}

} // namespace
