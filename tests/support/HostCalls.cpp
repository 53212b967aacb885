#include "tests/support/HostCalls.h"

#include "host/QsDMApi.h"
#include "host/QsPluginManager.h"
#include "tests/support/Interposition.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace QsTest {
namespace {

struct SItem
{
    LPTHREAD_START_ROUTINE function = nullptr;
    LPVOID context = nullptr;
    ULONG flags = 0;
};

struct SState
{
    CCallLog log;
    std::vector<SBroadcast> broadcasts;
    std::mutex lock;
    std::condition_variable changed;
    std::vector<SWaitCall> waits;
    std::vector<DWORD> shortened;
    bool bShortenAll = false;
    std::vector<ULONG> flags;
    std::vector<SItem> held;
    bool bHold = false;
    std::size_t inFlight = 0;
};

// Never destroyed: the pool's threads use it until the process ends.
SState& State()
{
    static SState& state = *new SState;
    return state;
}

std::string Narrow(const wchar_t* text)
{
    return CQsStringW(text).ToUtf8();
}

// The time that the wait may really take.
DWORD Remember(DWORD count, DWORD milliseconds)
{
    SState& state = State();
    const std::lock_guard<std::mutex> lock(state.lock);
    state.waits.push_back({count, milliseconds});
    bool bShort = state.bShortenAll && milliseconds != INFINITE;
    for (const DWORD shortened : state.shortened)
        bShort = bShort || shortened == milliseconds;
    return bShort ? 0 : milliseconds;
}

DWORD WINAPI RunItem(LPVOID context)
{
    const SItem item = *static_cast<SItem*>(context);
    delete static_cast<SItem*>(context);
    const DWORD result = item.function(item.context);
    SState& state = State();
    const std::lock_guard<std::mutex> lock(state.lock);
    --state.inFlight;
    state.changed.notify_all();
    return result;
}

} // namespace

static bool QueueInPool(const SItem& item); // in the system's pool

CCallLog& CHostCalls::Log()
{
    return State().log;
}

std::vector<SBroadcast> CHostCalls::Broadcasts()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    return State().broadcasts;
}

std::vector<SWaitCall> CHostCalls::Waits()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    return State().waits;
}

std::vector<SWaitCall> CHostCalls::WaitsOf(DWORD milliseconds)
{
    std::vector<SWaitCall> found;
    for (const SWaitCall& wait : Waits())
        if (wait.milliseconds == milliseconds)
            found.push_back(wait);
    return found;
}

void CHostCalls::ForgetWaits()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    State().waits.clear();
}

void CHostCalls::ShortenWaits(DWORD milliseconds)
{
    const std::lock_guard<std::mutex> lock(State().lock);
    State().shortened.push_back(milliseconds);
}

void CHostCalls::ShortenAllWaits()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    State().bShortenAll = true;
}

std::vector<ULONG> CHostCalls::PoolFlags()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    return State().flags;
}

void CHostCalls::HoldPool()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    State().bHold = true;
}

void CHostCalls::LetPoolGo()
{
    std::vector<SItem> items;
    {
        const std::lock_guard<std::mutex> lock(State().lock);
        State().bHold = false;
        items.swap(State().held);
    }
    for (const SItem& item : items)
        if (!QueueInPool(item))
            throw std::runtime_error("the pool takes no item that was held back");
}

std::size_t CHostCalls::HeldPoolItems()
{
    const std::lock_guard<std::mutex> lock(State().lock);
    return State().held.size();
}

bool CHostCalls::WaitForPool()
{
    LetPoolGo();
    std::unique_lock<std::mutex> lock(State().lock);
    return State().changed.wait_until(lock, std::chrono::steady_clock::now() + s_patience,
                                      [] { return State().inFlight == 0; });
}

void CHostCalls::Reset()
{
    State().log.Clear();
    const std::lock_guard<std::mutex> lock(State().lock);
    State().broadcasts.clear();
    State().waits.clear();
    State().shortened.clear();
    State().bShortenAll = false;
    State().flags.clear();
    State().bHold = false;
}

} // namespace QsTest

// ---------------------------------------------------------------------------- the host's functions, as the module sees
// them

using QsTest::CHostCalls;

QS_IN_PLACE_OF(WaitForOne, DWORD WINAPI, WaitForSingleObject, (HANDLE handle, DWORD milliseconds))
{
    if (!QsTest::IsWaitOfTestLibrary(handle, milliseconds))
        milliseconds = QsTest::Remember(1, milliseconds);
    return QS_REAL(WaitForOne)(handle, milliseconds);
}

QS_IN_PLACE_OF(WaitForMany, DWORD WINAPI, WaitForMultipleObjects,
               (DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds))
{
    return QS_REAL(WaitForMany)(count, handles, waitAll, QsTest::Remember(count, milliseconds));
}

QS_IN_PLACE_OF(Queue, BOOL WINAPI, QueueUserWorkItem, (LPTHREAD_START_ROUTINE function, LPVOID context, ULONG flags))
{
    const QsTest::SItem item{function, context, flags};
    QsTest::SState& state = QsTest::State();
    {
        const std::lock_guard<std::mutex> lock(state.lock);
        state.flags.push_back(flags);
        ++state.inFlight;
        if (state.bHold)
        {
            state.held.push_back(item);
            return TRUE;
        }
    }
    if (QsTest::QueueInPool(item))
        return TRUE;
    const std::lock_guard<std::mutex> lock(state.lock);
    --state.inFlight;
    return FALSE;
}

bool QsTest::QueueInPool(const SItem& item)
{
    auto copy = std::make_unique<SItem>(item);
    const bool bQueued = QS_REAL(Queue)(&RunItem, copy.get(), item.flags) != FALSE;
    if (bQueued)
        copy.release(); // RunItem's
    return bQueued;
}

QS_IN_PLACE_OF(Broadcast, unsigned, CQsPluginManager::AppRntm_HandleEvent,
               (const wchar_t* eventName, int argument1, int argument2, void* context))
{
    {
        QsTest::SState& state = QsTest::State();
        const std::lock_guard<std::mutex> lock(state.lock);
        state.broadcasts.push_back({eventName != nullptr ? eventName : L"", argument1, argument2, context});
    }
    return QS_REAL(Broadcast)(eventName, argument1, argument2, context);
}

QS_IN_PLACE_OF(RegisterConsumer, void, DMApi::AppRntm_RegisterConsumer, (IQsDMApiPluginNotification * consumer))
{
    CHostCalls::Log().Add("RegisterConsumer");
    QS_REAL(RegisterConsumer)(consumer);
}

QS_IN_PLACE_OF(UnregisterConsumer, void, DMApi::AppRntm_UnregisterConsumer, (IQsDMApiPluginNotification * consumer))
{
    CHostCalls::Log().Add("UnregisterConsumer");
    QS_REAL(UnregisterConsumer)(consumer);
}

QS_IN_PLACE_OF(RegisterEvent, void, DMApi::AppRntm_RegisterEvent,
               (IQsDMApiPluginNotification * consumer, const wchar_t* eventName))
{
    CHostCalls::Log().Add("RegisterEvent " + QsTest::Narrow(eventName));
    QS_REAL(RegisterEvent)(consumer, eventName);
}

QS_IN_PLACE_OF(UnregisterEvent, void, DMApi::AppRntm_UnregisterEvent,
               (IQsDMApiPluginNotification * consumer, const wchar_t* eventName))
{
    CHostCalls::Log().Add("UnregisterEvent " + QsTest::Narrow(eventName));
    QS_REAL(UnregisterEvent)(consumer, eventName);
}

QS_IN_PLACE_OF(GetIdByDBId, CDMApi_LogDevId, DMApi::LogDev_GetIdByDBId, (int databaseId))
{
    CHostCalls::Log().Add("LogDev_GetIdByDBId(" + std::to_string(databaseId) + ")");
    return QS_REAL(GetIdByDBId)(databaseId);
}

QS_IN_PLACE_OF(GetPhysDevId, unsigned int, DMApi::LogDev_GetPhysDevId, (CDMApi_LogDevId id))
{
    CHostCalls::Log().Add("LogDev_GetPhysDevId(" + std::to_string(id.value) + ")");
    return QS_REAL(GetPhysDevId)(id);
}
