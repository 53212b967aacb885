// The listeners of the manager's events.
//
// Listeners are objects that come and go, beampath devices among them: who takes one out to destroy it waits until no
// other thread is inside it. Listeners may add and remove listeners, themselves too, while they are told; who was taken
// out is not told any more.
#pragma once

#include "device/StimulationDevice.h"
#include "platform/ThreadSafety.h"

#include <condition_variable>
#include <optional>
#include <set>
#include <thread>
#include <vector>

class CQsListenerSet
{
public:
    using Listener = IQsStimulationDeviceManagerEventListener*;

    void Insert(Listener listener);              // null, and one that is there already, change nothing [any thread]
    void Erase(Listener listener);               // [any thread]
    bool IsOtherThreadInside(Listener listener); // [any thread]
    // Until a thread has left a listener, or for some milliseconds. [any thread, waits]
    void WaitForLeaving(Listener listener);

    // Asks every listener, in ascending pointer order. One whose answer is worse than the result so far is asked again
    // and the second answer is the result, even when it is better; 0 when nobody complained. [any thread]
    int Notify();

private:
    struct SCall
    {
        Listener listener = nullptr;
        std::thread::id thread;
    };

    bool IsCalledElsewhere(Listener listener) const QS_REQUIRES(m_lock);
    std::optional<int> Ask(Listener listener); // nothing when it is not there any more

    CQsMutex m_lock; // a leaf; not held while a listener is told
    std::condition_variable m_callEnded;
    std::set<Listener> m_listeners QS_GUARDED_BY(m_lock);
    std::vector<SCall> m_calls QS_GUARDED_BY(m_lock);
};
