// Interrupts from outside do not end the process: they call a function.
#include "platform/Interrupt.h"
#include "tests/platform/System.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace {

// Handlers stay inside until they are let go, one by one.
class CHandlers
{
public:
    void Handle()
    {
        std::unique_lock<std::mutex> lock(m_lock);
        const unsigned number = ++m_entered;
        m_thread = std::this_thread::get_id();
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_letGo >= number; });
        ++m_left;
        m_changed.notify_all();
    }
    void LetGo(unsigned number)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_letGo = number;
        m_changed.notify_all();
    }
    // False after patience.
    bool Entered(unsigned number)
    {
        return Becomes([&] { return m_entered >= number; });
    }
    bool Left(unsigned number)
    {
        return Becomes([&] { return m_left >= number; });
    }
    bool AreAt(unsigned entered)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_entered == entered;
    }
    bool WasOn(std::thread::id thread)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_thread == thread;
    }

private:
    bool Becomes(const std::function<bool()>& condition)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::seconds(60), condition);
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    unsigned m_entered = 0, m_left = 0, m_letGo = 0;
    std::thread::id m_thread;
};

// Never destroyed: threads are inside until the process ends.
CHandlers& Handlers()
{
    static CHandlers& handlers = *new CHandlers;
    return handlers;
}

QS_CHILD_PROCESS(IsInterrupted)
{
    CHandlers& handlers = Handlers();
    LeaveTerminal();
    if (!QsPlatform::OnInterrupt([&] { handlers.Handle(); }))
        return 1;
    InterruptThisProcess();
    if (!handlers.Entered(1) || handlers.WasOn(std::this_thread::get_id()))
        return 2;
    InterruptThisProcess(); // while the first one waits
    if (!handlers.Entered(2))
        return 3;
    InterruptThisProcess();                                     // while both wait
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // time for a third one to come that must not
    if (!handlers.AreAt(2))
        return 7;
    handlers.LetGo(1);
    if (!handlers.Left(1) || !handlers.Entered(3))
        return 4;
    handlers.LetGo(3);
    if (!handlers.Left(3))
        return 5;
    InterruptThisProcess();
    handlers.LetGo(4);
    return handlers.Left(4) && handlers.AreAt(4) ? 42 : 6;
}

TEST(Interrupt, CallsTheHandlerAndTwoAtATime)
{
    EXPECT_EQ(42, QsTest::CChildProcess("IsInterrupted", {}).Wait());
}

} // namespace
