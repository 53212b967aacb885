#include "manager/ListenerSet.h"

#include "manager/DeviceCall.h"

#include <algorithm>
#include <chrono>

void CQsListenerSet::Insert(Listener listener)
{
    const CQsScopedLock<CQsMutex> lock(m_lock);
    if (listener != nullptr)
        m_listeners.insert(listener);
}

void CQsListenerSet::Erase(Listener listener)
{
    const CQsScopedLock<CQsMutex> lock(m_lock);
    m_listeners.erase(listener);
}

bool CQsListenerSet::IsCalledElsewhere(Listener listener) const
{
    return std::any_of(m_calls.begin(), m_calls.end(),
                       [listener](const SCall& call)
                       { return call.listener == listener && call.thread != std::this_thread::get_id(); });
}

bool CQsListenerSet::IsOtherThreadInside(Listener listener)
{
    const CQsScopedLock<CQsMutex> lock(m_lock);
    return IsCalledElsewhere(listener);
}

void CQsListenerSet::WaitForLeaving(Listener listener)
{
    const CQsScopedLock<CQsMutex> lock(m_lock);
    std::unique_lock<std::mutex> native(m_lock.Native(), std::adopt_lock);
    if (IsCalledElsewhere(listener))
        m_callEnded.wait_for(native, std::chrono::milliseconds(10));
    native.release();
}

std::optional<int> CQsListenerSet::Ask(Listener listener)
{
    {
        const CQsScopedLock<CQsMutex> lock(m_lock);
        if (m_listeners.count(listener) == 0)
            return std::nullopt;
        m_calls.push_back({listener, std::this_thread::get_id()});
    }
    const int answer = QsCallOr(QS_ERR_FAIL, L"AvailableStimulationDevicesChanged", __LINE__,
                                [listener] { return listener->AvailableStimulationDevicesChanged(); });
    const CQsScopedLock<CQsMutex> lock(m_lock);
    m_calls.erase(std::find_if(m_calls.begin(), m_calls.end(),
                               [listener](const SCall& call)
                               { return call.listener == listener && call.thread == std::this_thread::get_id(); }));
    m_callEnded.notify_all();
    return answer;
}

int CQsListenerSet::Notify()
{
    std::vector<Listener> listeners;
    {
        const CQsScopedLock<CQsMutex> lock(m_lock);
        listeners.assign(m_listeners.begin(), m_listeners.end());
    }
    int result = 0;
    for (const Listener listener : listeners)
    {
        // Asked twice on purpose: the comparison and the kept value are two calls, and listeners rely on both. The
        // second answer is the result also when it is better.
        if (Ask(listener).value_or(0) < result)
            result = Ask(listener).value_or(result);
    }
    return result;
}
