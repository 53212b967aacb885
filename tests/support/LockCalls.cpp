#include "tests/support/LockCalls.h"

#include "host/QsDMApi.h"
#include "platform/ThreadSafety.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/Interposition.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

namespace QsTest {
namespace {

struct SState
{
    std::mutex lock;
    std::condition_variable changed;
    std::map<CRITICAL_SECTION*, int> waiting;
    std::set<std::pair<CRITICAL_SECTION*, CRITICAL_SECTION*>> order;
    std::set<CRITICAL_SECTION*> live;
};

// Never destroyed: sections are left until the process ends.
SState& State()
{
    static SState& state = *new SState;
    return state;
}

struct SThread
{
    std::vector<SLockCall> calls;
    std::vector<CRITICAL_SECTION*> held;
    unsigned globalDepth = 0;
};
thread_local SThread s_thread;

constexpr std::size_t s_kept = 100000; // calls of one thread; random tests make more

void Remember(ELockCall call, CRITICAL_SECTION* section, int importance)
{
    if (s_thread.calls.size() < s_kept)
        s_thread.calls.push_back({call, section, importance});
}

} // namespace

std::ostream& operator<<(std::ostream& stream, ELockCall call)
{
    static constexpr const char* s_names[] = {"Try", "Refused", "Enter", "Leave", "Release"};
    return stream << s_names[static_cast<int>(call)];
}

std::vector<SLockCall> CLockCalls::OfThisThread()
{
    return s_thread.calls;
}

std::vector<ELockCall> CLockCalls::KindsOfThisThread()
{
    std::vector<ELockCall> kinds;
    for (const SLockCall& call : s_thread.calls)
        kinds.push_back(call.call);
    return kinds;
}

void CLockCalls::Forget()
{
    s_thread.calls.clear();
}

std::vector<CRITICAL_SECTION*> CLockCalls::Held()
{
    return s_thread.held;
}

unsigned CLockCalls::GlobalDepth()
{
    return s_thread.globalDepth;
}

std::vector<std::pair<CRITICAL_SECTION*, CRITICAL_SECTION*>> CLockCalls::Order()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    return {State().order.begin(), State().order.end()};
}

void CLockCalls::ForgetOrder()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    State().order.clear();
}

bool CLockCalls::WaitForWaiter(CRITICAL_SECTION* section)
{
    std::unique_lock<std::mutex> lock(State().lock);
    return State().changed.wait_until(lock, std::chrono::steady_clock::now() + s_patience,
                                      [section] { return State().waiting[section] > 0; });
}

std::size_t CLockCalls::Live()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    return State().live.size();
}

} // namespace QsTest

// ---------------------------------------------------------------------------- the host's functions, as the module sees
// them

using namespace QsTest;

QS_IN_PLACE_OF(Initialize, void WINAPI, InitializeCriticalSection, (CRITICAL_SECTION * section))
{
    QS_REAL(Initialize)(section);
    if (IsOfCRuntime(section))
        return;
    const std::lock_guard<std::mutex> lock(State().lock);
    if (!State().live.insert(section).second)
        throw std::logic_error("a critical section is initialised a second time");
}

QS_IN_PLACE_OF(Delete, void WINAPI, DeleteCriticalSection, (CRITICAL_SECTION * section))
{
    if (!IsOfCRuntime(section))
    {
        const std::lock_guard<std::mutex> lock(State().lock);
        if (State().live.erase(section) != 1)
            std::terminate(); // deleted twice, or never initialised
    }
    QS_REAL(Delete)(section);
}

// Forwards, so that the analysis does not see the section entered here.
QS_IN_PLACE_OF(Enter, void WINAPI, EnterCriticalSection, (CRITICAL_SECTION * section)) QS_NO_THREAD_SAFETY_ANALYSIS
{
    if (IsOfCRuntime(section))
        return QS_REAL(Enter)(section);
    const bool bOwn = std::count(s_thread.held.begin(), s_thread.held.end(), section) != 0;
    if (!bOwn)
    {
        const std::lock_guard<std::mutex> lock(State().lock);
        ++State().waiting[section];
        for (CRITICAL_SECTION* const held : s_thread.held)
            State().order.emplace(held, section);
        State().changed.notify_all();
    }
    QS_REAL(Enter)(section);
    if (!bOwn)
    {
        const std::lock_guard<std::mutex> lock(State().lock);
        --State().waiting[section];
    }
    s_thread.held.push_back(section);
    Remember(ELockCall::Enter, section, 0);
}

// As above.
QS_IN_PLACE_OF(Leave, void WINAPI, LeaveCriticalSection, (CRITICAL_SECTION * section)) QS_NO_THREAD_SAFETY_ANALYSIS
{
    if (IsOfCRuntime(section))
        return QS_REAL(Leave)(section);
    const auto held = std::find(s_thread.held.rbegin(), s_thread.held.rend(), section);
    if (held == s_thread.held.rend())
        std::terminate(); // left without having been entered
    s_thread.held.erase(std::next(held).base());
    Remember(ELockCall::Leave, section, 0);
    QS_REAL(Leave)(section);
}

QS_IN_PLACE_OF(TryLock, bool, DMApi_TryLockDeviceManager, (int importance))
{
    const bool bGranted = QS_REAL(TryLock)(importance);
    s_thread.globalDepth += bGranted ? 1 : 0;
    Remember(bGranted ? ELockCall::Try : ELockCall::Refused, nullptr, importance);
    return bGranted;
}

QS_IN_PLACE_OF(ReleaseLock, void, DMApi_ReleaseLockDeviceManager, (int importance))
{
    if (s_thread.globalDepth == 0)
        std::terminate(); // released without having been granted
    --s_thread.globalDepth;
    Remember(ELockCall::Release, nullptr, importance);
    QS_REAL(ReleaseLock)(importance);
}
