#include "platform/ThreadSafety.h"
#include "platform/Win32.h"
#include "tests/platform/System.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr DWORD kLong = 60000;

// A section that nothing else in the test holds. Which functions hold it is what the tests are about, so they are
// outside the analysis of locks.
struct SSection
{
    CRITICAL_SECTION section;

    SSection() { InitializeCriticalSection(&section); }
    ~SSection() { DeleteCriticalSection(&section); }
    SSection(const SSection&) = delete;
    SSection& operator=(const SSection&) = delete;

    void Enter() QS_NO_THREAD_SAFETY_ANALYSIS { EnterCriticalSection(&section); }
    void Leave() QS_NO_THREAD_SAFETY_ANALYSIS { LeaveCriticalSection(&section); }
};

// A thread that enters a section once, says so and leaves it.
class CVisitor
{
public:
    explicit CVisitor(SSection& section)
        : m_thread(
              [this, &section]
              {
                  SetEvent(m_begun);
                  section.Enter();
                  m_inside = true;
                  section.Leave();
                  SetEvent(m_done);
              })
    {
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m_begun, kLong));
    }
    ~CVisitor()
    {
        m_thread.join();
        CloseHandle(m_begun);
        CloseHandle(m_done);
    }

    bool IsDone(DWORD milliseconds) { return WaitForSingleObject(m_done, milliseconds) == WAIT_OBJECT_0; }
    bool HasBeenInside() const { return m_inside; }

private:
    HANDLE m_begun = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE m_done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> m_inside{false};
    std::thread m_thread; // the last: it begins when the others are there
};

TEST(CriticalSection, IsEnteredAgainByTheThreadThatHoldsIt)
{
    SSection section;
    section.Enter();
    section.Enter();
    section.Enter();
    CVisitor visitor(section);
    section.Leave();
    section.Leave();
    EXPECT_FALSE(visitor.IsDone(50)); // left twice of three times
    EXPECT_FALSE(visitor.HasBeenInside());
    section.Leave();
    EXPECT_TRUE(visitor.IsDone(kLong));
}

TEST(CriticalSection, LetsOneThreadInAtATime)
{
    SSection section;
    constexpr int threads = 4;
    constexpr int rounds = 20000;
    int entered = 0; // plain on purpose: only the section keeps the threads apart
    int inside = 0;
    std::atomic<int> overlaps{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i)
        workers.emplace_back(
            [&]
            {
                for (int round = 0; round < rounds; ++round)
                {
                    section.Enter();
                    if (++inside != 1)
                        ++overlaps;
                    ++entered;
                    --inside;
                    section.Leave();
                }
            });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(0, overlaps);
    EXPECT_EQ(threads * rounds, entered);
}

TEST(CriticalSection, DoesNotCareForOthers)
{
    SSection held;
    SSection free;
    held.Enter();
    CVisitor visitor(free);
    EXPECT_TRUE(visitor.IsDone(kLong));
    held.Leave();
}

TEST(CriticalSection, MayBeInitialisedAgainInTheSamePlace)
{
    CRITICAL_SECTION section;
    for (int i = 0; i < 3; ++i)
    {
        InitializeCriticalSection(&section);
        EnterCriticalSection(&section);
        LeaveCriticalSection(&section);
        DeleteCriticalSection(&section);
    }
}

// In a process of its own: the thread that wants the copy stays where it is until the process ends.
QS_CHILD_PROCESS(WantsACopyOfAHeldSection)
{
    auto& section = *new SSection; // never destroyed, as what is below
    auto& copy = *new SSection;
    section.Enter();
    std::memcpy(static_cast<void*>(&copy.section), &section.section, sizeof section.section);
    section.Leave();

    static std::atomic<DWORD> thread{0};
    static std::atomic<bool> inside{false};
    std::thread visitor(
        [&copy]
        {
            thread = GetCurrentThreadId();
            copy.Enter();
            inside = true;
        });
    visitor.detach();
    UntilParked(thread);
    return inside ? 1 : 0;
}

TEST(CriticalSection, ACopyOfAHeldOneIsNeverEntered)
{
    EXPECT_EQ(0, QsTest::CChildProcess("WantsACopyOfAHeldSection", {}).Wait());
}

} // namespace
