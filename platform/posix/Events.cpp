// Events, and the waits for events and for the ends of threads.
//
// A handle holds the number of a slot and the slot's generation. Slots are reused and never freed, so that a handle
// that is closed or was never one is told from a live one without a lock that all waits share, and so that an object
// may be closed by the thread that it woke while the waking thread is still on its way out of SetEvent.
#include "platform/ThreadSafety.h"
#include "platform/posix/Control.h"
#include "platform/posix/Waitable.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <new>

#include <sys/prctl.h>

namespace {

using Clock = std::chrono::steady_clock;

enum class EKind
{
    Free,
    Event,
    ThreadEnd
};

struct SGroupWait;

// Membership of an object in a wait for several objects.
struct SMember
{
    SGroupWait* wait = nullptr;
    struct SObject* object = nullptr;
    SMember* next = nullptr; // the object's next member
};

struct alignas(64) SObject
{
    CQsMutex lock;
    std::condition_variable changed; // waits for this object alone
    EKind kind QS_GUARDED_BY(lock) = EKind::Free;
    std::uint32_t generation QS_GUARDED_BY(lock) = 0;
    unsigned parked QS_GUARDED_BY(lock) = 0;  // threads that wait for this object alone
    unsigned granted QS_GUARDED_BY(lock) = 0; // of those, how many an auto-reset signal has let go
    std::uint64_t sets QS_GUARDED_BY(lock) = 0;
    SMember* members QS_GUARDED_BY(lock) = nullptr;
    bool manualReset = false;
    // Guarded by the lock, and by g_groupLock too while there are members: a wait for several objects then sees and
    // resets all of them under one lock. No annotation says that.
    bool signalled = false;
    std::uint32_t slot = 0;
    SObject* nextFree = nullptr; // guarded by the table's lock
};

constexpr std::uint32_t kSlotsInPage = 256;
constexpr std::uint32_t kPages = 4096;
constexpr unsigned kSlotBits = 20;
constexpr unsigned kTagBits = 2; // of a handle, always zero, as in the real ones
static_assert(kSlotsInPage * kPages == 1u << kSlotBits, "every slot has a number");
static_assert(sizeof(HANDLE) == 8, "a handle holds a slot and a generation");

struct SPage
{
    SObject objects[kSlotsInPage];
};

// Constant-initialised and never destroyed: detached threads use it until the process is gone.
struct STable
{
    CQsMutex lock;
    SObject* firstFree QS_GUARDED_BY(lock) = nullptr;
    std::uint32_t used QS_GUARDED_BY(lock) = 1; // slot 0 would give the null handle
    std::atomic<SPage*> pages[kPages] = {};
};
STable g_table;

// Taken after an object's lock, never before one.
CQsMutex g_groupLock;

std::atomic<unsigned> g_failures{0};
std::atomic<std::uint64_t> g_closed{0};
std::atomic<std::uint64_t> g_deleted{0};

HANDLE HandleOf(const SObject& object) QS_REQUIRES(object.lock)
{
    const auto generation = static_cast<std::uintptr_t>(object.generation);
    return reinterpret_cast<HANDLE>((generation << kSlotBits | object.slot) << kTagBits);
}

// The object that the handle may name; IsOpen tells, under the lock, whether it does.
SObject* Find(HANDLE handle)
{
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    const auto slot = static_cast<std::uint32_t>(value >> kTagBits) & ((1u << kSlotBits) - 1);
    if (slot == 0)
        return nullptr;
    SPage* page = g_table.pages[slot / kSlotsInPage].load(std::memory_order_acquire);
    return page ? &page->objects[slot % kSlotsInPage] : nullptr;
}

bool IsOpen(const SObject& object, HANDLE handle) QS_REQUIRES(object.lock)
{
    return object.kind != EKind::Free && HandleOf(object) == handle;
}

bool IsOpen(const SObject& object, HANDLE handle, EKind kind) QS_REQUIRES(object.lock)
{
    return object.kind == kind && HandleOf(object) == handle;
}

SObject* TakeSlot()
{
    CQsScopedLock<CQsMutex> lock(g_table.lock);
    if (SObject* object = g_table.firstFree)
    {
        g_table.firstFree = object->nextFree;
        return object;
    }
    if (g_table.used == kSlotsInPage * kPages)
        return nullptr;
    std::atomic<SPage*>& place = g_table.pages[g_table.used / kSlotsInPage];
    SPage* page = place.load(std::memory_order_relaxed);
    if (!page)
    {
        page = new (std::nothrow) SPage;
        if (!page)
            return nullptr;
        place.store(page, std::memory_order_release);
    }
    SObject& object = page->objects[g_table.used % kSlotsInPage];
    object.slot = g_table.used++;
    return &object;
}

HANDLE Create(EKind kind, bool manualReset, bool signalled)
{
    SObject* object = TakeSlot();
    if (!object)
        return nullptr;
    CQsScopedLock<CQsMutex> lock(object->lock);
    object->kind = kind;
    ++object->generation;
    object->manualReset = manualReset;
    object->signalled = signalled;
    return HandleOf(*object);
}

void FreeIfUnused(SObject& object) QS_REQUIRES(object.lock)
{
    if (object.kind != EKind::Free || object.parked != 0 || object.members)
        return; // the last wait that is under way frees the slot
    CQsScopedLock<CQsMutex> lock(g_table.lock);
    object.nextFree = g_table.firstFree;
    g_table.firstFree = &object;
}

bool Close(HANDLE handle, EKind kind)
{
    SObject* object = Find(handle);
    if (!object)
        return false;
    CQsScopedLock<CQsMutex> lock(object->lock);
    if (!IsOpen(*object, handle, kind))
        return false;
    object->kind = EKind::Free;
    FreeIfUnused(*object);
    return true;
}

BOOL CloseEvent(HANDLE handle, std::atomic<std::uint64_t>& count)
{
    if (!Close(handle, EKind::Event))
        return FALSE;
    count.fetch_add(1, std::memory_order_relaxed);
    return TRUE;
}

// ------------------------------------------------------------------------------------------------ signals

bool TakeSignal(SObject& object)
{
    if (!object.signalled)
        return false;
    object.signalled = object.manualReset;
    return true;
}

bool TakeSignalAlone(SObject& object) QS_REQUIRES(object.lock)
{
    if (!object.members)
        return TakeSignal(object);
    CQsScopedLock<CQsMutex> lock(g_groupLock);
    return TakeSignal(object);
}

// A thread inside WaitForMultipleObjects.
struct SGroupWait
{
    std::condition_variable changed; // waits with g_groupLock
    bool waiting QS_GUARDED_BY(g_groupLock) = false;
    DWORD result QS_GUARDED_BY(g_groupLock) = WAIT_TIMEOUT;
    DWORD count = 0;
    bool all = false;
    SMember members[MAXIMUM_WAIT_OBJECTS];

    // WAIT_OBJECT_0 and so on, or WAIT_TIMEOUT while the wait is not satisfied: then nothing is reset.
    DWORD Take() QS_REQUIRES(g_groupLock)
    {
        if (!all)
        {
            for (DWORD i = 0; i < count; ++i)
                if (TakeSignal(*members[i].object))
                    return WAIT_OBJECT_0 + i;
            return WAIT_TIMEOUT;
        }
        if (std::any_of(members, members + count, [](const SMember& member) { return !member.object->signalled; }))
            return WAIT_TIMEOUT;
        for (DWORD i = 0; i < count; ++i)
            TakeSignal(*members[i].object);
        return WAIT_OBJECT_0;
    }
};

void SetInGroups(SObject& object) QS_REQUIRES(object.lock)
{
    CQsScopedLock<CQsMutex> lock(g_groupLock);
    object.signalled = true;
    for (SMember* member = object.members; member; member = member->next)
    {
        SGroupWait& wait = *member->wait;
        if (!wait.waiting)
            continue;
        wait.result = wait.Take();
        wait.waiting = wait.result == WAIT_TIMEOUT;
        if (!wait.waiting)
            wait.changed.notify_one();
    }
}

// A signal lets threads go that wait at that moment, as the real one does: two signals for two waiters are not merged
// into one because the first waiter has not run yet, and a reset right after the signal does not take it back.
void Set(SObject& object) QS_REQUIRES(object.lock)
{
    if (!object.manualReset && object.parked > object.granted)
    {
        ++object.granted;
        return;
    }
    ++object.sets;
    if (object.members)
        SetInGroups(object);
    else
        object.signalled = true;
}

bool Signal(HANDLE handle, EKind kind)
{
    SObject* object = Find(handle);
    if (!object)
        return false;
    object->lock.lock();
    const bool open = IsOpen(*object, handle, kind);
    const bool manualReset = object->manualReset;
    if (open)
        Set(*object);
    object->lock.unlock();
    // After the lock, so that the woken thread does not run into it. The slot outlives the object: at worst this wakes
    // a waiter of the slot's next object, which looks and waits on.
    if (open && manualReset)
        object->changed.notify_all();
    else if (open)
        object->changed.notify_one();
    return open;
}

// -------------------------------------------------------------------------------------------------- waits

// Even with the finest timer the system ends a timed wait some tens of microseconds late, and a thread that slept for
// long is slow to get going; that is the light's time on a specimen. So a thread that waits for one object sleeps until
// shortly before its time and looks at the clock for the rest.
constexpr std::chrono::microseconds kLookTime(200);

// By default the system may end a timed wait another 50 microseconds late.
void AskForFinestTimer()
{
    static thread_local const int asked = prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    static_cast<void>(asked);
}

class CDeadline
{
public:
    explicit CDeadline(DWORD milliseconds) : m_milliseconds(milliseconds)
    {
        if (milliseconds == 0 || milliseconds == INFINITE)
            return;
        m_end = Clock::now() + std::chrono::milliseconds(milliseconds);
        AskForFinestTimer();
    }

    bool IsNow() const { return m_milliseconds == 0; }

    // Until somebody notifies, or for no reason, or until the deadline. False when it has passed.
    bool Wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock) const
    {
        if (m_milliseconds != INFINITE)
            return changed.wait_until(lock, m_end) == std::cv_status::no_timeout;
        changed.wait(lock);
        return true;
    }

    // The same, and on time to within a microsecond or two as long as a processor is free.
    bool WaitOnTime(std::condition_variable& changed, std::unique_lock<std::mutex>& lock) const
    {
        if (m_milliseconds == INFINITE)
            return Wait(changed, lock);
        if (Clock::now() < m_end - kLookTime)
        {
            changed.wait_until(lock, m_end - kLookTime);
            return true;
        }
        lock.unlock(); // a signal must get in meanwhile
        const auto look = Clock::now() + std::chrono::microseconds(1);
        while (Clock::now() < look)
        {}
        lock.lock();
        return Clock::now() < m_end;
    }

private:
    DWORD m_milliseconds;
    Clock::time_point m_end;
};

// Waits for an object that is not signalled.
DWORD Park(SObject& object, const CDeadline& deadline) QS_REQUIRES(object.lock)
{
    const std::uint64_t sets = object.sets;
    ++object.parked;
    std::unique_lock<std::mutex> native(object.lock.Native(), std::adopt_lock);
    bool inTime = true;
    const auto released = [&]() QS_REQUIRES(object.lock)
    { return object.manualReset ? object.sets != sets : object.granted != 0; };
    while (!released() && inTime)
        inTime = deadline.WaitOnTime(object.changed, native);
    native.release();
    const bool taken = released();
    if (taken && !object.manualReset)
        --object.granted;
    --object.parked;
    FreeIfUnused(object);
    return taken ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

bool Join(SMember& member, HANDLE handle)
{
    SObject* object = Find(handle);
    if (!object)
        return false;
    CQsScopedLock<CQsMutex> lock(object->lock);
    if (!IsOpen(*object, handle))
        return false;
    // A signal without members in sight does not take the second lock; from here on every signal does.
    CQsScopedLock<CQsMutex> groupLock(g_groupLock);
    member.object = object;
    member.next = object->members;
    object->members = &member;
    return true;
}

void Leave(SMember& member)
{
    SObject& object = *member.object;
    CQsScopedLock<CQsMutex> lock(object.lock);
    {
        CQsScopedLock<CQsMutex> groupLock(g_groupLock);
        SMember** place = &object.members;
        while (*place != &member)
            place = &(*place)->next;
        *place = member.next;
    }
    FreeIfUnused(object);
}

DWORD WaitForGroup(SGroupWait& wait, const CDeadline& deadline)
{
    CQsScopedLock<CQsMutex> lock(g_groupLock);
    std::unique_lock<std::mutex> native(g_groupLock.Native(), std::adopt_lock);
    wait.result = wait.Take();
    wait.waiting = wait.result == WAIT_TIMEOUT && !deadline.IsNow();
    bool inTime = true;
    while (wait.waiting && inTime)
        inTime = deadline.Wait(wait.changed, native);
    wait.waiting = false;
    native.release();
    return wait.result;
}

bool HasDuplicates(const HANDLE* handles, DWORD count)
{
    for (DWORD i = 1; i < count; ++i)
        if (std::find(handles, handles + i, handles[i]) != handles + i)
            return true;
    return false;
}

} // namespace

HANDLE CreateEventW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState, const wchar_t* name)
{
    if (attributes || name || QsPlatform::TakeFailure(g_failures))
        return nullptr;
    return Create(EKind::Event, manualReset != FALSE, initialState != FALSE);
}

BOOL SetEvent(HANDLE event)
{
    return Signal(event, EKind::Event) ? TRUE : FALSE;
}

BOOL ResetEvent(HANDLE event)
{
    SObject* object = Find(event);
    if (!object)
        return FALSE;
    CQsScopedLock<CQsMutex> lock(object->lock);
    if (!IsOpen(*object, event, EKind::Event))
        return FALSE;
    if (!object->members)
    {
        object->signalled = false;
        return TRUE;
    }
    CQsScopedLock<CQsMutex> groupLock(g_groupLock);
    object->signalled = false;
    return TRUE;
}

BOOL CloseHandle(HANDLE handle)
{
    return CloseEvent(handle, g_closed);
}

BOOL DeleteObject(HGDIOBJ object)
{
    return CloseEvent(object, g_deleted);
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds)
{
    SObject* object = Find(handle);
    if (!object)
        return WAIT_FAILED;
    const CDeadline deadline(milliseconds);
    CQsScopedLock<CQsMutex> lock(object->lock);
    if (!IsOpen(*object, handle))
        return WAIT_FAILED;
    if (TakeSignalAlone(*object))
        return WAIT_OBJECT_0;
    return deadline.IsNow() ? WAIT_TIMEOUT : Park(*object, deadline);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds)
{
    // The real call takes one handle twice when it waits for any, and refuses it when it waits for all.
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles || (waitAll && HasDuplicates(handles, count)))
        return WAIT_FAILED;
    const CDeadline deadline(milliseconds);
    SGroupWait wait;
    wait.all = waitAll != FALSE;
    bool joined = true;
    for (DWORD i = 0; i < count && joined; ++i)
    {
        wait.members[i].wait = &wait;
        joined = Join(wait.members[i], handles[i]);
        wait.count = joined ? i + 1 : i;
    }
    const DWORD result = joined ? WaitForGroup(wait, deadline) : WAIT_FAILED;
    for (DWORD i = 0; i < wait.count; ++i)
        Leave(wait.members[i]);
    return result;
}

namespace QsPlatform {

HANDLE CreateThreadEnd()
{
    return Create(EKind::ThreadEnd, true, false);
}

void SignalThreadEnd(HANDLE end)
{
    Signal(end, EKind::ThreadEnd);
}

void CloseThreadEnd(HANDLE end)
{
    Close(end, EKind::ThreadEnd);
}

bool TakeFailure(std::atomic<unsigned>& failures)
{
    unsigned count = failures.load();
    while (count != 0 && !failures.compare_exchange_weak(count, count - 1))
    {}
    return count != 0;
}

void FailEventCreations(unsigned count)
{
    g_failures = count;
}

std::uint64_t ClosedHandles()
{
    return g_closed.load(std::memory_order_relaxed);
}

std::uint64_t DeletedObjects()
{
    return g_deleted.load(std::memory_order_relaxed);
}

} // namespace QsPlatform
