#include "manager/RegistryLock.h"

#include <algorithm>

namespace {

thread_local CQsRegistryLock::Run t_run = 0;
thread_local unsigned t_announcements = 0;

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
    return holder.parking.depth == holder.depth && (bAnnouncement || (t_run != 0 && holder.parking.awaited == t_run));
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
        else if (last.depth != last.parking.depth)
            return; // still held, and by nobody who waits
    }
    m_changed.notify_all();
}

std::optional<CQsRegistryLock::SParking> CQsRegistryLock::Park(Run awaited)
{
    SParking previous;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_holders.empty() || m_holders.back().thread != std::this_thread::get_id())
            return std::nullopt;
        SHolder& last = m_holders.back();
        previous = last.parking;
        last.parking = {last.depth, awaited};
    }
    m_changed.notify_all();
    return previous;
}

void CQsRegistryLock::Unpark(const SParking& previous)
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> guard(m_mutex);
    m_changed.wait(guard, [&] { return m_holders.back().thread == self; });
    m_holders.back().parking = previous;
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
