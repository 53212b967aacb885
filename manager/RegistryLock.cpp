#include "manager/RegistryLock.h"

#include <algorithm>

namespace {

thread_local unsigned t_workerScopes = 0;

} // namespace

CQsRegistryLock::CWorkerScope::CWorkerScope()
{
    ++t_workerScopes;
}

CQsRegistryLock::CWorkerScope::~CWorkerScope()
{
    --t_workerScopes;
}

bool CQsRegistryLock::IsWorkerThread()
{
    return t_workerScopes != 0;
}

void CQsRegistryLock::lock()
{
    Acquire(IsWorkerThread());
}

void CQsRegistryLock::LockForStateAnnouncement()
{
    Acquire(true);
}

void CQsRegistryLock::Acquire(bool bMayBorrow)
{
    const std::thread::id self = std::this_thread::get_id();
    const auto isSelf = [self](const SHolder& holder) { return holder.thread == self; };

    std::unique_lock<std::mutex> guard(m_mutex);
    while (!m_holders.empty())
    {
        SHolder& last = m_holders.back();
        if (last.thread == self)
        {
            ++last.depth;
            return;
        }
        // A thread that is parked further down gets in again when the borrowers after it are done.
        const bool bHoldsAlready = std::any_of(m_holders.begin(), m_holders.end(), isSelf);
        if (bMayBorrow && !bHoldsAlready && last.parkedDepth == last.depth)
            break;
        m_changed.wait(guard);
    }
    m_holders.push_back({self, 1, 0});
}

void CQsRegistryLock::unlock()
{
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        SHolder& last = m_holders.back();
        if (--last.depth == 0)
            m_holders.pop_back();
        else if (last.depth != last.parkedDepth)
            return; // still held, and by nobody who waits
    }
    m_changed.notify_all();
}

int CQsRegistryLock::Park()
{
    int previous = notHeld;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_holders.empty() || m_holders.back().thread != std::this_thread::get_id())
            return notHeld;
        SHolder& last = m_holders.back();
        previous = static_cast<int>(last.parkedDepth);
        last.parkedDepth = last.depth;
    }
    m_changed.notify_all();
    return previous;
}

void CQsRegistryLock::Unpark(int previous)
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> guard(m_mutex);
    m_changed.wait(guard, [&] { return m_holders.back().thread == self; });
    m_holders.back().parkedDepth = static_cast<unsigned>(previous);
}
