#include "manager/RegistryLock.h"

#include <algorithm>
#include <atomic>

namespace {

thread_local CQsRegistryLock::Run t_run = 0;
thread_local unsigned t_announcements = 0;
thread_local unsigned t_holdings = 0;

} // namespace

CQsRegistryLock::CWorkerScope::CWorkerScope(Run run)
{
    t_run = run;
}

CQsRegistryLock::CWorkerScope::~CWorkerScope()
{
    t_run = 0;
}

CQsRegistryLock::Run CQsRegistryLock::WorkerRun()
{
    return t_run;
}

CQsRegistryLock::Run CQsRegistryLock::RunOfCaller()
{
    static std::atomic<Run> next{Run{1} << 63}; // stimulations count from 1
    return t_run != 0 ? t_run : ++next;
}

CQsRegistryLock::CStateAnnouncement::CStateAnnouncement(CQsRegistryLock& lock) : m_lock(lock)
{
    m_lock.Acquire(true);
    ++t_announcements;
}

CQsRegistryLock::CStateAnnouncement::~CStateAnnouncement()
{
    --t_announcements;
    m_lock.unlock();
}

CQsRegistryLock::CHoldingScope::CHoldingScope()
{
    ++t_holdings;
}

CQsRegistryLock::CHoldingScope::~CHoldingScope()
{
    --t_holdings;
}

bool CQsRegistryLock::IsHoldingThread()
{
    return t_holdings != 0;
}

bool CQsRegistryLock::IsAnnouncingThread()
{
    return t_announcements != 0;
}

void CQsRegistryLock::lock()
{
    Acquire(false);
}

bool CQsRegistryLock::IsLent(const SHolder& holder, bool bAnnouncement) const
{
    if (!holder.IsParked())
        return false;
    // All waits of the innermost hold: who aborts devices while it waits for a stimulation waits for both.
    const auto isForThisThread = [&holder](const SParking& parking)
    { return parking.depth == holder.depth && t_run != 0 && parking.awaited == t_run; };
    return bAnnouncement || t_holdings != 0 ||
           std::any_of(holder.parkings.begin(), holder.parkings.end(), isForThisThread);
}

void CQsRegistryLock::Acquire(bool bAnnouncement)
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
        if (IsLent(last, bAnnouncement) && std::none_of(m_holders.begin(), m_holders.end(), isSelf))
            break;
        m_changed.wait(guard);
    }
    m_holders.emplace_back();
    m_holders.back().thread = self;
    m_holders.back().depth = 1;
}

void CQsRegistryLock::unlock()
{
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        SHolder& last = m_holders.back();
        --last.depth;
        if (last.depth < last.changeDepth)
            last.changeDepth = 0;
        if (last.depth == 0)
            m_holders.pop_back();
        else if (!last.IsParked())
            return; // still held, and by nobody who waits
    }
    m_changed.notify_all();
}

bool CQsRegistryLock::Park(Run awaited)
{
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_holders.empty() || m_holders.back().thread != std::this_thread::get_id())
            return false;
        SHolder& last = m_holders.back();
        last.parkings.push_back({last.depth, awaited});
    }
    m_changed.notify_all();
    return true;
}

void CQsRegistryLock::Unpark()
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> guard(m_mutex);
    m_changed.wait(guard, [&] { return m_holders.back().thread == self; });
    m_holders.back().parkings.pop_back();
}

void CQsRegistryLock::BeginChange()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_holders.empty() || m_holders.back().thread != std::this_thread::get_id())
        return;
    SHolder& last = m_holders.back();
    if (last.changeDepth == 0)
        last.changeDepth = last.depth;
}

bool CQsRegistryLock::IsChanging()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return !m_holders.empty() && m_holders.back().thread == std::this_thread::get_id() &&
           m_holders.back().changeDepth != 0;
}
