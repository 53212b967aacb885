// Which sections an operation takes, and whether it waits for one.
#pragma once

#include "tests/support/FakeDevice.h"
#include "tests/support/LockCalls.h"

#include <atomic>
#include <functional>
#include <future>
#include <set>
#include <thread>

namespace QsTest {

// Sections that the operation enters on this thread.
inline std::set<CRITICAL_SECTION*> TakenBy(const std::function<void()>& operation)
{
    CLockCalls::Forget();
    operation();
    std::set<CRITICAL_SECTION*> sections;
    for (const SLockCall& call : CLockCalls::OfThisThread())
        if (call.call == ELockCall::Enter)
            sections.insert(call.section);
    return sections;
}

// The section that the operation enters first; null when it enters none.
inline CRITICAL_SECTION* FirstTakenBy(const std::function<void()>& operation)
{
    CLockCalls::Forget();
    operation();
    for (const SLockCall& call : CLockCalls::OfThisThread())
        if (call.call == ELockCall::Enter)
            return call.section;
    return nullptr;
}

// Runs the operation on another thread while this one holds the section, and answers whether it waited for it. Either
// way it has ended when this returns.
inline bool WaitsFor(CRITICAL_SECTION* section, const std::function<void()>& operation)
{
    std::atomic<bool> bDone{false};
    EnterCriticalSection(section);
    std::thread thread(
        [&]
        {
            operation();
            bDone = true;
        });
    const bool bWaited = CLockCalls::WaitForWaiter(section) && !bDone;
    LeaveCriticalSection(section);
    thread.join();
    return bWaited;
}

// Whether the operation ends on another thread while this one holds the section.
inline bool RunsBeside(CRITICAL_SECTION* section, const std::function<void()>& operation)
{
    EnterCriticalSection(section);
    std::future<void> run = std::async(std::launch::async, operation);
    const bool bDone = run.wait_for(s_patience) == std::future_status::ready;
    LeaveCriticalSection(section);
    return bDone;
}

} // namespace QsTest
