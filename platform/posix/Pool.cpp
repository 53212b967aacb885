// The system's thread pool.
//
// Items wait in one queue in their order, and each calls a thread: an idle one, the most recently idle first since its
// caches are warm, else a new one. Whoever comes first takes the first item, also a thread that has just finished
// another: an item never waits for one particular thread while a processor is free. A called thread that finds nothing
// left becomes idle again.
//
// Items that are queued one right after the other are the devices of a beampath, whose lights shall come on together.
// So their threads start together, as many as can run at the same time: see LetCallerGoOn and WaitAtLine.
//
// The state is constant-initialised and never destroyed, and the threads are detached: items may run, and threads wait,
// while the process ends.
#include "platform/ThreadSafety.h"
#include "platform/posix/Control.h"
#include "platform/posix/ThreadsPosix.h"
#include "platform/posix/Waitable.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <new>
#include <thread>
#include <utility>

#include <sched.h>
#include <semaphore.h>
#include <unistd.h>

namespace {

constexpr unsigned kMostThreads = 500;

struct SItem
{
    LPTHREAD_START_ROUTINE function;
    LPVOID context;
    SItem* next = nullptr;
};

// A thread that waits for work; on its own stack. Who takes it off the list of idle threads posts `wake` once; the
// thread does not end before it has had that post.
struct SIdle
{
    sem_t wake;
    SIdle* next = nullptr; // idle for longer

    SIdle() { sem_init(&wake, 0, 0); }
    ~SIdle() { sem_destroy(&wake); }
    SIdle(const SIdle&) = delete;
    SIdle& operator=(const SIdle&) = delete;
};

struct SPool
{
    CQsMutex lock;
    SItem* first QS_GUARDED_BY(lock) = nullptr;
    SItem* last QS_GUARDED_BY(lock) = nullptr; // of no meaning while there is no first
    SIdle* idle QS_GUARDED_BY(lock) = nullptr;
    unsigned threads QS_GUARDED_BY(lock) = 0;  // with those that are being made
    unsigned inMaking QS_GUARDED_BY(lock) = 0; // nobody relies on them: they may fail
    unsigned called QS_GUARDED_BY(lock) = 0;   // threads that have not come yet
    // Calls belong to one burst as long as somebody called has not come yet.
    std::uint64_t burst QS_GUARDED_BY(lock) = 0;
    unsigned came QS_GUARDED_BY(lock) = 0; // of this burst
};
SPool g_pool;

std::atomic<unsigned> g_failures{0};
std::atomic<unsigned> g_idleMilliseconds{30000};

// Processor on which somebody is just calling a thread, -1 for none. A hint: with several at once the last one counts.
std::atomic<int> g_callingOn{-1};
std::atomic<std::uint64_t> g_startedBurst{0};

// The system likes to run a woken thread at once, in place of the one that woke it, which then cannot queue its next
// item until the first one has run. A thread that finds itself in that place gives it back.
void LetCallerGoOn()
{
    if (g_callingOn.load(std::memory_order_relaxed) == sched_getcpu())
        sched_yield();
}

class CCalling
{
public:
    CCalling() { g_callingOn.store(sched_getcpu(), std::memory_order_relaxed); }
    ~CCalling() { g_callingOn.store(-1, std::memory_order_relaxed); }
    CCalling(const CCalling&) = delete;
    CCalling& operator=(const CCalling&) = delete;
};

void Call() QS_REQUIRES(g_pool.lock)
{
    if (g_pool.called++ != 0)
        return;
    ++g_pool.burst;
    g_pool.came = 0;
}

// The burst starts when all have come, or as many as can run at the same time.
void StartIfComplete() QS_REQUIRES(g_pool.lock)
{
    static const unsigned processors = std::thread::hardware_concurrency();
    if (g_pool.called == 0 || g_pool.came >= processors)
        g_startedBurst.store(g_pool.burst, std::memory_order_release);
}

// The burst that the calling thread was called for.
std::uint64_t Come() QS_REQUIRES(g_pool.lock)
{
    --g_pool.called;
    ++g_pool.came;
    StartIfComplete();
    return g_pool.burst;
}

// A processor that sleeps takes some 20 microseconds to run a thread, one that is awake takes one or two. Who is early
// looks out for the others, on its processor, for a time that no device notices.
void WaitAtLine(std::uint64_t burst)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::microseconds longest(50);
    if (g_startedBurst.load(std::memory_order_acquire) >= burst)
        return;
    const Clock::time_point end = Clock::now() + longest;
    while (g_startedBurst.load(std::memory_order_acquire) < burst && Clock::now() < end)
    {}
}

// Returns the idle thread, if any, that has been called for it and has to be woken.
SIdle* Append(SItem& item) QS_REQUIRES(g_pool.lock)
{
    (g_pool.first ? g_pool.last->next : g_pool.first) = &item;
    g_pool.last = &item;
    SIdle* const idle = g_pool.idle;
    if (idle)
    {
        g_pool.idle = idle->next;
        Call();
    }
    return idle;
}

// False when somebody has taken it off the list.
bool TakeOut(const SIdle& idle) QS_REQUIRES(g_pool.lock)
{
    for (SIdle** place = &g_pool.idle; *place; place = &(*place)->next)
    {
        if (*place != &idle)
            continue;
        *place = idle.next;
        return true;
    }
    return false;
}

// False when the time was over before a post came.
bool WaitForPost(sem_t& semaphore, unsigned milliseconds)
{
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(milliseconds / 1000);
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (end.tv_nsec >= 1000000000)
    {
        ++end.tv_sec;
        end.tv_nsec -= 1000000000;
    }
    int result = 0;
    do
        result = sem_clockwait(&semaphore, CLOCK_MONOTONIC, &end);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

// Returns when the thread, which was idle, is on its way to an item. False: it shall end, and is counted out.
bool WaitForWork(SIdle& self)
{
    if (WaitForPost(self.wake, g_idleMilliseconds.load(std::memory_order_relaxed)))
        return true;
    {
        CQsScopedLock<CQsMutex> lock(g_pool.lock);
        if (TakeOut(self))
        {
            --g_pool.threads;
            return false;
        }
    }
    while (sem_wait(&self.wake) != 0) // the post is on its way
    {}
    return true;
}

void Run(const SItem* item)
{
    const LPTHREAD_START_ROUTINE function = item->function;
    const LPVOID context = item->context;
    delete item; // first: the process may end while the function runs
    function(context);
}

// An item for the calling thread. When there is none the thread is on the list of idle ones.
const SItem* TakeItem(SIdle& self) QS_REQUIRES(g_pool.lock)
{
    const SItem* const item = g_pool.first;
    if (item)
        g_pool.first = item->next;
    else
        self.next = std::exchange(g_pool.idle, &self);
    return item;
}

// What a thread does that was called: runs items, first the one that it brings, if any, until none is left.
void RunItems(SIdle& self, const SItem* item)
{
    LetCallerGoOn();
    std::uint64_t burst = 0;
    {
        CQsScopedLock<CQsMutex> lock(g_pool.lock);
        burst = Come();
        if (!item)
            item = TakeItem(self);
    }
    if (item)
        WaitAtLine(burst);
    while (item)
    {
        Run(item);
        CQsScopedLock<CQsMutex> lock(g_pool.lock);
        item = TakeItem(self);
    }
}

void* ThreadProc(void* context)
{
    SIdle self;
    RunItems(self, static_cast<const SItem*>(context));
    while (WaitForWork(self))
        RunItems(self, nullptr);
    return nullptr;
}

// False when no thread can be made and there is none that would take the item.
bool Queue(SItem& item)
{
    bool bNew = false;
    SIdle* idle = nullptr;
    {
        CQsScopedLock<CQsMutex> lock(g_pool.lock);
        bNew = !g_pool.idle && g_pool.threads < kMostThreads;
        if (bNew)
        {
            ++g_pool.threads;
            ++g_pool.inMaking;
            Call();
        }
        else
            idle = Append(item);
    }
    const CCalling calling;
    if (bNew)
    {
        QsThread thread;
        const bool bMade = pthread_create(&thread, nullptr, &ThreadProc, &item) == 0;
        CQsScopedLock<CQsMutex> lock(g_pool.lock);
        --g_pool.inMaking;
        if (bMade)
            return true;
        --g_pool.called;
        StartIfComplete();
        if (--g_pool.threads == g_pool.inMaking)
            return false;
        idle = Append(item);
    }
    if (idle)
        sem_post(&idle->wake);
    return true;
}

} // namespace

DWORD GetCurrentThreadId()
{
    static thread_local const auto id = static_cast<DWORD>(gettid());
    return id;
}

BOOL QueueUserWorkItem(LPTHREAD_START_ROUTINE function, LPVOID context, ULONG)
{
    if (!function || QsPlatform::TakeFailure(g_failures))
        return FALSE;
    auto* const item = new (std::nothrow) SItem{function, context};
    if (!item)
        return FALSE;
    if (Queue(*item))
        return TRUE;
    delete item;
    return FALSE;
}

namespace QsPlatform {

void FailPoolItems(unsigned count)
{
    g_failures = count;
}

void SetPoolIdleTime(unsigned milliseconds)
{
    g_idleMilliseconds = milliseconds;
}

unsigned PoolThreads()
{
    CQsScopedLock<CQsMutex> lock(g_pool.lock);
    return g_pool.threads - g_pool.inMaking;
}

} // namespace QsPlatform
