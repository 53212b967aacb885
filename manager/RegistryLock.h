// Lock R: the manager's recursive registry lock, which its owner lends while it waits for a running stimulation.
//
// Operations that change the registry hold R while they wait for the stimulation's worker, and the worker needs R
// itself: to choose its device, and for whatever the device or the finish function asks of the manager. So an owner
// that waits parks its hold, and while it is parked
//   - the worker that it waits for may take R, and
//   - any thread may take R to announce a device's state, since a device may be unable to end before its own thread has
//     delivered that announcement.
// Every other thread waits as if R were held; so does the worker of a stimulation that starts meanwhile, which
// therefore chooses its device after the owner's change and not in the middle of it. A borrower that waits parks in its
// turn. The owner goes on only when it is the last holder again, so between its wait and its next step nobody else is
// inside.
//
// From the end of its wait until it lets R go the owner changes the registry. What it calls meanwhile may call waiting
// operations on the same thread; they need not wait, since no stimulation can reach a device before R is free.
#pragma once

#include "platform/ThreadSafety.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class QS_CAPABILITY("mutex") CQsRegistryLock
{
public:
    // Both recursive. [any thread, blocks]
    void lock() QS_ACQUIRE();
    void unlock() QS_RELEASE();
    // Holds the lock for a device's announcement to the end of the scope, borrowed from a parked owner where there is
    // one.
    class QS_SCOPED_CAPABILITY CStateAnnouncement
    {
    public:
        explicit CStateAnnouncement(CQsRegistryLock& lock) QS_ACQUIRE(lock);
        ~CStateAnnouncement() QS_RELEASE();
        CStateAnnouncement(const CStateAnnouncement&) = delete;
        CStateAnnouncement& operator=(const CStateAnnouncement&) = delete;

    private:
        CQsRegistryLock& m_lock;
    };

    // Number of a stimulation; 0 is none.
    using Run = std::uint64_t;

    struct SParking
    {
        unsigned depth = 0; // at which the holder waits; 0 while it runs
        Run awaited = 0;
    };

    // Parks the calling thread's hold for the lifetime of the object, while it waits for the stimulation `awaited`;
    // nothing when the thread is not the last holder.
    class CParked
    {
    public:
        CParked(CQsRegistryLock& lock, Run awaited) : m_lock(lock), m_previous(lock.Park(awaited)) {}
        ~CParked()
        {
            if (m_previous)
                m_lock.Unpark(*m_previous);
        }
        CParked(const CParked&) = delete;
        CParked& operator=(const CParked&) = delete;

    private:
        CQsRegistryLock& m_lock;
        const std::optional<SParking> m_previous;
    };

    // Says that the calling thread changes the registry from now on, until it leaves the hold that it has now. Nothing
    // when it holds nothing.
    void BeginChange();
    bool IsChanging();

    // Marks the calling thread as the worker of that stimulation for the lifetime of the object.
    class CWorkerScope
    {
    public:
        explicit CWorkerScope(Run run);
        ~CWorkerScope();
        CWorkerScope(const CWorkerScope&) = delete;
        CWorkerScope& operator=(const CWorkerScope&) = delete;
    };
    static Run WorkerRun();           // of the calling thread; 0 when it is no worker
    static bool IsAnnouncingThread(); // inside a CStateAnnouncement

private:
    struct SHolder
    {
        std::thread::id thread;
        unsigned depth = 0;
        SParking parking;
        unsigned changeDepth = 0; // depth at which it began to change the registry; 0 when it does not
    };

    void Acquire(bool bAnnouncement);
    // Its former parking (parking nests when a device that a parked thread aborts makes that thread wait again), or
    // nothing when the thread is not the last holder.
    std::optional<SParking> Park(Run awaited);
    void Unpark(const SParking& previous);
    bool IsLent(const SHolder& holder, bool bAnnouncement) const;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Owner first, then borrowers, each of whom took the lock from the parked one before it.
    std::vector<SHolder> m_holders;
};
