// Application run-time events: who wants to hear of which, and their broadcast.
//
// Consumers are called without the lock, so that they may register, unregister and broadcast themselves. Unregistering
// returns when no other thread is inside the consumer any more: its owner destroys it next. So the owner must not hold
// a lock that its event handler takes.
#include "host/QsDMApi.h"
#include "host/QsPluginManager.h"
#include "platform/ThreadSafety.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <set>
#include <thread>

namespace {

struct SConsumer
{
    IQsDMApiPluginNotification* consumer = nullptr;
    std::set<std::wstring> events;
};

struct SCall
{
    IQsDMApiPluginNotification* consumer = nullptr;
    std::thread::id thread;
};

class CEvents
{
public:
    void AddConsumer(IQsDMApiPluginNotification* consumer)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        if (consumer != nullptr && Find(consumer) == nullptr)
            m_consumers.push_back({consumer, {}});
    }

    void RemoveConsumer(IQsDMApiPluginNotification* consumer)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        m_consumers.erase(std::remove_if(m_consumers.begin(), m_consumers.end(),
                                         [consumer](const SConsumer& other) { return other.consumer == consumer; }),
                          m_consumers.end());
        while (IsCalledElsewhere(consumer))
            Wait();
    }

    // An event of a consumer that is not registered is forgotten: nothing would end it.
    void AddEvent(IQsDMApiPluginNotification* consumer, const wchar_t* name)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        SConsumer* const found = Find(consumer);
        if (found != nullptr && name != nullptr)
            found->events.insert(name);
    }

    void RemoveEvent(IQsDMApiPluginNotification* consumer, const wchar_t* name)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        SConsumer* const found = Find(consumer);
        if (found != nullptr && name != nullptr)
            found->events.erase(name);
    }

    unsigned Broadcast(const wchar_t* name, void* context)
    {
        unsigned told = 0;
        for (IQsDMApiPluginNotification* const consumer : Listeners(name))
        {
            if (!BeginCall(consumer, name))
                continue; // unregistered by one that was told before
            try
            {
                consumer->AppRntm_HandleEvent(name, context);
            }
            catch (const std::exception& e)
            {
                DiagOutputExW(L"PluginManager", __LINE__, L"event %s: a consumer failed with an exception: %hs", name,
                              e.what());
            }
            catch (...)
            {
                DiagOutputExW(L"PluginManager", __LINE__, L"event %s: a consumer failed with an exception", name);
            }
            EndCall(consumer);
            ++told;
        }
        return told;
    }

private:
    SConsumer* Find(IQsDMApiPluginNotification* consumer) QS_REQUIRES(m_lock)
    {
        for (SConsumer& known : m_consumers)
            if (known.consumer == consumer)
                return &known;
        return nullptr;
    }

    std::vector<IQsDMApiPluginNotification*> Listeners(const std::wstring& name)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        std::vector<IQsDMApiPluginNotification*> listeners;
        for (const SConsumer& known : m_consumers)
            if (known.events.count(name) != 0)
                listeners.push_back(known.consumer);
        return listeners;
    }

    bool BeginCall(IQsDMApiPluginNotification* consumer, const std::wstring& name)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        const SConsumer* const known = Find(consumer);
        if (known == nullptr || known->events.count(name) == 0)
            return false;
        m_calls.push_back({consumer, std::this_thread::get_id()});
        return true;
    }

    void EndCall(IQsDMApiPluginNotification* consumer)
    {
        const CQsScopedLock<CQsMutex> guard(m_lock);
        const auto own = std::find_if(m_calls.begin(), m_calls.end(),
                                      [consumer](const SCall& call) {
                                          return call.consumer == consumer && call.thread == std::this_thread::get_id();
                                      });
        m_calls.erase(own);
        m_callEnded.notify_all();
    }

    bool IsCalledElsewhere(IQsDMApiPluginNotification* consumer) const QS_REQUIRES(m_lock)
    {
        return std::any_of(m_calls.begin(), m_calls.end(),
                           [consumer](const SCall& call)
                           { return call.consumer == consumer && call.thread != std::this_thread::get_id(); });
    }

    void Wait() QS_REQUIRES(m_lock)
    {
        std::unique_lock<std::mutex> native(m_lock.Native(), std::adopt_lock);
        m_callEnded.wait(native);
        native.release();
    }

    CQsMutex m_lock;
    std::vector<SConsumer> m_consumers QS_GUARDED_BY(m_lock);
    std::vector<SCall> m_calls QS_GUARDED_BY(m_lock);
    std::condition_variable m_callEnded;
};

// Never destroyed: consumers unregister when the process ends.
CEvents& Events()
{
    static CEvents& events = *new CEvents;
    return events;
}

} // namespace

void DMApi::AppRntm_RegisterConsumer(IQsDMApiPluginNotification* consumer)
{
    Events().AddConsumer(consumer);
}

void DMApi::AppRntm_UnregisterConsumer(IQsDMApiPluginNotification* consumer)
{
    Events().RemoveConsumer(consumer);
}

void DMApi::AppRntm_RegisterEvent(IQsDMApiPluginNotification* consumer, const wchar_t* eventName)
{
    Events().AddEvent(consumer, eventName);
}

void DMApi::AppRntm_UnregisterEvent(IQsDMApiPluginNotification* consumer, const wchar_t* eventName)
{
    Events().RemoveEvent(consumer, eventName);
}

unsigned CQsPluginManager::AppRntm_HandleEvent(const wchar_t* eventName, int /*argument1*/, int /*argument2*/,
                                               void* context)
{
    return eventName != nullptr ? Events().Broadcast(eventName, context) : 0;
}
