// Lock R: the manager's recursive registry lock, which its owner lends while it waits for a running stimulation.
//
// Operations that change the registry hold R while they wait for the stimulation's worker, and the worker needs R
// itself: to choose its device, and for whatever the device or the finish function asks of the manager. So an owner
// that waits parks its hold, and while it is parked
//   - the worker thread may take R, and
//   - any thread may take R to announce a device's state, since a device may be unable to end before its own thread has
//     delivered that announcement.
// Every other thread waits as if R were held. A borrower that waits parks in its turn. The owner goes on only when it
// is the last holder again, so between its wait and its next step nobody else is inside.
//
// What a borrower can change is little: all operations that change the device map, the active entry or the device lists
// wait for the stimulation first, and a worker that waits for itself is refused at once.
#pragma once

#include "platform/ThreadSafety.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

class QS_CAPABILITY("mutex") CQsRegistryLock
{
public:
    // Both recursive. [any thread, blocks]
    void lock() QS_ACQUIRE();
    void unlock() QS_RELEASE();
    // As lock(), and borrows from a parked owner on any thread.
    void LockForStateAnnouncement() QS_ACQUIRE();

    // Holds the lock for a device's announcement to the end of the scope.
    class QS_SCOPED_CAPABILITY CStateAnnouncement
    {
    public:
        explicit CStateAnnouncement(CQsRegistryLock& lock) QS_ACQUIRE(lock) : m_lock(lock)
        {
            m_lock.LockForStateAnnouncement();
        }
        ~CStateAnnouncement() QS_RELEASE() { m_lock.unlock(); }
        CStateAnnouncement(const CStateAnnouncement&) = delete;
        CStateAnnouncement& operator=(const CStateAnnouncement&) = delete;

    private:
        CQsRegistryLock& m_lock;
    };

    // Parks the calling thread's hold for the lifetime of the object; nothing when the thread holds none.
    class CParked
    {
    public:
        explicit CParked(CQsRegistryLock& lock) : m_lock(lock), m_previous(lock.Park()) {}
        ~CParked()
        {
            if (m_previous != notHeld)
                m_lock.Unpark(m_previous);
        }
        CParked(const CParked&) = delete;
        CParked& operator=(const CParked&) = delete;

    private:
        CQsRegistryLock& m_lock;
        const int m_previous;
    };

    // Marks the calling thread as the stimulation worker for the lifetime of the object.
    class CWorkerScope
    {
    public:
        CWorkerScope();
        ~CWorkerScope();
        CWorkerScope(const CWorkerScope&) = delete;
        CWorkerScope& operator=(const CWorkerScope&) = delete;
    };
    static bool IsWorkerThread();

private:
    struct SHolder
    {
        std::thread::id thread;
        unsigned depth = 0;
        unsigned parkedDepth = 0; // depth at which it waits; 0 while it runs
    };

    // Depth at which the thread was parked before (parking nests when a device that is aborted by a parked thread makes
    // that thread wait again), or notHeld.
    static constexpr int notHeld = -1;
    int Park();
    void Unpark(int previous);
    void Acquire(bool bMayBorrow);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Owner first, then borrowers, each of whom took the lock from the parked one before it.
    std::vector<SHolder> m_holders;
};
