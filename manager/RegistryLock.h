// Lock R: the manager's recursive registry lock, which its owner lends while it waits for a running stimulation.
//
// Operations that change the registry hold R while they wait for the stimulation's worker, and the worker needs R
// itself: to choose its device, and for whatever the device or the finish function asks of the manager. So an owner
// that waits parks its hold, and while it is parked
//   - who it waits for may take R: the worker and the threads that work for it;
//   - so may a thread that holds what the worker may be waiting for: the target of a sub-beampath, or the lock of the
//     OC-command callbacks; and
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

    // Parks the calling thread's hold for the lifetime of the object, while it waits; nothing when the thread is not
    // the last holder.
    class CParked
    {
    public:
        CParked(CQsRegistryLock& lock, Run awaited) : m_lock(lock), m_bParked(lock.Park(awaited)) {}
        ~CParked()
        {
            if (m_bParked)
                m_lock.Unpark();
        }
        CParked(const CParked&) = delete;
        CParked& operator=(const CParked&) = delete;

    private:
        CQsRegistryLock& m_lock;
        const bool m_bParked;
    };

    // Says that the calling thread changes the registry from now on, until it leaves the hold that it has now. Nothing
    // when it holds nothing.
    void BeginChange();
    bool IsChanging();

    // Marks the calling thread as working for that stimulation for the lifetime of the object.
    class CWorkerScope
    {
    public:
        explicit CWorkerScope(Run run);
        ~CWorkerScope();
        CWorkerScope(const CWorkerScope&) = delete;
        CWorkerScope& operator=(const CWorkerScope&) = delete;
    };
    static Run WorkerRun(); // of the calling thread; 0 when it works for none
    // What further threads work for that the calling one has something done by: its own stimulation, or, where it works
    // for none, a new number that is no stimulation's.
    static Run RunOfCaller();
    // Marks the calling thread, for the lifetime of the object, as holding something that the worker of a stimulation
    // may have to wait for: it may take R from whoever waits, so that it comes to let that go.
    class CHoldingScope
    {
    public:
        CHoldingScope();
        ~CHoldingScope();
        CHoldingScope(const CHoldingScope&) = delete;
        CHoldingScope& operator=(const CHoldingScope&) = delete;
    };
    static bool IsHoldingThread();    // inside a CHoldingScope
    static bool IsAnnouncingThread(); // inside a CStateAnnouncement

private:
    struct SParking
    {
        unsigned depth = 0; // at which the holder waits
        Run awaited = 0;
    };

    struct SHolder
    {
        bool IsParked() const { return !parkings.empty() && parkings.back().depth == depth; }

        std::thread::id thread;
        unsigned depth = 0;
        // Innermost last. They nest: a thread that waits aborts devices meanwhile, and waits for those too.
        std::vector<SParking> parkings;
        unsigned changeDepth = 0; // depth at which it began to change the registry; 0 when it does not
    };

    void Acquire(bool bAnnouncement);
    bool Park(Run awaited); // false when the thread is not the last holder
    void Unpark();
    bool IsLent(const SHolder& holder, bool bAnnouncement) const;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Owner first, then borrowers, each of whom took the lock from the parked one before it.
    std::vector<SHolder> m_holders;
};
